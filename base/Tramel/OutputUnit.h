#ifndef VIDORA_TRAMEL_OUTPUTUNIT_H
#define VIDORA_TRAMEL_OUTPUTUNIT_H

#include <sys/uio.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Tramel {

class CLevel2Buffer_IF;
class CMediaPacket;
class CPooledSink;

// COutputUnit: what goes to a stream socket as a whole or not at all: one control text, or one media packet together
// with the header that was put in front of it.
//
// One object serves all sinks; each holder has a reference, and the last Release ends the packets with it. A unit may
// carry side packets (CMediaBuffer::PutFrameInfo) that belong to its packet.
//
// THREADING  Made and filled by one thread, then constant; AddRef and Release: any thread.
class COutputUnit {
public:
    // Side packets that a unit can carry.
    static const unsigned int MAX_SIDE = 4;
    // The slot of all packets whose track isn't one of 0 to 7.
    static const unsigned int OTHER_SLOT = 8;
    static unsigned int SlotOf(unsigned int track) { return track < OTHER_SLOT ? track : OTHER_SLOT; }

    // A copy of `length` bytes of control text, or null if memory is short.
    static COutputUnit* CreateText(const char* text, unsigned int length, uint64_t now_ms);
    // An empty media unit for packets of `channel` (see CMediaBuffer::Put), or null. `sequence` numbers the puts.
    static COutputUnit* CreateMedia(int channel, uint64_t sequence, uint64_t now_ms);

    // Appends a packet and takes it over; at most two. The second one is the frame, whose channel word counts. `flag`
    // and `channel` as given to CMediaBuffer::Put.
    void AddPacket(CMediaPacket* packet, unsigned int length, int flag, int channel);
    // Takes a side packet over. False, and nothing is taken, if there are MAX_SIDE already.
    bool AddSide(CMediaPacket* packet, int length);
    // The track is one that has carried a key frame, now or before.
    void MarkKeyTrack() { m_key_track = true; }

    void AddRef(unsigned int count = 1) { m_refs.fetch_add(count, std::memory_order_relaxed); }
    void Release();

    bool IsText() const { return m_text; }
    bool IsKey() const { return m_key; }
    bool OnKeyTrack() const { return m_key_track; }
    // The track, or OTHER_SLOT.
    unsigned int Slot() const { return m_slot; }
    unsigned int Length() const { return m_length; }
    // The interleaved packets (RFC 2326 10.12) that a merged frame consists of; 1 for anything else.
    unsigned int Packets() const { return m_packet_number; }
    uint64_t Sequence() const { return m_sequence; }
    // Monotonic milliseconds at which the unit was made.
    uint64_t TimeMs() const { return m_time_ms; }
    const struct iovec* Parts() const { return m_parts; }
    unsigned int PartCount() const { return m_part_count; }
    // Gives the packet of a part to a sink, as it was put.
    void PutPart(unsigned int index, CLevel2Buffer_IF& sink) const;
    // The same for the first part, of which `offset` bytes have gone.
    void PutRest(size_t offset, CPooledSink& sink) const;
    unsigned int SideCount() const { return m_side_count; }
    CMediaPacket* Side(unsigned int index, int* length) const;
    // The number of the frame, if its only side packet has one (CNumberedPacket) and the track is one of 0 to 7.
    bool IsNumbered() const { return m_side_count == 1 && m_number_track < OTHER_SLOT; }
    uint32_t Number() const { return m_number; }
    unsigned int NumberTrack() const { return m_number_track; }

private:
    COutputUnit(uint64_t sequence, uint64_t now_ms) : m_sequence(sequence), m_time_ms(now_ms) {}
    ~COutputUnit();
    void set_channel(int channel);

    struct PutPacket {
        CMediaPacket* packet;
        int flag;
        int channel;
    };
    struct SidePacket {
        CMediaPacket* packet;
        int length;
    };

    std::atomic<unsigned int> m_refs{1};
    unsigned int m_length = 0;
    unsigned int m_packet_number = 1;
    uint64_t m_sequence;
    uint64_t m_time_ms;
    uint8_t m_slot = OTHER_SLOT;
    uint8_t m_part_count = 0;
    uint8_t m_side_count = 0;
    uint8_t m_number_track = OTHER_SLOT;
    bool m_text = false;
    bool m_key = false;
    bool m_key_track = false;
    uint32_t m_number = 0;
    struct iovec m_parts[2] = {};
    PutPacket m_packets[2] = {};
    SidePacket m_sides[MAX_SIDE] = {};
    char* m_text_bytes = nullptr;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_OUTPUTUNIT_H
