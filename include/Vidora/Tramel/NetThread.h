#ifndef VIDORA_TRAMEL_NETTHREAD_H
#define VIDORA_TRAMEL_NETTHREAD_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

// CNetThread: the pool of threads that runs all handlers of the process.
class VIDORA_API CNetThread {
public:
    // Starts the pool with `threads` threads (1 to 256). The second argument is reserved; pass false. 0; 0 as well,
    // with no change, if a pool runs already; -1 if `threads` is out of range or the system has no thread or
    // descriptor (nothing is left behind then). Call from one thread, not from a callback.
    static int CreateThreadPool(unsigned int threads, bool reserved);
    // Delivers what is already due to closing handlers, then stops and joins the threads. Handlers that live on keep
    // what they have registered, and get no more events until a pool is created again, which then reports what has
    // come meanwhile. 0, or -1 if there is no pool or the caller is one of its threads.
    static int DestroyThreadPool();
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_NETTHREAD_H
