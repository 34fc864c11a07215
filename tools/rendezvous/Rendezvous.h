#ifndef VIDORA_RENDEZVOUS_H
#define VIDORA_RENDEZVOUS_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

// How the two sides of a NAT session meet: a device that serves streams and a viewer, each behind address translation,
// and a point that both can reach. The library takes the sockets that come of it: CRtspSvr::AddNewConnect the device's,
// CP2PClientSession::Start the viewer's.
//
// The device keeps one socket registered at the point, and opens another for each viewer, so that viewers don't share
// one. Both sides then send to each other until each has heard the other. The way is open for translations that keep a
// socket's outer address whatever it sends to (RFC 4787 4.1), on either side.
//
// All messages are datagrams of one line of words; KEY is 16 hexadecimal digits that the viewer makes up, and by which
// everything that belongs to one meeting is known; ADDRESS is "192.0.2.1:4000" or "[2001:db8::1]:4000".
//
//   device -> point   VRP/1 DEVICE NAME          every 5 seconds
//   point  -> device  VRP/1 KNOWN NAME
//   viewer -> point   VRP/1 MEET KEY NAME        twice a second until it is answered
//   point  -> viewer  VRP/1 NONE KEY             there is no such device yet; the viewer goes on asking
//   point  -> device  VRP/1 VIEWER KEY
//   device -> point   VRP/1 JOIN KEY             from its new socket, twice a second until it is answered
//   point  -> both    VRP/1 PEER KEY ADDRESS     the outer address of the other side
//   both              VRP/1 PUNCH KEY            to each other, until the viewer has heard one
//   viewer -> device  VRP/1 OPEN KEY             until it is answered
//   device -> viewer  VRP/1 DONE KEY             the last of these datagrams on the way
//
// Nobody proves who he is here: that is for the streams' own authentication.

struct RendezvousOptions {
    std::string point;       // "host:port" of the point
    std::string name;        // of the device: 1 to 64 characters without blanks
    int timeout_ms = 10000;  // for one meeting
};

// A UDP socket through which the peer at `peer` can be reached. It is bound, not connected, and belongs to whoever gets
// it.
struct PunchedSocket {
    int fd = -1;
    std::string peer;  // ADDRESS, always numeric
};

// Meets the device as a viewer. Blocks until then, at most for the time-out. 0 and `out` is filled; -1: no address, or
// no such device came or could be reached in time. Any thread.
int MeetPeer(const RendezvousOptions& options, PunchedSocket& out);

// RendezvousDevice: the device's side. It serves any number of viewers at once, up to 256 that are still meeting.
//
// THREADING  One thread of its own, on which `on_viewer` is called, for one viewer after another; a slow one holds up
//            the meetings. Start, Stop and the destructor: one thread, not that one.
class RendezvousDevice {
public:
    typedef std::function<void(const PunchedSocket&)> viewer_func_t;

    RendezvousDevice();
    ~RendezvousDevice();
    RendezvousDevice(const RendezvousDevice&) = delete;
    RendezvousDevice& operator=(const RendezvousDevice&) = delete;

    // Registers, and hands each viewer's socket to `on_viewer`. False if the point has no address, or there is no
    // socket; an unreachable point is asked for ever.
    bool Start(const RendezvousOptions& options, const viewer_func_t& on_viewer);
    // Ends the meetings; `on_viewer` isn't called afterwards.
    void Stop();
    // Whether the point has answered.
    bool IsRegistered() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
    std::thread m_thread;
};

// RendezvousPoint: the point that both can reach. It forgets a device that is silent for 30 seconds, knows at most 4096
// devices and 4096 meetings, and answers no datagram with more than two of about its own size.
//
// THREADING  Run blocks; Stop: any thread, also before Run.
class RendezvousPoint {
public:
    RendezvousPoint();
    ~RendezvousPoint();
    RendezvousPoint(const RendezvousPoint&) = delete;
    RendezvousPoint& operator=(const RendezvousPoint&) = delete;

    // Listens at "address:port"; port 0 is one of the system's choice. False if it can't be bound.
    bool Open(const std::string& address);
    int Port() const;
    void Run();
    void Stop() { m_stop = true; }

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
    std::atomic<bool> m_stop{false};
};

#endif  // VIDORA_RENDEZVOUS_H
