// Session descriptions a second, and allocations for each.
//
//   parse     CSdpParser::Parse of a description
//   write     GetStream of its tree
//   copy      an assignment, as each session makes of its channel's description: the text, and a parse of it
//   floor     on the same bytes: a memcpy, and one strstr pass for a text that isn't there
//
// Descriptions: a camera of three tracks, 0.7 kB, and one that fills the 2 kB store with attributes. Each run is 11
// rounds of 20,000 on one thread; the median round counts. The floor says what merely moving and looking once through
// the bytes costs; a parse makes a tree of small records, so most of its time is that of its allocations. They are
// counted in malloc, after a first round. Nothing is asserted.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Protocol/SdpParser.h"

extern "C" void* __libc_malloc(size_t size);

namespace {

// Not a constant, and volatile: one thread writes it, and the compiler must not fold it away.
volatile size_t allocation_count = 0;

}  // namespace

// glibc lets a program put its own malloc in front; operator new comes here as well.
extern "C" void* malloc(size_t size) {
    allocation_count = allocation_count + 1;
    return __libc_malloc(size);
}

namespace {

using namespace Kavio::Vidora;

const int ROUNDS = 11;
const int TIMES = 20000;

struct result {
    double ns;
    double allocations;
};

template <typename Work>
result measure(Work work) {
    std::vector<double> rounds(ROUNDS);
    for (int i = 0; i < TIMES; ++i) {
        work();
    }
    const size_t allocations = allocation_count;
    for (double& round : rounds) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < TIMES; ++i) {
            work();
        }
        const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - begin;
        round = spent.count() / TIMES;
    }
    const size_t made = allocation_count - allocations;
    std::nth_element(rounds.begin(), rounds.begin() + ROUNDS / 2, rounds.end());
    return {rounds[ROUNDS / 2], static_cast<double>(made) / (ROUNDS * TIMES)};
}

void print(const char* name, size_t bytes, const result& r, double floor_ns) {
    std::printf("%-28s %5zu bytes %9.0f ns %10.0f a second %7.2f allocations %7.1f x floor\n", name, bytes, r.ns,
                1e9 / r.ns, r.allocations, r.ns / floor_ns);
}

void check(bool good) {
    if (!good) {
        std::fprintf(stderr, "a description can't be read\n");
        std::exit(1);
    }
}

void bench(const char* title, const std::string& text) {
    std::printf("%s\n", title);
    std::vector<char> copied(text.size() + 1);
    const char* volatile absent = "\r\na=absent:";
    const result floor = measure([&] {
        std::memcpy(copied.data(), text.c_str(), text.size() + 1);
        check(std::strstr(copied.data(), absent) == nullptr);
    });
    print("  floor", text.size(), floor, floor.ns);

    CSdpParser sdp;
    const int length = static_cast<int>(text.size());
    print("  parse", text.size(), measure([&] { check(sdp.Parse(text.c_str(), length) == 0); }), floor.ns);
    check(sdp.get_media_count() == 3);
    print("  write", text.size(), measure([&] { check(sdp.GetStream() == 0); }), floor.ns);
    check(sdp.get_stream() == text);
    CSdpParser session;
    print("  copy", text.size(), measure([&] { session = sdp; }), floor.ns);
    check(session.get_media_count() == 3);
}

std::string camera(int extra_attributes) {
    std::string text =
        "v=0\r\no=- 2251938202 2251938202 IN IP4 0.0.0.0\r\ns=Media Server\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n"
        "a=control:*\r\na=range:npt=now-\r\na=packetization-supported:KX\r\nm=video 0 RTP/AVP 96\r\n"
        "a=framerate:25.000000\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;profile-level-id=4D001F;"
        "sprop-parameter-sets=Z00AH6aAUAW6bgICAoAAAAMAgAAAGUI=,aO48gAA=\r\na=recvonly\r\na=control:trackID=0\r\n"
        "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\na=recvonly\r\na=control:trackID=1\r\n"
        "m=application 0 RTP/AVP 100\r\na=rtpmap:100 stream-assist-frame/90000\r\na=recvonly\r\n"
        "a=control:trackID=2\r\n";
    for (int i = 0; i < extra_attributes; ++i) {
        text += "a=x-setting:value of a setting\r\n";
    }
    return text;
}

}  // namespace

int main() {
    std::printf("Session descriptions, %s, %s build\n", __VERSION__,
#ifdef NDEBUG
                "optimised"
#else
                "DEBUG (figures mean nothing)"
#endif
    );
    bench("a camera's live stream", camera(0));
    bench("a full store", camera(42));
    return 0;
}
