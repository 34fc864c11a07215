#ifndef VIDORA_RTSPCLIENT_CLIENTTYPES_H
#define VIDORA_RTSPCLIENT_CLIENTTYPES_H

#include <cstdint>
#include <new>
#include <string>

#include "Protocol/RtspParser.h"
#include "Vidora/Names.h"
#include "Vidora/RtspClientSession.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// The progress of a client conversation.
enum client_state_t {
    CLIENT_INIT = 0,
    CLIENT_READY = 1,    // the tracks are set up
    CLIENT_PLAYING = 2,  // PLAY was answered
    CLIENT_PAUSED = 3,
    CLIENT_STOPPING = 4  // its end has been told, or is asked for
};

// How a conversation begins.
enum client_start_t {
    CLIENT_START_OPTIONS = 0,
    CLIENT_START_DESCRIBE = 1,
    CLIENT_START_SETUP = 2  // without a description, as one track
};

// What a client engine reports to its owner besides rtsp_client_message_t. Of these, MSG_SRC_FAIL, MSG_SOCK_EXCEPTION
// and MSG_SRC_END come once in all, with a rtsp_client_code_t, and end the conversation; MSG_SOURCE_CLOSED comes when
// the engine itself has ended, after Close.
inline bool EndsClient(unsigned int msg) {
    return msg == MSG_SRC_FAIL || msg == MSG_SOCK_EXCEPTION || msg == MSG_SRC_END;
}

// What an application asks of a client, kept by its facade so that a redirect's engine gets it too.
struct client_settings {
    std::string user;
    std::string password;
    bool has_auth = false;
    int options = 0;  // set of rtsp_client_option_t
    rtp_protocol_t transport = RTP_OVER_RTSP;
    packet_type_t packet_type = PACKET_TYPE_NONE;  // NONE: what the server's description offers
    rtsp_method_t keepalive = RTSP_METHOD_OPTIONS;
    unsigned int idle_ms = 0;
    bool conformance = false;
    CRtspParser::ext_keys_t ext_keys[RTSP_METHOD_COUNT];

    // A null password is empty. 0, or -1 for a null user.
    int SetUser(const char* name, const char* secret);
};

// The periods and limits of all clients, here in one place so that tests can shorten them.
struct client_timing {
    int64_t tick_us = 1000000;
    int64_t connect_us = 5000000;
    unsigned int resolve_ticks = 10;  // for a host name
    unsigned int reply_ms = 31000;    // for a request
    int keepalive_ticks = 30;
    int report_ticks = 5;
    unsigned int peer_seconds = 60;      // without an acknowledgement of the server's system
    int64_t redirect_us = 1000000;       // between redirects in a row, from the ninth on
    unsigned int nat_connect_ticks = 5;  // for a hello through a NAT
    unsigned int nat_hello_ticks = 5;    // between two hellos that keep the way open
};
client_timing& ClientTiming();

const unsigned int CLIENT_MAX_PENDING = 64;            // requests of the application that wait for their reply
const unsigned int CLIENT_MAX_REQUESTS = 128;          // with those of the conversation
const unsigned int CLIENT_MAX_PLAYS = 4;               // of these PLAY and PAUSE
const unsigned int CLIENT_MAX_WISHES = 16;             // calls that lead to such ones, and wait for those
const unsigned int CLIENT_MAX_WORK = 256;              // calls of the application that wait for the strand
const unsigned int CLIENT_MAX_BACK_BYTES = 64 * 1024;  // of back channel data that wait for the strand

// The host and port of an RTSP URL, as written.
struct client_host {
    std::string name;
    unsigned short port = 0;

    bool Reads(const std::string& url);
    // Its address; invalid if it has a name.
    CSockAddrStorage Address() const;
    bool operator==(const client_host& other) const;
};

// Checks a URL, and takes its host and the user and password that it names. False, with a log line, if it is none.
bool ReadClientUrl(const std::string& url, client_settings& settings, client_host& host);

// An operation of a facade: allocation that fails is its failure.
template <typename Operation>
int GuardedCall(Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTTYPES_H
