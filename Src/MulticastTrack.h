#ifndef VIDORA_MULTICASTTRACK_H
#define VIDORA_MULTICASTTRACK_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "LastDgram.h"
#include "StreamParser/StreamParser.h"
#include "Tramel/SockDgram.h"
#include "Vidora/MulticastStreamClient.h"

namespace Kavio {
namespace Vidora {

// CMulticastTrack: one socket of a multicast client with the decoder behind it and the callback that gets the frames.
//
// THREADING  Open, Close, Receive, Take: one thread at a time, which the client arranges. Detach, End, IsLive and
//            Dropped: any thread.
class CMulticastTrack {
public:
    typedef IMulticastStreamClient::frame_proc_t frame_proc_t;

    // For a transport stream, and for a track of RTP. Null if memory is short.
    static std::shared_ptr<CMulticastTrack> CreateTs(const frame_proc_t& proc);
    static std::shared_ptr<CMulticastTrack> CreateRtp(const frame_proc_t& proc, const multicast_track_info_t& info);

    int Open(const CSockAddr& address);
    void Close() { m_sock.Close(); }
    CSockDgram& Sock() { return m_sock; }

    // Reads datagrams, see CDgramTurn, and hands out the frames that they complete. 0, or -1 if the socket failed.
    int Receive();
    // The same for one datagram that has been read.
    void Take(const unsigned char* data, unsigned int length);

    // No callback starts any more. True the first time.
    bool Detach() { return m_live.exchange(false); }
    // Reports the end to the host by an empty frame, unless the track is detached.
    void End();
    bool IsLive() const { return m_live; }
    // Datagrams that were not used, or not as a whole.
    uint64_t Dropped() const { return m_dropped; }

private:
    explicit CMulticastTrack(const frame_proc_t& proc) : m_proc(proc) {}
    static std::shared_ptr<CMulticastTrack> create(const frame_proc_t& proc, int stream_type);

    bool take_ts(const unsigned char* data, unsigned int length);
    bool take_rtp(const unsigned char* data, unsigned int length);
    bool decode(const Flumen::CMediaFrame& packet);

    const frame_proc_t m_proc;
    CSockDgram m_sock;
    CStreamParserPtr m_parser;
    Flumen::CMediaFrame m_packet;  // the TS packet that goes into the decoder; not valid for RTP
    uint8_t m_payload_type = 0;
    CLastDgram m_last;
    std::atomic<bool> m_live{true};
    std::atomic<uint64_t> m_dropped{0};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MULTICASTTRACK_H
