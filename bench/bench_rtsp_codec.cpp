// Time and allocations per message of the two RTSP codecs.
//
//   server   check_message and parse_request of a SETUP as a player sends it, and the reply
//   client   generate_setup, and check_message and parse_message of the reply to it
//   floor    on the same bytes: a memcpy, and one strstr pass for a text that isn't there
//
// Each run is 11 rounds of 20,000 messages on one thread; the median round counts. The floor says what merely moving
// and looking once through the message costs; a codec looks for about a dozen keys. Allocations are counted by an
// operator new of this program, after a first round. Nothing is asserted.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "Protocol/RtspReqParser.h"
#include "Protocol/RtspRspParser.h"

namespace {

// Not a constant, and volatile: one thread writes it, and the compiler must not fold it away.
volatile size_t allocation_count = 0;

}  // namespace

void* operator new(size_t size) {
    allocation_count = allocation_count + 1;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace Kavio::Vidora;

const int ROUNDS = 11;
const int MESSAGES = 20000;

struct result {
    double ns_per_message;
    double allocations_per_message;
};

template <typename Work>
result measure(Work work) {
    work(0);
    std::vector<double> rounds;
    rounds.reserve(ROUNDS);
    for (int i = 0; i < MESSAGES; ++i) {
        work(i);
    }
    const size_t allocations = allocation_count;
    for (int round = 0; round < ROUNDS; ++round) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < MESSAGES; ++i) {
            work(i);
        }
        const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - begin;
        rounds.push_back(spent.count() / MESSAGES);
    }
    const size_t made = allocation_count - allocations;
    std::nth_element(rounds.begin(), rounds.begin() + ROUNDS / 2, rounds.end());
    return {rounds[ROUNDS / 2], static_cast<double>(made) / (ROUNDS * MESSAGES)};
}

void print(const char* name, size_t bytes, const result& r, double floor_ns) {
    std::printf("%-34s %5zu bytes %9.0f ns %10.0f messages/s %6.2f allocations %7.1f x floor\n", name, bytes,
                r.ns_per_message, 1e9 / r.ns_per_message, r.allocations_per_message, r.ns_per_message / floor_ns);
}

void fail(const char* what) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

// The floor for these bytes.
double print_floor(const std::string& message) {
    std::vector<char> copy(message.size() + 1);
    const char* volatile absent = "\r\nX-Absent: ";
    const result r = measure([&](int) {
        std::memcpy(copy.data(), message.c_str(), message.size() + 1);
        if (std::strstr(copy.data(), absent) != nullptr) {
            fail("floor");
        }
    });
    print("  floor: memcpy and one strstr", message.size(), r, r.ns_per_message);
    return r.ns_per_message;
}

void bench_server(bool with_extra) {
    CRtspRspParser parser;
    std::string request =
        "SETUP rtsp://192.0.2.1:8554/live/camera/track1 RTSP/1.0\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"
        "CSeq: 3\r\nUser-Agent: Lavf59.27.100\r\nSession: " +
        std::to_string(parser.get_session_id()) + "\r\n\r\n";
    if (with_extra) {
        parser.set_ext_key(RTSP_METHOD_SETUP, "X-Extra-Header", "a value longer than a small string holds");
    }
    const double floor_ns = print_floor(request);
    const unsigned int length = static_cast<unsigned int>(request.size());
    const result r = measure([&](int) {
        rtsp_msg_info info;
        if (parser.check_message(request.c_str(), length, &info) != static_cast<int>(length) ||
            parser.parse_request(request.c_str(), length, &info) != 0) {
            fail("server");
        }
        const char* reply = with_extra ? parser.generate_error_reply(200)
                                       : parser.generate_setup_reply(parser.get_transport(), nullptr);
        if (reply == nullptr) {
            fail("server");
        }
    });
    print(with_extra ? "server: read SETUP, extra headers" : "server: read SETUP, write reply", length, r, floor_ns);
}

void bench_client() {
    CRtspReqParser parser;
    parser.set_url("rtsp://192.0.2.1:8554/live/camera/");
    transport_info t;
    t.rtcp_port = 1;
    std::strcpy(t.url, "track1");
    char reply[512];
    const char* format =
        "RTSP/1.0 200 OK\r\nCSeq: %08d\r\nServer: Rtsp Server/2.0\r\nSession: 1373842283;timeout=60\r\nTransport: "
        "RTP/AVP/TCP;unicast;interleaved=0-1;ssrc=4A6B8D1F\r\n\r\n";
    const unsigned int length = static_cast<unsigned int>(std::snprintf(reply, sizeof reply, format, 1));
    char* number = std::strstr(reply, "CSeq: ") + 6;
    const double floor_ns = print_floor(reply);
    const result r = measure([&](int i) {
        parser.set_next_cseq(static_cast<unsigned int>(i + 1));
        if (parser.generate_setup(&t, nullptr, false) == nullptr) {
            fail("client");
        }
        for (int digit = 7, value = i + 1; digit >= 0; --digit, value /= 10) {
            number[digit] = static_cast<char>('0' + value % 10);
        }
        rtsp_msg_info info;
        if (parser.check_message(reply, length, &info) != static_cast<int>(length) ||
            parser.parse_message(reply, length, &info) != 0 || parser.get_method() != RTSP_METHOD_SETUP) {
            fail("client");
        }
    });
    print("client: write SETUP, read reply", length, r, floor_ns);
}

}  // namespace

int main() {
    std::printf("RTSP codecs, %s, %s build\n", __VERSION__,
#ifdef NDEBUG
                "optimised"
#else
                "DEBUG (figures mean nothing)"
#endif
    );
    bench_server(false);
    bench_server(true);
    bench_client();
    return 0;
}
