#ifndef VIDORA_REFUSAL_H
#define VIDORA_REFUSAL_H

#include "Protocol/RtspTables.h"
#include "State.h"

namespace Kavio {
namespace Vidora {

// Why a conversation refuses a request: the negative results of its operations.
enum refusal_t {
    REFUSED_BY_STATE = STATE_RESULT_FAIL,  // the method isn't valid now
    REFUSED_UNREAD = -2,                   // what can't be read; the codec knows more
    REFUSED_CONTENT = -3,                  // nothing is published under that URL
    REFUSED_SOURCE = -4,                   // no source could be made for it
    REFUSED_TRACK = -5,                    // the description has no such track
    REFUSED_AGGREGATE = -6,                // SETUP of the whole presentation
    REFUSED_RANGE = -7,                    // nothing to play there
    REFUSED_TRANSPORT = -8,                // no way for the media that the client wants
    REFUSED_FAILURE = -9,                  // of the server's own
    REFUSED_ANSWERED = -10                 // it failed behind its reply
};

// The status that answers a refusal (RFC 2326 11.3); 0 if none can.
inline int RefusalStatus(int refusal) {
    static const struct {
        int refusal;
        int status;
    } STATUSES[] = {{REFUSED_UNREAD, RTSP_STATUS_BAD_REQUEST},
                    {REFUSED_CONTENT, RTSP_STATUS_NOT_FOUND},
                    {REFUSED_SOURCE, RTSP_STATUS_NOT_FOUND},
                    {REFUSED_TRACK, RTSP_STATUS_NOT_FOUND},
                    {REFUSED_AGGREGATE, RTSP_STATUS_NO_AGGREGATE},
                    {REFUSED_RANGE, RTSP_STATUS_INVALID_RANGE},
                    {REFUSED_TRANSPORT, RTSP_STATUS_UNSUPPORTED_TRANSPORT},
                    {REFUSED_FAILURE, RTSP_STATUS_INTERNAL_ERROR},
                    {REFUSED_ANSWERED, 0}};
    for (const auto& row : STATUSES) {
        if (row.refusal == refusal) {
            return row.status;
        }
    }
    return RTSP_STATUS_WRONG_STATE;
}

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_REFUSAL_H
