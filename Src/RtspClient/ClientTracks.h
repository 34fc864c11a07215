#ifndef VIDORA_RTSPCLIENT_CLIENTTRACKS_H
#define VIDORA_RTSPCLIENT_CLIENTTRACKS_H

#include <memory>
#include <vector>

#include "Protocol/RtspInfo.h"
#include "Protocol/SdpParser.h"
#include "RtspClient/ClientTypes.h"
#include "RtspClient/SdpInfoAccess.h"
#include "StreamReceiver.h"
#include "Tramel/IpText.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

// One track that a client sets up.
struct client_track {
    bool sent = false;      // its SETUP was sent
    bool answered = false;  // and accepted
    bool back_channel = false;
    bool said_bye = false;  // the server has ended it, since the last PLAY,
    uint32_t bye_ssrc = 0;  // with that source; 0: without media
    int track_id = -1;      // of the description
    int media_index = -1;   // its place there; -1 without a description
    transport_info transport;
    multicast_info multicast;
    int rtp_channel = 0;  // of its packets: the server's choice over TCP
    int rtcp_channel = 1;
    int payload_type = -1;
    uint32_t clock_rate = 0;
    CSockAddrStorage report_to;     // UDP: where its reports go; invalid: nowhere
    CSockAddrStorage source;        // UDP: the host whose datagrams count; invalid: any
    CSockAddrStorage other_source;  // and the one that the server named beside it; invalid: none
    std::shared_ptr<CSockDgram> rtp_sock;
    std::shared_ptr<CSockDgram> rtcp_sock;
};

// CClientTracks: the tracks of a conversation, by the server's description.
//
// THREADING  The strand.
// MEMORY     16 tracks; what a description has beyond that is passed over.
class CClientTracks {
public:
    // The tracks of `sdp`; `packet_type` is PACKET_TYPE_NONE for what that offers, and gets what was chosen. 0, or -1:
    // no track to set up, or memory short.
    int Build(const CSdpParser& sdp, rtp_protocol_t transport, packet_type_t& packet_type);
    // One track without a description.
    int BuildSingle(rtp_protocol_t transport, packet_type_t packet_type);

    // The first whose SETUP wasn't sent; null if there is none.
    client_track* NextToSetUp();
    int AnsweredCount() const;
    std::vector<client_track>& All() { return m_tracks; }
    const std::vector<client_track>& All() const { return m_tracks; }
    // The track that is answered with this RTCP channel, or null.
    client_track* ByRtcpChannel(int channel);
    client_track* BackChannel();
    // All of them may bring media again.
    void ForgetByes();
    // Whether an answered track other than `track` has one of its channels.
    bool HasChannels(const client_track& track) const;

    // The records of the tracks that deliver, for a receiver, in order. -1: there is none, or a kind of media that
    // can't be received, with a log line.
    int Describe(const CSdpParser* sdp, packet_type_t packet_type, receiver_tracks_t& out) const;
    static bool Delivers(const client_track& track) { return track.answered && !track.back_channel; }
    int FillSdpInfo(CSdpInfo& info, CSdpParser* sdp, packet_type_t packet_type) const;

private:
    static bool is_wanted(const CSdpParser& sdp, int index);
    static void take_connection(const CSdpParser& sdp, client_track& track);
    int add(const CSdpParser& sdp, int index, rtp_protocol_t transport, packet_type_t packet_type);
    static int encode_type(const CSdpParser& sdp, const client_track& track, packet_type_t packet_type);

    std::vector<client_track> m_tracks;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTTRACKS_H
