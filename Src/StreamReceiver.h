#ifndef VIDORA_STREAMRECEIVER_H
#define VIDORA_STREAMRECEIVER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "Ostra/LogGate.h"
#include "Ostra/LogLimit.h"
#include "Ostra/MemoryTrail.h"
#include "ReceptionStats.h"
#include "RtcpDigest.h"
#include "Tramel/CallWait.h"
#include "Tramel/MediaStreamReceiver.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CFrameMerger;
struct RtpHeader;

constexpr int RECEIVER_MAX_TRACKS = 16;
// Tracks whose packets are merged to runs of one frame; the packets of further tracks go out one by one.
constexpr int RECEIVER_MERGED_TRACKS = 2;

// One track of CStreamReceiver::SetTracks.
struct receiver_track_t {
    uint32_t tag = 0;         // the owner's; carried, not used
    uint8_t rtp_channel = 0;  // channels in front of the packets: the server's over TCP (RFC 2326 10.12)
    uint8_t rtcp_channel = 1;
    uint8_t enc_type = 0;       // enc_type_t: of H.264 the frame kinds are told to the media buffer
    int16_t payload_type = -1;  // the only one that is taken where the sender's address isn't known; -1: any
    uint32_t clock_rate = 0;    // ticks a second, for the jitter; 0 if not known
    uint32_t ssrc = 0;          // that the server has announced; 0: none
};

struct receiver_tracks_t {
    int count = 0;
    receiver_track_t tracks[RECEIVER_MAX_TRACKS];
};

// Whether media still comes.
struct receiver_life_t {
    uint64_t units = 0;  // RTP packets and private frames so far
    bool busy = false;   // media is being put just now, perhaps into a host's slow callback: that isn't silence
};

// CStreamReceiver: the media input of a client session. What the sockets bring goes to four places: RTP, as runs of
// packets behind their interleave headers ("$", channel, 16-bit length, RFC 2326 10.12), each run the packets of one
// frame, and private frames into a media buffer; RTSP replies, RTCP and, on the side, RTP units to procedures. For each
// track it keeps the statistics that receiver reports need.
//
// The channel word of a put is the one that CMediaBuffer describes: top byte half the RTP channel; low byte 1 for a key
// frame, 5 for a frame that may be skipped. An H.264 run counts as key or other frame by its first NAL unit, a private
// frame by its type; of other codecs each frame is a key frame.
//
// Life: the owner creates it (see the derived classes), sets it up, then calls Start. It ends by Close, asynchronously:
// message 1 to the handler of SetNotifyId says that it has gone; until then its sockets stay open and its procedures
// may run. A broken connection or a stream beyond repair stops it, and message 2 goes to the handler of WaitException.
//
// THREADING  SetTracks, SetProcs, SetRtpProc, SetNotifyId, SetUrl: before Start, on the owner's thread. SetMediaBuffer,
//            GetStats, GetLife, Start, Stop, Close: any thread. Procedures and the buffer's Put run on the receiver's
//            strand with no lock held; bytes given to a procedure are valid for the call only.
// OWNERSHIP  Shares its sockets. Borrows the media buffer, until SetMediaBuffer takes another one, and what the
//            procedures are bound to, until message 1.
// MEMORY     See the separators and CFrameMerger; the statistics of its tracks.
class CStreamReceiver : public CMediaStreamReceiver {
public:
    typedef TFunction3<void, const unsigned char*, int, int> unit_proc_t;  // data, length, channel
    typedef TFunction2<void, const char*, int> rtsp_proc_t;                // text with a NUL behind it, length
    typedef TFunction2<void, const rtcp_digest_t&, int> rtcp_proc_t;       // what was read of a compound, channel

    // Begins to receive. Both arguments as in CMediaStreamReceiver::StartReceive. 0, or -1 if a socket can't be
    // watched.
    virtual int Start(uint64_t period_us, float speed) = 0;
    // Ends receiving; no callback for the sockets starts afterwards. Start may follow. 0.
    virtual int Stop() = 0;

    // 0, or -1 for a count outside 1 to 16, or if memory is short. Copied.
    int SetTracks(const receiver_tracks_t& tracks);
    // Where the media goes; null: nowhere. When it returns, no Put into the former buffer runs or will begin, so that
    // the caller may delete that: it waits for one that runs on another thread (call it with no lock held that a sink
    // may want), not for one that it is called from. 0.
    int SetMediaBuffer(CMediaBuffer* buffer);
    // No Put begins any more when it returns; one that runs is not waited for, so that any lock may be held.
    void DropMediaBuffer();
    // Each may be empty. RTCP compounds, when the statistics that GetStats returns know of them; RTSP replies.
    void SetProcs(const rtcp_proc_t& rtcp_proc, const rtsp_proc_t& rtsp_proc);
    // RTP on the side: runs without the first interleave header over TCP, each datagram over UDP, private frames.
    void SetRtpProc(const unit_proc_t& rtp_proc);
    // Message 1 goes there when the receiver has ended. 0: to nobody.
    void SetNotifyId(long handler_id);
    // For log lines; the caller has taken credentials out. Cut at 1025 characters.
    void SetUrl(const char* url);

    // The statistics of the track of an RTP channel, as of the last turn; empty for an unknown channel. `clear` begins
    // a new interval of `lost` and `fraction`.
    reception_stats_t GetStats(int channel, bool clear);
    receiver_life_t GetLife() const;

    int handle_close(CNetHandler* handler) override;

protected:
    CStreamReceiver();
    ~CStreamReceiver() override;

