#ifndef VIDORA_STREAMPARSER_OBJECTCOUNT_H
#define VIDORA_STREAMPARSER_OBJECTCOUNT_H

#include <algorithm>
#include <new>
#include <vector>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CObjectCount: the root of classes whose objects are in a process-wide list, so that a console command shows them.
//
// The list holds an object from its construction to its destruction. It is shown only between Publish() and
// Withdraw(): before and after those the derived parts, on which the show depends, don't exist.
//
// THREADING  Construction, destruction, Publish, Withdraw, ShowAll: any thread, each under the list's mutex.
template <typename T>
class CObjectCount {
public:
    CObjectCount() {
        CGuard guard(mutex());
        try {
            objects().push_back(this);
        } catch (const std::bad_alloc&) {
            // The object works all the same; it is only missing from the list.
        }
    }
    virtual ~CObjectCount() {
        CGuard guard(mutex());
        std::vector<CObjectCount*>& all = objects();
        all.erase(std::remove(all.begin(), all.end(), this), all.end());
    }
    CObjectCount(const CObjectCount&) = delete;
    CObjectCount& operator=(const CObjectCount&) = delete;

    // Calls PrintInfo of `object`.
    virtual void Print(T* object) { object->PrintInfo(); }

    // The object is complete and may be shown. Called by the factory.
    void Publish() { set_shown(true); }
    // The object is about to go. The first act of the destructor of the most derived class; waits for a show.
    void Withdraw() { set_shown(false); }

    // Prints every object, in the order of construction. The mutex is held throughout.
    static void ShowAll() {
        CGuard guard(mutex());
        for (size_t i = 0; i < objects().size(); ++i) {
            CObjectCount* object = objects()[i];
            if (object->m_shown) {
                object->Print(static_cast<T*>(object));
            }
        }
    }
    static size_t GetObjectCount() {
        CGuard guard(mutex());
        return objects().size();
    }

private:
    // Both live to the end of the process and beyond static destructors, since a host may hold an object that long.
    static std::vector<CObjectCount*>& objects() {
        static std::vector<CObjectCount*>* const all = new std::vector<CObjectCount*>;
        return *all;
    }
    static CMutex& mutex() {
        static CMutex* const all = new CMutex;
        return *all;
    }
    void set_shown(bool shown) {
        CGuard guard(mutex());
        m_shown = shown;
    }

    bool m_shown = false;  // under mutex()
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_OBJECTCOUNT_H
