#ifndef VIDORA_STREAMPARSER_FRAME2PS_H
#define VIDORA_STREAMPARSER_FRAME2PS_H

#include <cstdint>

#include "StreamParser/Frame2Packet.h"
#include "StreamParser/TsTable.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

// CFrame2Ps: puts frames into an MPEG-2 program stream (ISO 13818-1) with two tracks, 0 for video and 1 for audio.
//
// Each frame stands for itself: pack header, system header and program stream map, then the PES packets that hold it.
// Each of these is a unit of output of its own.
//
// PutFrame makes the headers of the stream only; GetPacket does the one copy of the frame. A frame that takes more than
// STREAM_BUFFER_LEN bytes fails whole, and the next one is taken as ever.
//
// THREADING  No lock: one thread at a time.
class CFrame2Ps final : public IFrame2Packet {
public:
    CFrame2Ps();
    CFrame2Ps(const CFrame2Ps&) = delete;
    CFrame2Ps& operator=(const CFrame2Ps&) = delete;

    // Kinds (stream_kind_t) of both tracks; the most frame bytes in a PES packet, taken as 1000 below and as 65000
    // above that range; the bit rate of the whole stream in bits a second, told in the headers only.
    void SetPsInfo(int video_kind, int audio_kind, int max_pes, int bit_rate);

    // As in IFrame2Packet. `extra` has no meaning here.
    int PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) override;
    int GetPacketCount() override;
    int GetPacketSize() override;
    int GetPacket(unsigned char* buffer, unsigned int capacity) override;
    int NextPacket() override;
    int GetTotalSize() override;

private:
    // The stream's headers, each a unit: pack header, system header, map.
    static constexpr uint32_t HEAD_UNITS = 3;
    static constexpr uint32_t HEAD_SIZES[HEAD_UNITS] = {14, 18, 24};
    static constexpr uint32_t HEAD_LEN = HEAD_SIZES[0] + HEAD_SIZES[1] + HEAD_SIZES[2];
    static constexpr uint32_t MIN_PES = 1000;
    static constexpr uint32_t MAX_PES = 65000;

    bool write_head(uint64_t clock);
    void write_pack_header(Ostra::CByteWriter& writer, uint64_t clock) const;
    void write_system_header(Ostra::CByteWriter& writer) const;
    void write_map(Ostra::CByteWriter& writer) const;
    uint32_t part_begin(uint32_t unit) const { return (unit - HEAD_UNITS) * m_part; }
    uint32_t part_len(uint32_t unit) const;
    void write_unit(Ostra::CByteWriter& writer) const;

    int32_t m_max_pes = 8000;
    uint32_t m_mux_rate = 0;  // units of 50 bytes a second
    int32_t m_track_kinds[TS_MAX_TRACKS];

    // The frame in work.
    unsigned char m_head[HEAD_LEN];
    const unsigned char* m_frame = nullptr;  // borrowed
    uint32_t m_frame_len = 0;
    uint8_t m_stream_id = 0;
    uint64_t m_clock = 0;
    uint32_t m_part = MIN_PES;  // bytes of it in each PES packet but the last
    uint32_t m_unit_count = 0;
    uint32_t m_unit_index = 0;  // next unit to fetch
    uint32_t m_left = 0;        // bytes of the units still to fetch
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAME2PS_H
