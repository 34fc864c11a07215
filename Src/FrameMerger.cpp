#include "FrameMerger.h"

#include <algorithm>
#include <utility>

#include "Tramel/Interleave.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint32_t ABNORMAL_SIZE = 1024 * 1024;
const uint32_t ROOM_SHARE = 8;  // spare room, and what the room loses of the part that a run left free: an eighth

}  // namespace

bool CFrameMerger::EndsBefore(const RtpHeader& header, uint32_t length) const {
    return m_run.valid() &&
           (header.timestamp != m_timestamp || length + Tramel::INTERLEAVE_HEADER_SIZE > MAX_RUN - m_run.size());
}

int CFrameMerger::Append(uint8_t channel, const unsigned char* data, uint32_t length, const RtpHeader& header) {
    const uint32_t size = m_run.size();
    if (!make_room(length + Tramel::INTERLEAVE_HEADER_SIZE)) {
        Clear();
        return -1;
    }
    m_timestamp = header.timestamp;
    m_run.resize(size + length + Tramel::INTERLEAVE_HEADER_SIZE);
    CByteWriter writer(m_run.getBuffer(), m_run.size());
    writer.Reserve(size);
    writer.WriteU8(Tramel::INTERLEAVE_MARK);
    writer.WriteU8(channel);
    writer.WriteU16(static_cast<uint16_t>(length));
    writer.WriteBytes(data, length);
    return writer.Ok() ? 0 : -1;
}

// Room for `length` bytes behind those of the run. It doubles, so that a frame of any size is copied twice at most.
bool CFrameMerger::make_room(uint32_t length) {
    const uint32_t size = m_run.size();
    if (m_run.valid() && length <= m_run.capacity() - size) {
        return true;
    }
    const uint32_t room = std::max(m_run.valid() ? 2 * m_run.capacity() : m_room, size + length);
    if (room >= ABNORMAL_SIZE && !m_told_size) {
        m_told_size = true;
        logWarn("%s:%d alloc size:%d abnormal\n", __FILE__, __LINE__, static_cast<int>(room));
    }
    Flumen::CMediaFrame run(room);
    if (!run.valid()) {
        logError("%s:%d Get Packet Failed, len:%d\n", __FILE__, __LINE__, static_cast<int>(room));
        return false;
    }
    run.resize(0);
    if (size > 0) {
        run.putBuffer(m_run.getBuffer(), size);
    }
    m_run = std::move(run);
    return true;
}

Flumen::CMediaFrame CFrameMerger::Take() {
    const uint32_t used = std::max(m_run.size(), FIRST_ROOM);
    m_room = used >= m_room ? used + used / ROOM_SHARE : m_room - (m_room - used) / ROOM_SHARE;
    return std::exchange(m_run, Flumen::CMediaFrame());
}

}  // namespace Vidora
}  // namespace Kavio
