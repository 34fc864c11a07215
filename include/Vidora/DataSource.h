#ifndef VIDORA_DATASOURCE_H
#define VIDORA_DATASOURCE_H

#include <cstdint>
#include <memory>

#include "Vidora/Export.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CRtspSvrConfig;
class CSdpParser;
class CSourceGate;

// In the place of a time in microseconds that isn't given, or of an end that isn't known.
constexpr uint64_t TIME_NOT_GIVEN = ~uint64_t{0};

// Of GetSdp: with the assist track.
constexpr int SDP_EXTENSION_ASSIST = 1;

// CDataSource: what a channel or a session holds of a stream: it describes itself in SDP, starts and stops, and fills
// media buffers.
//
// Order of use: Create, SetConfig, Init, then any of the others, and Close at the end (never delete). Messages of
// vidora_message_t go to the registered handlers: MSG_SRC_READY, MSG_PLAY_READY, MSG_SRC_PAUSED, MSG_SRC_FAIL,
// MSG_SRC_END, MSG_SDP_UPDATE, and MSG_SOURCE_CLOSED at the end. Results are 0, or -1 on failure, unless said
// otherwise.
//
// THREADING  Any thread; the classes behind it lock for themselves. Those who share a source through channels call
//            Play, StartStreaming, StopStreaming, StopFeeding, GetSdp without an extension and UpdataDataSrc one at a
//            time, with no lock held; so these may take their time. All other operations are called on the threads of
//            clients and answer at once.
// OWNERSHIP  It dies by Close, from any thread and at any time, also while channels have it and while calls run inside
//            it: it ends when the last of them has left, and no channel calls it any more. A derived class ends its
//            Close with CDataSource::Close.
class VIDORA_API CDataSource : public CNetHandler {
public:
    CDataSource();
    ~CDataSource() override;

    // A source of the kind that the content string names (see CRtspUrlParser); null if it names none, with a log line.
    static CDataSource* Create(const char* content);
    src_type_t GetSrcType() const { return m_src_type; }

    // Copies the configuration, which holds the factory of the host's stream sources. The base does nothing.
    virtual void SetConfig(const CRtspSvrConfig& config);
    // Makes the stream behind it; `notify_id` gets the messages. `ext` is 0.
    virtual int Init(long notify_id, int ext) = 0;
    // Adds a handler that gets the messages; it is stored at most once, and gets MSG_SRC_FAIL if there is no memory for
    // it. And removes it.
    virtual void AddNotify(long notify_id) = 0;
    virtual void DelNotify(long notify_id) = 0;
    // Plays from `start` to `end`; a year of 0 means not given. `speed`: 1.0 real time, below 0 backwards, never 0.
    // MSG_PLAY_READY follows, or MSG_SRC_FAIL. `is_scale`: the rate came from a Scale header (RFC 2326 12.34) and not
    // from Speed (12.35).
    virtual int Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) = 0;
    // The same in microseconds from the start of the file, or TIME_NOT_GIVEN.
    virtual int Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) = 0;
    // Pauses, upon which MSG_SRC_PAUSED follows. -1 for a source that can't, such as a live one.
    virtual int Pause() = 0;
    // Counts a client in: packets of that form go into `buffer` from now on, beside the buffers that were given for
    // other clients. It may end before the source is stopped, when the channel that it belongs to is deleted: a source
    // keeps a CMediaBufferRef of it. `cseq`: the CSeq of the PLAY, or -1. On failure nothing is counted.
    virtual int StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int cseq) = 0;
    // Ends it for one client of that form, of the buffer that was given last. -1 also says that others keep the stream
    // running.
    virtual int StopStreaming(packet_type_t packet_type) = 0;
    // The SDP with an extension: SDP_EXTENSION_ASSIST adds the assist track. The base returns -1.
    virtual int GetSdp(CSdpParser& sdp, int ext_info);
    // A copy of the SDP (RFC 4566); -1 before MSG_SRC_READY, and for a source that couldn't be described. One whose new
    // format can't be described keeps the SDP that it had.
    virtual int GetSdp(CSdpParser& sdp) = 0;
    // The running state of a track of the SDP.
    virtual int GetSrcInfo(SrcInfo& info, int track_id) = 0;
    // The play window.
    virtual int GetPlayRange(UtcTime& start, UtcTime& end) = 0;
    virtual int GetPlayRange(uint64_t& start_us, uint64_t& end_us) = 0;
    // Interleaved channel number of a track of the SDP (RFC 2326 10.12), and the SSRC of its RTP packets (RFC 3550 5.1;
    // 0 for an unknown track).
    virtual int GetTcpChannel(int track_id) = 0;
    virtual unsigned int GetSSRC(int track_id) = 0;
    // Asks the source to read its stream information anew. The base returns 0.
    virtual int UpdataDataSrc(long arg);
    // Counts a client of a stream_track_t in or out. The base returns -1.
    virtual int EnableStreamTrack(int track_kind);
    virtual int DisableStreamTrack(int track_kind);
    // StopStreaming for a client of that very buffer. The base calls StopStreaming.
    virtual int StopFeeding(packet_type_t packet_type, CMediaBuffer* buffer);
    // From the return on nothing goes into `buffer` any more, in no form, until it is given to StartStreaming again.
    // StopFeeding follows for each of its clients, perhaps much later. It waits for a frame on its way, and for nothing
    // else. The base does nothing.
    virtual void CutFeeding(const CMediaBuffer* buffer);

    void Close() override;

protected:
    src_type_t m_src_type = SRC_TYPE_NONE;  // set by Create

private:
    friend class CSourceGate;
    std::shared_ptr<CSourceGate> m_gate;  // outlives the source; null if memory was short
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_DATASOURCE_H
