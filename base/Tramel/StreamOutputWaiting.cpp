// What waits: how it leaves when the socket takes more, how long it may wait, and the end of a socket that takes no
// more.
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include "Tramel/SockDetail.h"
#include "Tramel/StreamOutput.h"
#include "Vidora/Ostra/Time.h"
#include "Vidora/Tramel/Sock.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;
using Ostra::CTime;

namespace {

const unsigned int MAX_FLUSH_PARTS = 128;  // vector of one system call
const unsigned int MAX_FLUSH_ROUNDS = 16;  // system calls of one event, so that one socket doesn't hold its thread
const int64_t MAX_TIMER_PERIOD_US = 1000000;

}  // namespace

uint64_t CStreamOutput::Unsent() {
    const CHold hold(*this);
    if (m_failed) {
        return 0;
    }
    return m_media_cost + m_text_cost - m_begun + static_cast<uint64_t>(in_socket_locked());
}

// Bytes that the peer's system hasn't acknowledged.
int64_t CStreamOutput::in_socket_locked() {
    int bytes = 0;
    ioctl(m_sock->GetHandle(), SIOCOUTQ, &bytes);  // left at 0 on failure
    return bytes;
}

void CStreamOutput::OnRegistered() {
    const CHold hold(*this);
    if (m_full && !m_failed) {
        m_watching = nullptr;
        watch_locked();
    }
}

void CStreamOutput::OnWritable() {
    const CHold hold(*this);
    m_watching = nullptr;
    flush_unwatched_locked();
}

// Goes on with what waits: there is room, or nobody could watch for it so far, as there was no pool.
void CStreamOutput::flush_unwatched_locked() {
    if (!m_full || m_watching != nullptr || m_failed) {
        return;
    }
    flush_locked();
    if (m_full) {
        watch_locked();
        start_timer_locked();  // it may have become full while there was no pool
    }
}

void CStreamOutput::flush_locked() {
    for (unsigned int round = 0; round < MAX_FLUSH_ROUNDS && !m_ring.Empty(); ++round) {
        if (!flush_once_locked()) {
            break;
        }
    }
    if (m_ring.Empty()) {
        m_full = false;
    }
    m_tally.Tell();
}

// Sends what one system call carries. False if the socket took less, or failed.
bool CStreamOutput::flush_once_locked() {
    struct iovec parts[MAX_FLUSH_PARTS];
    unsigned int part_count = 0;
    size_t bytes = 0;
    for (size_t i = 0; i < m_ring.Count(); ++i) {
        const COutputUnit* unit = m_ring.At(i);
        if (part_count + unit->PartCount() > MAX_FLUSH_PARTS) {
            break;
        }
        size_t skip = i == 0 ? m_begun : 0;
        for (unsigned int part = 0; part < unit->PartCount(); ++part) {
            const struct iovec& whole = unit->Parts()[part];
            const size_t skipped = skip < whole.iov_len ? skip : whole.iov_len;
            skip -= skipped;
            if (skipped < whole.iov_len) {
                parts[part_count].iov_base = static_cast<char*>(whole.iov_base) + skipped;
                parts[part_count].iov_len = whole.iov_len - skipped;
                bytes += parts[part_count].iov_len;
                ++part_count;
            }
        }
    }
    const int64_t count = write_locked(parts, part_count);
    if (count <= 0) {
        return false;
    }
    m_progress_ms = CTime::getCurrentMilliSecond();
    m_begun += static_cast<size_t>(count);
    while (!m_ring.Empty() && m_begun >= m_ring.At(0)->Length()) {
        COutputUnit* unit = m_ring.Pop();
        m_begun -= unit->Length();
        if (!unit->IsText()) {
            m_tally.Sent(unit->Packets(), unit->Length());
        }
        uncount_locked(*unit);
        unit->Release();
    }
    return static_cast<size_t>(count) == bytes;
}

