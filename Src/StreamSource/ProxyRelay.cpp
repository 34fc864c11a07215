#include "StreamSource/ProxyRelay.h"

#include <algorithm>
#include <new>
#include <utility>

#include "MediaFrame.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_HELD_BYTES = 2u << 20;
const uint64_t MAX_HELD_MS = 2000;

}  // namespace

CProxyRelay::~CProxyRelay() = default;

// The same bytes as a packet of its own: what the receiver puts is a handle on counted contents.
CMediaPacket* CProxyRelay::share(CMediaPacket& packet, int length) {
    const CMediaFrame* frame = dynamic_cast<const CMediaFrame*>(&packet);
    if (frame != nullptr) {
        return new (std::nothrow) CMediaFrame(*frame);
    }
    CMediaFrame* copy = new (std::nothrow) CMediaFrame(static_cast<uint32_t>(length));
    if (copy != nullptr) {
        copy->resize(0);
        copy->putBuffer(packet.GetData(), static_cast<uint32_t>(length));
    }
    return copy;
}

void CProxyRelay::put(const CMediaBufferRef& ref, CMediaPacket* shared, int length, int flag, int channel) {
    if (shared != nullptr && ref.Put(shared, length, flag, channel) < 0) {
        shared->Release();
    }
}

int CProxyRelay::Put(CMediaPacket* packet, int length, int flag, int channel) {
    if (packet == nullptr || length < 1) {
        return -1;
    }
    std::vector<CMediaBufferRef> refs;
    {
        CGuard guard(m_mutex);
        wait_locked();  // for what is held to go first
        if (m_closed) {
            return -1;
        }
        if (!m_began) {
            hold_locked(*packet, length, flag, channel);
            return 0;
        }
        if (!begin_locked(refs)) {
            return -1;
        }
    }
    for (const CMediaBufferRef& ref : refs) {
        put(ref, share(*packet, length), length, flag, channel);
    }
    end();
    return 0;
}

void CProxyRelay::End(int channel) {
    std::vector<CMediaBufferRef> refs;
    {
        CGuard guard(m_mutex);
        wait_locked();
        if (m_closed || !begin_locked(refs)) {
            return;
        }
    }
    for (const CMediaBufferRef& ref : refs) {
        ref.End(channel);
    }
    end();
}

void CProxyRelay::hold_locked(CMediaPacket& packet, int length, int flag, int channel) {
    held_t held;
    held.packet.reset(share(packet, length));
    held.length = length;
    held.flag = flag;
    held.channel = channel;
    held.time_ms = CTime::getCurrentMilliSecond();
    const uint64_t now = held.time_ms;
    if (held.packet == nullptr) {
        return;
    }
    m_held_bytes += static_cast<size_t>(length);
    try {
        m_held.push_back(std::move(held));
    } catch (const std::bad_alloc&) {
        m_held_bytes -= static_cast<size_t>(length);
        return;
    }
    while (!m_held.empty() && (m_held_bytes > MAX_HELD_BYTES || now - m_held.front().time_ms > MAX_HELD_MS)) {
        m_held_bytes -= static_cast<size_t>(m_held.front().length);
        m_held.pop_front();
    }
}

int CProxyRelay::Add(CMediaBuffer* buffer) {
    std::list<held_t> held;
    CMediaBufferRef ref(buffer);
    {
        CGuard guard(m_mutex);
        wait_locked();
        if (buffer == nullptr || m_closed) {
            return -1;
        }
        const auto known = std::find_if(m_targets.begin(), m_targets.end(),
                                        [buffer](const target_t& target) { return target.buffer == buffer; });
        if (known != m_targets.end()) {
            target_t again = *known;
            ++again.clients;
            again.ref = ref;  // another one may have its place
            m_targets.erase(known);
            m_targets.push_back(again);  // has room
        } else {
            try {
                m_targets.push_back(target_t{buffer, ref, 1});
            } catch (const std::bad_alloc&) {
                return -1;
            }
        }
        m_began = true;
        held.swap(m_held);
        m_held_bytes = 0;
        begin_locked();
    }
    for (held_t& unit : held) {
        put(ref, unit.packet.release(), unit.length, unit.flag, unit.channel);
    }
    end();
    return 0;
}

void CProxyRelay::Cut(const CMediaBuffer* buffer) {
    CMediaBufferRef former;  // ends outside the lock
    CGuard guard(m_mutex);
    const auto found = std::find_if(m_targets.begin(), m_targets.end(),
                                    [buffer](const target_t& target) { return target.buffer == buffer; });
    if (found != m_targets.end()) {
        std::swap(found->ref, former);
        wait_locked();
    }
}

int CProxyRelay::Remove(const CMediaBuffer* buffer) {
    CGuard guard(m_mutex);
    const auto found = std::find_if(m_targets.rbegin(), m_targets.rend(), [buffer](const target_t& target) {
        return buffer == nullptr || target.buffer == buffer;
    });
    if (found == m_targets.rend()) {
        return -1;
    }
    if (--found->clients == 0) {
        m_targets.erase(std::next(found).base());
        wait_locked();
    }
    int left = 0;
    for (const target_t& target : m_targets) {
        left += target.clients;
    }
    return left;
}

void CProxyRelay::Close() {
    CGuard guard(m_mutex);
    m_closed = true;
    m_targets.clear();
    m_held.clear();
    m_held_bytes = 0;
    wait_locked();
}

bool CProxyRelay::Feeds() {
    CGuard guard(m_mutex);
    return !m_targets.empty();
}

// Takes the buffers that are to be fed. False, with nothing begun, if memory is short.
bool CProxyRelay::begin_locked(std::vector<CMediaBufferRef>& refs) {
    try {
        for (const target_t& target : m_targets) {
            if (target.ref.IsValid()) {
                refs.push_back(target.ref);
            }
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    begin_locked();
    return true;
}

void CProxyRelay::begin_locked() {
    ++m_putting;
    m_put_thread = std::this_thread::get_id();
}

void CProxyRelay::end() {
    CGuard guard(m_mutex);
    --m_putting;
    m_wait.Wake();
}

void CProxyRelay::wait_locked() {
    while (m_putting > 0 && m_put_thread != std::this_thread::get_id()) {
        m_wait.Wait(m_mutex);
    }
}

}  // namespace Vidora
}  // namespace Kavio
