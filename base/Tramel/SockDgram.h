#ifndef VIDORA_TRAMEL_SOCKDGRAM_H
#define VIDORA_TRAMEL_SOCKDGRAM_H

#include "Tramel/DgramTarget.h"
#include "Vidora/Tramel/Sock.h"

namespace Kavio {
namespace Tramel {

// One piece of a batch: `length` bytes at `data`. After RecvBatch `length` is the datagram's size.
struct DgramSlice {
    unsigned char* data;
    unsigned int length;
};

// CSockDgram: a UDP socket.
//
// THREADING  No lock. Opened, set up and closed by one thread while nothing else runs; in between one thread may send
//            runs (SendMerged, SendBatch), another one single datagrams, and a third receive.
class CSockDgram : public CSock {
public:
    CSockDgram() = default;

    // Opens and binds at `local`; null: an unbound IPv4 socket. On a multicast address: binds there with address reuse
    // and joins the group. The receive buffer is raised to at least 1 MiB as far as the system allows. 0 or -1.
    int Open(const CSockAddr* local);
    // The same on a multicast address, with the group joined on one interface, named as for SetMulticastIF, and not
    // where the system's routes point: a host may have no route to groups.
    int OpenGroup(const CSockAddrStorage& group, const char* interface_name);
    // Opens in two steps, the second of which may fail and be tried again at another address. An IPv6 socket takes both
    // families. `receives`: with a receive buffer as by Open, otherwise with the system's.
    int OpenUnbound(int family, bool receives);
    int Bind(const CSockAddrStorage& local);
    // Sets where Send with a null address goes (connects the socket), also once more. 0 or -1.
    int SetRemote(const CSockAddr* remote);
    // Takes that back: the socket sends nowhere of itself, and receives from everybody; its port stays.
    // 0 or -1.
    int ClearRemote();
    // For when a read gave nothing, or failed with `error`, an errno, otherwise 0. False: nothing will be read any
    // more, as the descriptor was closed, or shut down by who holds a duplicate of it; it stays ready to be read for
    // ever. What ICMP tells of an earlier datagram is no such failure; of what a host may have its socket keep of that
    // (IP_RECVERR, ip(7)), which makes it ready as well, 64 answers are taken off.
    bool GoesOn(int error);
    // As SetRemote, without connecting: the route, and the address to send from, are found anew for each datagram, and
    // what others send is received as well. `interface_index` above 0: datagrams leave by that interface, with the
    // address `source` if it is valid. Not after SetRemote. 0 or -1.
    int SetTarget(const CSockAddrStorage& remote, unsigned int interface_index = 0,
                  const CSockAddrStorage& source = CSockAddrStorage());
    // Reads one datagram without blocking: its size, cut at `len`; 0 when nothing is there; -1 on failure. `from` may
    // be null.
    int Recv(char* buf, unsigned int len, CSockAddr* from);
    // Sends one datagram without blocking; `to` null sends to the remote. The size, or -1.
    int Send(const char* buf, unsigned int len, const CSockAddr* to);

    // Sends a merged frame: `length` bytes that are a run of packets, each behind its 4-byte interleave header
    // ("$", channel, 16-bit length, RFC 2326 10.12), as one datagram a packet without the headers, to the remote. What
    // is on the wire is what one Send a packet sends; the system calls are few (see CDgramRun). Returns the number of
    // datagrams sent; those that the socket had no room for are lost. -1 if that is no run, or one that is cut short
    // (the packets in front of the fault are sent), or the socket fails, with errno set. `all`, which may be null:
    // whether all of it was sent.
    int SendMerged(const unsigned char* data, unsigned int length, bool* all = nullptr);
    // Sends `count` datagrams to the remote in the same way. The number sent, or -1.
    int SendBatch(const DgramSlice* slices, unsigned int count);
    // Reads up to `count` datagrams, at most 64, in one system call without blocking, each into its slice, whose
    // `length` is the room on entry and the size on return, cut at the room. The number read, 0 when nothing is there,
    // -1 on failure. `from` takes as many senders' addresses; it may be null.
    //
    // With `segments` a slice may hold several datagrams of one sender that the system has joined (see JoinReceived):
    // each of `segments[i]` bytes but the last, which may be shorter.
    int RecvBatch(DgramSlice* slices, unsigned int count, CSockAddrStorage* from = nullptr,
                  unsigned int* segments = nullptr);
    // Lets the system join datagrams of one size that come in a row (UDP_GRO, Linux 5.0): a frame's packets cost little
    // more than one. From now on everything is read by RecvBatch with `segments`. 0, or -1 if the system can't.
    int JoinReceived();
    // Takes that back. What is still unread is dropped, as another reader would take what was joined for one datagram.
    void EndJoining();

    // The largest size of datagrams that the system may cut a message into; 0 where it can't.
    unsigned int MaxSegment() const { return m_offload_limit == 0 ? 0 : m_offload_limit - 1; }

    // Routers that multicast may pass (hops for IPv6). 0 or -1.
    int SetMulticastTTL(unsigned char ttl);
    // The interface that multicast leaves by and, if the socket is bound to a group, on which the group is joined as
    // well: by its IPv4 address, or its name for IPv6. 0 or -1.
    int SetMulticastIF(const char* ip);

protected:
    void OnRelease() override { m_family = 0; }

private:
    static const unsigned int ANY_SIZE = 65536;

    int family() const;
    int open_group(const CSockAddrStorage& group);

    CDgramTarget m_target;                    // unless the socket is connected
    int m_family = 0;                         // a sock_addr_type_t; 0: not known
    unsigned int m_offload_limit = ANY_SIZE;  // datagrams below that size may leave by segmentation offload
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKDGRAM_H
