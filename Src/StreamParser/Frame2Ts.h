#ifndef VIDORA_STREAMPARSER_FRAME2TS_H
#define VIDORA_STREAMPARSER_FRAME2TS_H

#include <cstdint>
#include <memory>

#include "StreamParser/Frame2Packet.h"
#include "StreamParser/TsTable.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

// CFrame2Ts: puts frames into an MPEG-2 transport stream (ISO 13818-1) of one program with two tracks, 0 for video and
// 1 for audio.
//
// Every tenth frame follows a PAT and a PMT, the first one too. Every frame is one PES packet and carries a clock
// reference. The output comes in units of some TS packets, 7 unless told otherwise (1316 bytes: one datagram).
// Memory: one buffer of 512 KiB; a frame that needs more fails whole, and the next one is taken as ever.
//
// THREADING  No lock: one thread at a time.
class CFrame2Ts : public IFrame2Packet {
public:
    CFrame2Ts();
    CFrame2Ts(const CFrame2Ts&) = delete;
    CFrame2Ts& operator=(const CFrame2Ts&) = delete;

    // Kinds (stream_kind_t) of both tracks, and TS packets in an output unit; below 1 means 7.
    void SetTsInfo(int video_kind, int audio_kind, int packets_per_output);

    // Whether the tables name the video track alone.
    void SetVideoOnly(bool on) { m_table.track_count = on ? 1 : TS_MAX_TRACKS; }

    // As in IFrame2Packet. `extra` has no meaning here. The bytes of the frame are copied at once.
    int PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) override;
    int GetPacketCount() override;
    int GetPacketSize() override;
    int GetPacket(unsigned char* buffer, unsigned int capacity) override;
    int NextPacket() override;
    int GetTotalSize() override;

private:
    bool write_frame(const unsigned char* data, uint32_t len, int track, uint64_t clock);
    void write_pat(Ostra::CByteWriter& writer) const;
    void write_pmt(Ostra::CByteWriter& writer) const;
    void write_media(Ostra::CByteWriter& writer, const unsigned char* data, uint32_t len, int track, uint64_t clock);

    std::unique_ptr<unsigned char[]> m_buffer;
    uint32_t m_capacity = 0;
    int32_t m_packets_per_output = 0;
    uint32_t m_frame_count = 0;  // frames taken so far
    uint32_t m_total = 0;        // bytes written for this frame
    uint32_t m_offset = 0;       // bytes of them fetched already
    TsProgramTable m_table;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAME2TS_H
