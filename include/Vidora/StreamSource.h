#ifndef VIDORA_STREAMSOURCE_H
#define VIDORA_STREAMSOURCE_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// Video codecs of StreamVideoFormat::encode_type. Ordinary players know all three.
enum stream_video_encode_t { STREAM_VIDEO_MPEG4 = 1, STREAM_VIDEO_H264 = 2, STREAM_VIDEO_JPEG = 5 };

// Audio codecs of StreamAudioFormat::encode_type. "Plays": players know what the SDP announces, at any sample rate
// where none is named, and with RTSP_SVR_CONFIG_CONFORMANCE on where that is said. Codecs that don't play are refused
// with that item on; without it they are announced under a name and number of this system, which only its own clients
// know. New hosts take G.711 or MPEG audio.
enum stream_audio_encode_t {
    STREAM_AUDIO_PCMA = 7,       // G.711 A-law. On the wire the same as 14, which is the one to take: clients of this
                                 // library tell their hosts 14
    STREAM_AUDIO_G729 = 8,       // plays, at 8000 Hz
    STREAM_AUDIO_DVI4 = 9,       // IMA ADPCM in blocks of RFC 3551 4.5.1: plays, at 8000 and 16000 Hz, and with
                                 // conformance on at 11025 and 22050 Hz as well
    STREAM_AUDIO_PCMU = 10,      // G.711 mu-law: plays
    STREAM_AUDIO_G721 = 11,      // G.726 at 32 kbit/s: plays with conformance on
    STREAM_AUDIO_PCM8 = 12,      // doesn't play
    STREAM_AUDIO_MS_ADPCM = 13,  // doesn't play
    STREAM_AUDIO_PCMA_14 = 14,   // G.711 A-law: plays
    STREAM_AUDIO_AMR = 15,       // doesn't play
    STREAM_AUDIO_L16 = 16,       // linear, 16 bits, most significant byte first, mono: plays with conformance on
    STREAM_AUDIO_G7231 = 25,     // G.723.1: plays with conformance on, at 8000 Hz
    STREAM_AUDIO_AAC = 26,       // doesn't play
    STREAM_AUDIO_MPEG = 31  // MPEG audio layer II, whole frames: plays with conformance on; without it its clock is
                            // announced at the sample rate, where players want 90000 Hz (RFC 2250)
};

// States of CStreamSource::getPacketType; others are left to the host.
enum packet_state_t {
    PACKET_STATE_RUNS = 0,
    PACKET_STATE_END = 1  // the end of the recording
};

struct StreamVideoFormat {
    // Samples. A change of either one is a change of format; the library reads them for nothing else.
    int32_t width = 0;
    int32_t height = 0;
    int32_t encode_type = 0;  // stream_video_encode_t
    int32_t frame_rate = 0;   // frames a second, for the SDP only
};

struct StreamAudioFormat {
    int32_t encode_type = 0;  // stream_audio_encode_t
    int32_t sample_rate = 0;  // Hz
};

