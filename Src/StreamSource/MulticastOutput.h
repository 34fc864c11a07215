#ifndef VIDORA_MULTICASTOUTPUT_H
#define VIDORA_MULTICASTOUTPUT_H

#include <list>
#include <memory>
#include <string>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CRtpUdpSender;
class CRtspSvrConfig;
class CSdpParser;

// CMulticastOutput: the multicast destinations of one channel, each with the sockets that feed it.
//
// THREADING  No lock of its own: the channel's guards it.
// OWNERSHIP  Owns the senders. They are in the buffer that Add was given, and Remove and RemoveFirst want that same
//            buffer; the owner removes all of them before this object ends.
class CMulticastOutput {
public:
    CMulticastOutput() = default;
    CMulticastOutput(const CMulticastOutput&) = delete;
    CMulticastOutput& operator=(const CMulticastOutput&) = delete;

    // Opens the sockets of a destination and attaches them to `buffer`. `group`: the address and the base port.
    // `local_ip`: the interface to send from, or null. `media_count`: the tracks of RTP, each with a pair of ports from
    // the base port on; 0 for a transport stream, which has one pair. `config` must outlive the destination. 0, or -1
    // if memory is short or the sockets of a track can't be opened.
    int Add(const CSockAddrStorage& group, const char* local_ip, int media_count, const CRtspSvrConfig& config,
            CMediaBuffer& buffer);
    // The source describes `media_count` tracks now: opens the ports of those that a destination doesn't have yet. For
    // RTP; ports that can't be had are told in the log.
    void Follow(int media_count);
    // Takes the first destination with that address and interface (null: none given) off, and ends it. False if there
    // is none.
    bool Remove(const CSockAddrStorage& group, const char* local_ip, CMediaBuffer& buffer);
    // The same for the destination that was added first.
    bool RemoveFirst(CMediaBuffer& buffer);

    bool IsEmpty() const { return m_destinations.empty(); }
    // Sets in `sdp` a connection line for each destination, in the place of those it has. Returns the base port: that
    // of the first destination that has one, or 0.
    int DescribeIn(CSdpParser& sdp) const;

private:
    struct Destination {
        CSockAddrStorage group;
        std::string local_ip;  // empty if none was given
        uint8_t described_ttl = 0;
        int pairs = 0;  // of ports, that are open
        std::unique_ptr<CRtpUdpSender> sender;

        Destination();
        ~Destination();
    };

    static bool open_ports(Destination& destination, int media_count);
    void remove(std::list<Destination>::iterator it, CMediaBuffer& buffer);

    std::list<Destination> m_destinations;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MULTICASTOUTPUT_H
