#include "BufferedSeparator.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>

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

CBufferedSeparator::CBufferedSeparator() : m_recv_buf(new (std::nothrow) char[RSP_BUF_LEN]) {}

CBufferedSeparator::~CBufferedSeparator() = default;

char* CBufferedSeparator::GetBuffer(int* space) {
    const bool usable = IsValid() && OSTRA_ASSERT(m_recv_len <= m_capacity) && m_recv_len < m_capacity;
    *space = usable ? m_capacity - m_recv_len : 0;
    return usable ? m_recv_buf.get() + m_recv_len : nullptr;
}

int CBufferedSeparator::Input(int len) {
    for (int i = 0; i < m_out_count; ++i) {
        m_records[i] = separator_record_t();
    }
    m_out_count = 0;
    m_has_more = false;
    if (!IsValid() || len < 0 || !OSTRA_ASSERT(len <= m_capacity - m_recv_len)) {
        return -1;
    }
    m_recv_len += len;
    CByteReader reader(m_recv_buf.get(), static_cast<size_t>(m_recv_len));
    const step_t end = parse(reader);
    if (reader.Offset() > 0 && reader.Remaining() > 0) {
        std::memmove(m_recv_buf.get(), reader.Rest(), reader.Remaining());
    }
    m_recv_len = static_cast<int>(reader.Remaining());
    m_has_more = end == STEP_FULL;
    return end == STEP_FAILED || !grow() ? -1 : m_out_count;
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
        return STEP_SHORT;
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
    add_record(packet, length, -1, SEPARATOR_RTSP);
    return STEP_DONE;
}

CBufferedSeparator::step_t CBufferedSeparator::cut_unit(CByteReader& reader, int length, int channel, int kind) {
    Flumen::CMediaFrame packet = MakeSeparatorFrame(length);
    if (!packet.valid() || !reader.Read(packet.getBuffer(), static_cast<size_t>(length))) {
        return STEP_FAILED;
    }
    add_record(packet, length, channel, kind);
    return STEP_DONE;
}

void CBufferedSeparator::add_record(const Flumen::CMediaFrame& packet, int length, int channel, int kind) {
    separator_record_t& record = m_records[m_out_count++];
    record.packet = packet;
    record.length = length;
    record.channel = channel;
    record.kind = kind;
}

// Behind a parse, so that nothing points into the buffer.
bool CBufferedSeparator::grow() {
    if (m_wanted <= m_capacity) {
        return true;
    }
    std::unique_ptr<char[]> larger(new (std::nothrow) char[static_cast<size_t>(m_wanted)]);
    if (larger == nullptr) {
        return false;
    }
    std::memcpy(larger.get(), m_recv_buf.get(), static_cast<size_t>(m_recv_len));
    m_recv_buf.swap(larger);
    m_capacity = m_wanted;
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
