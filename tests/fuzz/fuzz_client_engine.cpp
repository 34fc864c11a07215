// The client's conversation over a link that isn't there: the input is what a server says, in pieces.
//
// The first byte chooses: bit 0 conformance, bit 1 private frames, bit 2 a user, bits 3 and 4 the start (a description,
// or none), bit 5 replies as the receiver brings them. The second one is the size of the pieces.

#include "FuzzSupport.h"
#include "RtspClient/ClientConversation.h"

using namespace Kavio::Vidora;

namespace {

// Closed at once, so that what is posted to it is dropped.
class CDeadHandler : public CClientHandler {
public:
    CDeadHandler() { EndHandler(); }
};

class CFakeLink : public IClientLink {
public:
    bool IsUp() const override { return true; }
    int Send(const char* bytes, unsigned int length) override {
        const std::string text(bytes, length);
        const size_t cseq = text.find("\r\nCSeq: ");
        Fuzz::Require(cseq != std::string::npos && text.find("\r\n\r\n") != std::string::npos);
        const bool is_reply = text.rfind("RTSP/1.0 ", 0) == 0;  // to a request of the server
        Fuzz::Require(is_reply || text.find(" RTSP/1.0\r\n") < cseq);
        Fuzz::Require(text.find('\0') == std::string::npos);
        return 0;
    }
    CSockAddrStorage Peer() const override { return CSockAddrStorage(); }
    CSockAddrStorage Local() const override { return CSockAddrStorage(); }
    CStreamReceiver* MakeReceiver(packet_type_t, long) override { return nullptr; }
    void StopReading() override {}
    void CloseLink() override {}
};

// As a link does: whole messages are taken from the front of what has come.
void feed(CClientConversation& conversation, const std::string& stream, size_t piece) {
    std::string waits;
    for (size_t place = 0; place < stream.size() && !conversation.IsEnded();) {
        const size_t room = std::min({piece, stream.size() - place, RTSP_MAX_MESSAGE - waits.size()});
        waits.append(stream, place, room);
        place += room;
        int size = 1;
        while (size > 0 && !waits.empty()) {
            size = conversation.TakeMessage(waits.c_str(), static_cast<unsigned int>(waits.size()));
            Fuzz::Require(size <= static_cast<int>(waits.size()) && (size >= 0) != conversation.IsEnded());
            waits.erase(0, static_cast<size_t>(std::max(size, 0)));
        }
        if (waits.size() == RTSP_MAX_MESSAGE) {
            conversation.OnLinkFlooded();
        }
    }
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    if (size < 2) {
        return;
    }
    static CDeadHandler* const handler = new CDeadHandler;
    CFakeLink link;
    CClientConversation conversation(*handler, link, 0);
    client_settings settings;
    settings.conformance = (data[0] & 1) != 0;
    settings.packet_type = (data[0] & 2) != 0 ? PACKET_TYPE_KX : PACKET_TYPE_NONE;
    settings.has_auth = (data[0] & 4) != 0;
    settings.user = "user";
    settings.password = "secret";
    conversation.Begin((data[0] & 0x18) != 0 ? "rtsp://192.0.2.1/monitor/1" : "rtsp://192.0.2.1/live?a=1", settings);
    conversation.OnLinkUp();
    const std::string stream(reinterpret_cast<const char*>(data + 2), size - 2);
    if ((data[0] & 0x20) != 0) {
        conversation.OnReceivedReply(stream);
    } else {
        feed(conversation, stream, size_t{data[1]} + 1);
    }
    client_track_facts facts;
    for (int i = 0; conversation.View().TrackAt(i, facts); ++i) {
        Fuzz::Require(facts.rtp_channel >= 0 && facts.rtp_channel <= 31);
        rtcp_digest_t digest;
        if (ReadRtcp(data, std::min<size_t>(size, 256), digest)) {
            conversation.OnReceivedBye(digest, facts.rtp_channel + 1);
        }
    }
    conversation.Play(client_play());
    conversation.OnMessage(0, CClientConversation::MSG_WORK);
    conversation.End();
    Fuzz::Require(conversation.IsEnded() && conversation.IsOver());
}
