#ifndef VIDORA_STREAMPARSER_FRAME2PS_H
#define VIDORA_STREAMPARSER_FRAME2PS_H

#include <cstdint>
#include <memory>

#include "StreamParser/Frame2Packet.h"
#include "StreamParser/TsTable.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

// CFrame2Ps: puts frames into an MPEG-2 program stream (ISO 13818-1) with two tracks, 0 for video and 1 for audio.
//
// Each frame stands for itself: pack header, system header and program stream map, then the PES packets that hold it.
// Each of these is a unit of output of its own.
// Memory: one buffer of 512 KiB; a frame that needs more fails whole, and the next one is taken as ever.
//
// THREADING  No lock: one thread at a time.
class CFrame2Ps : public IFrame2Packet {
public:
    CFrame2Ps();
    CFrame2Ps(const CFrame2Ps&) = delete;
    CFrame2Ps& operator=(const CFrame2Ps&) = delete;

    // Kinds (stream_kind_t) of both tracks; the most frame bytes in a PES packet, taken as 1000 below and as 65000
    // above that range; the bit rate of the whole stream in bits a second, told in the headers only.
    void SetPsInfo(int video_kind, int audio_kind, int max_pes, int bit_rate);

    // As in IFrame2Packet. `extra` has no meaning here. The bytes of the frame are copied at once.
    int PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) override;
    int GetPacketCount() override;
    int GetPacketSize() override;
    int GetPacket(unsigned char* buffer, unsigned int capacity) override;
    int NextPacket() override;
    int GetTotalSize() override;

private:
    static constexpr uint32_t HEAD_UNITS = 3;  // pack header, system header, map
    static constexpr uint32_t MIN_PES = 1000;
    static constexpr uint32_t MAX_PES = 65000;
    static constexpr uint32_t MAX_UNITS = HEAD_UNITS + STREAM_BUFFER_LEN / MIN_PES + 1;

    bool write_frame(Ostra::CByteWriter& writer, const unsigned char* data, uint32_t len, int track, uint64_t clock);
    void write_pack_header(Ostra::CByteWriter& writer, uint64_t clock);
    void write_system_header(Ostra::CByteWriter& writer);
    void write_map(Ostra::CByteWriter& writer);
    bool end_unit(Ostra::CByteWriter& writer);

    std::unique_ptr<unsigned char[]> m_buffer;
    uint32_t m_capacity = 0;
    int32_t m_max_pes = 8000;
    uint32_t m_mux_rate = 0;  // units of 50 bytes a second
    int32_t m_track_kinds[TS_MAX_TRACKS];
    uint32_t m_total = 0;  // bytes written for this frame
    uint32_t m_unit_count = 0;
    uint32_t m_unit_sizes[MAX_UNITS];
    uint32_t m_unit_index = 0;  // next unit to fetch
    uint32_t m_offset = 0;      // its place in the buffer
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAME2PS_H
