#include "KXSeparator.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "Protocol/LogQuote.h"
#include "Tramel/Interleave.h"

namespace Kavio {
namespace Vidora {

namespace {

const int RECORDS_A_FRAME = 2;
const int MIN_DIRECT = 8192;  // for less than that a read of its own isn't worth it

}  // namespace

// In front of a frame's missing bytes the receive buffer is empty: what it had of them is in the frame.
char* CKXSeparator::GetBuffer(int* space) {
    m_direct = m_cur.packet.valid() && missing() >= MIN_DIRECT && !HasMore();
    if (!m_direct) {
        return CBufferedSeparator::GetBuffer(space);
    }
    *space = missing();
    return reinterpret_cast<char*>(m_cur.packet.getBuffer()) + m_cur.packet.size();
}

int CKXSeparator::Input(int len) {
    if (m_direct && len > 0) {
        if (!OSTRA_ASSERT(len <= missing())) {
            return -1;
        }
        m_cur.packet.resize(m_cur.packet.size() + static_cast<unsigned int>(len));
        len = 0;
    }
    m_direct = false;
    return CBufferedSeparator::Input(len);
}

CBufferedSeparator::step_t CKXSeparator::parse_step(CByteReader& reader) {
    if (m_cur.packet.valid()) {
        return fill_frame(reader);
    }
    if (reader.Remaining() < Tramel::PRIVATE_HEADER_SIZE) {
        return STEP_SHORT;
    }
    if (std::tolower(reader.PeekU8()) == 'r' || may_be_request(reader)) {
        return cut_reply(reader);
    }
    if (reader.PeekU8() == Tramel::INTERLEAVE_MARK) {
        return begin_frame(reader);
    }
    logError("%s:%d stream error\n", __FILE__, __LINE__);
    return STEP_FAILED;
}

CBufferedSeparator::step_t CKXSeparator::cut_reply(CByteReader& reader) {
    const step_t step = cut_text(reader);
    if (step == STEP_SHORT) {
        const CLogQuote quote(Ostra::LOG_LEVEL_DEBUG, reinterpret_cast<const char*>(reader.Rest()), reader.Remaining());
        logDebug("%s:%d rtsp not complete,%s\n", __FILE__, __LINE__, quote.Text());
    }
    return step;
}

CBufferedSeparator::step_t CKXSeparator::fill_frame(CByteReader& reader) {
    const size_t length = std::min(static_cast<size_t>(missing()), reader.Remaining());
    m_cur.packet.putBuffer(reader.ReadBytes(length), static_cast<unsigned int>(length));
    return missing() == 0 ? put_out() : STEP_SHORT;
}

CBufferedSeparator::step_t CKXSeparator::put_out() {
    add_record(std::move(m_cur.packet), m_cur.length, m_cur.channel, m_cur.kind);
    m_cur = separator_record_t();
    return STEP_DONE;
}

CBufferedSeparator::step_t CKXSeparator::begin_frame(CByteReader& reader) {
    if (row_room() < RECORDS_A_FRAME) {
        return STEP_FULL;
    }
    CByteReader header(reader.Rest(), Tramel::PRIVATE_HEADER_SIZE);
    header.Skip(1);
    const int channel = header.ReadU8();
    const uint32_t length = header.ReadU32();
    if (length == 0) {
        return STEP_FAILED;
    }
    if (length > MAX_FRAME) {
        logError("%s:%d stream error\n", __FILE__, __LINE__);
        return STEP_FAILED;
    }
    m_cur.packet = MakeSeparatorFrame(static_cast<int>(length));
    if (!m_cur.packet.valid()) {
        return STEP_FAILED;
    }
    m_cur.packet.resize(0);
    m_cur.channel = channel;
    m_cur.length = static_cast<int32_t>(length);
    m_cur.kind = SEPARATOR_KX;
    return cut_unit(reader, Tramel::PRIVATE_HEADER_SIZE, channel, SEPARATOR_KX);
}

}  // namespace Vidora
}  // namespace Kavio
