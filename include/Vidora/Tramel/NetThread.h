#ifndef VIDORA_TRAMEL_NETTHREAD_H
#define VIDORA_TRAMEL_NETTHREAD_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

// CNetThread: the pool of threads that runs all handlers of the process.
//
// A host's code that hangs inside a callback (a stream source's Start, Stop, Pause or seek, an event, an authentication
// module) holds the thread that called it. When no thread of the pool has been free to look for events for half a
// second, a spare one is added, and again when that one is held as well, up to 32; spare ones leave once two seconds
// have passed without need of them. They are threads of the pool in every other way: callbacks run on them, and the end
// of the pool waits for them. One thread more, which runs no callback, watches over that; it sleeps as long as a thread
// is free. A pool of one thread never grows: no two callbacks run at once there, and one that hangs holds all others.
//
// THREADING  Both operations: any thread, several at once as well.
class VIDORA_API CNetThread {
public:
    // Starts the pool with `threads` threads (1 to 256). The second argument is reserved; pass false. 0; 0 as well,
    // with no change, if a pool runs already; -1 if `threads` is out of range, a former pool is just being destroyed,
    // or the system has no thread or descriptor (nothing is left behind then).
    static int CreateThreadPool(unsigned int threads, bool reserved);
    // Delivers what is already due to closing handlers, then stops and joins the threads. Handlers that live on keep
    // what they have registered, and get no more events until a pool is created again, which then reports what has
    // come meanwhile. It waits for the callbacks that run, also for one that hangs. 0, or -1 if there is no pool,
    // another thread destroys it already, or the caller is one of its threads.
    static int DestroyThreadPool();
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_NETTHREAD_H
