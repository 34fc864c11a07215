#include "Report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

std::string format(const char* form, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char* form, ...) {
    char text[256];
    va_list args;
    va_start(args, form);
    std::vsnprintf(text, sizeof(text), form, args);
    va_end(args);
    return text;
}

double mbit(uint64_t bytes, double seconds) {
    return seconds > 0.0 ? static_cast<double>(bytes) * 8.0 / 1e6 / seconds : 0.0;
}

// Our own words, but a file's name may stand among them.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        const unsigned char code = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += code < 0x20 ? '?' : c;
    }
    return result + '"';
}

}  // namespace

std::string StatusLine(const PullFigures& now, const PullFigures& before) {
    const double seconds = std::max(now.media_sec - before.media_sec, 1e-3);
    return format("%8.1f s  %6.2f fps  %8.3f Mbit/s  %llu lost", now.media_sec,
                  static_cast<double>(now.Pictures() - before.Pictures()) / seconds,
                  mbit(now.bytes - before.bytes, seconds), static_cast<unsigned long long>(now.lost));
}

std::string SummaryText(const PullFigures& figures) {
    std::string frames;
    for (const auto& row : figures.frames) {
        frames += format(" %c %llu", row.first, static_cast<unsigned long long>(row.second));
    }
    std::string text = "frames:" + (frames.empty() ? " none" : frames) + "\n";
    text += format("bytes: %llu in %llu packets, %.3f Mbit/s over %.1f s\n",
                   static_cast<unsigned long long>(figures.bytes), static_cast<unsigned long long>(figures.packets),
                   mbit(figures.bytes, figures.media_sec), figures.media_sec);
    text += format("packets lost: %llu\n", static_cast<unsigned long long>(figures.lost));
    if (figures.first_frame_sec >= 0.0) {
        text += format("first frame after %.0f ms\n", figures.first_frame_sec * 1000.0);
    }
    return text;
}

std::string SummaryJson(const PullFigures& figures) {
    std::string frames;
    for (const auto& row : figures.frames) {
        frames +=
            format("%s\"%c\":%llu", frames.empty() ? "" : ",", row.first, static_cast<unsigned long long>(row.second));
    }
    std::string text = "{\"frames\":{" + frames + "}";
    text += format(",\"packets\":%llu,\"bytes\":%llu,\"lost\":%llu,\"seconds\":%.3f",
                   static_cast<unsigned long long>(figures.packets), static_cast<unsigned long long>(figures.bytes),
                   static_cast<unsigned long long>(figures.lost), figures.media_sec);
    text += figures.first_frame_sec < 0.0 ? ",\"first_frame_ms\":null"
                                          : format(",\"first_frame_ms\":%.0f", figures.first_frame_sec * 1000.0);
    return text + ",\"failure\":" + (figures.failure.empty() ? "null" : quoted(figures.failure)) + "}\n";
}
