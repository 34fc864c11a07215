#ifndef VIDORA_TRAMEL_LEVEL2LIST_H
#define VIDORA_TRAMEL_LEVEL2LIST_H

#include <thread>
#include <vector>

#include "Tramel/CallWait.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CLevel2Buffer_IF;
class CMediaPacket;

// CLevel2List: the level-2 sinks of a media buffer, called one after another on the putting thread.
//
// THREADING  All operations: any thread. A sink is called with no lock held, so that it may add and remove sinks,
//            itself included. Remove waits for a call of that sink on another thread, not for one that it is made from.
class CLevel2List {
public:
    // Calls each sink that is in the list now.
    void Put(CMediaPacket* packet, int length, int flag, int channel);
    void End(int channel);
    // A sink is stored at most once. False if memory is short.
    bool Add(CLevel2Buffer_IF* sink);
    bool Has(const CLevel2Buffer_IF* sink);
    void Remove(const CLevel2Buffer_IF* sink);
    void RemoveAll();

private:
    // A Put that is under way, on its thread's stack.
    struct CCall {
        const CLevel2Buffer_IF* sink;
        std::thread::id thread;
        CCall* next;
    };

    template <typename Call>
    void call_each(Call call_sink);
    void remove_at_locked(size_t index) VIDORA_REQUIRES(m_mutex);
    void wait_locked(const CLevel2Buffer_IF* sink) VIDORA_REQUIRES(m_mutex);
    bool called_elsewhere_locked(const CLevel2Buffer_IF* sink) VIDORA_REQUIRES(m_mutex);
    void end_call_locked(const CCall& call) VIDORA_REQUIRES(m_mutex);

    Ostra::CMutex m_mutex;
    CCallWait m_wait;  // used with m_mutex
    // Null where a sink left while calls were under way.
    std::vector<CLevel2Buffer_IF*> m_sinks VIDORA_GUARDED_BY(m_mutex);
    CCall* m_calls VIDORA_GUARDED_BY(m_mutex) = nullptr;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_LEVEL2LIST_H
