#ifndef VIDORA_NODEPOOL_H
#define VIDORA_NODEPOOL_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Ostra/Assert.h"
#include "Vidora/Ostra/Log.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Vidora {

// NodePool: free nodes of equal size over memory that it doesn't own.
//
// The node that came back last goes out first, and a node that never went out is not touched, so that a pool whose user
// needs one node at a time keeps one node's memory resident, whatever its size.
//
// THREADING  Any thread; it locks for itself. Init before all else.
class NodePool {
public:
    // Takes `node_num` nodes of `node_size` bytes at `pool`; both place and size are aligned for a pointer. 0 or -1.
    int Init(void* pool, uint16_t node_num, uint16_t node_size) {
        if (!OSTRA_ASSERT(pool && node_num > 0 && node_size >= sizeof(Node))) {
            return -1;
        }
        const Ostra::CGuard guard(m_mutex);
        m_pool = static_cast<unsigned char*>(pool);
        m_head = nullptr;
        m_node_num = node_num;
        m_node_size = node_size;
        m_fresh = 0;
        m_free = node_num;
        m_min_free = node_num;
        return 0;
    }

    // A node with undefined contents; null when none is free.
    void* Get() {
        int min_free = 0;
        {
            const Ostra::CGuard guard(m_mutex);
            if (m_free > 0) {
                return take_locked();
            }
            min_free = m_min_free;
        }
        Ostra::logDebug("%s:%d node isn't enough!And minus number is %d \n", __FILE__, __LINE__, min_free);
        return nullptr;
    }

    // Returns a node to this pool.
    void Put(void* node) {
        if (!OSTRA_ASSERT(node)) {
            return;
        }
        const Ostra::CGuard guard(m_mutex);
        if (m_free < m_node_num) {
            Node* free_node = static_cast<Node*>(node);
            free_node->next = m_head;
            m_head = free_node;
            ++m_free;
        }
    }

    // Nodes that are free, and the fewest that there ever were.
    int FreeCount() const {
        const Ostra::CGuard guard(m_mutex);
        return m_free;
    }
    int MinFreeCount() const {
        const Ostra::CGuard guard(m_mutex);
        return m_min_free;
    }

private:
    struct Node {
        Node* next;
    };

    void* take_locked() VIDORA_REQUIRES(m_mutex) {
        --m_free;
        m_min_free = m_free < m_min_free ? m_free : m_min_free;
        if (m_head == nullptr) {
            return m_pool + size_t{m_node_size} * m_fresh++;
        }
        Node* node = m_head;
        m_head = node->next;
        return node;
    }

    mutable Ostra::CMutex m_mutex;
    unsigned char* m_pool VIDORA_GUARDED_BY(m_mutex) = nullptr;
    Node* m_head VIDORA_GUARDED_BY(m_mutex) = nullptr;  // nodes that came back
    uint16_t m_node_size VIDORA_GUARDED_BY(m_mutex) = 0;
    uint16_t m_node_num VIDORA_GUARDED_BY(m_mutex) = 0;
    uint16_t m_fresh VIDORA_GUARDED_BY(m_mutex) = 0;  // nodes from here on never went out
    uint16_t m_free VIDORA_GUARDED_BY(m_mutex) = 0;
    uint16_t m_min_free VIDORA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NODEPOOL_H
