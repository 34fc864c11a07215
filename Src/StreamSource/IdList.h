#ifndef VIDORA_STREAMSOURCE_IDLIST_H
#define VIDORA_STREAMSOURCE_IDLIST_H

#include <list>
#include <unordered_map>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// Appends an identifier. False, with the list as it was and a log line, if memory is short.
bool AppendId(std::list<long>& ids, long id);

// CIdList: identifiers in the order in which they were appended, each one once. No operation searches the list: a
// thousand sessions join and leave a channel.
//
// THREADING  None of its own: its owner guards it.
class CIdList {
public:
    // Where the identifier stood before it is taken off. False, with the list as it was and a log line, if memory is
    // short.
    bool Append(long id);
    void Remove(long id);
    bool IsEmpty() const { return m_ids.empty(); }

    std::list<long>::const_iterator begin() const { return m_ids.begin(); }
    std::list<long>::const_iterator end() const { return m_ids.end(); }

private:
    std::list<long> m_ids;
    std::unordered_map<long, std::list<long>::iterator> m_places;
};

// CNotifyList: the handlers that want a source's messages.
//
// THREADING  Any thread. Its lock is a leaf: a message is only posted.
class CNotifyList {
public:
    // False, with a log line, if memory is short.
    bool Add(long id);
    void Remove(long id);
    // Calls `post` with each, under the lock.
    template <class Post>
    void ForEach(Post post) {
        CGuard guard(m_mutex);
        for (const long id : m_ids) {
            post(id);
        }
    }

private:
    CMutex m_mutex;
    CIdList m_ids VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_IDLIST_H
