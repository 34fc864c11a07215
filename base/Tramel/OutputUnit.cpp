#include "Tramel/OutputUnit.h"

#include <cstring>
#include <new>

#include "Tramel/Interleave.h"
#include "Tramel/MediaTag.h"
#include "Tramel/NumberedPacket.h"
#include "Tramel/PooledSink.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Tramel/Level2Buffer.h"
#include "Vidora/Tramel/MediaPacket.h"

namespace Kavio {
namespace Tramel {

namespace {

// One step a packet, once for all sinks.
unsigned int count_interleaved(const unsigned char* data, unsigned int length) {
    Ostra::CByteReader reader(data, length);
    unsigned int count = 0;
    while (reader.Remaining() > 0) {
        const bool marked = reader.ReadU8() == INTERLEAVE_MARK;
        reader.Skip(1);  // channel
        reader.Skip(reader.ReadU16());
        if (!marked || !reader.Ok()) {
            return 1;
        }
        ++count;
    }
    return count;
}

}  // namespace

COutputUnit* COutputUnit::CreateText(const char* text, unsigned int length, uint64_t now_ms) {
    char* bytes = new (std::nothrow) char[length];
    if (bytes == nullptr) {
        return nullptr;
    }
    COutputUnit* unit = new (std::nothrow) COutputUnit(0, now_ms);
    if (unit == nullptr) {
        delete[] bytes;
        return nullptr;
    }
    std::memcpy(bytes, text, length);
    unit->m_text = true;
    unit->m_text_bytes = bytes;
    unit->m_length = length;
    unit->m_parts[0].iov_base = bytes;
    unit->m_parts[0].iov_len = length;
    unit->m_part_count = 1;
    return unit;
}

COutputUnit* COutputUnit::CreateMedia(int channel, uint64_t sequence, uint64_t now_ms) {
    COutputUnit* unit = new (std::nothrow) COutputUnit(sequence, now_ms);
    if (unit != nullptr) {
        unit->set_channel(channel);
    }
    return unit;
}

void COutputUnit::set_channel(int channel) {
    const MediaTag tag = MediaTag::Unpack(channel);
    m_slot = static_cast<uint8_t>(SlotOf(tag.track));
    m_key = tag.IsKey();
}

void COutputUnit::AddPacket(CMediaPacket* packet, unsigned int length, int flag, int channel) {
    set_channel(channel);
    m_packets[m_part_count] = {packet, flag, channel};
    m_parts[m_part_count].iov_base = packet->GetData();
    m_parts[m_part_count].iov_len = length;
    m_packet_number = m_part_count == 0 ? count_interleaved(packet->GetData(), length) : 1;
    ++m_part_count;
    m_length += length;
}

bool COutputUnit::AddSide(CMediaPacket* packet, int length) {
    if (m_side_count == MAX_SIDE) {
        return false;
    }
    m_sides[m_side_count].packet = packet;
    m_sides[m_side_count].length = length;
    ++m_side_count;
    const CNumberedPacket* numbered = dynamic_cast<const CNumberedPacket*>(packet);
    if (numbered != nullptr && numbered->FrameTrack() < OTHER_SLOT) {
        m_number_track = static_cast<uint8_t>(numbered->FrameTrack());
        m_number = numbered->FrameNumber();
    }
    return true;
}

void COutputUnit::PutPart(unsigned int index, CLevel2Buffer_IF& sink) const {
    const PutPacket& put = m_packets[index];
    sink.Put(put.packet, static_cast<int>(m_parts[index].iov_len), put.flag, put.channel);
}

void COutputUnit::PutRest(size_t offset, CPooledSink& sink) const {
    const PutPacket& put = m_packets[0];
    sink.PutRest(put.packet, static_cast<int>(offset), static_cast<int>(m_parts[0].iov_len), put.channel);
}

CMediaPacket* COutputUnit::Side(unsigned int index, int* length) const {
    *length = m_sides[index].length;
    return m_sides[index].packet;
}

void COutputUnit::Release() {
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

COutputUnit::~COutputUnit() {
    for (const PutPacket& put : m_packets) {
        if (put.packet != nullptr) {
            put.packet->Release();
        }
    }
    for (unsigned int i = 0; i < m_side_count; ++i) {
        m_sides[i].packet->Release();
    }
    delete[] m_text_bytes;
}

}  // namespace Tramel
}  // namespace Kavio
