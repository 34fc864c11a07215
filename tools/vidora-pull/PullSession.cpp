#include "PullSession.h"

#include <unistd.h>

#include <algorithm>

#include "Vidora/P2PClientSession.h"
#include "rendezvous/Rendezvous.h"

using namespace Kavio::Vidora;

namespace {

const double MS_PER_SECOND = 1000.0;

template <typename Session>
class SessionOf : public PullSession {
public:
    explicit SessionOf(Session* session) : m_session(session) {}
    ~SessionOf() override { m_session->Close(); }

    CMediaBuffer* GetMediaBuffer() override { return m_session->GetMediaBuffer(); }
    CSdpInfo* GetSdpInfo() override { return m_session->GetSdpInfo(); }
    void Play(float begin, float end, float speed) override { m_session->Play(begin, end, speed, true); }
    void Put(unsigned char* data, int length) override { put(m_session, data, length); }
    void GetStatistics(RtspClientStatistics& statistics) override { m_session->GetStatistics(statistics); }
    rtsp_client_failure_t GetFailure() override { return m_session->GetFailure(); }

private:
    static void put(CRtspClientSession* session, unsigned char* data, int length) { session->Put(data, length); }
    static void put(CP2PClientSession*, unsigned char*, int) {}  // has no back channel

    Session* const m_session;
};

// What both kinds of session are told before they start.
template <typename Session>
std::unique_ptr<PullSession> prepare(Session* session, const Options& options, std::string& error) {
    if (session == nullptr) {
        error = "not enough memory";
        return nullptr;
    }
    if (!options.user.empty()) {
        session->SetAuthInfo(options.user.c_str(), options.password.c_str());
    }
    session->SetConformance(true);
    session->SetStreamIdleTimeout(static_cast<unsigned int>(options.idle_sec * MS_PER_SECOND));
    return std::make_unique<SessionOf<Session>>(session);
}

std::unique_ptr<PullSession> start_direct(const Options& options, long handler_id, std::string& error) {
    CRtspClientSession* session = CRtspClientSession::Create();
    std::unique_ptr<PullSession> pull = prepare(session, options, error);
    if (pull == nullptr) {
        return nullptr;
    }
    session->SetPacketType(options.kind);
    session->SetOptions((options.transport == "multicast" ? RTSP_CLIENT_MULTICAST : 0) |
                        (options.back_channel.empty() ? 0 : RTSP_CLIENT_BACK_CHANNEL));
    const rtp_protocol_t transport = options.transport == "tcp" ? RTP_OVER_RTSP : RTP_OVER_UDP;
    if (session->Start(options.url.c_str(), handler_id, transport) < 0) {
        error = "that is no RTSP URL";
        return nullptr;
    }
    return pull;
}

// The URL with the address that the device has met us from; the user and password stay.
std::string with_host(const std::string& url, const std::string& host) {
    const size_t scheme = url.find("://");
    if (scheme == std::string::npos) {
        return url;
    }
    const size_t begin = scheme + 3;
    const size_t path = std::min(url.find('/', begin), url.size());
    const size_t at = url.substr(0, path).rfind('@');
    const size_t name = at == std::string::npos || at < begin ? begin : at + 1;
    return url.substr(0, name) + host + url.substr(path);
}

std::unique_ptr<PullSession> start_through_nat(const Options& options, long handler_id, std::string& error) {
    CP2PClientSession* session = CP2PClientSession::Create();
    std::unique_ptr<PullSession> pull = prepare(session, options, error);
    if (pull == nullptr) {
        return nullptr;
    }
    RendezvousOptions meeting;
    meeting.point = options.nat_point;
    meeting.name = options.nat_name;
    PunchedSocket sock;
    if (MeetPeer(meeting, sock) < 0) {
        error = options.nat_name + " was not met at " + options.nat_point;
        return nullptr;
    }
    if (session->Start(with_host(options.url, sock.peer).c_str(), handler_id, sock.fd) < 0) {
        close(sock.fd);
        error = "that is no RTSP URL";
        return nullptr;
    }
    return pull;
}

}  // namespace

std::unique_ptr<PullSession> StartSession(const Options& options, long handler_id, std::string& error) {
    return options.nat_point.empty() ? start_direct(options, handler_id, error)
                                     : start_through_nat(options, handler_id, error);
}
