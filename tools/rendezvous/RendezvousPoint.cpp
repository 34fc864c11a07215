#include <poll.h>

#include <chrono>
#include <map>

#include "rendezvous/Rendezvous.h"
#include "rendezvous/UdpSocket.h"

using rendezvous::Address;
using rendezvous::words_t;

namespace {

typedef std::chrono::steady_clock clock_type;

const std::chrono::seconds MAX_SILENCE{30};
const size_t MAX_ENTRIES = 4096;
const int WAIT_MS = 100;

// Where a device or a viewer is, as seen from here.
struct Place {
    Address address;
    clock_type::time_point heard;
};
typedef std::map<std::string, Place> places_t;

void forget_silent(places_t& places, clock_type::time_point now) {
    for (auto it = places.begin(); it != places.end();) {
        it = now - it->second.heard > MAX_SILENCE ? places.erase(it) : std::next(it);
    }
}

// False if there is no room for one more.
bool note(places_t& places, const std::string& key, const Place& place) {
    if (places.size() >= MAX_ENTRIES && places.count(key) == 0) {
        return false;
    }
    places[key] = place;
    return true;
}

}  // namespace

class RendezvousPoint::Impl {
public:
    bool Open(const std::string& address) {
        const Address local = Address::Parse(address, false);
        return local.IsValid() && m_sock.Open(local, false);
    }
    int Port() const { return m_sock.Local().Port(); }

    void Turn() {
        pollfd ready = {m_sock.Fd(), POLLIN, 0};
        poll(&ready, 1, WAIT_MS);
        const clock_type::time_point now = clock_type::now();
        forget_silent(m_devices, now);
        forget_silent(m_viewers, now);
        std::string datagram;
        Address from;
        while (m_sock.Receive(datagram, from)) {
            take(rendezvous::ParseMessage(datagram), from, now);
        }
    }

private:
    void take(const words_t& words, const Address& from, clock_type::time_point now) {
        if (words.size() == 2 && words[0] == "DEVICE" && rendezvous::IsName(words[1])) {
            keep_device(words[1], from, now);
        } else if (words.size() == 3 && words[0] == "MEET" && rendezvous::IsKey(words[1])) {
            call_device(words[1], words[2], from, now);
        } else if (words.size() == 2 && words[0] == "JOIN") {
            introduce(words[1], from);
        }
    }

    // The last one that has said so: a translation may give a device another outer port at any time.
    void keep_device(const std::string& name, const Address& from, clock_type::time_point now) {
        if (note(m_devices, name, {from, now})) {
            m_sock.Send({"KNOWN", name}, from);
        }
    }

    void call_device(const std::string& key, const std::string& name, const Address& from, clock_type::time_point now) {
        const auto device = m_devices.find(name);
        if (device == m_devices.end() || !note(m_viewers, key, {from, now})) {
            m_sock.Send({"NONE", key}, from);
        } else {
            m_sock.Send({"VIEWER", key}, device->second.address);
        }
    }

    void introduce(const std::string& key, const Address& from) {
        const auto viewer = m_viewers.find(key);
        if (viewer != m_viewers.end()) {
            m_sock.Send({"PEER", key, from.Text()}, viewer->second.address);
            m_sock.Send({"PEER", key, viewer->second.address.Text()}, from);
        }
    }

    rendezvous::UdpSocket m_sock;
    places_t m_devices;  // by name
    places_t m_viewers;  // by key
};

RendezvousPoint::RendezvousPoint() : m_impl(std::make_unique<Impl>()) {}

RendezvousPoint::~RendezvousPoint() = default;

bool RendezvousPoint::Open(const std::string& address) {
    return m_impl->Open(address);
}

int RendezvousPoint::Port() const {
    return m_impl->Port();
}

void RendezvousPoint::Run() {
    while (!m_stop) {
        m_impl->Turn();
    }
}
