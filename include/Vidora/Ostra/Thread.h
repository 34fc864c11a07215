#ifndef VIDORA_OSTRA_THREAD_H
#define VIDORA_OSTRA_THREAD_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// CThread: the calling thread.
class VIDORA_API CThread {
public:
    // Blocks the calling thread for `ms` milliseconds; 0 or less returns at once.
    static void sleep(int ms);
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_THREAD_H