// CStreamSource: one stream of the host, live or recorded; the host derives from it.
//
// The factory of CRtspSvrConfig (RTSP_SVR_CONFIG_SRC_FUNC) makes one for a content string. The library calls Init, then
// waits for the source's message MSG_STREAM_INFO (the format is known) or MSG_STREAM_FAIL, both sent with
// Notify(receiver_id, message, 0), and reads the format only after it. Start begins the flow of frames. A second
// MSG_STREAM_INFO says that the format has changed.
//
// A frame is a Flumen::CMediaFrame in the private frame format, with setType (a frame_type_t), setSequence, setPts
// (PTS_TYPE_MS, milliseconds) and setUtc (wall time in seconds) set, and setNewFormat(1) on the first frame of a new
// format. The first time stamp of a stream is above 0, as 0 means none yet: a stream that begins at 0 has its
// first two frames at one time. H.264 frames hold NAL units behind start codes, a key frame its parameter sets first.
// Without RTSP_SVR_CONFIG_CONFORMANCE the start codes have four bytes, 00 00 00 01, never three, and a picture has one
// slice: what follows it is sent as a part of it. JPEG images are baseline 4:2:0 with the Huffman tables of ISO 10918-1
// K.3 (RFC 2435); each is a key frame (FRAME_TYPE_I), as a frame of FRAME_TYPE_JPEG counts as side data. B pictures are
// given in decoding order, with the time at which each one is shown.
//
// THREADING  The operations come from pool threads and from the host's own calls into the library. Start, Stop, Pause
//            and Resume come one after another; the format queries (HasVideo, HasAudio, GetVideoFormat,
//            GetAudioFormat) and GetFileRange may run beside them, and the format queries and getPacketType also
//            inside the frame callback. Frames may be given from any one thread at a time; the callback runs the
//            conversion to packets and must not be called with a lock held that the operations also take. Stop
//            returns only when no callback runs any more, and so must not wait for a lock that the frame thread needs
//            to end. No lock of a channel or registry is held over the operations: they may take their time, which
//            holds up this source's own clients and nobody else (CNetThread says how many may hang at a time), and
//            may call channel and registry.
// OWNERSHIP  The library owns the source from the factory on and returns it with Close; handle_close then ends it,
//            as with every CNetHandler (`delete this`).
class VIDORA_API CStreamSource : public CNetHandler {
public:
    typedef TFunction1<void, const Flumen::CMediaFrame&> frame_proc_t;

    CStreamSource();
    ~CStreamSource() override;

    // Begins. `receiver_id` is where the messages go; `ext` is 0. Negative on failure: the source is then closed.
    virtual int Init(long receiver_id, int ext) = 0;
    // What kind of source it is. SRC_TYPE_FILE and SRC_TYPE_TOKEN can pause and seek.
    virtual src_type_t GetSrcType() = 0;
    virtual bool HasVideo() = 0;
    virtual bool HasAudio() = 0;
    virtual void GetAudioFormat(StreamAudioFormat& format) = 0;
    virtual void GetVideoFormat(StreamVideoFormat& format) = 0;
    // Codec configuration into `buf` of `len` bytes: for H.264 the sequence and picture parameter sets, each behind
    // 00 00 00 01; for MPEG-4 the headers up to the first VOP. Returns its whole size, which may be above `len`; 0 or
    // less for none, without which streams of these two codecs can't be described.
    virtual int GetVideoSpecificInfo(char* buf, int len) = 0;
    // Asks for the stream information anew, upon which MSG_STREAM_INFO follows. Non-zero on failure.
    virtual int UpdataStreamInfo(long arg) = 0;
    // Begins to hand frames to `proc`. False on failure.
    virtual bool Start(frame_proc_t proc) = 0;
    // Ends it; `proc` equals the one given to Start. No call of it runs or starts after the return.
    virtual bool Stop(frame_proc_t proc) = 0;

    // Of files and tokens. All are optional; the base returns false. One that goes on at its end, by Resume or by
    // Start, tells that end again: while it rests, and before a seek has been answered, nobody hears of it.
    virtual bool Pause();
    virtual bool Resume();
    // Play rate: 1.0 real time, below 0 backwards, never 0.
    virtual bool SetSpeed(float speed);
    virtual bool SeekByTime(const CTime& time);
    virtual bool StepFrame(int count, bool forward);
    // The playing position as wall time. With RTSP_SVR_CONFIG_CONFORMANCE it is asked for behind SeekByTime as well: a
    // source that begins with a key frame up to ten seconds in front of what is sought tells the time of that.
    virtual bool GetTime(CTime& time);
    virtual bool GetSpeed(float& speed);
    // Wall times of the first and the last frame.
    virtual bool GetFileRange(CTime& begin, CTime& end);
    // Length in microseconds.
    virtual bool GetFileRange(uint64_t& length_us);

    // Asks for a key frame soon; called when a client joins a running stream.
    virtual void SetIFrame();
    // Bounds of a token source.
    virtual bool Limit(CTime start, CTime end);
    virtual void RePlay();
    // State of the frame just given, a packet_state_t; the frame that comes with the end of a file is not sent. The
    // result is ignored. Called inside the frame callback.
    virtual bool getPacketType(int& packet_state);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_H
