#ifndef VIDORA_TESTS_SUPPORT_CAPTURE_H
#define VIDORA_TESTS_SUPPORT_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"

namespace Kavio::Support {

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
        const std::lock_guard<std::mutex> guard(s_mutex);
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
    static void set_current(CLogCapture* capture) {
        const std::lock_guard<std::mutex> guard(s_mutex);
        s_current = capture;
    }
    static void on_line(void*, Ostra::log_level_t, const char* text, size_t length) {
        const std::lock_guard<std::mutex> guard(s_mutex);
        if (s_current != nullptr) {
            s_current->m_lines.emplace_back(text, length);
        }
    }

    // A thread may still be in the sink when the capture has gone: the sink finds it through what outlives it.
    static inline std::mutex s_mutex;
    static inline CLogCapture* s_current = nullptr;

    Ostra::log_level_t m_level;
    std::vector<std::string> m_lines;
};

// Collects the texts of failed assertions while it lives, so that code takes its failure path in debug builds as well.
// One at a time; any thread may fail.
class CAssertCapture {
public:
    CAssertCapture() {
        s_texts.clear();
        Ostra::SetAssertHandler(&CAssertCapture::on_assert);
    }
    ~CAssertCapture() { Ostra::SetAssertHandler(nullptr); }

    std::vector<std::string> Texts() const {
        const std::lock_guard<std::mutex> guard(s_mutex);
        return s_texts;
    }

private:
    static void on_assert(const char* expression, const char*, int) {
        const std::lock_guard<std::mutex> guard(s_mutex);
        s_texts.push_back(expression);
    }

    static inline std::mutex s_mutex;
    static inline std::vector<std::string> s_texts;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_CAPTURE_H
