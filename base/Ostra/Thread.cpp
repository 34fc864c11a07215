#include "Vidora/Ostra/Thread.h"

#include <chrono>
#include <thread>

namespace Kavio {
namespace Ostra {

void CThread::sleep(int ms) {
    if (ms > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
}

}  // namespace Ostra
}  // namespace Kavio
