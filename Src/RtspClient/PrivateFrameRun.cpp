#include "RtspClient/PrivateFrameRun.h"

#include <algorithm>
#include <utility>

#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_LATE = 100;  // a number further back is no late packet but the sender's new beginning

bool is_rtp_run(const Flumen::CMediaFrame& run) {
    CByteReader reader(run.getBuffer(), run.size());
    interleaved_unit_t unit;
    RtpHeader header;
    while (reader.Remaining() > 0) {
        if (!ReadInterleavedUnit(reader, unit) || !rtp_parse_header(unit.data, unit.length, header)) {
            return false;
        }
    }
    return run.size() > 0;
}

}  // namespace

int CPrivateFrameRun::Put(const Flumen::CMediaFrame& run) {
    if (!is_rtp_run(run)) {
        return -1;
    }
    while (advance()) {
        drop_ready();
    }
    m_run = run;
    m_offset = 0;
    return advance() ? 1 : 0;
}

void CPrivateFrameRun::drop_ready() {
    m_ready = Flumen::CMediaFrame();
    m_damaged = true;
}

Flumen::CMediaFrame CPrivateFrameRun::Take() {
    advance();
    return std::exchange(m_ready, Flumen::CMediaFrame());
}

bool CPrivateFrameRun::TakeDamage() {
    return std::exchange(m_damaged, false);
}

// Walks the run until a frame is ready; false at its end.
bool CPrivateFrameRun::advance() {
    CByteReader reader(m_run.getBuffer(), m_run.size());
    reader.Seek(m_offset);
    interleaved_unit_t unit;
    while (!m_ready.valid() && ReadInterleavedUnit(reader, unit)) {
        m_offset = reader.Offset();
        take_packet(unit);
    }
    if (reader.Remaining() == 0) {
        m_run = Flumen::CMediaFrame();
        m_offset = 0;
    }
    return m_ready.valid();
}

void CPrivateFrameRun::take_packet(const interleaved_unit_t& unit) {
    RtpHeader header;
    Assembly* assembly = find(unit.channel);
    if (assembly == nullptr || !rtp_parse_header(unit.data, unit.length, header) ||
        !follows(*assembly, unit, header.sequence)) {
        return;
    }
    // What doesn't begin with the magic is the rest of a frame that was dropped.
    if (!assembly->frame.valid() && !kx_has_magic(header.payload, header.payload_len)) {
        return;
    }
    if (!append(assembly->frame, header)) {
        drop(*assembly);
        return;
    }
    if (!header.marker) {
        return;
    }
    if (assembly->frame.size() < KX_HEADER_LEN + KX_TRAILER_LEN) {
        drop(*assembly);
        return;
    }
    m_ready = std::exchange(assembly->frame, Flumen::CMediaFrame());
}

CPrivateFrameRun::Assembly* CPrivateFrameRun::find(int channel) {
    for (Assembly& assembly : m_assemblies) {
        if (assembly.channel == channel || assembly.channel < 0) {
            return &assembly;
        }
    }
    return nullptr;
}

// False for a packet that is to be passed over. A gap drops the frame in work.
bool CPrivateFrameRun::follows(Assembly& assembly, const interleaved_unit_t& unit, uint16_t seq) {
    const int step = static_cast<int16_t>(seq - assembly.last_seq);
    const bool is_first = assembly.channel < 0;
    if (!is_first && step <= 0 && step >= -MAX_LATE) {
        return false;
    }
    if (!is_first && step != 1 && assembly.frame.valid()) {
        drop(assembly);
    }
    assembly.channel = unit.channel;
    assembly.last_seq = seq;
    return true;
}

void CPrivateFrameRun::drop(Assembly& assembly) {
    assembly.frame = Flumen::CMediaFrame();
    m_damaged = true;
}

bool CPrivateFrameRun::append(Flumen::CMediaFrame& frame, const RtpHeader& header) {
    if (header.payload_len == 0) {
        return true;
    }
    return make_room(frame, header.payload_len) &&
           frame.putBuffer(header.payload, header.payload_len) == header.payload_len;
}

// A new frame gets room for all that is left of the run; a frame that goes on in the next one doubles its room.
bool CPrivateFrameRun::make_room(Flumen::CMediaFrame& frame, uint32_t length) {
    const uint32_t size = frame.size();
    if (length > MAX_FRAME - size) {
        return false;
    }
    if (frame.valid() && length <= frame.capacity() - size) {
        return true;
    }
    const uint32_t left = length + m_run.size() - static_cast<uint32_t>(m_offset);
    Flumen::CMediaFrame larger(std::max(2 * frame.capacity(), size + left));
    larger.resize(0);
    if (size > 0) {
        larger.putBuffer(frame.getBuffer(), size);
    }
    frame = larger;
    return frame.valid();
}

}  // namespace Vidora
}  // namespace Kavio
