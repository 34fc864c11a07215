#ifndef VIDORA_PROTOCOL_RTSPTABLES_H
#define VIDORA_PROTOCOL_RTSPTABLES_H

namespace Kavio {
namespace Vidora {

// A row of the method table; the index is rtsp_method_t.
struct rtsp_method_row {
    const char* name;
    bool enabled;  // offered in the server's Public header
};

// A row of the status table (RFC 2326 7.1.1).
struct rtsp_status_row {
    int code;
    const char* reason;
};

// Statuses that the codecs and their users write or look at.
enum rtsp_status_t {
    RTSP_STATUS_OK = 200,
    RTSP_STATUS_MOVED_PERMANENTLY = 301,
    RTSP_STATUS_MOVED_TEMPORARILY = 302,
    RTSP_STATUS_USE_PROXY = 305,
    RTSP_STATUS_BAD_REQUEST = 400,
    RTSP_STATUS_UNAUTHORIZED = 401,
    RTSP_STATUS_NOT_FOUND = 404,
    RTSP_STATUS_SESSION_NOT_FOUND = 454,
    RTSP_STATUS_WRONG_STATE = 455,
    RTSP_STATUS_INVALID_RANGE = 457,
    RTSP_STATUS_NO_AGGREGATE = 459,
    RTSP_STATUS_UNSUPPORTED_TRANSPORT = 461,
    RTSP_STATUS_INTERNAL_ERROR = 500,
    RTSP_STATUS_NOT_IMPLEMENTED = 501,
    RTSP_STATUS_UNAVAILABLE = 503
};

const char RTSP_SCHEME[] = "rtsp://";
const int RTSP_SCHEME_SIZE = sizeof RTSP_SCHEME - 1;

// The tables, ended by a row with a null name and by a row with code 0.
extern const rtsp_method_row RTSP_METHODS[];
extern const rtsp_status_row RTSP_STATUSES[];

// The method's name, or null for a value outside 0 to 7. Any thread.
const char* RtspMethodName(int method);
// The method of a name, compared whole and with case; 8 for an unknown one. Any thread.
int RtspMethodOf(const char* name);
// The reason phrase, or null for a status outside the table. Any thread.
const char* RtspReason(int status);
// The first "rtsp://" of a text, in any case (RFC 3986 3.1); null if it has none. Any thread.
const char* RtspFindScheme(const char* text);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPTABLES_H
