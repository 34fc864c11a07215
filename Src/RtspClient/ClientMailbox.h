#ifndef VIDORA_RTSPCLIENT_CLIENTMAILBOX_H
#define VIDORA_RTSPCLIENT_CLIENTMAILBOX_H

#include <functional>
#include <list>
#include <new>
#include <utility>

#include "RtspClient/ClientHandler.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CClientMailbox: what other threads leave for the strand of a client: calls of the application, and replies and
// BYEs that the receiver has read.
//
// THREADING  Put, Close: any thread. Run: the strand, once for each message that Put posts. Work runs with no lock
//            held.
// MEMORY     `max_items` pieces of work, and `max_bytes` of what they carry.
class CClientMailbox {
public:
    typedef std::function<void()> work_t;

    CClientMailbox(CClientHandler& handler, unsigned int msg, size_t max_items, size_t max_bytes)
        : m_handler(handler), m_msg(msg), m_max_items(max_items), m_max_bytes(max_bytes) {}
    CClientMailbox(const CClientMailbox&) = delete;
    CClientMailbox& operator=(const CClientMailbox&) = delete;

    // Leaves a piece of work that carries `bytes`. 0, or -1: closed, full, or memory short.
    template <typename Work>
    int Put(Work&& work, size_t bytes = 0) {
        try {
            return put(work_t(std::forward<Work>(work)), bytes);
        } catch (const std::bad_alloc&) {
            return -1;
        }
    }
    // What waits is dropped, and nothing more is taken.
    void Close() {
        std::list<item_t> dropped;
        CGuard guard(m_mutex);
        m_closed = true;
        m_bytes = 0;
        dropped.swap(m_items);
    }
    // Does what waits, in order.
    void Run() {
        for (item_t item; take(item);) {
            item.work();
        }
    }

private:
    struct item_t {
        work_t work;
        size_t bytes = 0;
    };

    int put(work_t&& work, size_t bytes) {
        {
            CGuard guard(m_mutex);
            if (m_closed || m_items.size() >= m_max_items || bytes > m_max_bytes - m_bytes) {
                return -1;
            }
            m_items.push_back(item_t{std::move(work), bytes});
            m_bytes += bytes;
        }
        m_handler.Notify(m_handler.GetID(), m_msg, 0);
        return 0;
    }
    bool take(item_t& item) {
        CGuard guard(m_mutex);
        if (m_items.empty()) {
            return false;
        }
        item = std::move(m_items.front());
        m_items.pop_front();
        m_bytes -= item.bytes;
        return true;
    }

    CClientHandler& m_handler;
    const unsigned int m_msg;
    const size_t m_max_items;
    const size_t m_max_bytes;

    CMutex m_mutex;
    std::list<item_t> m_items VIDORA_GUARDED_BY(m_mutex);
    size_t m_bytes VIDORA_GUARDED_BY(m_mutex) = 0;
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTMAILBOX_H
