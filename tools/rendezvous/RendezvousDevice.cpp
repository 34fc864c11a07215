#include <poll.h>

#include <map>

#include "rendezvous/Meeting.h"

using rendezvous::Address;
using rendezvous::instant_t;
using rendezvous::Meeting;
using rendezvous::words_t;

namespace {

const std::chrono::seconds REGISTER_PERIOD{5};
const std::chrono::milliseconds FIRST_PERIOD{500};  // until the point has answered
const size_t MAX_MEETINGS = 256;

}  // namespace

class RendezvousDevice::Impl {
public:
    bool Open(const RendezvousOptions& options, const viewer_func_t& on_viewer) {
        m_options = options;
        m_on_viewer = on_viewer;
        m_point = Address::Parse(options.point, false);
        return m_point.IsValid() && rendezvous::IsName(options.name) && m_sock.Open(m_point, true);
    }
    void Run() {
        while (!m_stop) {
            wait();
            const instant_t now = std::chrono::steady_clock::now();
            keep_registered(now);
            take_messages(now);
            step_meetings(now);
        }
    }
    void Stop() { m_stop = true; }
    bool IsRegistered() const { return m_registered; }

private:
    void wait() {
        std::vector<pollfd> fds(1, pollfd{m_sock.Fd(), POLLIN, 0});
        for (const auto& entry : m_meetings) {
            fds.push_back({entry.second->Fd(), POLLIN, 0});
        }
        poll(fds.data(), fds.size(), Meeting::PERIOD_MS);
    }

    void keep_registered(instant_t now) {
        if (now >= m_next_register) {
            m_sock.Send({"DEVICE", m_options.name}, m_point);
            m_next_register = now + (m_registered ? REGISTER_PERIOD : FIRST_PERIOD);
        }
    }

    void take_messages(instant_t now) {
        std::string datagram;
        Address from;
        while (m_sock.Receive(datagram, from)) {
            const words_t words = rendezvous::ParseMessage(datagram);
            if (!(from == m_point) || words.size() < 2) {
                continue;
            }
            m_registered = m_registered || words[0] == "KNOWN";
            if (words[0] == "VIEWER" && rendezvous::IsKey(words[1])) {
                begin_meeting(words[1], now);
            }
        }
    }

    // The point repeats what it says of a viewer.
    void begin_meeting(const std::string& key, instant_t now) {
        if (m_meetings.count(key) != 0 || m_meetings.size() >= MAX_MEETINGS) {
            return;
        }
        const instant_t deadline = now + std::chrono::milliseconds(m_options.timeout_ms);
        auto meeting = std::make_unique<Meeting>(m_point, key, std::string(), deadline);
        if (meeting->Open()) {
            m_meetings.emplace(key, std::move(meeting));
        }
    }

    void step_meetings(instant_t now) {
        for (auto it = m_meetings.begin(); it != m_meetings.end();) {
            const Meeting::state_t state = it->second->Step(now);
            if (state == Meeting::MET && !m_stop) {
                m_on_viewer(it->second->Take());
            }
            it = state < Meeting::MET ? std::next(it) : m_meetings.erase(it);
        }
    }

    RendezvousOptions m_options;
    viewer_func_t m_on_viewer;
    Address m_point;
    rendezvous::UdpSocket m_sock;
    instant_t m_next_register = {};
    std::map<std::string, std::unique_ptr<Meeting>> m_meetings;  // by key
    std::atomic<bool> m_registered{false};
    std::atomic<bool> m_stop{false};
};

RendezvousDevice::RendezvousDevice() = default;

RendezvousDevice::~RendezvousDevice() {
    Stop();
}

bool RendezvousDevice::Start(const RendezvousOptions& options, const viewer_func_t& on_viewer) {
    Stop();
    m_impl = std::make_unique<Impl>();
    if (!m_impl->Open(options, on_viewer)) {
        m_impl.reset();
        return false;
    }
    m_thread = std::thread([this] { m_impl->Run(); });
    return true;
}

void RendezvousDevice::Stop() {
    if (m_thread.joinable()) {
        m_impl->Stop();
        m_thread.join();
    }
}

bool RendezvousDevice::IsRegistered() const {
    return m_impl != nullptr && m_impl->IsRegistered();
}
