#include <poll.h>

#include <cstdio>
#include <random>

#include "rendezvous/Meeting.h"

namespace {

std::string make_key() {
    std::random_device random;
    char key[17];
    snprintf(key, sizeof(key), "%08x%08x", random(), random());
    return key;
}

}  // namespace

int MeetPeer(const RendezvousOptions& options, PunchedSocket& out) {
    using rendezvous::Meeting;
    const rendezvous::Address point = rendezvous::Address::Parse(options.point, false);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeout_ms);
    Meeting meeting(point, make_key(), options.name, deadline);
    if (!point.IsValid() || !rendezvous::IsName(options.name) || !meeting.Open()) {
        return -1;
    }
    for (;;) {
        const Meeting::state_t state = meeting.Step(std::chrono::steady_clock::now());
        if (state == Meeting::MET) {
            out = meeting.Take();
            return 0;
        }
        if (state == Meeting::FAILED) {
            return -1;
        }
        pollfd ready = {meeting.Fd(), POLLIN, 0};
        poll(&ready, 1, Meeting::PERIOD_MS);
    }
}
