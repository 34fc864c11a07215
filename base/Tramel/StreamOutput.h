#ifndef VIDORA_TRAMEL_STREAMOUTPUT_H
#define VIDORA_TRAMEL_STREAMOUTPUT_H

#include <cstdint>

#include "Tramel/MediaCounters.h"
#include "Tramel/SinkEntry.h"
#include "Tramel/TrackGate.h"
#include "Tramel/UnitBatch.h"
#include "Tramel/UnitRing.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CSock;
class CStreamOutput;

// COutputFace: a sender as its output queue sees it. All operations are called with the queue's lock held; they may
// use the reactor, nothing else.
class COutputFace {
public:
    // Arranges that CStreamOutput::OnWritable is called once, on a pool thread, when `fd` has room. 0, or -1.
    virtual int WatchWrite(int fd) = 0;
    // Posts message 2 to the handler `target`.
    virtual void PostFailure(long target) = 0;
    // A timer that leads to CStreamOutput::OnTimer: its identifier, or 0.
    virtual long StartTimer(int64_t period_us) = 0;
    virtual void StopTimer(long timer_id) = 0;

protected:
    ~COutputFace() = default;

private:
    friend class CStreamOutput;
    // Guarded by the lock of the queue that the face is attached to.
    COutputFace* m_next = nullptr;
    long m_exception_id = 0;
    bool m_is_media = false;
};

// CStreamOutput: the one output queue of a stream socket, shared by all senders ("faces") that are attached to it.
//
// It is a queue of whole units, control text and media alike, first in, first out; each is sent to its last byte
// before the next begins, whichever face it came by. An idle socket is written at once, one sendmsg for all units that
// are there; what doesn't fit waits here until the reactor finds room, and only then is write interest registered.
//
// LIMITS     Each unit is counted with UNIT_COST bytes more for its bookkeeping. Text is never dropped. Text that waits
//            is bounded by MAX_TEXT_BYTES: a peer that asks on and on but never reads counts as failed. Media that
//            waits is bounded in bytes and in age. A unit that finds no room is dropped whole; so are waiting ones that
//            have grown too old and aren't begun. From then on the track drops until its next key frame; one that never
//            carried a key frame goes on as soon as there is room. An empty queue takes a unit of any size.
// FAILURE    A broken socket, and one whose peer acknowledges nothing for the send time-out while bytes wait, here or
//            in the socket since it was full, end the queue: it drops what it has and all that comes, and message 2
//            goes out once to each handler named by a face. The socket is asked what was acknowledged by the timer
//            alone.
// THREADING  All operations: any thread; they lock for themselves. The lock is held over sendmsg, which never blocks,
//            and over calls to the reactor; it is never held over a callback of a handler. Lock order: a sender's lock,
//            this one, the reactor's.
//            While the media face has a place in a group (SetEntry), the turn of that entry owns the state: who has the
//            lock takes it as well, below the lock, and the group's turn takes nothing else. As long as nothing waits
//            here the entry says so, and the group writes to the socket by itself.
// OWNERSHIP  Shared by the socket and its senders. Borrows the socket, which says when it goes (OnSockGone), and the
//            faces, from Attach to Detach.
class CStreamOutput {
public:
    static const unsigned int DEFAULT_LIMIT_BYTES = 4u << 20;
    static const unsigned int DEFAULT_LIMIT_AGE_MS = 10000;
    static const unsigned int UNIT_COST = 192;
    static const unsigned int MAX_TEXT_BYTES = 1u << 20;

    // A queue for the descriptor that `sock` has now.
    explicit CStreamOutput(CSock* sock) : m_sock(sock) {}
    ~CStreamOutput() = default;
    CStreamOutput(const CStreamOutput&) = delete;
    CStreamOutput& operator=(const CStreamOutput&) = delete;

