#include "RequestBuffer.h"

#include <cstring>

#include "SvrConversation.h"
#include "Tramel/Interleave.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {
// An empty frame is taken together with the first byte behind it.
const int MIN_INTERLEAVED_FRAME = Tramel::INTERLEAVE_HEADER_SIZE + 1;
}  // namespace

char* CRequestBuffer::Free() {
    CMessageMemory* memory = m_conversation.OpenMemory();
    return memory != nullptr ? memory->received + memory->received_length : nullptr;
}

int CRequestBuffer::Room() {
    const CMessageMemory* memory = m_conversation.OpenMemory();
    return memory != nullptr ? SIZE - memory->received_length : 0;
}

void CRequestBuffer::Clear() {
    if (CMessageMemory* memory = m_conversation.OpenMemory()) {
        memory->received_length = 0;
        m_conversation.ReleaseMemory();
    }
}

int CRequestBuffer::Take(int count) {
    CMessageMemory* memory = m_conversation.OpenMemory();
    if (memory == nullptr || count > SIZE - memory->received_length) {
        logError("%s:%d, parse_request parameter invalid.\n", __FILE__, __LINE__);
        return -1;
    }
    memory->received_length += count;
    const int left = serve(*memory);
    m_conversation.ReleaseMemory();
    return left;
}

// The count that is left, or negative.
int CRequestBuffer::serve(CMessageMemory& memory) {
    int& length = memory.received_length;
    memory.received[length] = '\0';
    const char* cursor = memory.received;
    while (length != 0) {
        const bool is_frame = *cursor == Tramel::INTERLEAVE_MARK;
        const int taken = is_frame ? take_frame(cursor, length) : m_conversation.TakeMessage(cursor, length);
        if (taken < 0) {
            return -1;
        }
        if (taken == 0) {
            break;
        }
        cursor += taken;
        length -= taken;
    }
    memmove(memory.received, cursor, static_cast<size_t>(length));
    return length;
}

// The bytes that the frame takes, or 0 if it isn't whole.
int CRequestBuffer::take_frame(const char* cursor, int length) const {
    if (length < MIN_INTERLEAVED_FRAME) {
        return 0;
    }
    CByteReader reader(cursor, static_cast<size_t>(length));
    reader.Skip(1);
    const int channel = reader.ReadU8();
    const unsigned int size = reader.ReadU16();
    const unsigned char* data = reader.ReadBytes(size);
    if (!reader.Ok()) {
        return 0;
    }
    m_conversation.TakeReport(data, size, channel);
    return static_cast<int>(size + Tramel::INTERLEAVE_HEADER_SIZE);
}

}  // namespace Vidora
}  // namespace Kavio
