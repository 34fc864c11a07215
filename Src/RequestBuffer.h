#ifndef VIDORA_REQUESTBUFFER_H
#define VIDORA_REQUESTBUFFER_H

#include <cstddef>

namespace Kavio {
namespace Vidora {

class CSvrConversation;

// CRequestBuffer: what has come on a stream from one client and isn't served yet. It cuts the bytes into messages and
// interleaved frames (RFC 2326 10.12), and hands them to the conversation.
//
// THREADING  The conversation's strand.
// OWNERSHIP  Borrows its memory, so that the owner can lay that where nothing else is: while nothing waits, and media
//            flow, it is given back to the system.
class CRequestBuffer {
public:
    static const int SIZE = 4096;  // the largest request
    static const size_t SPACE = size_t{3} * 4096;

    CRequestBuffer() = default;
    CRequestBuffer(const CRequestBuffer&) = delete;
    CRequestBuffer& operator=(const CRequestBuffer&) = delete;

    // Before anything else: the memory, SPACE zeros.
    void SetSpace(void* space);
    // Where the next bytes go, and how many at most.
    char* Free() { return m_bytes + m_length; }
    int Room() const { return SIZE - m_length; }
    // Takes `count` more bytes, and serves what is whole; the rest moves to the front. The count that is left;
    // negative: the conversation has to end.
    int Take(int count, CSvrConversation& conversation);
    // Forgets what waits.
    void Clear() { m_length = 0; }

private:
    int take_frame(const char* cursor, CSvrConversation& conversation) const;
    void empty(int used, bool had_messages, CSvrConversation& conversation);

    char* m_bytes = nullptr;  // SIZE, and a NUL
    int m_length = 0;         // that wait
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_REQUESTBUFFER_H
