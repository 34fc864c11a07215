#ifndef VIDORA_OSTRA_LOGLIMIT_H
#define VIDORA_OSTRA_LOGLIMIT_H

#include <cstdint>
#include <memory>

namespace Kavio {
namespace Ostra {

// CLogLimit: the log lines of one session, of which each cause gets through once a second, so that a peer can't fill
// the log with what it repeats. A cause is a place in the code. What was passed over is counted, and told before the
// next line of that cause, or when the session goes.
//
// THREADING  The session's strand. The scope belongs to its thread.
// MEMORY     MAX_CAUSES rows from the first line on; most sessions have none. A session that has more causes within a
//            second loses the lines of the others.
class CLogLimit {
public:
    static constexpr int MAX_CAUSES = 16;
    static constexpr uint64_t INTERVAL_MS = 1000;

    CLogLimit() = default;
    ~CLogLimit();
    CLogLimit(const CLogLimit&) = delete;
    CLogLimit& operator=(const CLogLimit&) = delete;

    // Whether a line of that cause, which isn't null, may pass now. `passed_over`: how many of its lines didn't since
    // the last one that did.
    bool Passes(const void* cause, unsigned int& passed_over);

    // While it lives, what its thread logs at LOG_LEVEL_INFO or a graver level is the session's.
    class CScope {
    public:
        explicit CScope(CLogLimit& limit);
        ~CScope();
        CScope(const CScope&) = delete;
        CScope& operator=(const CScope&) = delete;

    private:
        CLogLimit* const m_outer;
    };
    // Of the innermost scope of this thread; null outside of any.
    static CLogLimit* Current();

private:
    struct Row {
        const void* cause = nullptr;
        uint64_t last_ms = 0;
        unsigned int passed_over = 0;
    };

    Row* find_row(const void* cause, uint64_t now);

    std::unique_ptr<Row[]> m_rows;
    unsigned int m_passed_over = 0;  // of causes that have no row
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_LOGLIMIT_H
