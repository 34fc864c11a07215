#ifndef VIDORA_RENDEZVOUS_MEETING_H
#define VIDORA_RENDEZVOUS_MEETING_H

#include <chrono>
#include <string>

#include "rendezvous/Rendezvous.h"
#include "rendezvous/UdpSocket.h"

namespace rendezvous {

typedef std::chrono::steady_clock::time_point instant_t;

// One side's part in one meeting, on a socket of its own: it asks the point for the other side, then sends to that
// until both have heard each other. See Rendezvous.h.
class Meeting {
public:
    enum state_t { ASKS, PUNCHES, OPENS, MET, FAILED };

    // The viewer's part has the name of the device; the device's has none.
    Meeting(const Address& point, const std::string& key, const std::string& name, instant_t deadline)
        : m_point(point), m_key(key), m_name(name), m_deadline(deadline) {}

    bool Open() { return m_sock.Open(m_point, true); }
    int Fd() const { return m_sock.Fd(); }
    // Takes what has arrived, and sends what is due. Called when the socket is readable, and every PERIOD_MS.
    state_t Step(instant_t now);
    // The socket and the other side, once MET.
    PunchedSocket Take();

    static const int PERIOD_MS = 100;

private:
    bool is_viewer() const { return !m_name.empty(); }
    void take(const std::string& datagram, const Address& from);
    void take_peer(const words_t& words);
    void take_words(const words_t& words, const Address& from);
    void enter(state_t state);
    void send_due(instant_t now);

    const Address m_point;
    const std::string m_key;
    const std::string m_name;
    const instant_t m_deadline;
    UdpSocket m_sock;
    Address m_peer;
    state_t m_state = ASKS;
    instant_t m_next_send = {};
    int m_opens = 0;  // OPENs sent
};

}  // namespace rendezvous

#endif  // VIDORA_RENDEZVOUS_MEETING_H
