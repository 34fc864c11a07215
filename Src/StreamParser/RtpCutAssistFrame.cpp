#include "StreamParser/RtpCutAssistFrame.h"

#include <algorithm>

#include "StreamParser/RtpCut.h"

namespace Kavio {
namespace Vidora {

int rtp_cut_assist_frame(const unsigned char* data, uint32_t len, const unsigned char header[ASSIST_HEADER_LEN],
                         CRtpPacketList& list) {
    list.Clear();
    uint32_t offset = 0;
    do {
        const uint32_t room = offset == 0 ? RTP_MAX_PAYLOAD - ASSIST_HEADER_LEN : RTP_MAX_PAYLOAD;
        RtpPacketNode* node = list.Append();
        if (node == nullptr || (offset == 0 && !node->AddIov(header, ASSIST_HEADER_LEN))) {
            return -1;
        }
        node->body = data + offset;
        node->body_len = std::min(len - offset, room);
        offset += node->body_len;
    } while (offset < len);
    return static_cast<int>(list.Count());
}

}  // namespace Vidora
}  // namespace Kavio
