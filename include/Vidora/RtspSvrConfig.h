#ifndef VIDORA_RTSPSVRCONFIG_H
#define VIDORA_RTSPSVRCONFIG_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CStreamSource;
class IAuthModule;

// Local ports for UDP media: pairs are searched from the lower bound up to the upper one.
struct RtpPortRange {
    int min_local_port = 0;
    int max_local_port = 0;
};

// The byte of RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL. 1: a URL that holds "proto=" and "Onvif" needs authentication as well,
// by the users of IAuthModule::ProcessChallenge's other table. 0, the default: such a URL is free, and one request with
// it frees its whole connection: whatever URL the client asks for from then on, nothing is checked. A client chooses
// its URLs, so a host that wants authentication at all sets this item, unless it serves such URLs alone.
struct OnvifUserGlobalConfig {
    uint8_t enable;
};

// Items of SetConfig and GetConfig, with the form of `value` and the `len` that each wants.
enum rtsp_svr_config_t : int {
    RTSP_SVR_CONFIG_AUTH_TYPE = 1,           // rtsp_auth_t: plain RTSP
    RTSP_SVR_CONFIG_HTTP_AUTH_TYPE = 2,      // rtsp_auth_t: RTSP in an HTTP tunnel
    RTSP_SVR_CONFIG_DSCP = 3,                // int: marking of UDP media (RFC 2474), 1 to 63, 0 for none
    RTSP_SVR_CONFIG_TIMEOUT = 4,             // int: keep-alive time-out in seconds, 0 for none
    RTSP_SVR_CONFIG_RTP_PORT = 5,            // RtpPortRange: 1 to 65535, the lower bound below the upper one
    RTSP_SVR_CONFIG_URL_FUNC = 6,            // the function itself as `value`, len sizeof a function pointer
    RTSP_SVR_CONFIG_SRC_FUNC = 7,            // as 6
    RTSP_SVR_CONFIG_AUTH_FUNC = 8,           // as 6
    RTSP_SVR_CONFIG_EVENT_FUNC = 9,          // as 6
    RTSP_SVR_CONFIG_USER_DATA = 10,          // the pointer itself as `value`, any len above 0
    RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL = 11,  // OnvifUserGlobalConfig
    // int: 0, the default: everything on the wire as this server has always done it. 1: where that differs from the
    // standards (RFC 2326, 2250, 3550, 3551, 6184) their way is taken, by the server, its sessions and its channels.
    // Any player then has all that it expects, so new hosts set it. A sender report that can't be sent, as while a
    // route is away, then no longer ends its UDP session.
    RTSP_SVR_CONFIG_CONFORMANCE = 12
};

// Events that the server reports to the host.
enum event_type_t : int {
    EVENT_LOST_PACKET = 0,         // data: LostPacketEvent, length its size
    EVENT_CLIENT_CONNECTED = 1,    // data: the peer's address as text, length its length
    EVENT_CLIENT_DISCONNECTED = 2  // as EVENT_CLIENT_CONNECTED; may come twice for one session
};

// The data of EVENT_LOST_PACKET.
struct LostPacketEvent {
    const char* ip;  // the peer's address as text, valid during the call
    int port;        // the peer's port
    int channel;     // of the live channel
    int subtype;     // of the live channel
    long session;    // the session's identifier
};

// Rewrites the content of a URL: a non-null result means that `buffer` of `size` bytes holds the new content.
typedef char* (*rtsp_url_func_t)(const char* content, char* buffer, int size);
// Makes the source for a content; null if there is none. The library takes the object over.
typedef CStreamSource* (*rtsp_src_func_t)(const char* content);
// Makes an authentication module of the given type; null for a session without authentication.
typedef IAuthModule* (*rtsp_auth_func_t)(rtsp_auth_t type);
// Receives events. `data` is valid during the call.
typedef void (*rtsp_event_func_t)(event_type_t event, void* data, int length);

// CRtspSvrConfig: the host's settings and callbacks.
//
// The host fills one and hands it to the server and to live channels, which copy it down to every session. A change
// reaches only the sessions that start later.
//
// THREADING  A value without a lock: one thread at a time. The callbacks run on the library's threads, several at once.
class VIDORA_API CRtspSvrConfig {
public:
    // Defaults: ports 20000 to 40000, no authentication, no marking, time-out 60 seconds, no callbacks. If memory is
    // short the object has no record: then SetConfig and GetConfig return -1, and the readers the defaults.
    CRtspSvrConfig();
    ~CRtspSvrConfig();
    CRtspSvrConfig(const CRtspSvrConfig& other);
    // Copies the settings; each object keeps a record of its own.
    CRtspSvrConfig& operator=(const CRtspSvrConfig& other);

    // Sets one item. 0, or -1 with no change: null `value`, `len` below 1 or not the item's, a bad value, or an unknown
    // item. A wrong `len` is an assertion. Marking and time-out are not tested when they are set: a negative time-out
    // or a marking out of range is kept, and then can't be replaced.
    int SetConfig(rtsp_svr_config_t item, const void* value, int len);
    // Copies one item to `value`; `len` must be the item's, is checked as in SetConfig, and is not changed. Functions
    // and the user data come as the pointer's value. 0 or -1.
    int GetConfig(rtsp_svr_config_t item, void* value, int& len) const;

    // The same items by their types. 0, or -1 with no change for a value out of the range that the item's line above
    // names, whatever is stored, or if memory was short. A null function takes the former one away.
    int SetAuthType(rtsp_auth_t type);
    int SetHttpAuthType(rtsp_auth_t type);
    int SetDscp(int dscp);
    int SetTimeout(int seconds);
    int SetRtpPort(const RtpPortRange& range);
    int SetUrlFunc(rtsp_url_func_t function);
    int SetSrcFunc(rtsp_src_func_t function);
    int SetAuthFunc(rtsp_auth_func_t function);
    int SetEventFunc(rtsp_event_func_t function);
    int SetUserData(void* data);
    int SetOnvifUserGlobal(bool enable);
    int SetConformance(bool on);

    rtsp_auth_t GetRtspAuthType() const;
    rtsp_auth_t GetRtspOverHttpAuthType() const;
    int GetDSCP() const;
    // Seconds; 0 for no time-out.
    int GetKeepAliveTimeout() const;
    // Always 0.
    int GetRtpPort(RtpPortRange& range) const;
    rtsp_url_func_t GetUrlFunc() const;
    rtsp_src_func_t GetSrcFunc() const;
    rtsp_auth_func_t GetAuthFunc() const;
    rtsp_event_func_t GetEventFunc() const;
    bool GetConformance() const;

private:
    struct VIDORA_LOCAL Record;
    struct VIDORA_LOCAL Item;
    static const Record& defaults();
    const Record& record() const;
    template <typename Value>
    VIDORA_LOCAL int store(Value Record::*member, const Value& value, bool is_good = true);

    Record* m_record;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPSVRCONFIG_H
