#ifndef VIDORA_BENCH_SUPPORT_SIDEFLEET_H
#define VIDORA_BENCH_SUPPORT_SIDEFLEET_H

#include <functional>
#include <memory>
#include <vector>

#include "support/Fleet.h"

namespace Bench {

// One receiver of the library that knows no RTSP. It counts its frames, and at its end what it knows of packets.
class ISideReceiver {
public:
    virtual ~ISideReceiver() = default;
    // Receives at that port of loopback; false if it can't.
    virtual bool Start(uint16_t port) = 0;
};

typedef std::function<std::unique_ptr<ISideReceiver>(FleetFigures&)> side_maker_t;
std::unique_ptr<ISideReceiver> MakeMulticastClient(FleetFigures& figures);  // the stream comes to it by unicast
std::unique_ptr<ISideReceiver> MakeSingleTrack(FleetFigures& figures);

// CSideFleet: many such receivers, to each of which a server of RTSP sends over UDP: the conversation is the fleet's
// own, and not measured.
//
// THREADING  All operations: one thread. Frames come on the pool's threads.
class CSideFleet : public ILoad {
public:
    // Makes the pool of the process.
    CSideFleet(FleetFigures& figures, unsigned int threads, const side_maker_t& maker);
    ~CSideFleet() override;

    void Open(uint16_t port, unsigned int count, bool udp) override;
    void Close() override;
    void Run(int wake_fd) override;

private:
    struct CSide;

    bool open_one(uint16_t server_port);

    FleetFigures& m_figures;
    const side_maker_t m_maker;
    uint16_t m_next_port = 0;
    std::vector<std::unique_ptr<CSide>> m_sides;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_SIDEFLEET_H
