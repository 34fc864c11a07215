#include "Tramel/StreamOutput.h"

#include <cerrno>

#include "Tramel/SockDetail.h"
#include "Vidora/Ostra/Time.h"
#include "Vidora/Tramel/Sock.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;
using Ostra::CTime;

namespace {

uint64_t bit_of(unsigned int index) {
    return static_cast<uint64_t>(1) << index;
}

}  // namespace

void CStreamOutput::take_entry_locked() {
    if (m_entry != nullptr) {
        m_entry->turn.Take();
        m_written += static_cast<int64_t>(m_entry->written);
        m_entry->written = 0;
    }
}

void CStreamOutput::give_entry_locked() {
    if (m_entry != nullptr) {
        publish_locked();
        m_entry->turn.Give();
    }
}

// Says whether a group's turn may write without asking this queue: while nothing waits, and no track for a key frame.
void CStreamOutput::publish_locked() {
    const bool keeps_up = m_sock != nullptr && !m_full && !m_failed && !m_gate.AnyWaiting();
    m_entry->fd = keeps_up ? m_sock->GetHandle() : -1;
    m_entry->slots = static_cast<uint16_t>(m_slots);
}

void CStreamOutput::SetEntry(CSinkEntry* entry) {
    CGuard guard(m_mutex);
    if (m_entry != nullptr) {
        take_entry_locked();
        CSinkEntry& former = *m_entry;
        m_entry = nullptr;
        former.output = nullptr;
        former.fd = -1;
        former.turn.Give();
    }
    if (entry != nullptr) {
        entry->turn.Take();
        entry->output = this;
        m_entry = entry;
        give_entry_locked();
    }
}

int CStreamOutput::Attach(COutputFace* face, bool is_media, long exception_id) {
    const CHold hold(*this);
    if (m_sock == nullptr || (is_media && m_faces != nullptr && m_faces->m_is_media)) {
        return -1;
    }
    face->m_is_media = is_media;
    face->m_exception_id = exception_id;
    if (is_media) {
        face->m_next = m_faces;
        m_faces = face;
        m_gate = CTrackGate();
        m_slots = ~0U;
    } else {
        COutputFace** place = &m_faces;
        while (*place != nullptr) {
            place = &(*place)->m_next;
        }
        face->m_next = nullptr;
        *place = face;
    }
    if (m_failed) {
        tell_failure_locked(face);
    } else if (m_full && m_watching == nullptr) {
        watch_locked();
    }
    return 0;
}

void CStreamOutput::Detach(COutputFace* face) {
    {
        CGuard guard(m_mutex);
        if (face->m_is_media && face == m_faces) {
            SetEntry(nullptr);
        }
    }
    const CHold hold(*this);
    COutputFace** place = &m_faces;
    while (*place != nullptr && *place != face) {
        place = &(*place)->m_next;
    }
    if (*place == nullptr) {
        return;
    }
    *place = face->m_next;
    if (face->m_is_media) {
        m_timeout_s = 0;
        drop_waiting_locked(false, true);
    }
    if (m_timer_face == face) {
        stop_timer_locked();
    }
    if (m_watching == face) {
        m_watching = nullptr;
        if (m_full) {
            watch_locked();
        }
    }
}

void CStreamOutput::SetExceptionId(COutputFace* face, long handler_id) {
    const CHold hold(*this);
    face->m_exception_id = handler_id;
    if (m_failed) {
        tell_failure_locked(face);
    }
}

void CStreamOutput::SetSendTimeout(unsigned int seconds) {
    const CHold hold(*this);
    m_timeout_s = seconds;
    stop_timer_locked();
    if (m_full) {
        start_timer_locked();
    }
}

void CStreamOutput::SetLimit(unsigned int bytes, unsigned int age_ms) {
    const CHold hold(*this);
    m_limit_bytes = bytes != 0 ? bytes : m_limit_bytes;
    m_limit_age_ms = age_ms != 0 ? age_ms : m_limit_age_ms;
}

void CStreamOutput::RestTrack(unsigned int slot) {
    const CHold hold(*this);
    m_gate.Rest(slot);
}

int CStreamOutput::SendText(const char* text, unsigned int length) {
    const CHold hold(*this);
    flush_unwatched_locked();
    if (m_failed) {
        return -1;
    }
    size_t sent = 0;
    if (!m_full) {
        const struct iovec part = {const_cast<char*>(text), length};
        const int64_t count = write_locked(&part, 1);
        if (count < 0) {
            return -1;
        }
        sent = static_cast<size_t>(count);
        if (sent == length) {
            return 0;
        }
    }
    return queue_text_locked(text, length, sent);
}

