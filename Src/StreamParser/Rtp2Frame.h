#ifndef VIDORA_STREAMPARSER_RTP2FRAME_H
#define VIDORA_STREAMPARSER_RTP2FRAME_H

#include <cstdint>
#include <memory>

#include "Ostra/LogGate.h"
#include "StreamParser/FrameResult.h"
#include "StreamParser/RtpFrameRule.h"
#include "StreamParser/RtpFrameWork.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/RtpNotify.h"
#include "StreamParser/RtpSequenceWatch.h"
#include "StreamParser/TickTime.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CRtp2Frame: rebuilds the frames of one track from its RTP packets (RFC 3550).
//
// A frame ends with the marker bit, or where the RTP time stamp changes; in a transport stream where its pictures end.
// What the packets of a frame become is told by the rule of the codec, see IRtpFrameRule.
//
// With damaged frames dropped, a frame comes out only if its first packet was seen and no packet was lost, doubled or
// swapped since: behind a loss, a Clear in its middle, or at the first packet of a sender, the rest of a frame that has
// begun already is left out.
//
// OWNERSHIP  Media isn't copied before GetFrame, but that of a transport stream: the packets of the frame in work are
//            borrowed and must stay until Clear. The notify is borrowed too.
// MEMORY     At most MAX_PACKETS nodes of 64 bytes each, CRtpH264Rule::MAX_AGGREGATED pairs of pieces for each
//            of them, and for a transport stream the buffer of Ts2Frame.
// THREADING  No lock: one thread at a time.
class CRtp2Frame {
public:
    static constexpr uint32_t CONFIG_SIZE = RtpCodecConfig::SIZE;
    static constexpr uint32_t MAX_PACKETS = 8192;  // of one frame; one more makes PutPacket fail
    static constexpr uint8_t ASSIST_TYPE_NONE = RtpFrameWork::ASSIST_TYPE_NONE;

    CRtp2Frame() = default;
    CRtp2Frame(const CRtp2Frame&) = delete;
    CRtp2Frame& operator=(const CRtp2Frame&) = delete;

    // The track: its enc_type_t, the only payload type that is taken, and its clock in ticks a second (0 keeps the one
    // there is, 8000 at first). Packets held are dropped if the type is another one. -1 if memory is short.
    int Init(int enc_type, uint8_t payload_type, uint32_t clock_rate);
    // Who hears of SSRC changes and losses; null for nobody.
    void SetNotify(IRtpNotify* notify) { m_watch.SetNotify(notify); }
    // True: a frame that lost a packet isn't put out.
    void SetDropDamaged(bool drop) { m_drop_damaged = drop; }
    // What goes in front of key frames that bring nothing of their own. MPEG-4: the configuration, 1 to 1023 bytes.
    // H.264: both parameter sets, together at most 1015 bytes, with or without a start code. Copied. 0, or -1 with no
    // change.
    int SetMpeg4Config(const unsigned char* data, int len);
    int SetH264Config(const unsigned char* sps, int sps_len, const unsigned char* pps, int pps_len);

    // Takes a packet of `len` bytes, with or without its interleave header. A frame_result_t: after FRAME_COMPLETE or
    // FRAME_COMPLETE_NEXT take the frame and Clear, after FRAME_FAILED (logged) Clear. FRAME_COMPLETE_NEXT: put the
    // same packet again then; one packet of a transport stream may bring several frames so.
    int PutPacket(const unsigned char* buffer, int len);
    // No packet follows of the frame in work: FRAME_COMPLETE if it is a frame, FRAME_MORE if it isn't, or if its sender
    // marks the ends of frames and hasn't marked this one.
    int End();
    // Packets that are borrowed for the frame in work.
    uint32_t GetPacketCount() const { return m_work.nodes.Count(); }
    // Did the last PutPacket drop the packets that had been borrowed before it?
    bool WasDropped() const { return m_dropped; }

    // Of the frame that PutPacket completed: its size in bytes, and its bytes into `buffer` of `capacity` bytes. The
    // second returns the size, or 0 with nothing of use in `buffer` if it doesn't fit.
    uint32_t GetFrameSize() const { return m_work.FrameSize(); }
    uint32_t GetFrame(unsigned char* buffer, uint32_t capacity) const;
    // Hands the frame over in memory of its own, with nothing left to take, if it lies in one piece; an empty frame
    // otherwise.
    Flumen::CMediaFrame TakeFrame();
    // Milliseconds since the first packet, kept over frames, losses and Clear; for a transport stream too.
    uint64_t GetPts() const { return m_work.frame_ms; }
    // A frame_type_t letter.
    int GetFrameType() const { return m_work.frame_type; }
    // The last picture size that could be read, 0 before.
    uint16_t GetWidth() const { return m_work.width; }
    uint16_t GetHeight() const { return m_work.height; }
    // 1 if frames aren't field-coded.
    int GetProgressive() const { return m_work.progressive; }
    // Of the last assist frame, ASSIST_TYPE_NONE before.
    uint8_t GetAssistType() const { return m_work.assist_type; }
    // For a transport stream: the encode code of the private frame header, by its stream kind; -1 with a log line for
    // one without code.
    int GetTsEncodeType() const;
    uint32_t GetSsrc() const { return m_watch.GetSsrc(); }
    uint16_t GetLastSeq() const { return m_watch.GetLastSeq(); }

    // Drops the packets of the frame in work. Sequence number, time and configuration stay.
    void Clear();

private:
    int refuse_packet(const Ostra::CByteReader& packet);
    int put_framed(const RtpHeader& header);
    bool complete_unmarked(rtp_order_t order);
    bool begins_well(const RtpHeader& header, rtp_order_t order) const;
    void mark_gap(const RtpHeader& header, rtp_order_t order);
    int put_stream(const RtpHeader& header);
    void watch_stream(const RtpHeader& header);
    inline bool store_packet(const RtpHeader& header);
    inline void take_packet(const RtpHeader& header, rtp_order_t order);
    int make_frame();
    void print_output(uint32_t size) const;
    void drop_packets();
    void clear_work();

    int m_enc_type = ENC_TYPE_NONE;
    uint8_t m_payload_type = 0;
    uint32_t m_clock_rate = 8000;
    bool m_drop_damaged = false;

    std::unique_ptr<IRtpFrameRule> m_rule;  // null for a type without one
    bool m_is_stream = false;               // the rule finds the frames itself
    bool m_damaged = false;                 // the frame of the last time stamp lost a packet, or its beginning
    bool m_complete = false;                // the packets held are a frame that was told
    bool m_unmarked = false;                // a frame has ended by the next one's time stamp alone
    bool m_left_out = false;                // the last packet was to be put again
    bool m_dropped = false;

    // The running state of the track.
    CRtpSequenceWatch m_watch;
    CTickTime m_time{8000};
    uint32_t m_last_ts = 0;

    // What a peer can cause with each packet.
    Ostra::CLogGate m_refused_log;
    Ostra::CLogGate m_failed_log;

    RtpFrameWork m_work;  // at the end, as its own end is large and seldom looked at
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTP2FRAME_H
