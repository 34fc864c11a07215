#ifndef VIDORA_LIVECHANNEL_H
#define VIDORA_LIVECHANNEL_H

#include <cstdint>
#include <memory>

#include "Vidora/Export.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CDataSource;
class CRtspSvrConfig;
class CSdpParser;

// CLiveChannel: one published stream, shared by any number of sessions and multicast destinations.
//
// The host makes one with Create, SetConfig, Init, AddDataSrc, and hands it to CLiveSvr::AddLiveChannel, which owns it
// from then on. Results are 0, or -1 with a log line, unless said otherwise.
//
// What may run the source's code is done at once if the source is free. If it is busy with a call, for this channel or
// another one, nobody waits: the wish is noted, the operation returns 0, and it is done when that call has ended.
//
// THREADING  Any thread, also inside a source's Start or Stop and inside a frame callback. Locks of its own are held
//            over no call into the source.
// OWNERSHIP  Owns its buffers and its multicast senders, and borrows the source. It dies by Close, never by delete,
//            and then only when the last reference has gone; sinks that are attached to its buffers until then are
//            taken off, not ended. Both it and its source may be closed by the host at any time, also while it is
//            published.
class VIDORA_API CLiveChannel : public CNetHandler {
public:
    static CLiveChannel* Create();

    // Copies the configuration: for multicast senders and for the description. A later one holds for what is opened and
    // described from then on.
    void SetConfig(const CRtspSvrConfig& config);
    // `channel_name`: at most 255 characters are kept. `notify_id`: the handler that gets the channel's messages, 0 for
    // none. `transf_type`: how it sends to multicast destinations; -1 for another one while there are some.
    int Init(const char* channel_name, long notify_id, transf_type_t transf_type);
    // Sets the channel's source, which has been through Init, and starts it; null takes it away. Returns the former
    // source, which is the caller's again and may be closed at once, or null. A channel that is closed, or has no
    // memory for it, returns `src` itself, which stays the caller's. `arg` is kept and read by nothing.
    //
    // On a published channel the sources change places: the new one is the registry's from now on. Clients that play
    // see it go on with the frames of the new source, and what they had started in the former one is stopped. Its first
    // description is told to them if it differs from the former source's, as a change of format is. A former source
    // that feeds other channels as well is returned once, by the first of them; it goes on feeding the others until the
    // caller closes it, and the registry doesn't.
    CDataSource* AddDataSrc(CDataSource* src, uint64_t arg);
    // Adds a multicast destination: `dest_ip` is the group and the base port, `local_ip` an address or the name of the
    // interface to send from; null: by the system's routes. The interface need not be there yet, and may get another
    // address later: each frame tries anew, and the log says once when nothing can be sent, and when it goes on. RTP
    // uses a pair of ports for each track, from the base port on; those of tracks that the source tells later are
    // opened then. For RTP the host also calls StartStreaming(PACKET_TYPE_RTP). -1 also if a track's ports would pass
    // 65535, or the configured range has none left to send from; for a later track the log says so.
    int AddTransfDst(CSockAddrStorage& dest_ip, const char* local_ip);
    int DelTransfDst(CSockAddrStorage& dest_ip, const char* local_ip);
    // Whether the SDP describes unicast (as at the start) or the multicast destinations. In the latter case sessions
    // that want unicast are refused with 461. 0.
    int SetUnicast(bool unicast);

    // References of sessions, by handler id; each AddRef wants a DelRef. A user gets the channel's messages with a
    // pointer to its name, which may be read while the channel lives, and then until 1024 other channels have gone. A
    // channel that was closed lives until the last reference goes. 0; AddRef returns -1 if it is closed, or memory is
    // short.
    int AddRef(long user);
    int DelRef(long user);

    // The buffer that packets of that form go into; the channel's. Null for another type.
    CMediaBuffer* GetMediaBuffer(packet_type_t packet_type);
    // Counts a client of that form in or out; the source makes frames while there is one. A start that failed, -1, is
    // not counted, and a stop without a start does nothing, -1. -1 of StopStreaming also says that others are left.
    int StartStreaming(packet_type_t packet_type);
    int StopStreaming(packet_type_t packet_type);
    // Attaches a sink to the buffer of that form and counts it in; and detaches it, in whatever form it has entered.
    // For who holds a reference on the channel, or is sure of its life otherwise. A null sink counts as a client
    // without one. A sink leaves before it dies, also when the channel is closed. -1: the channel is closed, or
    // memory is short, and nothing is attached; or the sink hasn't entered.
    int Enter(CMediaStreamSender* sink, packet_type_t packet_type);
    int Enter(CLevel2Buffer_IF* sink, packet_type_t packet_type);
    int Leave(CMediaStreamSender* sink, packet_type_t packet_type);
    int Leave(CLevel2Buffer_IF* sink, packet_type_t packet_type);

    // A copy of the SDP: 1 for a multicast channel, 0 for a unicast one, -1 if there is none.
    int GetSdp(CSdpParser& sdp);
    // The same without a copy: a description that is shared with all that ask and never changes, also when the channel
    // gets another one or goes. -1 leaves `sdp` as it is.
    int GetSdp(std::shared_ptr<const CSdpParser>& sdp);
    // The SDP with an extension. This and the next three: see CDataSource.
    int GetSdp(CSdpParser& sdp, int ext_info);
    int GetSrcInfo(SrcInfo& info, int track_id);
    int GetTcpChannel(int track_id);
    unsigned int GetSSRC(int track_id);
    // A channel runs from now on without an end: 0 and all ones. It has no calendar range: -1.
    int GetPlayRange(uint64_t& start, uint64_t& end);
    int GetPlayRange(UtcTime& start, UtcTime& end);
    // Drops the SDP and asks the source for its stream information anew.
    int UpdataLiveChannel(long arg);
    // Of the source, for a stream_track_t (see CDataSource).
    int EnableStreamTrack(int track_kind);
    int DisableStreamTrack(int track_kind);

    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    friend class CLiveSvr;
    struct VIDORA_LOCAL Internal;
    CLiveChannel();
    ~CLiveChannel() override;

    void notify_session(unsigned int msg);
    // Of the registry: takes it into a table, with a source that the registry has from now on; -1 if it is stored in
    // one already, or is closed. And takes it off, with both closed or as they were.
    int publish(long registry_id, CDataSource* src);
    void unpublish(bool closes);
    bool is_kept(const CDataSource* src);
    bool is_closed();
    bool has_entered(const void* sink);
    // Keeps the object allocated.
    void hold();
    void release();

    Internal* m_internal;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_LIVECHANNEL_H
