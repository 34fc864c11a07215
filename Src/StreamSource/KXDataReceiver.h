#ifndef VIDORA_STREAMSOURCE_KXDATARECEIVER_H
#define VIDORA_STREAMSOURCE_KXDATARECEIVER_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "Ostra/LogLimit.h"
#include "StreamSource/BufferTable.h"
#include "StreamSource/FormatWatch.h"
#include "StreamSource/PlayWindow.h"
#include "StreamSource/ReplayExtension.h"
#include "StreamSource/SrcInfoTable.h"
#include "StreamSource/TrackEncoders.h"
#include "StreamSource/UseCount.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Names.h"
#include "Vidora/StreamSource.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CKXDataReceiver: the media path of the server. It takes each frame of one host source, finds its track, and puts it
// into the media buffers that it was given, in up to three forms: as RTP, as MPEG-TS and as a private frame. It starts,
// pauses and stops the source by counting the clients of each packet form, keeps the play window of a file, and notices
// changes of format.
//
// Results are 0, or -1 with a log line.
//
// THREADING  frame_proc: the host's frame thread, under m_mutex from beginning to end. m_mutex guards all that the
//            callback reads: counts, buffers, tracks, formats, the play window. It is held over the source's format
//            queries, as in the callback itself, but never over Start, Stop, Pause, Resume or a seek, which may wait
//            for the callback. m_start_mutex puts those calls of several sessions in a row; it comes before m_mutex.
//            GetSrcInfo, GetSSRC and the two operations on tracks take neither, and so never wait for the host.
// OWNERSHIP  Owns the source, which it closes at its end. Keeps references of the media buffers: a channel that shares
//            the source may end, and its buffers with it, while the clients of another keep the source running. Who
//            calls it from outside its strand holds a CUse; it ends when it is closed and the last of them, and the
//            last frame, has left it.
class CKXDataReceiver : public CNetHandler {
public:
    typedef CStreamSource* (*create_src_fun_t)(const char* content);

    // Null if memory is short.
    static CKXDataReceiver* Create();

    // A call into the receiver from outside, for its time.
    class CUse {
    public:
        // `receiver` isn't closed yet, nor while this runs, or is null.
        explicit CUse(CKXDataReceiver* receiver);
        ~CUse();
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;
        CKXDataReceiver* operator->() const { return m_receiver; }
        CKXDataReceiver& operator*() const { return *m_receiver; }
        // False if there is no receiver.
        explicit operator bool() const { return m_receiver != nullptr; }

    private:
        CKXDataReceiver* m_receiver;
    };

    void set_create_src_fun(create_src_fun_t create_src_fun) { m_create_src_fun = create_src_fun; }
    // Before Init: plays ranges and time lines as RFC 2326 has them.
    void SetConformance(bool on);
    // Makes the source for `content` and begins it; messages go to `notify_id`.
    int Init(const char* content, long notify_id, int ext);

