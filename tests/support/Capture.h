#ifndef VIDORA_TESTS_SUPPORT_CAPTURE_H
#define VIDORA_TESTS_SUPPORT_CAPTURE_H

#include <mutex>
#include <string>
#include <vector>

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"
#include "support/GuardedList.h"

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

    std::vector<std::string> Lines() const { return m_lines.All(); }
    // Lines that hold `text`.
    int Count(const std::string& text) const {
        return m_lines.CountIf([&text](const std::string& line) { return line.find(text) != line.npos; });
    }

private:
    static void set_current(CLogCapture* capture) {
        const std::lock_guard<std::mutex> guard(s_mutex);
        s_current = capture;
    }
    static void on_line(void*, Ostra::log_level_t, const char* text, size_t length) {
        const std::lock_guard<std::mutex> guard(s_mutex);
        if (s_current != nullptr) {
            s_current->m_lines.Add(std::string(text, length));
        }
    }

    // A thread may still be in the sink when the capture has gone: the sink finds it through what outlives it.
    static inline std::mutex s_mutex;
    static inline CLogCapture* s_current = nullptr;

    Ostra::log_level_t m_level;
    CGuardedList<std::string> m_lines;
};

// Collects the texts of failed assertions while it lives, so that code takes its failure path in debug builds as well.
// One at a time; any thread may fail.
class CAssertCapture {
public:
    CAssertCapture() {
        s_texts.Take();
        Ostra::SetAssertHandler(&CAssertCapture::on_assert);
    }
    ~CAssertCapture() { Ostra::SetAssertHandler(nullptr); }

    std::vector<std::string> Texts() const { return s_texts.All(); }

private:
    static void on_assert(const char* expression, const char*, int) { s_texts.Add(expression); }

    static inline CGuardedList<std::string> s_texts;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_CAPTURE_H
