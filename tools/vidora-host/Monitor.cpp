#include "Monitor.h"

#include <cinttypes>
#include <cstdio>

#include "Vidora/Ostra/Time.h"

using namespace Kavio::Vidora;

namespace {

std::string time_text() {
    char text[32];
    Kavio::Ostra::CTime::getCurrentTime().format(text, "%Y-%m-%dT%H:%M:%SZ", sizeof(text));
    return text;
}

}  // namespace

void Monitor::Listening(const std::string& ip, int port) {
    const std::string host = ip.find(':') == std::string::npos ? ip : "[" + ip + "]";
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_json) {
        std::printf("{\"time\":\"%s\",\"event\":\"listening on\",\"address\":\"%s:%d\"}\n", time_text().c_str(),
                    host.c_str(), port);
    } else {
        std::printf("listening on %s:%d\n", host.c_str(), port);
    }
    std::fflush(stdout);
}

void Monitor::PrintFigures(double seconds) {
    RtspSvrStatistics now;
    CRtspSvr::GetStatistics(now);
    const uint64_t packets = now.packets - m_last.packets;
    const uint64_t dropped = now.dropped - m_last.dropped;
    const double mbit = static_cast<double>(now.bytes - m_last.bytes) * 8.0 / 1e6 / seconds;
    m_last = now;
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_json) {
        std::printf("{\"time\":\"%s\",\"sessions\":%u,\"packets\":%" PRIu64 ",\"mbit_per_s\":%.3f,\"drops\":%" PRIu64
                    "}\n",
                    time_text().c_str(), now.sessions, packets, mbit, dropped);
    } else {
        std::printf("%s sessions %u packets %" PRIu64 " Mbit/s %.3f drops %" PRIu64 "\n", time_text().c_str(),
                    now.sessions, packets, mbit, dropped);
    }
    std::fflush(stdout);
}

void Monitor::Event(event_type_t event, const void* data, int length) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (event == EVENT_LOST_PACKET) {
        const LostPacketEvent& lost = *static_cast<const LostPacketEvent*>(data);
        std::printf(m_json ? "{\"time\":\"%s\",\"event\":\"lost packet\",\"peer\":\"%s:%d\",\"session\":%ld}\n"
                           : "%s lost packet, peer %s:%d session %ld\n",
                    time_text().c_str(), lost.ip, lost.port, lost.session);
    } else {
        const std::string peer(static_cast<const char*>(data), static_cast<size_t>(length));
        const char* name = event == EVENT_CLIENT_CONNECTED ? "connect" : "disconnect";
        std::printf(m_json ? "{\"time\":\"%s\",\"event\":\"%s\",\"peer\":\"%s\"}\n" : "%s %s, peer %s\n",
                    time_text().c_str(), name, peer.c_str());
    }
    std::fflush(stdout);
}