int CStreamOutput::queue_text_locked(const char* text, unsigned int length, size_t sent) {
    // A text of any size may wait behind others that keep within the bound; a peer that never reads its replies is cut.
    if (m_text_cost > MAX_TEXT_BYTES) {
        fail_locked();
        return -1;
    }
    COutputUnit* unit = COutputUnit::CreateText(text, length, CTime::getCurrentMilliSecond());
    if (unit == nullptr || !m_ring.Push(unit)) {
        if (unit != nullptr) {
            unit->Release();
        }
        if (sent > 0) {
            fail_locked();  // the peer would take what follows for the rest of this text
        }
        return -1;
    }
    m_text_cost += length + UNIT_COST;
    if (sent > 0) {
        m_begun = sent;
    }
    begin_waiting_locked();
    return 0;
}

void CStreamOutput::ClearText() {
    const CHold hold(*this);
    drop_waiting_locked(true, false);
}

void CStreamOutput::SetTracks(unsigned int slots, unsigned int anew) {
    const CHold hold(*this);
    m_slots = slots;
    for (unsigned int i = 0; m_entry != nullptr && i < COutputUnit::OTHER_SLOT; ++i) {
        m_entry->numbers[i] = (anew & (1U << i)) != 0 ? 0 : m_entry->numbers[i];
    }
}

uint64_t CStreamOutput::SendMedia(const CUnitBatch& batch, uint64_t from_sequence) {
    const CHold hold(*this);
    return send_media_locked(batch, from_sequence);
}

uint64_t CStreamOutput::SendMediaInTurn(const CUnitBatch& batch) {
    const uint64_t taken = send_media_locked(batch, m_entry->from_sequence);
    publish_locked();
    return taken;
}

uint64_t CStreamOutput::TakeRestInTurn(const CUnitBatch& batch, int64_t written, int error) {
    const int64_t count = judge_locked(written, error);
    const uint64_t taken = count < 0 ? 0 : take_rest_locked(batch, static_cast<size_t>(count));
    m_tally.Tell();
    publish_locked();
    return taken;
}

uint64_t CStreamOutput::send_media_locked(const CUnitBatch& batch, uint64_t from_sequence) {
    const uint64_t taken = choose_way_locked(batch, from_sequence);
    m_tally.Tell();
    return taken;
}

uint64_t CStreamOutput::choose_way_locked(const CUnitBatch& batch, uint64_t from_sequence) {
    flush_unwatched_locked();
    if (m_failed) {
        return 0;
    }
    if (m_full) {
        return queue_chosen_locked(batch, from_sequence);
    }
    const bool all = batch.Unit(0)->Sequence() >= from_sequence && (batch.Slots() & ~m_slots) == 0;
    if (all && !m_gate.AnyWaiting()) {
        return send_batch_locked(batch);
    }
    return send_chosen_locked(batch, from_sequence);
}

// Sends on an idle socket; what it doesn't take begins the queue.
uint64_t CStreamOutput::send_batch_locked(const CUnitBatch& batch) {
    const int64_t count = write_locked(batch.Parts(), batch.PartCount());
    if (count < 0) {
        return 0;
    }
    if (static_cast<size_t>(count) == batch.Bytes()) {
        m_tally.Sent(batch.Packets(), batch.Bytes());
        return batch.All();
    }
    return take_rest_locked(batch, static_cast<size_t>(count));
}

// Queues what the socket hasn't taken of a batch.
uint64_t CStreamOutput::take_rest_locked(const CUnitBatch& batch, size_t sent) {
    uint64_t taken = 0;
    for (unsigned int i = 0; i < batch.Count() && !m_failed; ++i) {
        COutputUnit* unit = batch.Unit(i);
        if (sent >= unit->Length()) {
            sent -= unit->Length();
            m_tally.Sent(unit->Packets(), unit->Length());
            taken |= bit_of(i);
        } else {
            taken |= queue_media_locked(unit, sent) ? bit_of(i) : 0;
            sent = 0;
        }
    }
    begin_waiting_locked();
    return taken;
}

// The slow path of an idle socket: some units aren't for this sink, or a track waits for its key frame.
uint64_t CStreamOutput::send_chosen_locked(const CUnitBatch& batch, uint64_t from_sequence) {
    CUnitBatch chosen;
    unsigned char index[CUnitBatch::MAX_UNITS];
    for (unsigned int i = 0; i < batch.Count(); ++i) {
        COutputUnit* unit = batch.Unit(i);
        if (unit->Sequence() < from_sequence || (m_slots & (1U << unit->Slot())) == 0) {
            continue;
        }
        if (!m_gate.Open(*unit)) {
            m_tally.Dropped();
            continue;
        }
        m_gate.Passed(*unit);
        index[chosen.Count()] = static_cast<unsigned char>(i);
        chosen.Add(unit);
    }
    if (chosen.Count() == 0) {
        return 0;
    }
    const uint64_t sent = send_batch_locked(chosen);
    uint64_t taken = 0;
    for (unsigned int i = 0; i < chosen.Count(); ++i) {
        taken |= (sent & bit_of(i)) != 0 ? bit_of(index[i]) : 0;
    }
    return taken;
}

