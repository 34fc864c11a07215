#ifndef VIDORA_STREAMPARSER_RTP2FRAME_H
#define VIDORA_STREAMPARSER_RTP2FRAME_H

#include <cstdint>
#include <memory>

#include "StreamParser/FrameResult.h"
#include "StreamParser/JpegTables.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/RtpNotify.h"
#include "StreamParser/RtpPacketNode.h"
#include "StreamParser/Ts2Frame.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CRtp2Frame: rebuilds the frames of one track from its RTP packets (RFC 3550).
//
// A frame ends with the marker bit, or where the RTP time stamp changes. What a frame is by encode type: H.264 (RFC
// 6184: single NAL units, STAP-A, FU-A) as a byte stream with start codes, each key frame with parameter sets; MPEG-4
// (RFC 3016, now 6416) as it is, each key frame with a configuration; JPEG (RFC 2435) as a JFIF image; MPEG audio (RFC
// 2250) and the others as their payloads; a transport stream (RFC 2250) as the frames of its first track.
//
// OWNERSHIP  Media isn't copied before GetFrame: the packets of the frame in work are borrowed and must stay until
//            Clear. The notify is borrowed too.
// MEMORY     At most MAX_PACKETS nodes of a hundred bytes each, MAX_AGGREGATED pairs of pieces for each of them, and
//            the buffer of Ts2Frame.
// THREADING  No lock: one thread at a time.
class CRtp2Frame {
public:
    static constexpr uint32_t CONFIG_SIZE = 1024;
    static constexpr uint32_t MAX_PACKETS = 8192;    // of one frame; one more makes PutPacket fail
    static constexpr uint32_t MAX_AGGREGATED = 128;  // NAL units in one STAP-A packet; one more makes the frame fail
    static constexpr uint8_t ASSIST_TYPE_NONE = 0xFF;

    CRtp2Frame() = default;
    CRtp2Frame(const CRtp2Frame&) = delete;
    CRtp2Frame& operator=(const CRtp2Frame&) = delete;

    // The track: its enc_type_t, the only payload type that is taken, and its clock in ticks a second (0 keeps the one
    // there is, 8000 at first). -1 if memory is short.
    int Init(int enc_type, uint8_t payload_type, uint32_t clock_rate);
    // Who hears of SSRC changes and losses; null for nobody.
    void SetNotify(IRtpNotify* notify) { m_notify = notify; }
    // True: a frame that lost a packet isn't put out.
    void SetDropDamaged(bool drop) { m_drop_damaged = drop; }
    // What goes in front of key frames that bring nothing of their own. MPEG-4: the configuration, 1 to 1023 bytes.
    // H.264: both parameter sets, together at most 1015 bytes, with or without a start code. Copied. 0, or -1 with no
    // change.
    int SetMpeg4Config(const unsigned char* data, int len);
    int SetH264Config(const unsigned char* sps, int sps_len, const unsigned char* pps, int pps_len);

    // Takes a packet of `len` bytes, with or without its interleave header. A frame_result_t: after FRAME_COMPLETE or
    // FRAME_COMPLETE_NEXT take the frame and Clear, after FRAME_FAILED (logged) Clear.
    int PutPacket(const unsigned char* buffer, int len);

    // Of the frame that PutPacket completed: its size in bytes, and its bytes into `buffer` of `capacity` bytes. The
    // second gives the size, or 0 with nothing of use in `buffer` if it doesn't fit.
    uint32_t GetFrameSize() const;
    uint32_t GetFrame(unsigned char* buffer, uint32_t capacity) const;
    // Milliseconds since the first packet, kept over frames, losses and Clear; for a transport stream too.
    uint64_t GetPts() const { return m_pts; }
    // A frame_type_t letter.
    int GetFrameType() const;
    // The last picture size that could be read, 0 before.
    uint16_t GetWidth() const { return m_ts2frame != nullptr ? m_ts2frame->GetWidth() : m_width; }
    uint16_t GetHeight() const { return m_ts2frame != nullptr ? m_ts2frame->GetHeight() : m_height; }
    // 1 if frames aren't field-coded.
    int GetProgressive() const { return m_progressive; }
    // Of the last assist frame, ASSIST_TYPE_NONE before.
    uint8_t GetAssistType() const { return m_assist_type; }
    // For a transport stream: the encode code of the private frame header, by its stream kind; -1 with a log line for
    // one without code.
    int GetTsEncodeType() const;
    uint32_t GetSsrc() const { return m_last_ssrc; }
    uint16_t GetLastSeq() const { return m_last_seq; }

