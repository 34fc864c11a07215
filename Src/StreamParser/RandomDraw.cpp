#include "StreamParser/RandomDraw.h"

#include <chrono>
#include <random>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

class CGenerator {
public:
    CGenerator() : m_engine(static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count())) {}

    uint16_t Draw() {
        CGuard guard(m_mutex);
        return static_cast<uint16_t>(m_engine());
    }

private:
    CMutex m_mutex;
    std::mt19937_64 m_engine VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace

uint16_t random_draw() {
    static CGenerator generator;
    return generator.Draw();
}

uint32_t random_draw32() {
    const uint32_t high = random_draw();
    return (high << 16) | random_draw();
}

}  // namespace Vidora
}  // namespace Kavio
