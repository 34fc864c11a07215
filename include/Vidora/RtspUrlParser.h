#ifndef VIDORA_RTSPURLPARSER_H
#define VIDORA_RTSPURLPARSER_H

#include "Vidora/Export.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// A live channel: "cam/realmonitor?channel=<channel>&subtype=<subtype>".
struct identifier_t {
    int channel = 0;
    int subtype = 0;
};

// A request to play a recording: "cam/playback?channel=...&starttime=...", or "cam/playback?token=...".
struct playback_info {
    int channel = 0;
    int subtype = 0;
    CTime start;
    CTime end;             // the zero time: to the recording's end
    char token[256] = "";  // set by the token form only
};

// Credentials. AddAuth reads the two texts; GetAuthInfo writes into them, and then each must have room for
// AUTH_TEXT_SIZE bytes, which the caller owns.
struct auth_info_tc {
    char* user;
    char* password;
};
const unsigned int AUTH_TEXT_SIZE = 128;

// CRtspUrlParser: reads and writes the URLs of this system,
//
//     rtsp://[user:password@]host[:port]/[content]
//
// where the content names what to stream and may hold an upstream server to relay from:
//
//     cam/realmonitor?channel=1&subtype=0                    a live channel
//     cam/playback?channel=1&starttime=2020_1_2_3_4_5        a recording, with or without "&endtime=..."
//     cam/playback?token=...                                 a recording that the host knows by a token
//     folder/name.kav                                        a file
//     <any content>?proxy=[user:password@]host[:port]        the same content of another server
//     <live or file>&proxy=host[:port]&proto=Kavio3          the same, through the host's own access to that server
//
// "authbasic=", "unicast=true" and, without a proxy, "proto=" are parameters for the server: they are taken out of the
// content. All keys but "rtsp://" are matched in their exact case.
//
// A second parse of one object replaces what the new text names and leaves the rest as it was.
//
// THREADING  No lock: an object, and all objects that share its state, belong to one thread at a time.
// OWNERSHIP  Texts and records that are handed out lie in the shared state: valid until the next call that fills them,
//            or until the last object that shares the state dies.
// Out of memory every operation returns its failure result.
class VIDORA_API CRtspUrlParser {
public:
    CRtspUrlParser();
    // Both share the state of `other`: what one object parses or adds, the other shows as well.
    CRtspUrlParser(const CRtspUrlParser& other);
    CRtspUrlParser& operator=(const CRtspUrlParser& other);
    ~CRtspUrlParser();

    // Reads an RTSP URL of `length` bytes, or up to a NUL before. False if it is null or empty, has no "rtsp://" or a
    // broken credentials part, or text other than a path follows the host. A host that can't be read is logged and is
    // no failure, and neither is a content that can't be read: ask GetSrcType and the getters.
    bool ParseUrl(const char* url, const unsigned& length);
    // Reads a content, the part of the URL behind the host's slash; 511 bytes of it. False if it is null or empty, or
    // its proxy has a broken address or broken credentials.
    bool ParseContent(const char* content, unsigned& length);

    // Writes a URL of the server address, its credentials, `content` and, with an upstream server, that and the
    // parameters. Without an upstream server the parameters are not written. Null without a server address, or for a
    // null argument. At most 511 bytes.
    char* GenerateUrl(const char* content);
    // The same with the content of a live channel.
    char* GenerateUrl(const identifier_t* identifier);
    // The same without scheme, credentials and server address, which isn't needed.
    char* GenerateContent(const char* content);
    char* GenerateContent(const identifier_t* identifier);

    // Sets the credentials of the server (`index` 0) or of the upstream server (1). 0, or -1 for another index or a
    // null text.
    int AddAuth(int index, const auth_info_tc& auth);
    // Sets the address of the server (0) or of the upstream server (1): an IPv4 address, an IPv6 address with or
    // without brackets, or a host name, of at most 127 characters. 0, or -1 for another index, a text that isn't an
    // address, or port 0.
    int AddConnection(int index, const char* addr, unsigned short port);
    // Sets a parameter, in place of one of the same name. 0, or -1 for a null argument.
    int AppendParam(const char* key, const char* value);

    // The value of a parameter that was appended, or of "ServiceType" or "proto" in the content; null if absent.
    char* GetParam(const char* key) const;
    // The content without the parameters that are meant for the server; null before a parse.
    char* GetContent();
    // The kind of source that the content asks for; SRC_TYPE_NONE before a parse.
    src_type_t GetSrcType();
    // The URL of the same content at the upstream server; null unless parsed and proxied.
    char* GetProxyUrl();
    // A stream_proto_t: 1 for "proto=" with "Kavio3", 2 for "proto=" with "Onvif", in a content without a proxy.
    int GetLocalStreamProto();
    // Copies the credentials of the server (0) or the upstream server (1), each cut at 127 characters. 0, or -1 before
    // a parse, without credentials, or for a null text.
    int GetAuthInfo(auth_info_tc& auth, int index) const;
    // Copies the address of the server (0) or the upstream server (1) as it was written, cut at `size` - 1 characters,
    // and its port; nothing is resolved. 0, or -1 before a parse, without an address, or for a null text.
    int GetConnection(int index, char* addr, unsigned int size, unsigned short& port) const;
    // The address of the server (0) or the upstream server (1); an empty one before a parse or if there is none. A host
    // name is resolved, which may block.
    CSockAddrStorage GetAddr(int index) const;
    // What the content names; null before a parse or if it names no such thing.
    identifier_t* GetIdentifier() const;
    playback_info* GetPlayback_info() const;
    char* GetFileName() const;

private:
    class VIDORA_LOCAL CState;

    CState* m_state;  // null when memory was short
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPURLPARSER_H
