#include "RequestBuffer.h"

#include <cstring>
#include <memory>

#include "Ostra/PageMemory.h"
#include "SvrConversation.h"
#include "Tramel/Interleave.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {
const size_t PAGE = 4096;
// An empty frame is taken together with the first byte behind it.
const int MIN_INTERLEAVED_FRAME = Tramel::INTERLEAVE_HEADER_SIZE + 1;
}  // namespace

void CRequestBuffer::SetSpace(void* space) {
    size_t room = SPACE;
    m_bytes = static_cast<char*>(std::align(PAGE, SIZE + 1, space, room));
    m_bytes[0] = '\0';
}

int CRequestBuffer::Take(int count, CSvrConversation& conversation) {
    m_length += count;
    if (m_length > SIZE) {
        logError("%s:%d, parse_request parameter invalid.\n", __FILE__, __LINE__);
        return -1;
    }
    const int received = m_length;
    m_bytes[received] = '\0';
    const char* cursor = m_bytes;
    bool had_messages = false;
    while (m_length != 0) {
        const bool is_frame = *cursor == Tramel::INTERLEAVE_MARK;
        const int taken = is_frame ? take_frame(cursor, conversation) : conversation.TakeMessage(cursor, m_length);
        if (taken < 0) {
            return -1;
        }
        if (taken == 0) {
            break;
        }
        had_messages = had_messages || !is_frame;
        cursor += taken;
        m_length -= taken;
    }
    if (m_length == 0) {
        empty(received, had_messages, conversation);
    } else {
        memmove(m_bytes, cursor, static_cast<size_t>(m_length));
    }
    return m_length;
}

// Zeroes the `used` bytes. A session that streams is quiet for seconds: it releases that page, and what its last
// message left in others.
void CRequestBuffer::empty(int used, bool had_messages, CSvrConversation& conversation) {
    memset(m_bytes, 0, static_cast<size_t>(used));
    if (!conversation.IsStreaming()) {
        return;
    }
    Ostra::ForgetPages(m_bytes, SIZE);
    if (had_messages) {
        conversation.ForgetMessages();
    }
}

// The bytes that the frame takes, or 0 if it isn't whole.
int CRequestBuffer::take_frame(const char* cursor, CSvrConversation& conversation) const {
    if (m_length < MIN_INTERLEAVED_FRAME) {
        return 0;
    }
    CByteReader reader(cursor, static_cast<size_t>(m_length));
    reader.Skip(1);
    const int channel = reader.ReadU8();
    const unsigned int length = reader.ReadU16();
    const unsigned char* data = reader.ReadBytes(length);
    if (!reader.Ok()) {
        return 0;
    }
    conversation.TakeReport(data, length, channel);
    return static_cast<int>(length + Tramel::INTERLEAVE_HEADER_SIZE);
}

}  // namespace Vidora
}  // namespace Kavio
