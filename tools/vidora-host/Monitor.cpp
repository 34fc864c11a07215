#include "Monitor.h"

#include <unistd.h>

#include <cstdio>
#include <initializer_list>
#include <iterator>
#include <new>

#include "Vidora/Ostra/Log.h"
#include "Vidora/Ostra/Time.h"

using namespace Kavio::Vidora;

namespace {

const uint64_t LOSS_INTERVAL_MS = 1000;  // between two lines of a session that loses packets

std::string time_text() {
    char text[32];
    Kavio::Ostra::CTime::getCurrentTime().format(text, "%Y-%m-%dT%H:%M:%SZ", sizeof(text));
    return text;
}

// One thing that a line tells: its name in JSON, what stands in front of it in text, and its value.
struct Item {
    const char* name;
    const char* words;
    std::string value;
    bool is_number;
};

Item text_item(const char* name, const char* words, const std::string& value) {
    return Item{name, words, value, false};
}

template <typename Number>
Item number_item(const char* name, const char* words, Number value) {
    return Item{name, words, std::to_string(value), true};
}

// Peers can have their part in a text: what could end it, or steer a terminal, is shown as "?".
std::string masked(const std::string& text) {
    std::string result = text;
    for (char& c : result) {
        const unsigned char code = static_cast<unsigned char>(c);
        c = code < 0x20 || code > 0x7E || c == '"' || c == '\\' ? '?' : c;
    }
    return result;
}

std::string make_line(bool json, std::initializer_list<Item> items) {
    std::string line = json ? "{\"time\":\"" + time_text() + "\"" : time_text();
    for (const Item& item : items) {
        const std::string value = masked(item.value);
        const std::string quote = item.is_number ? "" : "\"";
        line += json ? ",\"" + std::string(item.name) + "\":" + quote + value + quote : item.words + value;
    }
    return line + (json ? "}\n" : "\n");
}

std::string dropped_text(uint64_t count) {
    return make_line(false, {number_item("dropped", " lines dropped: ", count)});
}

std::string dropped_json(uint64_t count) {
    return make_line(true, {text_item("event", "", "lines dropped"), number_item("lines", "", count)});
}

void write_log(void* writer, Kavio::Ostra::log_level_t, const char* text, size_t length) {
    LineWriter& lines = *static_cast<LineWriter*>(writer);
    try {
        std::string line = "[Vidora] " + std::string(text, length);
        if (line.back() != '\n') {
            line += '\n';
        }
        lines.Write(std::move(line));
    } catch (const std::bad_alloc&) {
        lines.Drop();
    }
}

}  // namespace

Monitor::Monitor(bool json)
    : m_json(json), m_output(STDOUT_FILENO, json ? dropped_json : dropped_text), m_errors(STDERR_FILENO, dropped_text) {
    Kavio::Ostra::SetLogSink(write_log, &m_errors);
}

Monitor::~Monitor() {
    Kavio::Ostra::SetLogSink(nullptr, nullptr);
}

void Monitor::Listening(const std::string& ip, int port) {
    const std::string host = ip.find(':') == std::string::npos ? ip : "[" + ip + "]";
    const std::string address = host + ":" + std::to_string(port);
    m_output.Write(m_json ? make_line(true, {text_item("event", "", "listening on"), text_item("address", "", address)})
                          : "listening on " + address + "\n");
}

void Monitor::PrintFigures(double seconds) {
    RtspSvrStatistics now;
    CRtspSvr::GetStatistics(now);
    char mbit[32];
    std::snprintf(mbit, sizeof(mbit), "%.3f", static_cast<double>(now.bytes - m_last.bytes) * 8.0 / 1e6 / seconds);
    m_output.Write(make_line(m_json, {number_item("sessions", " sessions ", now.sessions),
                                      number_item("packets", " packets ", now.packets - m_last.packets),
                                      Item{"mbit_per_s", " Mbit/s ", mbit, true},
                                      number_item("drops", " drops ", now.dropped - m_last.dropped)}));
    m_last = now;
}

void Monitor::Event(event_type_t event, const void* data, int length) noexcept {
    try {
        write_event(event, data, length);
    } catch (const std::bad_alloc&) {
        m_output.Drop();
    }
}

// A client that reads slowly loses frame after frame: a line a second tells as much.
bool Monitor::passes_loss(long session) {
    const uint64_t now = Kavio::Ostra::CTime::getCurrentMilliSecond();
    const std::lock_guard<std::mutex> guard(m_loss_mutex);
    if (now - m_swept_ms >= LOSS_INTERVAL_MS) {
        m_swept_ms = now;
        for (auto row = m_loss_ms.begin(); row != m_loss_ms.end();) {
            row = now - row->second >= LOSS_INTERVAL_MS ? m_loss_ms.erase(row) : std::next(row);
        }
    }
    const auto found = m_loss_ms.find(session);
    if (found != m_loss_ms.end() && now - found->second < LOSS_INTERVAL_MS) {
        return false;
    }
    m_loss_ms[session] = now;
    return true;
}

void Monitor::write_event(event_type_t event, const void* data, int length) {
    if (event == EVENT_LOST_PACKET) {
        const LostPacketEvent& lost = *static_cast<const LostPacketEvent*>(data);
        if (!passes_loss(lost.session)) {
            return;
        }
        const std::string peer = std::string(lost.ip) + ":" + std::to_string(lost.port);
        m_output.Write(make_line(m_json, {text_item("event", " ", "lost packet"), text_item("peer", ", peer ", peer),
                                          number_item("session", " session ", lost.session)}));
        return;
    }
    const std::string peer(static_cast<const char*>(data), static_cast<size_t>(length));
    const char* name = event == EVENT_CLIENT_CONNECTED ? "connect" : "disconnect";
    m_output.Write(make_line(m_json, {text_item("event", " ", name), text_item("peer", ", peer ", peer)}));
}