    // See CDataSource::Play. Live kinds: 0 with nothing done.
    int Play(uint64_t start_us, uint64_t end_us, float speed);
    int Play(const UtcTime& start, const UtcTime& end, float speed);
    int Pause();
    // Sends the owner a message behind all that the source has told until now.
    void Report(unsigned int msg) { Notify(GetID(), msg, 0); }
    // Counts a client of that packet form and buffer in, and starts or resumes the source. `cseq` goes into the replay
    // extension. A client for which the source doesn't start isn't counted.
    int StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq);
    // Counts a client out: of `buffer`, or with null of the one that was given last. -1 also while others are left,
    // since the source runs on.
    int StopStreaming(packet_type_t packet_type, const CMediaBuffer* buffer);
    // Puts nothing into `buffer` any more, while its clients stay counted. Waits for a frame on its way only.
    void CutFeeding(const CMediaBuffer* buffer);

    bool HasVideo();
    bool HasAudio();
    int GetVideoFormat(StreamVideoFormat& format);
    int GetAudioFormat(StreamAudioFormat& format);
    int GetVideoSpecificInfo(char* buf, int len);
    // Only of files and tokens.
    int GetFileRange(uint64_t& length_us);
    int GetFileRange(UtcTime& begin, UtcTime& end);
    int GetPlayRange(uint64_t& start_us, uint64_t& end_us);
    int GetPlayRange(UtcTime& start, UtcTime& end);
    // The running state of the track at `index` of the track table.
    int GetSrcInfo(SrcInfo& info, int index);
    unsigned int GetSSRC(int index);
    int UpdataStreamInfo(long arg);
    int EnableStreamTrack(int track_kind);
    int DisableStreamTrack(int track_kind);

    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    CKXDataReceiver() : m_encoders(m_src_info) {}
    ~CKXDataReceiver() override;

    bool is_seekable() const { return m_src_type == SRC_TYPE_FILE || m_src_type == SRC_TYPE_TOKEN; }

    // The stream's information (KXDataReceiver.cpp).
    void on_first_info();
    bool update_formats_locked() VIDORA_REQUIRES(m_mutex);

    // Starting, stopping and the play window (KXDataReceiverPlay.cpp). Results: 0 or negative, or what the name asks.
    int set_play(const CTime& start, const CTime& end, float speed);
    bool seek(const CTime& start, const CTime& end, bool backwards);
    int check_seekable() const;
    bool has_range() const;
    int start_source() VIDORA_REQUIRES(m_start_mutex);
    int resume_source();
    bool stop_source();
    void end();

    // The path of a frame (KXDataReceiverFrame.cpp). put_..._locked: 0, or -1 for a frame that can't be converted.
    // find_track_locked: negative for a frame that goes nowhere. to_..._locked: the packets, invalid on failure.
    // send_rtp_locked: the bytes put, 0 on failure.
    void frame_proc(const Flumen::CMediaFrame& frame);
    void take_frame(const Flumen::CMediaFrame& frame);
    bool is_at_end_locked() VIDORA_REQUIRES(m_mutex);
    bool is_outside_window_locked(const Flumen::CMediaFrame& frame) VIDORA_REQUIRES(m_mutex);
    bool is_described_locked(const Flumen::CMediaFrame& frame) VIDORA_REQUIRES(m_mutex);
    int put_frame_locked(const Flumen::CMediaFrame& frame) VIDORA_REQUIRES(m_mutex);
    bool has_place_in_ts(int type) const VIDORA_REQUIRES(m_mutex);
    int find_track_locked(int type) VIDORA_REQUIRES(m_mutex);
    int put_rtp_locked(const Flumen::CMediaFrame& frame, int track, int tag) VIDORA_REQUIRES(m_mutex);
    unsigned int send_rtp_locked(const Flumen::CMediaFrame& frame, int track, int tag) VIDORA_REQUIRES(m_mutex);
    Flumen::CMediaFrame to_rtp_locked(const Flumen::CMediaFrame& frame, int track) VIDORA_REQUIRES(m_mutex);
    Flumen::CMediaFrame to_ts_locked(const Flumen::CMediaFrame& frame) VIDORA_REQUIRES(m_mutex);
    int put_ts_locked(const Flumen::CMediaFrame& frame, int track, uint8_t kind) VIDORA_REQUIRES(m_mutex);
    static void put_kx(const CMediaBufferRef& buffer, const Flumen::CMediaFrame& frame, int track, int tag);

    // Constant after Init; messages that come while it runs wait for its end.
    long m_notify_id = 0;
    src_type_t m_src_type = SRC_TYPE_NONE;
    CStreamSource* m_stream_source = nullptr;
    create_src_fun_t m_create_src_fun = nullptr;

    CMutex m_start_mutex;
    bool m_closing VIDORA_GUARDED_BY(m_start_mutex) = false;
    CMutex m_mutex;
    CFormatWatch m_formats VIDORA_GUARDED_BY(m_mutex);
    bool m_begun VIDORA_GUARDED_BY(m_mutex) = false;       // the source's Init has succeeded
    bool m_info_early VIDORA_GUARDED_BY(m_mutex) = false;  // MSG_STREAM_INFO came before
    bool m_info_ready VIDORA_GUARDED_BY(m_mutex) = false;  // the format was read after MSG_STREAM_INFO

    CPlayWindow m_window VIDORA_GUARDED_BY(m_mutex);  // of a file or token
    CBufferTable m_buffers VIDORA_GUARDED_BY(m_mutex);
    bool m_started VIDORA_GUARDED_BY(m_mutex) = false;  // Start of the source runs, or has succeeded
    bool m_paused VIDORA_GUARDED_BY(m_mutex) = false;   // the client counts stay as they are when streaming resumes
    int m_cseq VIDORA_GUARDED_BY(m_mutex) = -1;         // of the last StartStreaming

    // The running stream.
    CSrcInfoTable m_src_info;  // has a lock of its own
    CTrackEncoders m_encoders VIDORA_GUARDED_BY(m_mutex);
    int m_packet_state VIDORA_GUARDED_BY(m_mutex) = PACKET_STATE_RUNS;  // of the last frame
    Ostra::CLogLimit m_frame_log VIDORA_GUARDED_BY(m_mutex);            // of frames that are of no use
    CReplayExtension m_replay VIDORA_GUARDED_BY(m_mutex);               // of a token

    std::atomic<int> m_assist_count{0};  // clients that want assist frames
    CUseCount m_use;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_KXDATARECEIVER_H
