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

// The tables, ended by a row with a null name and by a row with code 0.
extern const rtsp_method_row RTSP_METHODS[];
extern const rtsp_status_row RTSP_STATUSES[];

// The method's name, or null for a value outside 0 to 7. Any thread.
const char* RtspMethodName(int method);
// The method of a name, compared whole and with case; 8 for an unknown one. Any thread.
int RtspMethodOf(const char* name);
// The reason phrase, or null for a status outside the table. Any thread.
const char* RtspReason(int status);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTSPTABLES_H
