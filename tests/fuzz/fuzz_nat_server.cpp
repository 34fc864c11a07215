// The datagrams that a NAT session takes: each is one request of a conversation, behind the keeper of the last reply.
// The input's first byte and what it counts are the text of the peer's address.

#include "FuzzSupport.h"
#include "Nat/LastReply.h"
#include "Nat/P2PSvrSession.h"

using namespace Kavio::Vidora;

namespace {

// Where replies go.
class FuzzLink : public ISvrLink {
public:
    long HandlerId() const override { return 0; }
    void Post(unsigned int, long) override {}
    long StartTimer(int64_t) override { return 1; }
    void StopTimer(long) override {}
    void SendText(const char* text, int length) override {
        const std::string_view reply(text, static_cast<size_t>(length));
        Fuzz::Require(reply.substr(0, 9) == "RTSP/1.0 ");
        m_last.Keep(reply);
        Fuzz::Require(m_last.Text().empty() || m_last.Text() == reply);
    }
    void StopSending() override {}
    void GetPeer(CSockAddrStorage&) override {}
    std::unique_ptr<IMediaRoute> MakeRoute(const RouteWish&) override { return nullptr; }
    bool SendsReports() const override { return false; }
    void CloseLink() override { m_closed = true; }

    CLastReply m_last;
    bool m_closed = false;
};

void read_peer(const std::string& text) {
    CSockAddrStorage peer;
    if (CP2PSvrSession::ReadPeer(text.c_str(), peer)) {
        Fuzz::Require(peer.IsValid() && peer.GetPort() != 0 && text.find(':') != std::string::npos);
    }
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    CByteReader reader(data, size);
    Fuzz::Record record;
    if (!Fuzz::ReadRecord(reader, record)) {
        return;
    }
    read_peer(std::string(record.bytes.begin(), record.bytes.end()));
    FuzzLink link;
    CSvrConversation conversation(link);
    conversation.OpenGate(0);
    while (!link.m_closed && Fuzz::ReadRecord(reader, record)) {
        const std::string datagram(record.bytes.begin(), record.bytes.end());
        const int length = static_cast<int>(datagram.size());
        rtsp_msg_info info;
        if (conversation.LookAtMessage(datagram.c_str(), length, info) > 0 && link.m_last.IsRepeated(info)) {
            continue;
        }
        const int taken = conversation.TakeMessage(datagram.c_str(), length);
        Fuzz::Require(taken <= length);
        if (taken <= 0) {
            break;
        }
    }
    conversation.Release();
}
