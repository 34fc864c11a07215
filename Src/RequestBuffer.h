#ifndef VIDORA_REQUESTBUFFER_H
#define VIDORA_REQUESTBUFFER_H

#include "Protocol/MessageMemory.h"

namespace Kavio {
namespace Vidora {

class CSvrConversation;

// CRequestBuffer: what has come on a stream from one client and isn't served yet. It cuts the bytes into messages and
// interleaved frames (RFC 2326 10.12), and hands them to the conversation, in whose memory they wait.
//
// THREADING  The conversation's strand.
// OWNERSHIP  Lives as long as its conversation, which it doesn't use before the first call.
class CRequestBuffer {
public:
    static const int SIZE = RTSP_MAX_MESSAGE;  // the largest request

    explicit CRequestBuffer(CSvrConversation& conversation) : m_conversation(conversation) {}
    CRequestBuffer(const CRequestBuffer&) = delete;
    CRequestBuffer& operator=(const CRequestBuffer&) = delete;

    // Where the next bytes go, and how many at most: none as well if memory is short.
    char* Free();
    int Room();
    // Takes `count` more bytes, and serves what is whole; the rest moves to the front. The count that is left;
    // negative: the conversation has to end.
    int Take(int count);
    // Drops what waits.
    void Clear();

private:
    int serve(CMessageMemory& memory);
    int take_frame(const char* cursor, int length) const;

    CSvrConversation& m_conversation;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_REQUESTBUFFER_H