    // `receiver`, which may be null, with its owner; null if memory was short for its handler.
    template <typename Receiver>
    static Receiver* begun(Receiver* receiver, long owner_id) {
        if (receiver == nullptr || receiver->GetID() == 0) {
            delete static_cast<CStreamReceiver*>(receiver);
            return nullptr;
        }
        receiver->SetNotifyId(owner_id);
        receiver->WaitException(owner_id);
        return receiver;
    }
    // Releases the sockets; called once, just before message 1.
    virtual void release_socks() = 0;

    // For derived classes, all on the strand.

    // Index of the track with this channel, or -1.
    int find_rtp_track(int channel) const;
    int find_rtcp_track(int channel) const;
    // The first track that takes this payload type.
    int find_payload_track(int payload_type) const;
    // The track whose packets have come from this source; of one that had none, whose source it is by the server's
    // word.
    int find_source_track(uint32_t ssrc) const;
    // The time that counts as the arrival of what is handled next: once a read.
    void mark_arrival();
    // Datagrams. `data` is one RTP packet of at least 12 bytes (shorter ones are dropped and counted): counts it, and
    // puts it or appends it to the track's run. 0, or -1 without memory.
    int take_datagram(int track, const unsigned char* data, int length);
    // RTCP. A BYE that counts ends its track first.
    void take_rtcp(int track, const unsigned char* data, int length);
    // Whether the BYE in `digest` is that of the track's media.
    virtual bool is_end(int track, const rtcp_digest_t& digest);
    // Reads what has come of a track in front of its BYE, and lies elsewhere.
    virtual void read_rest(int /*track*/) {}
    // Nothing more comes for a track: puts what is left of it and tells the buffer of its end.
    void end_track(int track);
    // Puts what came of a track and was to go on.
    virtual void put_rest(int track);
    void take_rtsp(const char* text, int length);
    // A run of RTP packets behind their headers, or a single one: counts them and puts the run. 0, or -1.
    int take_run(int track, const Flumen::CMediaFrame& run);
    // A private frame, put behind a 6-byte header with `channel`. 0, or -1 without memory.
    int take_kx_frame(int channel, const Flumen::CMediaFrame& frame);
    // A unit on an RTP channel that is too short to be one.
    void count_short(int track);
    // Makes the statistics of this turn visible to GetStats.
    void publish_stats();
    const receiver_tracks_t& tracks() const { return m_tracks; }
    const char* url() const { return m_url.c_str(); }

    // Fetches ahead what a turn goes through, publishes the statistics at its end, and keeps its lines of the log
    // within bounds, those of the sinks included.
    class CTurn {
    public:
        // `objects`: what else the turn uses.
        template <typename Receiver, typename... Objects>
        explicit CTurn(Receiver& receiver, const Objects&... objects)
            : m_receiver(receiver), m_memory(m_receiver.m_trail, receiver, objects...), m_log(m_receiver.m_log) {}
        ~CTurn() { m_receiver.publish_stats(); }
        CTurn(const CTurn&) = delete;
        CTurn& operator=(const CTurn&) = delete;

    private:
        CStreamReceiver& m_receiver;
        const Ostra::CMemoryTrail::CTurn m_memory;
        const Ostra::CLogLimit::CScope m_log;
    };

private:
    // What is counted of a track: on the strand, and as of the last turn.
    struct track_stats_t {
        CReceptionStats reception;
        CReceptionStats published;  // under m_stats_mutex
    };

    track_stats_t& stats_of(int track) { return m_stats[static_cast<size_t>(track)]; }
    CFrameMerger* merger_of(int track);
    void tell_rtp(const unsigned char* data, int length, int channel);
    void count_unit();
    void count_packet(int track, const RtpHeader& header, uint32_t length);
    int put_run(int track, const Flumen::CMediaFrame& run);
    int run_tag(int track, const Flumen::CMediaFrame& run) const;
    static int put_packet(const CMediaBufferRef& buffer, CMediaPacket* packet, unsigned int length, int flag, int tag);
    CMediaBufferRef begin_put();
    void end_put(CMediaBufferRef buffer);

    Ostra::CMemoryTrail m_trail;  // of the strand

    // Constant after Start.
    receiver_tracks_t m_tracks;
    rtcp_proc_t m_rtcp_proc;
    unit_proc_t m_rtp_proc;
    rtsp_proc_t m_rtsp_proc;
    std::atomic<long> m_notify_id{0};
    std::string m_url;

    // Of the strand.
    std::unique_ptr<CFrameMerger[]> m_mergers;  // of the merged tracks, made with the first datagram
    std::unique_ptr<track_stats_t[]> m_stats;   // of the tracks
    uint64_t m_arrival_us = 0;
    uint32_t m_changed = 0;  // tracks with statistics to be published
    Ostra::CLogGate m_loss_log;
    Ostra::CLogLimit m_log;

    std::atomic<uint64_t> m_units{0};  // written on the strand
    std::atomic<bool> m_busy{false};

    CMutex m_stats_mutex;  // over what is published; a leaf, as the next one

    CMutex m_put_mutex;
    Tramel::CCallWait m_put_wait;                             // used with m_put_mutex
    CMediaBufferRef m_buffer VIDORA_GUARDED_BY(m_put_mutex);  // with the put while one runs
    bool m_replaced VIDORA_GUARDED_BY(m_put_mutex) = false;   // the buffer, since the put began
    bool m_putting VIDORA_GUARDED_BY(m_put_mutex) = false;
    uint64_t m_put_count VIDORA_GUARDED_BY(m_put_mutex) = 0;
    std::thread::id m_put_thread VIDORA_GUARDED_BY(m_put_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMRECEIVER_H
