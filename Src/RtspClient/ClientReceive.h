#ifndef VIDORA_RTSPCLIENT_CLIENTRECEIVE_H
#define VIDORA_RTSPCLIENT_CLIENTRECEIVE_H

#include <atomic>
#include <memory>
#include <string>

#include "RtspClient/ClientMailbox.h"
#include "RtspClient/ClientTypes.h"
#include "StreamReceiver.h"

namespace Kavio {
namespace Vidora {

// IReceiveUser: the conversation as its receive path sees it. On the strand.
class IReceiveUser {
public:
    // A reply that came between the media, with a NUL behind it.
    virtual void OnReceivedReply(const std::string& text) = 0;
    // An RTCP compound with a BYE.
    virtual void OnReceivedBye(const rtcp_digest_t& digest, int channel) = 0;
    // More replies than are kept.
    virtual void OnReplyFlood() = 0;

protected:
    ~IReceiveUser() = default;
};

// CClientReceive: a client's receive path: its receiver, the way of replies and BYEs from that to the strand, in their
// order, and what the session has received in all.
//
// THREADING  SetBuffer, DropBuffer, GetStats, GetTotals: any thread. The others: the strand, but for the receiver's
//            procedures, which run on its own and copy what they get.
// OWNERSHIP  Lives until the receiver has said that it has gone (IsGone). Borrows the media buffer until DropBuffer.
// MEMORY     320 kB of replies, 128 of them, and 32 BYEs; a BYE too many is dropped.
class CClientReceive {
public:
    CClientReceive(CClientHandler& handler, unsigned int work_msg, IReceiveUser& user);
    ~CClientReceive();
    CClientReceive(const CClientReceive&) = delete;
    CClientReceive& operator=(const CClientReceive&) = delete;

    // Where the media goes; before Begin.
    void SetBuffer(CMediaBuffer* buffer);
    // No Put begins any more when it has returned; one that runs is not waited for.
    void DropBuffer();

    bool Exists() const { return m_receiver != nullptr; }
    // Sets the receiver up and starts it; `receiver` is this object's from then on, also on failure. 0 or -1.
    int Begin(CStreamReceiver* receiver, const receiver_tracks_t& tracks, packet_type_t packet_type, const char* url);
    // Ends receiving, and closes the receiver: its message 1 comes later.
    void Stop();
    void End();
    // Message 1 came from `sender_id`. True if nothing is waited for any more.
    bool OnClosed(long sender_id);
    bool IsGone() const { return m_receiver_id == 0; }
    // Replies and BYEs that have come.
    void RunWork();
    // Whether media came since the last call, or a sink is busy with what came.
    bool TakeLife();
    // The figures of a track, and a new interval of its losses.
    bool TakeStats(int channel, reception_stats_t& stats);

    bool GetStats(int channel, reception_stats_t& stats);
    void GetTotals(RtspClientStatistics& totals);

private:
    void on_rtcp(const rtcp_digest_t& digest, int channel);
    void on_rtsp(const char* text, int length);
    void on_frame(const unsigned char* data, int length, int channel);
    void count_locked() VIDORA_REQUIRES(m_mutex);

    IReceiveUser& m_user;
    CClientMailbox m_inbox;
    CStreamReceiver* m_receiver = nullptr;  // written by the strand, under m_mutex
    long m_receiver_id = 0;                 // until it has gone
    uint64_t m_last_units = 0;
    std::atomic<bool> m_flooded{false};
    std::atomic<int> m_byes{0};         // that wait for the strand
    std::atomic<uint64_t> m_frames{0};  // private ones
    std::atomic<uint64_t> m_frame_bytes{0};

    CMutex m_mutex;  // keeps m_receiver alive while it is called; above the receiver's own locks
    CMediaBuffer* m_buffer VIDORA_GUARDED_BY(m_mutex) = nullptr;
    bool m_dropped VIDORA_GUARDED_BY(m_mutex) = false;
    receiver_tracks_t m_tracks VIDORA_GUARDED_BY(m_mutex);
    std::unique_ptr<reception_stats_t[]> m_counted VIDORA_GUARDED_BY(m_mutex);  // of m_tracks
    RtspClientStatistics m_totals VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTRECEIVE_H
