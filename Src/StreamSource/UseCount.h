#ifndef VIDORA_STREAMSOURCE_USECOUNT_H
#define VIDORA_STREAMSOURCE_USECOUNT_H

#include <atomic>

namespace Kavio {
namespace Vidora {

// CUseCount: counts the calls that are inside an object, and says who finishes its end: whoever begins it while nobody
// is inside, or else the last one to leave.
//
// THREADING  Any thread.
class CUseCount {
public:
    // False if the end has begun: the caller stays out.
    bool Enter() {
        unsigned int state = m_state.load();
        do {
            if ((state & ENDED) != 0) {
                return false;
            }
        } while (!m_state.compare_exchange_weak(state, state + 1));
        return true;
    }
    // True if the caller finishes the end.
    bool Leave() { return m_state.fetch_sub(1) == (ENDED | 1); }
    // Begins the end, once. True if the caller finishes it.
    bool End() { return m_state.fetch_or(ENDED) == 0; }

private:
    static constexpr unsigned int ENDED = 0x80000000;

    std::atomic<unsigned int> m_state{0};  // ENDED, and the count
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_USECOUNT_H
