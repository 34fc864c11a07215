#ifndef VIDORA_STREAMSOURCE_IDLIST_H
#define VIDORA_STREAMSOURCE_IDLIST_H

#include <list>
#include <unordered_map>

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

    std::list<long>::const_iterator begin() const { return m_ids.begin(); }
    std::list<long>::const_iterator end() const { return m_ids.end(); }

private:
    std::list<long> m_ids;
    std::unordered_map<long, std::list<long>::iterator> m_places;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_IDLIST_H