    // Drops the packets of the frame in work. Sequence number, time and configuration stay.
    void Clear();

private:
    // Frame kinds of the H.264 rule.
    enum h264_kind_t { KIND_NONE = 0, KIND_KEY = 1, KIND_P = 2, KIND_B = 3 };

    struct Piece {
        const unsigned char* data;
        uint32_t len;
    };

    // How far the walk over the packets of the frame in work has come. A frame that isn't complete at its marker keeps
    // collecting, and each packet is still looked at once only.
    struct Walk {
        RtpPacketNode* node = nullptr;  // last node done
        uint32_t count = 0;             // nodes done
        // H.264
        int kind = KIND_NONE;
        Piece sps = {nullptr, 0};  // this frame's parameter sets, without start codes
        Piece pps = {nullptr, 0};
        Piece slice = {nullptr, 0};  // the bytes behind the header of the NAL unit that told the kind
        // MPEG-4
        bool own_config = false;  // the frame brings a configuration
        bool new_config = false;  // it went into m_config
        int vop_type = -1;        // vop_coding_type, -1 until a picture was found
        // transport stream
        int ts_result = FRAME_MORE;
    };

    struct JpegHeader;

    int refuse_packet(const Ostra::CByteReader& packet) const;
    int put_foreign(uint16_t sequence);
    void watch_sequence(const RtpHeader& header);
    void notify_disorder(uint16_t sequence);
    bool opens_cleanly(const RtpHeader& header) const;
    void probe_shared_sequence(uint16_t sequence);
    bool store_packet(const RtpHeader& header);
    void advance_time(uint32_t timestamp);

    int make_frame();
    int make_frame_by_type();
    RtpPacketNode* next_node();
    void set_config_prefix();
    int cut_front(uint32_t len, bool first_only);
    int make_ts();

    int make_h264();
    int place_h264_node(RtpPacketNode& node);
    int place_stap_a(RtpPacketNode& node);
    void place_fu_a(RtpPacketNode& node);
    void set_h264_kind(int nal_type, const Piece& rest, const Piece& payload);
    void search_parameter_sets();
    void search_inner_sets(const RtpPacketNode& node);
    void take_parameter_set(const unsigned char* nal, uint32_t len);
    int set_h264_config(const Piece& sps, const Piece& pps);
    void take_h264_facts();

    int make_mpeg4();
    void find_mpeg4_config(const RtpPacketNode& node);
    void find_mpeg4_picture(const RtpPacketNode& node);

    int make_jpeg();
    static bool read_jpeg_header(Ostra::CByteReader& payload, JpegHeader& header);
    bool read_jpeg_tables(Ostra::CByteReader& payload, const JpegHeader& header);
    bool write_jpeg_header(const JpegHeader& header);

    int m_enc_type = ENC_TYPE_NONE;
    uint8_t m_payload_type = 0;
    uint32_t m_clock_rate = 8000;
    IRtpNotify* m_notify = nullptr;
    bool m_drop_damaged = false;

    // The frame in work.
    CRtpPacketList m_nodes;
    Walk m_walk;
    bool m_damaged = false;  // one of its packets was lost

    // The running state of the track.
    uint64_t m_pts = 0;
    uint32_t m_last_ts = 0;
    uint32_t m_last_ssrc = 0;
    uint16_t m_last_seq = 0;
    uint64_t m_packets = 0;  // packets taken in all

    // Whether packets of other payload types share this track's sequence numbers; found out once.
    bool m_probed = false;
    bool m_shared_seq = false;
    bool m_probe_armed = false;
    uint16_t m_probe_seq = 0;

    // What is known of the stream.
    unsigned char m_config[CONFIG_SIZE] = {};
    uint32_t m_config_len = 0;
    bool m_key_frame = false;
    uint16_t m_width = 0;
    uint16_t m_height = 0;
    int m_progressive = 0;
    uint8_t m_assist_type = ASSIST_TYPE_NONE;
    uint8_t m_jpeg_q = 0;  // of the quantisation tables kept below, 0 for none
    uint8_t m_jpeg_tables[2 * JPEG_TABLE_LEN] = {};
    std::unique_ptr<Ts2Frame> m_ts2frame;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTP2FRAME_H
