#ifndef VIDORA_STREAMSOURCE_IDLIST_H
#define VIDORA_STREAMSOURCE_IDLIST_H

#include <list>

namespace Kavio {
namespace Vidora {

// Lists of handler identifiers and sinks, whose owner guards them. Both leave the list as it was and give false, with a
// log line, if memory is short.

bool AppendId(std::list<long>& ids, long id);
// Appends an identifier that is to stand in the list once: where it stood before it is taken off.
bool AppendIdOnce(std::list<long>& ids, long id);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_IDLIST_H
