#ifndef VIDORA_BENCH_SUPPORT_FLEET_H
#define VIDORA_BENCH_SUPPORT_FLEET_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/RtspDialogue.h"

namespace Bench {

// What a fleet counts, in memory that processes share. All counts run on over all rounds but `up` and `failed`, which
// belong to the sessions that are open. A fleet leaves what it can't know at 0.
struct FleetFigures {
    std::atomic<uint64_t> up{0};
    std::atomic<uint64_t> failed{0};
    std::atomic<uint64_t> packets{0};   // of RTP
    std::atomic<uint64_t> bytes{0};     // of media: RTP packets, without interleave headers
    std::atomic<uint64_t> gaps{0};      // packets whose sequence number isn't the one before plus 1
    std::atomic<uint64_t> drops{0};     // datagrams that this side's sockets had no room for, when the fleet was closed
    std::atomic<uint64_t> frames{0};    // whole ones
    std::atomic<uint64_t> damaged{0};   // frames that were dropped for what is missing
    std::atomic<uint64_t> setup_ns{0};  // from the first connect to the last PLAY's reply of the last round
    // Of the last time with stamps, see ILoad::Stamp.
    std::atomic<uint64_t> spread_ns{
        0};  // of a frame: from its first arrival at any client to its last, 99th percentile
    std::atomic<uint64_t> silence_ns{0};  // the longest time between two arrivals at one client
};

// Many RTSP clients, whatever they are made of.
class ILoad {
public:
    virtual ~ILoad() = default;

    // Begins to set `count` sessions up at 127.0.0.1.
    virtual void Open(uint16_t port, unsigned int count, bool udp) = 0;
    virtual void Close() = 0;
    // From now on lets the system note when each packet arrives, or ends that and tells what it showed.
    virtual void Stamp(bool /*on*/) {}
    // Serves the sessions that have something, until `wake_fd` is readable.
    virtual void Run(int wake_fd) = 0;
};

// What a fleet does with the media of a session that is up.
enum fleet_media_t {
    FLEET_COUNTS,   // finds the packets, counts them and the gaps
    FLEET_DISCARDS  // reads and throws away: the floor. Counts the bytes as they come, with interleave headers
};

// How a fleet's clients reach their server.
const char NAT_NAME[] = "bench";  // of the server at the rendezvous

enum fleet_link_t {
    FLEET_PLAIN,
    FLEET_NAT,     // by a rendezvous at the server's port; texts and media are datagrams of one socket
    FLEET_TUNNELS  // by the two connections of an HTTP tunnel: requests go in base64 on a POST, and all comes on a GET
};

// CFleet: many RTSP clients on one thread and one epoll set; sets WINDOW up at a time.
class CFleet : public ILoad {
public:
    // `port_base`: from there up the clients' UDP ports are searched.
    CFleet(FleetFigures& figures, uint16_t port_base, fleet_media_t media = FLEET_COUNTS,
           fleet_link_t link = FLEET_PLAIN);
    ~CFleet() override;

    void Open(uint16_t port, unsigned int count, bool udp) override;
    void Close() override;
    void Stamp(bool on) override;
    void Run(int wake_fd) override;

private:
    static const unsigned int WINDOW = 32;
    static const unsigned int HEAD_SIZE = 12;  // interleave header, and RTP up to its time stamp

    struct CClient {
        int control = -1;
        int post = -1;  // where the requests of a tunnel go, once the GET is answered
        int rtp = -1;
        int rtcp = -1;
        bool over = false;  // up or failed
        CRtspDialogue dialogue;
        std::string text;               // of the reply that comes
        unsigned char head[HEAD_SIZE];  // of the interleaved packet that comes
        unsigned int head_size = 0;
        unsigned int skip = 0;  // bytes of the packet that still come
        int last_sequence = -1;
        uint64_t last_ns = 0;   // of the last arrival; 0: none yet
        uint64_t hello_ns = 0;  // when it said hello last
    };
    struct CSpan {
        uint64_t first_ns;
        uint64_t last_ns;
    };
    enum kind_t { KIND_CONTROL, KIND_RTP, KIND_RTCP, KIND_WAKE };

    void start_next();
    bool open_client(unsigned int index);
    bool meet_server(CClient& client, unsigned int index);
    void take_datagram(CClient& client, const unsigned char* data, size_t size);
    void say_hello();
    int connect_to_server() const;
    std::string tunnel_head(const char* method, const CClient& client) const;
    void send_text(CClient& client, int fd, const std::string& text);
    void on_reply(CClient& client);
    bool open_udp(CClient& client, uint16_t* rtp_port);
    void watch(int fd, unsigned int index, kind_t kind) const;
    void send_request(CClient& client);
    void end_setup(CClient& client, bool good);
    ssize_t receive(int fd);
    void on_control(CClient& client);
    void take_bytes(CClient& client, const unsigned char* data, size_t size);
    size_t take_text(CClient& client, const unsigned char* data, size_t size);
    void on_media(CClient& client, const unsigned char* data, size_t size);
    void on_rtp(CClient& client);
    void count_packet(CClient& client, const unsigned char* rtp, uint64_t size);
    void note_arrival(CClient& client, const unsigned char* rtp);

    FleetFigures& m_figures;
    uint16_t m_port_base;
    fleet_media_t m_media;
    fleet_link_t m_link;
    uint16_t m_next_udp = 0;
    int m_epoll = -1;
    bool m_udp = false;
    uint16_t m_server_port = 0;
    unsigned int m_started = 0;
    unsigned int m_pending = 0;
    uint64_t m_start_ns = 0;
    uint64_t m_hello_ns = 0;  // when NAT sessions that have to say hello were looked for last
    bool m_stamps = false;
    uint64_t m_arrival_ns = 0;  // of the packet that is taken
    uint64_t m_silence_ns = 0;
    std::map<uint32_t, CSpan> m_spans;  // by the time stamp of the frame
    uint64_t m_packets = 0;             // of this wake-up, not told yet
    uint64_t m_bytes = 0;
    std::vector<std::unique_ptr<CClient>> m_clients;
    std::vector<unsigned char> m_room;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_FLEET_H
