#ifndef VIDORA_STREAMPARSER_FRAME2RTP_H
#define VIDORA_STREAMPARSER_FRAME2RTP_H

#include <cstdint>

#include "StreamParser/Frame2Packet.h"
#include "StreamParser/RtpCut.h"
#include "StreamParser/RtpCutAssistFrame.h"
#include "StreamParser/RtpCutJpeg.h"
#include "StreamParser/RtpPacketNode.h"
#include "StreamParser/StreamParser.h"

namespace Kavio {
namespace Vidora {

// CFrame2Rtp: cuts frames into RTP packets (RFC 3550) of one track.
//
// PutFrame makes descriptors only; GetPacket does the one copy. All packets of a frame carry one time stamp, the
// timeline's start plus the frame's distance in milliseconds from the first frame, and the last one has the marker; see
// SetSound for where they don't.
// A frame with a time stamp of 0 doesn't begin the timeline: the next one does.
//
// THREADING  No lock: one thread at a time.
class CFrame2Rtp final : public IFrame2Packet {
public:
    CFrame2Rtp() = default;
    CFrame2Rtp(const CFrame2Rtp&) = delete;
    CFrame2Rtp& operator=(const CFrame2Rtp&) = delete;

    int PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) override;
    int GetPacketCount() override;
    // GetPacketSize and GetTotalSize leave the header extension out; see GetExtensionSize.
    int GetPacketSize() override;
    int GetPacket(unsigned char* buffer, unsigned int capacity) override;
    int NextPacket() override;
    int GetTotalSize() override;

    // Writes all packets still to come, one behind the other, each behind its interleave header (RFC 2326 10.12) of
    // these two bytes and its length if `interleave` isn't null. The same as taking them one by one, in one go; no
    // packet is left then. False if they don't fit, with some of them written.
    bool GetFrame(CByteWriter& out, const uint8_t* interleave);

    // Begins a new timeline: the next packet has `sequence`, the next frame `timestamp`. Each frame's ticks are the
    // product of its distance from the first one and the clock, cut to a whole number, so that no clock drifts.
    void SetRtpInfo(uint32_t ssrc, uint8_t payload_type, uint16_t sequence, uint32_t timestamp, uint32_t clock_rate);
    // Whether the NAL units of H.264 are told apart; see rtp_cut_nal_units.
    void SetNalUnits(bool on) { m_nal_units = on; }
    // Whether packets have the marker, and how many bytes of a frame take one tick of the clock: each packet has the
    // time of its own first byte then. 0: all have that of the frame.
    void SetSound(bool marker, uint32_t bytes_per_tick) {
        m_marker = marker;
        m_bytes_per_tick = bytes_per_tick;
    }
    // Where the track is: the next sequence number, and the time stamp of the frame in work.
    void GetRtpInfo(RtpEncParam& param) const;
    // Adds to the flags. With RTP_FLAG_EXTENSION set, takes the extension for the first packet of each frame.
    void SetRtpFlags(uint32_t flags, const uint8_t extension[RTP_EXTENSION_LEN]);
    // Bytes that the header extension adds to the current packet, 0 for a packet without one.
    unsigned int GetExtensionSize() const;

private:
    int cut(const unsigned char* data, uint32_t len, int enc_type, uint8_t extra);
    struct FrameHead;
    FrameHead frame_head(const uint8_t* interleave) const;
    void write_packet(CByteWriter& writer, const FrameHead& head, int index, uint16_t sequence) const;
    uint32_t packet_timestamp(const RtpPacketNode& node) const;
    [[gnu::cold]] void write_extension(CByteWriter writer) const;
    [[gnu::cold]] void print_packet(bool marker, uint16_t sequence, uint32_t len) const;
    uint32_t timestamp() const;
    const RtpPacketNode* current() const { return m_index < m_count ? m_nodes.begin() + m_index : nullptr; }

    int m_enc_type = ENC_TYPE_NONE;
    uint32_t m_ssrc = 0;
    uint8_t m_payload_type = 0;
    uint16_t m_sequence = 0;
    uint32_t m_timestamp = 0;  // of the first frame
    uint32_t m_clock_rate = 90000;
    uint64_t m_pts_delta = 0;  // of this frame from the first, milliseconds
    uint64_t m_first_pts = 0;
    CRtpPacketList m_nodes;
    int m_count = 0;  // packets of the frame
    int m_index = 0;  // the current one; m_count behind the last
    uint32_t m_flags = 0;
    bool m_nal_units = false;
    bool m_marker = true;
    uint32_t m_bytes_per_tick = 0;
    uint8_t m_extension[RTP_EXTENSION_LEN] = {};
    unsigned char m_audio_headers[MPEG_AUDIO_HEADERS_LEN] = {};
    unsigned char m_quant_header[JPEG_QUANT_HEADER_LEN] = {};
    unsigned char m_assist_header[ASSIST_HEADER_LEN] = {};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_FRAME2RTP_H