    // Adds a face, whose failure message goes to `exception_id` (0: to nobody). What waits in the queue goes on through
    // it if there was none. At most one media face. 0, or -1 if the socket has gone or there is a media face already.
    int Attach(COutputFace* face, bool is_media, long exception_id);
    // Takes a face off. Media that waits and isn't begun goes with a media face, text stays.
    void Detach(COutputFace* face);
    // Message 2 goes to `handler_id`, at once if the queue has failed and that handler hasn't been told.
    void SetExceptionId(COutputFace* face, long handler_id);
    void SetSendTimeout(unsigned int seconds);
    void SetLimit(unsigned int bytes, unsigned int age_ms);
    // Lets a track go on with its next key frame only.
    void RestTrack(unsigned int slot);
    // The slots of the tracks that are on; all are when a media face is attached. Frame numbers of those of `anew`
    // count anew.
    void SetTracks(unsigned int slots, unsigned int anew);
    // The place of the media face in a group; null for none.
    void SetEntry(CSinkEntry* entry);

    // Queues control text and sends what the socket takes. 0, or -1: failed, or memory short.
    int SendText(const char* text, unsigned int length);
    // Drops the text that waits, except the rest of a unit that is begun.
    void ClearText();
    // Sends, queues or drops the units of `batch` whose sequence is at least `from_sequence` and whose track is on. The
    // set of the units (bit by index) that were not dropped.
    uint64_t SendMedia(const CUnitBatch& batch, uint64_t from_sequence);
    // The same for the holder of the entry's turn, with the entry's sequence; and what follows a bare write of the
    // whole batch to the entry's socket that took `written` bytes, or failed with `error`.
    uint64_t SendMediaInTurn(const CUnitBatch& batch) VIDORA_NO_THREAD_SAFETY_ANALYSIS;
    uint64_t TakeRestInTurn(const CUnitBatch& batch, int64_t written, int error) VIDORA_NO_THREAD_SAFETY_ANALYSIS;
    // How much the peer's system hasn't taken: about the bytes that wait here, and those that the socket has. 0 if the
    // queue has failed.
    uint64_t Unsent();

    // A watch that a face began has ended: there is room to write. A call too many does no harm.
    void OnWritable();
    void OnTimer(long timer_id);
    // The socket was registered with the reactor anew; a watch that a face began may have ended before.
    void OnRegistered();
    // The descriptor is about to be closed or given away; the socket isn't touched again.
    void OnSockGone();

private:
    static const unsigned int MAX_TOLD = 4;

    // Owns the state for a scope: with the lock and, below it, the turn of the entry.
    class VIDORA_SCOPED_CAPABILITY CHold {
    public:
        explicit CHold(CStreamOutput& output) VIDORA_ACQUIRE(output.m_mutex) : m_output(output) {
            m_output.m_mutex.enter();
            m_output.take_entry_locked();
        }
        ~CHold() VIDORA_RELEASE() {
            m_output.give_entry_locked();
            m_output.m_mutex.leave();
        }
        CHold(const CHold&) = delete;
        CHold& operator=(const CHold&) = delete;

    private:
        CStreamOutput& m_output;
    };

    void take_entry_locked() VIDORA_REQUIRES(m_mutex);
    void give_entry_locked() VIDORA_REQUIRES(m_mutex);
    void publish_locked() VIDORA_REQUIRES(m_mutex);

    uint64_t send_media_locked(const CUnitBatch& batch, uint64_t from_sequence) VIDORA_REQUIRES(m_mutex);
    uint64_t choose_way_locked(const CUnitBatch& batch, uint64_t from_sequence) VIDORA_REQUIRES(m_mutex);
    uint64_t send_batch_locked(const CUnitBatch& batch) VIDORA_REQUIRES(m_mutex);
    uint64_t take_rest_locked(const CUnitBatch& batch, size_t sent) VIDORA_REQUIRES(m_mutex);
    uint64_t send_chosen_locked(const CUnitBatch& batch, uint64_t from_sequence) VIDORA_REQUIRES(m_mutex);
    uint64_t queue_chosen_locked(const CUnitBatch& batch, uint64_t from_sequence) VIDORA_REQUIRES(m_mutex);
    bool queue_media_locked(COutputUnit* unit, size_t sent) VIDORA_REQUIRES(m_mutex);
    int queue_text_locked(const char* text, unsigned int length, size_t sent) VIDORA_REQUIRES(m_mutex);
    void drop_aged_locked(uint64_t now_ms) VIDORA_REQUIRES(m_mutex);
    void drop_waiting_locked(bool text, bool media) VIDORA_REQUIRES(m_mutex);
    void untake_locked(const COutputUnit& unit) VIDORA_REQUIRES(m_mutex);
    void uncount_locked(const COutputUnit& unit) VIDORA_REQUIRES(m_mutex);

