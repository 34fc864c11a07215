#ifndef VIDORA_SEQLIST_H
#define VIDORA_SEQLIST_H

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"

namespace Kavio {
namespace Vidora {

// SeqList: a queue of pointers over storage that it doesn't own, first in, first out. It has a front slot of its own
// and a ring for the rest.
//
// THREADING  No lock: whoever shares it guards it.
template <typename Node>
class SeqList {
public:
    // Takes `node_num` entries of storage; the list then holds as many elements: the front slot, and all entries but
    // the last one, at which the ring turns. 0 or -1.
    int Init(Node** nodes, int node_num) {
        if (!OSTRA_ASSERT(nodes) || node_num < 1) {
            return -1;
        }
        m_begin = nodes;
        m_last = nodes + node_num - 1;
        m_write = nodes;
        m_read = nodes;
        m_capacity = node_num - 1;
        m_front = nullptr;
        m_count = 0;
        m_max_count = 0;
        m_initialised = true;
        return 0;
    }

    // Appends. 0, or -1 when the list is full, and the element is dropped.
    int Push(Node* node) {
        if (!OSTRA_ASSERT(node != NULL) || !m_initialised) {
            return -1;
        }
        if (m_front == nullptr) {
            m_front = node;
            return 0;
        }
        if (m_count >= m_capacity) {
            Ostra::logDebug("%s:%d list size isn't enough!And max number is %d \n", __FILE__, __LINE__, m_max_count);
            return -1;
        }
        *m_write = node;
        m_write = next(m_write);
        ++m_count;
        m_max_count = m_count > m_max_count ? m_count : m_max_count;
        return 0;
    }

    // Takes the oldest element; null if there is none.
    Node* Pop() {
        Node* node = m_front;
        m_front = nullptr;
        if (m_count > 0) {
            m_front = *m_read;
            m_read = next(m_read);
            --m_count;
        }
        return node;
    }

    bool Empty() const { return m_front == nullptr; }

private:
    Node** next(Node** place) const { return place + 1 >= m_last ? m_begin : place + 1; }

    Node* m_front = nullptr;
    Node** m_begin = nullptr;
    Node** m_last = nullptr;
    Node** m_write = nullptr;
    Node** m_read = nullptr;
    bool m_initialised = false;
    int m_capacity = 0;
    int m_count = 0;      // in the ring, without the front slot
    int m_max_count = 0;  // the highest so far
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SEQLIST_H
