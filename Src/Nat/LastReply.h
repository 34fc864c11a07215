#ifndef VIDORA_LASTREPLY_H
#define VIDORA_LASTREPLY_H

#include <memory>
#include <string_view>

#include "Protocol/RtspMsgInfo.h"

namespace Kavio {
namespace Vidora {

// CLastReply: the reply to the last request of a client that repeats what was lost on the way. It gets the same reply
// again, and the request isn't served twice (RFC 2326 9.2: what is sent again keeps its CSeq).
//
// THREADING  One thread at a time.
// MEMORY     One reply.
class CLastReply {
public:
    // Takes a request in. True if it is the last one again: Text() is its reply then, empty if that is still to come.
    bool IsRepeated(const rtsp_msg_info& request);
    // Keeps `reply` if it answers the last request.
    void Keep(std::string_view reply);
    std::string_view Text() const { return std::string_view(m_text.get(), m_length); }

private:
    rtsp_msg_info m_request;
    bool m_has_request = false;
    std::unique_ptr<char[]> m_text;
    size_t m_length = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_LASTREPLY_H
