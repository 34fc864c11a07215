#ifndef VIDORA_TESTS_SUPPORT_CAPTURE_H
#define VIDORA_TESTS_SUPPORT_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"

namespace Kavio {
namespace Support {

// Collects the log's lines of all levels up to `level` while it lives. One at a time.
class CLogCapture {
public:
    explicit CLogCapture(Ostra::log_level_t level = Ostra::LOG_LEVEL_TRACE) : m_level(Ostra::GetLogLevel()) {
        Ostra::SetLogSink(&CLogCapture::on_line, this);
        Ostra::SetLogLevel(level);
    }
    ~CLogCapture() {
        Ostra::SetLogLevel(m_level);
        Ostra::SetLogSink(nullptr, nullptr);
    }

    std::vector<std::string> Lines() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    // Lines that hold `text`.
    int Count(const std::string& text) const {
        int count = 0;
        for (const std::string& line : Lines()) {
            count += line.find(text) != std::string::npos ? 1 : 0;
        }
        return count;
    }

private:
    static void on_line(void* self, Ostra::log_level_t, const char* text, size_t length) {
        CLogCapture* capture = static_cast<CLogCapture*>(self);
        const std::lock_guard<std::mutex> guard(capture->m_mutex);
        capture->m_lines.emplace_back(text, length);
    }

    Ostra::log_level_t m_level;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

// Collects the texts of failed assertions while it lives, so that code takes its failure path in debug builds as well.
// One at a time.
class CAssertCapture {
public:
    CAssertCapture() {
        Texts().clear();
        Ostra::SetAssertHandler(&CAssertCapture::on_assert);
    }
    ~CAssertCapture() { Ostra::SetAssertHandler(nullptr); }

    static std::vector<std::string>& Texts() {
        static std::vector<std::string> texts;
        return texts;
    }

private:
    static void on_assert(const char* expression, const char*, int) { Texts().push_back(expression); }
};

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_CAPTURE_H
