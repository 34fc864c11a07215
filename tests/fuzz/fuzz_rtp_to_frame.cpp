// The depacketiser, for each encode type. First byte: encode type, and bit 7 to drop damaged frames.
#include <deque>

#include "FuzzSupport.h"
#include "StreamParser/Rtp2Frame.h"
#include "StreamParser/RtpHeader.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

constexpr uint8_t PAYLOAD_TYPE = 96;

// What PutPacket completed: its size is what was announced, and nothing is written beyond it.
void take_frame(CRtp2Frame& engine, int enc_type, bool drop, size_t held_bytes, size_t held) {
    const uint32_t size = engine.GetFrameSize();
    // No frame is larger than its packets, a start code for each of them or of their parts, and a configuration.
    Fuzz::Require(size <= 3 * held_bytes + 5 * held + CRtp2Frame::CONFIG_SIZE);
    Fuzz::Bytes frame(size);
    Fuzz::Require(engine.GetFrame(frame.data(), size) == size || frame.empty());
    const int type = engine.GetFrameType();
    Fuzz::Require(enc_type == ENC_TYPE_MPEG2TS || type == 'I' || type == 'P' || type == 'J' || type == 'A' ||
                  type == 'W');
    if (enc_type == ENC_TYPE_JPEG && engine.GetWidth() > 0) {
        Fuzz::Require(size >= 605 && frame[0] == 0xFF && frame[1] == 0xD8);
    }
    if (enc_type == ENC_TYPE_H264 && drop) {
        Fuzz::Require(size >= 4 && frame[0] == 0 && frame[1] == 0 && frame[2] == 0 && frame[3] == 1);
    }
}

// The packets of the track as they were fed: with damaged frames dropped no frame comes out that has a gap inside it,
// nor, where packets don't tell that they are a frame's first, in front of it.
class Track {
public:
    // Packets that stand as they are in the input, or that share the sequence, say too little of what was lost.
    void Add(const Fuzz::Bytes& packet, uint8_t control) {
        Ostra::CByteReader reader(packet.data(), packet.size());
        reader.Skip((control & 0x40) != 0 ? 4 : 0);
        RtpHeader header;
        m_known = m_known && (control & 0x90) == 0;
        m_added = rtp_parse_header(reader.Rest(), reader.Remaining(), header) && header.payload != nullptr;
        if (m_added) {
            m_packets.push_back({header.timestamp, !m_gap && step(header) == 1});
            m_sequence = header.sequence;
            m_gap = false;
        } else if (header.is_empty && !m_packets.empty() && step(header) > 0) {
            // No part of a frame, but one more number.
            m_gap = m_gap || step(header) > 1;
            m_sequence = header.sequence;
        }
    }
    // Checks the frame that ends with the last packet, or in front of it.
    void CheckFrame(int enc_type, bool in_front) const {
        size_t at = m_packets.size() - (in_front && m_added ? 1 : 0);
        if (!m_known || at == 0 || at > m_packets.size()) {
            return;
        }
        const uint32_t timestamp = m_packets[--at].timestamp;
        bool whole = true;
        for (; at > 0 && m_packets[at - 1].timestamp == timestamp; --at) {
            whole = whole && m_packets[at].follows;
        }
        Fuzz::Require(whole && (at == 0 || enc_type == ENC_TYPE_H264 || m_packets[at].follows));
    }

private:
    struct Packet {
        uint32_t timestamp;
        bool follows;  // the one before, with nothing lost between them
    };
    int step(const RtpHeader& header) const { return static_cast<int16_t>(header.sequence - m_sequence); }

    std::deque<Packet> m_packets;
    uint16_t m_sequence = 0;
    bool m_gap = false;  // something was lost behind the last one
    bool m_known = true;
    bool m_added = false;  // the last packet, which may end a frame and have no payload itself
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    Ostra::CByteReader input(data, size);
    const uint8_t settings = input.ReadU8();
    const int enc_type = settings & 0x0F;
    const bool drop = (settings & 0x80) != 0;
    CRtp2Frame engine;
    engine.Init(enc_type, PAYLOAD_TYPE, 8000);
    engine.SetDropDamaged(drop);
    const unsigned char config[] = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x07, 0x82, 0x39};
    engine.SetH264Config(config, sizeof(config), config, 4);

    Fuzz::RtpSender sender;
    Fuzz::Record record;
    Track track;
    std::deque<Fuzz::Bytes> held;  // the engine borrows its packets
    size_t held_bytes = 0;
    while (Fuzz::ReadRecord(input, record)) {
        const Fuzz::Bytes packet = sender.Make(record);
        track.Add(packet, record.control);
        int ret = FRAME_COMPLETE_NEXT;
        for (size_t round = 0; ret == FRAME_COMPLETE_NEXT; ++round) {
            // A packet ends one frame in front of it; a transport stream packet as many as begin in it.
            Fuzz::Require(round <= (enc_type == ENC_TYPE_MPEG2TS ? packet.size() / 188 : 1));
            held.push_back(packet);
            held_bytes += packet.size();
            ret = engine.PutPacket(held.back().data(), static_cast<int>(packet.size()));
            Fuzz::Require(ret >= FRAME_FAILED && ret <= FRAME_COMPLETE_NEXT);
            if (ret > FRAME_MORE) {
                take_frame(engine, enc_type, drop, held_bytes, held.size());
                if (drop && enc_type != ENC_TYPE_MPEG2TS) {
                    track.CheckFrame(enc_type, ret == FRAME_COMPLETE_NEXT);
                }
            }
            if (ret != FRAME_MORE) {
                engine.Clear();
                Fuzz::Require(engine.GetFrameSize() == 0 && engine.GetPacketCount() == 0);
                held.clear();
                held_bytes = 0;
            }
        }
    }
    return 0;
}