uint64_t CStreamOutput::queue_chosen_locked(const CUnitBatch& batch, uint64_t from_sequence) {
    drop_aged_locked(batch.Unit(batch.Count() - 1)->TimeMs());
    uint64_t taken = 0;
    for (unsigned int i = 0; i < batch.Count() && !m_failed; ++i) {
        COutputUnit* unit = batch.Unit(i);
        if (unit->Sequence() >= from_sequence && (m_slots & (1U << unit->Slot())) != 0) {
            taken |= queue_media_locked(unit, 0) ? bit_of(i) : 0;
        }
    }
    return taken;
}

// Queues a unit of which `sent` bytes have gone. False if it is dropped.
bool CStreamOutput::queue_media_locked(COutputUnit* unit, size_t sent) {
    const size_t cost = unit->Length() + UNIT_COST;
    const bool room = m_media_cost == 0 || m_media_cost + cost <= m_limit_bytes;
    if (sent == 0 && (!room || !m_gate.Open(*unit))) {
        m_gate.Dropped(*unit);
        m_tally.Dropped();
        return false;
    }
    if (!m_ring.Push(unit)) {
        if (sent > 0) {
            fail_locked();
        }
        m_gate.Dropped(*unit);
        m_tally.Dropped();
        return false;
    }
    unit->AddRef();
    m_gate.Passed(*unit);
    m_media_cost += cost;
    if (sent > 0) {
        m_begun = sent;
    }
    return true;
}

// Drops waiting media that is too old, and what can't be shown without it.
void CStreamOutput::drop_aged_locked(uint64_t now_ms) {
    const size_t begun = m_begun > 0 ? 1 : 0;
    size_t oldest = begun;
    while (oldest < m_ring.Count() && m_ring.At(oldest)->IsText()) {
        ++oldest;
    }
    if (oldest >= m_ring.Count() || m_ring.At(oldest)->TimeMs() + m_limit_age_ms >= now_ms) {
        return;
    }
    CTrackGate gate;
    m_ring.Filter([&](size_t index, COutputUnit* unit) VIDORA_NO_THREAD_SAFETY_ANALYSIS {
        if (index < begun || unit->IsText()) {
            return true;
        }
        if (unit->TimeMs() + m_limit_age_ms >= now_ms && gate.Open(*unit)) {
            gate.Passed(*unit);
            return true;
        }
        gate.Dropped(*unit);
        m_tally.Dropped();
        untake_locked(*unit);
        uncount_locked(*unit);
        return false;
    });
    m_gate.Merge(gate);
}

// The frame was noted as taken: the track's next one, whatever it is, doesn't follow the one that was taken last.
void CStreamOutput::untake_locked(const COutputUnit& unit) {
    if (m_entry != nullptr && unit.IsNumbered() && m_entry->numbers[unit.NumberTrack()] != 0) {
        m_entry->numbers[unit.NumberTrack()] = unit.Number() - 1;
    }
}

void CStreamOutput::drop_waiting_locked(bool text, bool media) {
    const size_t begun = m_begun > 0 ? 1 : 0;
    m_ring.Filter([&](size_t index, COutputUnit* unit) VIDORA_NO_THREAD_SAFETY_ANALYSIS {
        if (index < begun || !(unit->IsText() ? text : media)) {
            return true;
        }
        uncount_locked(*unit);
        return false;
    });
}

void CStreamOutput::uncount_locked(const COutputUnit& unit) {
    if (unit.IsText()) {
        m_text_cost -= unit.Length() + UNIT_COST;
    } else {
        m_media_cost -= unit.Length() + UNIT_COST;
    }
}

// Hands the socket a vector: the bytes that it took, 0 if it is full, -1 if it is broken; the queue has failed then.
int64_t CStreamOutput::write_locked(const struct iovec* parts, unsigned int count) {
    const int64_t written = WriteParts(m_sock->GetHandle(), parts, count);
    return judge_locked(written, errno);
}

// What a write, or its error, means: as of write_locked.
int64_t CStreamOutput::judge_locked(int64_t written, int error) {
    if (written >= 0) {
        m_written += written;
        return written;
    }
    if (IsWouldBlock(error)) {
        return 0;
    }
    fail_locked();
    return -1;
}

}  // namespace Tramel
}  // namespace Kavio