// The socket is full: waits for room, and for the send time-out.
void CStreamOutput::begin_waiting_locked() {
    if (m_full || m_failed) {
        return;
    }
    m_full = true;
    m_progress_ms = CTime::getCurrentMilliSecond();
    watch_locked();
    start_timer_locked();
}

void CStreamOutput::watch_locked() {
    for (COutputFace* face = m_failed ? nullptr : m_faces; face != nullptr; face = face->m_next) {
        if (face->WatchWrite(m_sock->GetHandle()) == 0) {
            m_watching = face;
            return;
        }
    }
}

// The system's own time-out (RFC 5482) rests meanwhile: it takes a window that is closed most of the time for one that
// never opens, and would cut a peer that reads slowly.
void CStreamOutput::start_timer_locked() {
    if (m_timeout_s == 0 || m_timer_face != nullptr || m_faces == nullptr || m_failed) {
        return;
    }
    const int64_t quarter_us = static_cast<int64_t>(m_timeout_s) * 1000000 / 4;
    m_timer_id = m_faces->StartTimer(quarter_us < MAX_TIMER_PERIOD_US ? quarter_us : MAX_TIMER_PERIOD_US);
    if (m_timer_id == 0) {
        return;
    }
    m_timer_face = m_faces;
    m_peer_timeout_ms = GetOption(m_sock->GetHandle(), IPPROTO_TCP, TCP_USER_TIMEOUT);
    if (m_peer_timeout_ms > 0) {
        SetOption(m_sock->GetHandle(), IPPROTO_TCP, TCP_USER_TIMEOUT, 0);
    }
}

void CStreamOutput::stop_timer_locked() {
    if (m_timer_face == nullptr) {
        return;
    }
    m_timer_face->StopTimer(m_timer_id);
    m_timer_face = nullptr;
    m_timer_id = 0;
    if (m_peer_timeout_ms > 0) {
        SetOption(m_sock->GetHandle(), IPPROTO_TCP, TCP_USER_TIMEOUT, m_peer_timeout_ms);
    }
}

// The timer outlives short waits, so that a client at its limit costs no timer operations for each of them, and it
// follows what the socket was full of to the last byte.
void CStreamOutput::OnTimer(long timer_id) {
    const CHold hold(*this);
    if (timer_id != m_timer_id || m_timer_face == nullptr) {
        return;
    }
    const uint64_t now_ms = CTime::getCurrentMilliSecond();
    const int64_t acked = m_written - in_socket_locked();
    if (acked > m_acked) {
        m_acked = acked;
        m_progress_ms = now_ms;
    }
    if (!m_full && acked >= m_written) {
        stop_timer_locked();
        return;
    }
    if (now_ms - m_progress_ms >= static_cast<uint64_t>(m_timeout_s) * 1000) {
        fail_locked();
        return;
    }
    drop_aged_locked(now_ms);
    m_tally.Tell();
}

void CStreamOutput::OnSockGone() {
    const CHold hold(*this);
    end_locked();
    m_sock = nullptr;
}

void CStreamOutput::fail_locked() {
    end_locked();
    for (COutputFace* face = m_faces; face != nullptr; face = face->m_next) {
        tell_failure_locked(face);
    }
}

void CStreamOutput::end_locked() {
    m_failed = true;
    m_watching = nullptr;
    stop_timer_locked();
    m_ring.Clear();
    m_begun = 0;
    m_media_cost = 0;
    m_text_cost = 0;
}

// Each handler hears of the failure once, though a session names itself for both of its senders.
void CStreamOutput::tell_failure_locked(COutputFace* face) {
    if (face->m_exception_id == 0 || m_sock == nullptr) {
        return;
    }
    for (long& told : m_told) {
        if (told == face->m_exception_id) {
            return;
        }
        if (told == 0) {
            told = face->m_exception_id;
            break;
        }
    }
    face->PostFailure(face->m_exception_id);
}

}  // namespace Tramel
}  // namespace Kavio
