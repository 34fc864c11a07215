#ifndef VIDORA_STREAMPARSER_FRAME2TS_H
#define VIDORA_STREAMPARSER_FRAME2TS_H

#include <cstdint>

#include "StreamParser/ForwardTime.h"
#include "StreamParser/Frame2Packet.h"
#include "StreamParser/TsTable.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

// CFrame2Ts: puts frames into an MPEG-2 transport stream (ISO 13818-1) of one program with two tracks, 0 for video and
// 1 for audio.
//
// Every tenth frame follows a PAT and a PMT, the first one too. Every frame is one PES packet and carries a clock
// reference, which is its time stamp, or that of an earlier frame if a B picture's lies before it (ISO
// 13818-1 2.4.2.2). The output comes in units of some TS packets, 7 unless told otherwise (1316 bytes: one datagram).
//
// PutFrame makes what comes in front of the frame's second TS packet; GetPacket does the one copy of the rest. A frame
// that takes more than STREAM_BUFFER_LEN bytes fails whole, and the next one is taken as ever.
//
// THREADING  No lock: one thread at a time.
class CFrame2Ts final : public IFrame2Packet {
public:
    CFrame2Ts();
    CFrame2Ts(const CFrame2Ts&) = delete;
    CFrame2Ts& operator=(const CFrame2Ts&) = delete;

    // Kinds (stream_kind_t) of both tracks, and TS packets in an output unit; below 1 means 7.
    void SetTsInfo(int video_kind, int audio_kind, int packets_per_output);

    // Whether the tables name the video track alone.
    void SetVideoOnly(bool on);
    // Whether the tables' packets are counted as all others are (ISO 13818-1 2.4.3.3), and a PMT that changes has a new
    // version (2.4.4.9). Without it they have the counter 0 in each repetition, as they always had, and strict
    // receivers take them for duplicates.
    void SetCountedTables(bool on) { m_counts_tables = on; }

    // As in IFrame2Packet. `extra` has no meaning here.
    int PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) override;
    int GetPacketCount() override;
    int GetPacketSize() override;
    int GetPacket(unsigned char* buffer, unsigned int capacity) override;
    int NextPacket() override;
    int GetTotalSize() override;

private:
    // PAT, PMT and the frame's first packet.
    static constexpr uint32_t MAX_HEAD_LEN = 3 * TS_PACK_LEN;

    bool write_head(const unsigned char* data, uint32_t len, int track, uint64_t pts_ms);
    void change_tables(const TsProgramTable& before);
    void write_pat(Ostra::CByteWriter& writer) const;
    void write_pmt(Ostra::CByteWriter& writer) const;
    uint32_t write_first(Ostra::CByteWriter& writer, const unsigned char* data, uint32_t len, int track,
                         uint64_t pts_ms);
    void write_unit(Ostra::CByteWriter& writer) const;

    int32_t m_packets_per_output = 0;
    uint32_t m_frame_count = 0;  // frames taken since the tables changed
    int m_version = 0;           // of the PMT
    TsProgramTable m_table;
    bool m_counts_tables = false;
    int m_table_continuity = 0;  // of both tables, which always come together
    CForwardTime m_clocks[TS_MAX_TRACKS];

    // The frame in work.
    unsigned char m_head[MAX_HEAD_LEN];
    uint32_t m_head_len = 0;
    const unsigned char* m_rest = nullptr;  // the bytes of the frame behind those in the head; borrowed
    uint32_t m_rest_len = 0;
    int m_pid = 0;
    int m_continuity = 0;   // of the first packet behind the head
    uint32_t m_total = 0;   // bytes of all its packets
    uint32_t m_offset = 0;  // bytes of them fetched already
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAME2TS_H
