#ifndef VIDORA_RTSPCLIENT_RTPFRAMEBUFFERCORE_H
#define VIDORA_RTSPCLIENT_RTPFRAMEBUFFERCORE_H

#include <atomic>

#include "Ostra/LogGate.h"
#include "RtspClient/DecoderParams.h"
#include "RtspClient/FrameRateRepair.h"
#include "RtspClient/FrameTimeRepair.h"
#include "RtspClient/PrivateFrameFacts.h"
#include "RtspClient/PrivateFrameRun.h"
#include "RtspClient/SequenceCount.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/RtpFrameBuffer.h"

namespace Kavio {
namespace Vidora {

// CRtpFrameBufferCore: the contents of CRtpFrameBuffer, shared by its copies; see there.
//
// What comes is one of three: RTP packets for the decoders of the tracks, private frames as they are, or, without a
// description, private frames in pieces.
class CRtpFrameBufferCore {
public:
    CRtpFrameBufferCore() = default;
    CRtpFrameBufferCore(const CRtpFrameBufferCore&) = delete;
    CRtpFrameBufferCore& operator=(const CRtpFrameBufferCore&) = delete;

    // The count of the copies; the last Release deletes the object.
    void AddRef() { ++m_ref_count; }
    void Release();

    int Init(CSdpInfo* sdp);
    int Put(CMediaPacket* packet, int length);
    int End(int channel);
    Flumen::CMediaFrame Get();
    void Clear();
    void SetFrameMode(int mode) { m_frame_mode = mode; }
    void SetFramePolicy(int policy) { m_frame_policy = policy; }
    void SetFrameRate(int rate) { m_rate_repair.SetRate(rate); }
    void GetStatis(TFrameBufferStatis& video, TFrameBufferStatis& audio) const;
    // The last Put met damaged media.
    bool WasDamaged() const { return m_damaged; }

private:
    enum input_t { INPUT_PIECES, INPUT_PRIVATE, INPUT_RTP };

    // A track of INPUT_RTP.
    struct Track {
        int channel = -1;
        CStreamParserPtr parser;
        CSequenceCount* count = nullptr;
        bool ready = false;  // the decoder may have a frame
    };

    ~CRtpFrameBufferCore() = default;

    int make_decoders(const CDecoderParams& params);
    int put_pieces(const Flumen::CMediaFrame& run);
    int put_private(const Flumen::CMediaFrame& frame);
    int put_rtp(const Flumen::CMediaFrame& run);
    Track* find_track(int channel);
    static void count_packets(CSequenceCount& count, const Flumen::CMediaFrame& run);
    Flumen::CMediaFrame get_private();
    Flumen::CMediaFrame get_rtp();
    Flumen::CMediaFrame get_video();
    Flumen::CMediaFrame get_rated_video();
    Flumen::CMediaFrame output_of(CDecoderParams::track_t index);
    void repair_time(Flumen::CMediaFrame& frame);
    void fill_statis(CDecoderParams::track_t track, const CSequenceCount& count, TFrameBufferStatis& statis) const;

    std::atomic<int> m_ref_count{1};
    input_t m_input = INPUT_PIECES;
    int m_packet_type = PACKET_TYPE_RTP;
    int m_frame_mode = 0;    // 0: private frames
    int m_frame_policy = 1;  // 0: the rate is repaired as well
    bool m_damaged = false;

    Track m_tracks[CDecoderParams::TRACK_COUNT];
    CPrivateFrameRun m_pieces;
    Flumen::CMediaFrame m_pending;  // a private frame that waits for Get
    CPrivateFrameFacts m_facts;

    CSequenceCount m_audio_count;
    CSequenceCount m_video_count;  // assist packets too
    CFrameRateRepair m_rate_repair;
    CFrameTimeRepair m_time_repair;
    Ostra::CLogGate m_channel_log;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_RTPFRAMEBUFFERCORE_H
