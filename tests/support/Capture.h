#ifndef VIDORA_TESTS_SUPPORT_CAPTURE_H
#define VIDORA_TESTS_SUPPORT_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"

namespace Kavio {
namespace Support {

// Collects the log's lines of all levels up to `level` while it lives. One at a time; any thread may log.
class CLogCapture {
public:
    explicit CLogCapture(Ostra::log_level_t level = Ostra::LOG_LEVEL_TRACE) : m_level(Ostra::GetLogLevel()) {
        set_current(this);
        Ostra::SetLogSink(&CLogCapture::on_line, nullptr);
        Ostra::SetLogLevel(level);
    }
    ~CLogCapture() {
        Ostra::SetLogLevel(m_level);
        Ostra::SetLogSink(nullptr, nullptr);
        set_current(nullptr);
    }

    std::vector<std::string> Lines() const {
        const std::lock_guard<std::mutex> guard(current_mutex());
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
    // A thread may still be in the sink when the capture has gone, so the sink finds it through a pointer that outlives
    // it.
    static std::mutex& current_mutex() {
        static std::mutex mutex;
        return mutex;
    }
    static CLogCapture*& current() {
        static CLogCapture* capture = nullptr;
        return capture;
    }
    static void set_current(CLogCapture* capture) {
        const std::lock_guard<std::mutex> guard(current_mutex());
        current() = capture;
    }
    static void on_line(void*, Ostra::log_level_t, const char* text, size_t length) {
        const std::lock_guard<std::mutex> guard(current_mutex());
        if (current() != nullptr) {
            current()->m_lines.emplace_back(text, length);
        }
    }

    Ostra::log_level_t m_level;
    std::vector<std::string> m_lines;
};

// Collects the texts of failed assertions while it lives, so that code takes its failure path in debug builds as well.
// One at a time; any thread may fail.
class CAssertCapture {
public:
    CAssertCapture() {
        texts().clear();
        Ostra::SetAssertHandler(&CAssertCapture::on_assert);
    }
    ~CAssertCapture() { Ostra::SetAssertHandler(nullptr); }

    std::vector<std::string> Texts() const {
        const std::lock_guard<std::mutex> guard(mutex());
        return texts();
    }

private:
    static std::mutex& mutex() {
        static std::mutex mutex;
        return mutex;
    }
    static std::vector<std::string>& texts() {
        static std::vector<std::string> texts;
        return texts;
    }
    static void on_assert(const char* expression, const char*, int) {
        const std::lock_guard<std::mutex> guard(mutex());
        texts().push_back(expression);
    }
};

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_CAPTURE_H
