#include "Vidora/Ostra/Assert.h"

#include <atomic>
#include <cstdlib>

#include "Vidora/Ostra/Log.h"

namespace Kavio {
namespace Ostra {

namespace {

std::atomic<assert_handler_t> g_handler{nullptr};

}  // namespace

void SetAssertHandler(assert_handler_t handler) {
    g_handler.store(handler);
}

bool AssertFailed(const char* expression, const char* file, int line) {
    const assert_handler_t handler = g_handler.load();
    if (handler != nullptr) {
        handler(expression, file, line);
        return false;
    }
    logError("%s:%d assertion failed: %s\n", file, line, expression);
#ifndef NDEBUG
    std::abort();
#endif
    return false;
}

}  // namespace Ostra
}  // namespace Kavio
