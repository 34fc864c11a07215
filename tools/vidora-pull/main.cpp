// vidora-pull: pulls a stream from an RTSP server, on the library's exported headers only.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "Options.h"
#include "Puller.h"
#include "Report.h"
#include "Vidora/Ostra/Log.h"
#include "Vidora/Tramel/NetThread.h"

using namespace Kavio::Vidora;

namespace {

const unsigned int THREADS = 2;
const double LOOK_SEC = 0.1;    // how soon a signal and the end of --seconds are seen
const double STATUS_SEC = 1.0;  // between two status lines

volatile std::sig_atomic_t g_signalled = 0;

// A second signal ends the process at once.
void on_signal(int number) {
    g_signalled = 1;
    std::signal(number, SIG_DFL);
}

void set_log_level(const std::string& name) {
    static const char* const NAMES[] = {"none", "error", "warn", "info", "debug", "trace"};
    for (int level = Kavio::Ostra::LOG_LEVEL_NONE; level <= Kavio::Ostra::LOG_LEVEL_TRACE; ++level) {
        if (name == NAMES[level]) {
            Kavio::Ostra::SetLogLevel(static_cast<Kavio::Ostra::log_level_t>(level));
        }
    }
}

// One line that is written over and over, on a terminal only.
class StatusDisplay {
public:
    explicit StatusDisplay(bool on) : m_on(on && isatty(STDERR_FILENO) == 1) {}
    ~StatusDisplay() {
        if (m_shown) {
            std::fputc('\n', stderr);
        }
    }
    void Show(const PullFigures& figures) {
        if (m_on && figures.media_sec >= m_last.media_sec + STATUS_SEC) {
            std::fprintf(stderr, "\r%s ", StatusLine(figures, m_last).c_str());
            m_last = figures;
            m_shown = true;
        }
    }

private:
    const bool m_on;
    bool m_shown = false;
    PullFigures m_last;
};

// Until the stream ends, it was long enough, or a signal comes.
void pull(Puller& puller, const Options& options) {
    StatusDisplay display(!options.json);
    while (g_signalled == 0 && !puller.Wait(LOOK_SEC)) {
        const PullFigures figures = puller.Figures();
        display.Show(figures);
        if (options.seconds > 0.0 && figures.media_sec >= options.seconds) {
            return;
        }
    }
}

int report(PullFigures figures, const Options& options) {
    if (figures.failure.empty() && figures.frames.empty()) {
        figures.failure = "no media came";
    }
    if (!figures.failure.empty() && !options.json) {
        std::fprintf(stderr, "vidora-pull: %s\n", figures.failure.c_str());
    }
    const std::string summary = options.json ? SummaryJson(figures) : SummaryText(figures);
    std::fputs(summary.c_str(), stdout);
    return std::fflush(stdout) == 0 && figures.failure.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int exit_code = 0;
    if (!ParseOptions(argc, argv, options, exit_code)) {
        return exit_code;
    }
    set_log_level(options.log_level);
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    Puller puller(options);
    if (CNetThread::CreateThreadPool(THREADS, false) < 0) {
        std::fprintf(stderr, "vidora-pull: the threads cannot be started\n");
        return 1;
    }
    std::string error;
    const bool started = puller.Start(error);
    if (started) {
        pull(puller, options);
    }
    puller.Stop();
    CNetThread::DestroyThreadPool();
    PullFigures figures = puller.Figures();
    if (!started) {
        figures.failure = error;
    }
    return report(figures, options);
}