    int64_t write_locked(const struct iovec* parts, unsigned int count) VIDORA_REQUIRES(m_mutex);
    int64_t judge_locked(int64_t written, int error) VIDORA_REQUIRES(m_mutex);
    void flush_unwatched_locked() VIDORA_REQUIRES(m_mutex);
    void flush_locked() VIDORA_REQUIRES(m_mutex);
    bool flush_once_locked() VIDORA_REQUIRES(m_mutex);
    void begin_waiting_locked() VIDORA_REQUIRES(m_mutex);
    void watch_locked() VIDORA_REQUIRES(m_mutex);
    int64_t in_socket_locked() VIDORA_REQUIRES(m_mutex);
    void start_timer_locked() VIDORA_REQUIRES(m_mutex);
    void stop_timer_locked() VIDORA_REQUIRES(m_mutex);
    void fail_locked() VIDORA_REQUIRES(m_mutex);
    void end_locked() VIDORA_REQUIRES(m_mutex);
    void tell_failure_locked(COutputFace* face) VIDORA_REQUIRES(m_mutex);

    Ostra::CMutex m_mutex;
    CSock* m_sock VIDORA_GUARDED_BY(m_mutex);     // null: gone
    CUnitRing m_ring VIDORA_GUARDED_BY(m_mutex);  // what waits
    CSinkEntry* m_entry VIDORA_GUARDED_BY(m_mutex) = nullptr;
    unsigned int m_slots VIDORA_GUARDED_BY(m_mutex) = ~0U;  // tracks that are on, by COutputUnit::Slot
    size_t m_begun VIDORA_GUARDED_BY(m_mutex) = 0;          // bytes of the front unit that are sent
    size_t m_media_cost VIDORA_GUARDED_BY(m_mutex) = 0;     // media that waits, with UNIT_COST each
    size_t m_text_cost VIDORA_GUARDED_BY(m_mutex) = 0;      // text that waits, likewise
    CMediaTally m_tally VIDORA_GUARDED_BY(m_mutex);         // what the counters don't know yet
    CTrackGate m_gate VIDORA_GUARDED_BY(m_mutex);           // tracks that lost units behind the queue's last
    // The socket took less than it was given, and no event has said since that there is room. Everything queues then,
    // also when the ring has run empty because its units grew too old.
    bool m_full VIDORA_GUARDED_BY(m_mutex) = false;
    bool m_failed VIDORA_GUARDED_BY(m_mutex) = false;
    uint64_t m_progress_ms VIDORA_GUARDED_BY(m_mutex) = 0;   // while the timer runs: when the last progress was seen
    int64_t m_written VIDORA_GUARDED_BY(m_mutex) = 0;        // bytes that the socket took, in all
    int64_t m_acked VIDORA_GUARDED_BY(m_mutex) = INT64_MIN;  // of those, by the timer's last look
    int m_peer_timeout_ms VIDORA_GUARDED_BY(m_mutex) = 0;    // the system's own, which rests while the timer runs

    COutputFace* m_faces VIDORA_GUARDED_BY(m_mutex) = nullptr;       // the media face first
    COutputFace* m_watching VIDORA_GUARDED_BY(m_mutex) = nullptr;    // the face that watches for room, if any does
    COutputFace* m_timer_face VIDORA_GUARDED_BY(m_mutex) = nullptr;  // the face whose timer runs
    long m_timer_id VIDORA_GUARDED_BY(m_mutex) = 0;
    long m_told[MAX_TOLD] VIDORA_GUARDED_BY(m_mutex) = {};  // handlers that know of the failure

    unsigned int m_timeout_s VIDORA_GUARDED_BY(m_mutex) = 0;
    unsigned int m_limit_bytes VIDORA_GUARDED_BY(m_mutex) = DEFAULT_LIMIT_BYTES;
    unsigned int m_limit_age_ms VIDORA_GUARDED_BY(m_mutex) = DEFAULT_LIMIT_AGE_MS;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_STREAMOUTPUT_H
