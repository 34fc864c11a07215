#ifndef VIDORA_PROTOCOL_MESSAGEMEMORY_H
#define VIDORA_PROTOCOL_MESSAGEMEMORY_H

#include <memory>

#include "Protocol/RtspInfo.h"

namespace Kavio {
namespace Vidora {

// Texts of the last message read and of the last one written, each with its NUL.
struct rtsp_texts {
    char url[RTSP_MAX_TEXT + 1];
    char auth[RTSP_MAX_TEXT + 1];
    char content_type[RTSP_MAX_TEXT + 1];
    char methods[RTSP_MAX_TEXT + 1];  // that the server offers
    transport_info transport;
    char written[RTSP_MAX_MESSAGE + 1];
    char body[RTSP_MAX_MESSAGE + 1];

    rtsp_texts() { Clear(); }
    // Empties all by the first byte of each.
    void Clear();
};

// CMessageMemory: what one request takes on a server at its worst, from its first byte until it is answered. A session
// has one for that time, and none while nothing waits. A few that were released are kept for the next request of
// whichever session, so that a request costs no fresh page of the system's.
//
// THREADING  Take, and the release of what it returned: any thread. The fields: the session's strand.
struct CMessageMemory {
    struct CRelease {
        void operator()(CMessageMemory* memory) const;
    };
    typedef std::unique_ptr<CMessageMemory, CRelease> pointer_t;

    // Empty; null if memory is short.
    static pointer_t Take();

    int received_length = 0;
    char received[RTSP_MAX_MESSAGE + 1];  // what waits for the rest of its message
    rtsp_texts texts;

private:
    CMessageMemory() = default;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_MESSAGEMEMORY_H
