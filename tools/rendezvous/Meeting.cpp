#include "rendezvous/Meeting.h"

namespace rendezvous {

namespace {

const std::chrono::milliseconds ASK_PERIOD{500};
const std::chrono::milliseconds PUNCH_PERIOD{200};
const int MAX_OPENS = 10;  // one of them has come through by then, whether or not the answer has

}  // namespace

Meeting::state_t Meeting::Step(instant_t now) {
    std::string datagram;
    Address from;
    while (m_sock.Receive(datagram, from)) {
        take(datagram, from);
    }
    if (m_state < MET && now >= m_deadline) {
        m_state = FAILED;
    }
    if (m_state < MET && now >= m_next_send) {
        send_due(now);
    }
    return m_state;
}

// Once the peer is known, anything else that comes from there is its library's first word: the way is open.
void Meeting::take(const std::string& datagram, const Address& from) {
    const words_t words = ParseMessage(datagram);
    if (words.size() >= 2 && words[1] == m_key) {
        take_words(words, from);
    } else if (words.empty() && from == m_peer && (m_state == PUNCHES || m_state == OPENS)) {
        enter(MET);
    }
}

// The point names the peer: "PEER", the key and the address.
void Meeting::take_peer(const words_t& words) {
    if (words[0] == "PEER" && words.size() > 2 && m_state == ASKS) {
        m_peer = Address::Parse(words[2], true);
        enter(m_peer.IsValid() ? PUNCHES : ASKS);
    }
}

// A translation may give the peer another outer address than the point has seen: it is known by the key.
void Meeting::take_words(const words_t& words, const Address& from) {
    const std::string& verb = words[0];
    if (from == m_point) {
        take_peer(words);
        return;
    }
    const bool is_last = verb == (is_viewer() ? "DONE" : "OPEN");
    if (m_state < MET && (verb == "PUNCH" || is_last)) {
        m_peer = from;
        if (is_last) {
            enter(MET);
        } else if (is_viewer() && m_state != OPENS) {
            enter(OPENS);
        }
    }
}

void Meeting::enter(state_t state) {
    m_state = state;
    m_next_send = {};
    if (state == MET && !is_viewer()) {
        m_sock.Send({"DONE", m_key}, m_peer);  // once: what comes after it is for the viewer's library
    }
}

void Meeting::send_due(instant_t now) {
    switch (m_state) {
        case ASKS:
            m_sock.Send(is_viewer() ? words_t{"MEET", m_key, m_name} : words_t{"JOIN", m_key}, m_point);
            m_next_send = now + ASK_PERIOD;
            return;
        case PUNCHES:
            m_sock.Send({"PUNCH", m_key}, m_peer);
            m_next_send = now + PUNCH_PERIOD;
            return;
        case OPENS:
            if (m_opens++ >= MAX_OPENS) {
                enter(MET);
                return;
            }
            m_sock.Send({"OPEN", m_key}, m_peer);
            m_next_send = now + PUNCH_PERIOD;
            return;
        default:
            return;
    }
}

PunchedSocket Meeting::Take() {
    PunchedSocket met;
    std::string datagram;
    Address from;
    while (is_viewer() && m_sock.Receive(datagram, from)) {
        // the last of these datagrams; the device's library says hello again
    }
    met.peer = m_peer.Text();
    met.fd = m_sock.Release();
    return met;
}

}  // namespace rendezvous
