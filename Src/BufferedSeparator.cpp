#include "BufferedSeparator.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "Ostra/MemoryTrail.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const char HEAD_END[] = "\r\n\r\n";
const size_t HEAD_END_LEN = sizeof(HEAD_END) - 1;

// The length of the head with its empty line; 0 if that isn't there yet.
size_t head_length(const char* text, size_t length) {
    const void* end = ::memmem(text, length, HEAD_END, HEAD_END_LEN);
    return end == nullptr ? 0 : static_cast<size_t>(static_cast<const char*>(end) - text) + HEAD_END_LEN;
}

// How a server's own request begins (RFC 2326 10); REDIRECT and RECORD look like replies to the derived classes as
// well.
const std::string_view REQUEST_STARTS[] = {"OPTIONS ",       "DESCRIBE ", "ANNOUNCE ", "SETUP ",
                                           "PLAY ",          "PAUSE ",    "TEARDOWN ", "GET_PARAMETER ",
                                           "SET_PARAMETER ", "REDIRECT ", "RECORD "};

constexpr int SHARED_ROOM = 128 * 1024;

// The room that all separators of the calling thread read into; null if memory is short.
char* shared_room() {
    static thread_local std::unique_ptr<char[]> room;
    if (room == nullptr) {
        room.reset(new (std::nothrow) char[SHARED_ROOM]);
    }
    return room.get();
}

// The value of Content-Length; 0 without the header or a number, more than any reply has if it is too large to read.
uint64_t body_length(const char* head, size_t length) {
    CStrParser parser(head, static_cast<unsigned int>(length));
    if (parser.LocateStringCase("Content-Length") < 0 || parser.ConsumeUntilDigit() < 0) {
        return 0;
    }
    const uint64_t value = parser.ConsumeUint64();
    return parser.GetStatus() == 0 ? value : UINT64_MAX / 2;
}

}  // namespace

Flumen::CMediaFrame MakeSeparatorFrame(int size) {
    Flumen::CMediaFrame frame(static_cast<unsigned int>(size));
    if (!frame.valid()) {
        logError("%s:%d GET Packet Failed, size:%d\n", __FILE__, __LINE__, size);
    }
    return frame;
}

char* CBufferedSeparator::GetBuffer(int* space) {
    char* const shared = shared_room();
    m_in_shared_room = m_rest_len <= COPIED_REST && shared != nullptr;
    if (m_in_shared_room) {
        std::copy_n(m_rest.get(), m_rest_len, shared);
        *space = SHARED_ROOM - m_rest_len;
        return shared + m_rest_len;
    }
    const bool usable = m_rest_len < m_wanted && make_room(m_wanted);
    *space = usable ? m_rest_room - m_rest_len : 0;
    return usable ? m_rest.get() + m_rest_len : nullptr;
}

int CBufferedSeparator::Input(int len) {
    for (int i = 0; i < m_out_count; ++i) {
        m_records[i] = separator_record_t();
    }
    Ostra::CMemoryTrail::NoteBytes(this, sizeof(*this) - sizeof(m_records) + sizeof(m_records[0]));
    m_out_count = 0;
    m_has_more = false;
    const bool in_shared_room = len > 0 && std::exchange(m_in_shared_room, false);
    if (len < 0 || !OSTRA_ASSERT(len <= (in_shared_room ? SHARED_ROOM : m_rest_room) - m_rest_len)) {
        return -1;
    }
    m_rest_len += len;
    CByteReader reader(in_shared_room ? shared_room() : m_rest.get(), static_cast<size_t>(m_rest_len));
    const step_t end = parse(reader);
    m_has_more = end == STEP_FULL;
    const bool kept = keep(reader.Rest(), static_cast<int>(reader.Remaining()));
    return end == STEP_FAILED || !kept ? -1 : m_out_count;
}

// Takes over what is left in either room; none is held for nothing.
bool CBufferedSeparator::keep(const unsigned char* rest, int length) {
    if (length == 0) {
        m_rest.reset();
        m_rest_room = 0;
    } else if (!make_room(length)) {
        return false;
    } else {
        std::memmove(m_rest.get(), rest, static_cast<size_t>(length));
    }
    m_rest_len = length;
    return true;
}

CBufferedSeparator::step_t CBufferedSeparator::parse(CByteReader& reader) {
    step_t step = STEP_DONE;
    while (step == STEP_DONE) {
        step = row_room() > 0 ? parse_step(reader) : STEP_FULL;
    }
    return step;
}

separator_record_t* CBufferedSeparator::GetRecords(int* count) {
    *count = m_out_count;
    return m_records;
}

bool CBufferedSeparator::may_be_request(const CByteReader& reader) {
    const std::string_view text(reinterpret_cast<const char*>(reader.Rest()), reader.Remaining());
    return std::any_of(std::begin(REQUEST_STARTS), std::end(REQUEST_STARTS), [text](std::string_view start) {
        return text.substr(0, start.size()) == start.substr(0, text.size());
    });
}

CBufferedSeparator::step_t CBufferedSeparator::cut_text(CByteReader& reader) {
    const char* text = reinterpret_cast<const char*>(reader.Rest());
    const size_t head = head_length(text, reader.Remaining());
    if (head == 0) {
        return reader.Remaining() < RSP_BUF_LEN ? STEP_SHORT : STEP_FAILED;
    }
    const uint64_t total = head + body_length(text, head);
    if (total > RSP_BUF_LEN) {
        logError("%s:%d stream error\n", __FILE__, __LINE__);
        return STEP_FAILED;
    }
    if (total > reader.Remaining()) {
        return STEP_SHORT;
    }
    const int length = static_cast<int>(total);
    Flumen::CMediaFrame packet = MakeSeparatorFrame(length + 1);
    if (!packet.valid()) {
        return STEP_FAILED;
    }
    reader.Read(packet.getBuffer(), total);
    packet.getBuffer()[total] = '\0';
    add_record(std::move(packet), length, -1, SEPARATOR_RTSP);
    return STEP_DONE;
}

CBufferedSeparator::step_t CBufferedSeparator::cut_unit(CByteReader& reader, int length, int channel, int kind) {
    Flumen::CMediaFrame packet = MakeSeparatorFrame(length);
    if (!packet.valid() || !reader.Read(packet.getBuffer(), static_cast<size_t>(length))) {
        return STEP_FAILED;
    }
    add_record(std::move(packet), length, channel, kind);
    return STEP_DONE;
}

void CBufferedSeparator::add_record(Flumen::CMediaFrame packet, int length, int channel, int kind) {
    separator_record_t& record = m_records[m_out_count++];
    record.packet = std::move(packet);
    record.length = length;
    record.channel = channel;
    record.kind = kind;
}

// Room for `size` bytes in all, behind what is there. Nothing else points into it.
bool CBufferedSeparator::make_room(int size) {
    if (size <= m_rest_room) {
        return true;
    }
    std::unique_ptr<char[]> larger(new (std::nothrow) char[static_cast<size_t>(size)]);
    if (larger == nullptr) {
        return false;
    }
    std::copy_n(m_rest.get(), std::min(m_rest_len, m_rest_room), larger.get());
    m_rest.swap(larger);
    m_rest_room = size;
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
