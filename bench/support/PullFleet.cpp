#include "support/PullFleet.h"

#include <chrono>
#include <string>

#include "Vidora/RtspClientBuffer.h"
#include "Vidora/RtspClientSession.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/LibraryPool.h"

namespace Bench {

using namespace Kavio::Vidora;

namespace {

uint64_t now_ns() {
    return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1));
}

void on_frame(const unsigned char*, unsigned int size, void* figures) {
    FleetFigures& counted = *static_cast<FleetFigures*>(figures);
    counted.frames.fetch_add(1, std::memory_order_relaxed);
    counted.bytes.fetch_add(size, std::memory_order_relaxed);
}

void on_error(int, void* figures) {
    ++static_cast<FleetFigures*>(figures)->damaged;
}

}  // namespace

// One session with its sink.
class CPull {
public:
    explicit CPull(FleetFigures& figures) : m_figures(figures), m_sink(&on_frame, &on_error, &figures) {}
    ~CPull() {
        RtspClientStatistics statistics;
        m_session->GetStatistics(statistics);
        m_figures.packets += statistics.packets;
        m_figures.gaps += statistics.lost;
        m_session->GetMediaBuffer()->DelLevel2Buffer(&m_sink);
        m_session->Close();
    }
    CPull(const CPull&) = delete;
    CPull& operator=(const CPull&) = delete;

    long Id() const { return m_session->GetID(); }
    bool Start(uint16_t port, bool udp, long handler_id) {
        m_session->SetPacketType(PACKET_TYPE_RTP);
        const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/cam/realmonitor?channel=1&subtype=0";
        return m_session->Start(url.c_str(), handler_id, udp ? RTP_OVER_UDP : RTP_OVER_RTSP) == 0;
    }
    void Play() {
        if (m_sink.GetFrameBuffer().Init(m_session->GetSdpInfo(), 0, 0) == 0) {
            m_session->GetMediaBuffer()->AddLevel2Buffer(&m_sink);
            m_session->Play(0.0F, 0.0F, 1.0F, false);
        }
    }

private:
    FleetFigures& m_figures;
    CRtspClientBuffer m_sink;
    CRtspClientSession* const m_session = CRtspClientSession::Create();
};

// Gets the notifications of all sessions.
class CPullHandler : public Kavio::Tramel::CNetHandler {
public:
    explicit CPullHandler(CPullFleet& fleet) : m_fleet(fleet) {}

    int handle_message(long sender_id, unsigned int msg, long) override {
        m_fleet.on_note(sender_id, msg);
        return 0;
    }
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }

private:
    CPullFleet& m_fleet;
};

CPullFleet::CPullFleet(FleetFigures& figures, unsigned int threads) : m_figures(figures) {
    StartLibraryPool(threads);
    m_handler = new CPullHandler(*this);
}

CPullFleet::~CPullFleet() {
    Close();
    m_handler->Close();
    EndLibraryPool();
}

void CPullFleet::Open(uint16_t port, unsigned int count, bool udp) {
    Close();
    m_start_ns = now_ns();
    const std::lock_guard<std::mutex> guard(m_mutex);
    for (unsigned int i = 0; i < count; ++i) {
        auto pull = std::make_unique<CPull>(m_figures);
        CPull& started = *pull;
        m_pulls[started.Id()] = std::move(pull);
        if (!started.Start(port, udp, m_handler->GetID())) {
            ++m_figures.failed;
        }
    }
}

void CPullFleet::Close() {
    std::map<long, std::unique_ptr<CPull>> pulls;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        pulls.swap(m_pulls);
    }
    pulls.clear();
    m_figures.up = m_figures.failed = 0;
}

void CPullFleet::Run(int wake_fd) {
    WaitForCommand(wake_fd);
}

void CPullFleet::on_note(long session_id, unsigned int msg) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    const auto place = m_pulls.find(session_id);
    if (place == m_pulls.end()) {
        return;
    }
    if (msg == MSG_RTSP_SETUP_READY) {
        place->second->Play();
    } else if (msg == MSG_RTSP_PLAY_READY) {
        m_figures.setup_ns = now_ns() - m_start_ns;
        ++m_figures.up;
    } else if (msg == MSG_RTSP_TEARDOWN) {
        ++m_figures.failed;
    }
}

}  // namespace Bench
