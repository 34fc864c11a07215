#include "Vidora/Tramel/MediaBuffer.h"

#include <time.h>

#include <atomic>
#include <new>
#include <thread>

#include "Ostra/MemoryTrail.h"
#include "Tramel/Interleave.h"
#include "Tramel/Level2List.h"
#include "Tramel/MediaTag.h"
#include "Tramel/OutputUnit.h"
#include "Tramel/PooledSink.h"
#include "Tramel/SinkGroup.h"
#include "Tramel/Strand.h"
#include "Vidora/Ostra/Log.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Ostra/Time.h"
#include "Vidora/Tramel/MediaPacket.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;
using Ostra::CMutex;
using Ostra::CTime;
using Ostra::logError;

namespace {

// Enough groups to keep all threads of a pool busy, each with enough work to be worth a turn.
const unsigned int MAX_GROUPS = 32;
const size_t GROUP_SINKS = 16;  // a new group is made when all have that many, while there may be more groups

// Of a thread's own time in a turn. Datagrams are left to one thread for longer, see CImpl.
const uint64_t SPREAD_AFTER_US = 3000;
const uint64_t SPREAD_DATAGRAMS_AFTER_US = 20000;
const uint64_t STUCK_AFTER_US = 100000;
const int MAX_YIELDS = 3;

// So few senders are written by the putting thread: that costs it little more than to wake another one, and the process
// much less. After two writes in a row that were held up the pool does it for some time, and again after the next one:
// other programs that take the processor seldom hit two in a row, and a send procedure that waits does.
const size_t FEW_SINKS = 16;
const uint64_t HAND_OVER_AFTER_US = 5000;  // more than another program's turn on the processor usually takes
const uint64_t HAND_OVER_US = 1000000;
const int HAND_OVER_AFTER_WRITES = 2;

// Processor time of the calling thread: what others take of the processor meanwhile doesn't count.
uint64_t own_time_us() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

// The shared record: it outlives the buffer while a Put runs.
//
// As a strand it writes the groups one after another on one thread of the pool, and only when that has taken more than
// SPREAD_AFTER_US of its processor time makes turns of the others due, for all threads. Two threads that send datagrams
// at once cost half as much again where there is no processor left for whoever receives: what waits in the receivers'
// sockets leaves the caches. So these are spread later. And a put wakes one thread, as the last thing that it does for
// its senders: threads that wake for more are unlikely to take the processor from a source inside Put, and a socket's
// state isn't carried from one processor's cache to another's for the sake of a millisecond.
class CMediaBuffer::CImpl final : public CStrand {
public:
    ~CImpl();
    void EnableAutoSend();
    int Put(CMediaPacket* packet, int length, int flag, int channel);
    int PutFrameInfo(CMediaPacket* packet, int length);
    void End(int channel) { m_level2.End(channel); }
    bool AddSink(CGroupSink sink);
    void DelSink(CGroupSink sink);
    bool AddLevel2(CLevel2Buffer_IF* buffer);
    void DelLevel2(CLevel2Buffer_IF* buffer);
    bool IsIdle();
    void Close();

protected:
    bool RunTurn() override;

private:
    // What the last put means for the next one.
    enum pair_t {
        PAIR_NONE,
        PAIR_OPEN,   // m_open holds the header of the frame that comes
        PAIR_BROKEN  // the header was lost: its frame can't be sent
    };
    struct CSide {
        CMediaPacket* packet;
        int length;
    };

    bool passes(int flag, int channel);
    bool is_header_locked(CMediaPacket* packet, int length, int flag) VIDORA_REQUIRES(m_mutex);
    COutputUnit* open_pair_locked(CMediaPacket* packet, int length, int channel) VIDORA_REQUIRES(m_mutex);
    COutputUnit* finish_unit_locked(CMediaPacket* packet, int length, int flag, int channel, bool& whole)
        VIDORA_REQUIRES(m_mutex);
    void drop_open_locked() VIDORA_REQUIRES(m_mutex);
    void drop_sides_locked() VIDORA_REQUIRES(m_mutex);
    uint32_t hand_out_locked(COutputUnit* unit) VIDORA_REQUIRES(m_mutex);
    bool add_sink_locked(CGroupSink sink) VIDORA_REQUIRES(m_mutex);
    CSinkGroup* pick_group_locked() VIDORA_REQUIRES(m_mutex);
    bool are_few_locked() VIDORA_REQUIRES(m_mutex);
    void write_few();
    void start_writing();
    void help(uint32_t groups);
    std::shared_ptr<CSinkGroup> group(unsigned int index);

    CLevel2List m_level2;
    std::atomic<uint64_t> m_turn_begin_us{0};  // when the turn of this strand that runs began; 0 if none runs
    std::atomic<uint64_t> m_write_from_us{0};  // until then the putting thread leaves few senders to the pool as well
    std::atomic<int> m_slow_writes{0};         // in a row

    std::atomic<int> m_waking{0};  // puts that are just making a turn due

    CMutex m_mutex;
    unsigned int m_group_count VIDORA_GUARDED_BY(m_mutex) = 0;
    bool m_auto_send VIDORA_GUARDED_BY(m_mutex) = false;
    uint64_t m_sequence VIDORA_GUARDED_BY(m_mutex) = 1;       // of the next unit
    unsigned int m_key_slots VIDORA_GUARDED_BY(m_mutex) = 0;  // tracks that have carried a key frame
    pair_t m_pair VIDORA_GUARDED_BY(m_mutex) = PAIR_NONE;
    COutputUnit* m_open VIDORA_GUARDED_BY(m_mutex) = nullptr;
    CSide m_sides[COutputUnit::MAX_SIDE] VIDORA_GUARDED_BY(m_mutex) = {};  // of the packet that comes
    unsigned int m_side_count VIDORA_GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<CSinkGroup> m_groups[MAX_GROUPS] VIDORA_GUARDED_BY(m_mutex);
};

int CMediaBuffer::CImpl::Put(CMediaPacket* packet, int length, int flag, int channel) {
    Ostra::CMemoryTrail::NoteBytes(this, sizeof(*this) - sizeof(m_groups));
    if (passes(flag, channel)) {
        m_level2.Put(packet, length, flag, channel);
        packet->Release();
        return 0;
    }
    COutputUnit* unit = nullptr;
    uint32_t late = 0;
    bool handed_out = false;
    bool few = false;
    {
        CGuard guard(m_mutex);
        if (is_header_locked(packet, length, flag)) {
            unit = open_pair_locked(packet, length, channel);
        } else {
            bool whole = true;
            unit = finish_unit_locked(packet, length, flag, channel, whole);
            handed_out = unit != nullptr && whole && m_auto_send && m_group_count > 0;
            if (handed_out) {
                late = hand_out_locked(unit);
                few = are_few_locked();
            }
        }
    }
    if (unit == nullptr) {
        return -1;
    }
    if (handed_out && !few) {
        start_writing();
    }
    if (few) {
        write_few();
    } else {
        help(late);
    }
    m_level2.Put(packet, length, flag, channel);  // last: a host's own sink may be slow
    unit->Release();
    return 0;
}

// True for a packet that no group and no other packet waits for, as on a client: it needs no unit.
bool CMediaBuffer::CImpl::passes(int flag, int channel) {
    CGuard guard(m_mutex);
    if (m_group_count > 0 || m_pair != PAIR_NONE || m_side_count > 0 || flag == 0) {
        return false;
    }
    ++m_sequence;
    const MediaTag tag = MediaTag::Unpack(channel);
    m_key_slots |= tag.IsKey() ? 1U << COutputUnit::SlotOf(tag.track) : 0U;
    return true;
}

// Flag 0 opens a pair. The frame of side data has flag 0 as well, so a second put with it is the frame; but one that
// looks like the header of a private frame follows a header only when that one's frame was never put.
bool CMediaBuffer::CImpl::is_header_locked(CMediaPacket* packet, int length, int flag) {
    if (flag != 0) {
        return false;
    }
    if (m_pair == PAIR_NONE) {
        return true;
    }
    const unsigned char* data = packet->GetData();
    return length == static_cast<int>(PRIVATE_HEADER_SIZE) && data != nullptr && data[0] == INTERLEAVE_MARK;
}

// Keeps a header for its frame. The unit, with a reference for the caller, or null.
COutputUnit* CMediaBuffer::CImpl::open_pair_locked(CMediaPacket* packet, int length, int channel) {
    drop_open_locked();
    COutputUnit* unit = COutputUnit::CreateMedia(channel, m_sequence, CTime::getCurrentMilliSecond());
    if (unit == nullptr) {
        m_pair = PAIR_BROKEN;
        return nullptr;
    }
    ++m_sequence;
    unit->AddPacket(packet, static_cast<unsigned int>(length), 0, channel);
    unit->AddRef();
    m_open = unit;
    m_pair = PAIR_OPEN;
    return unit;
}

// Makes the unit of a packet, with the header and the side packets that wait for it; the reference is the caller's.
// `whole` becomes false if its header is missing. Null if memory is short.
COutputUnit* CMediaBuffer::CImpl::finish_unit_locked(CMediaPacket* packet, int length, int flag, int channel,
                                                     bool& whole) {
    COutputUnit* unit = m_open;
    whole = m_pair != PAIR_BROKEN;
    m_open = nullptr;
    m_pair = PAIR_NONE;
    if (unit == nullptr) {
        unit = COutputUnit::CreateMedia(channel, m_sequence, CTime::getCurrentMilliSecond());
        ++m_sequence;
    }
    if (unit == nullptr) {
        drop_sides_locked();
        return nullptr;
    }
    unit->AddPacket(packet, static_cast<unsigned int>(length), flag, channel);
    for (unsigned int i = 0; i < m_side_count; ++i) {
        unit->AddSide(m_sides[i].packet, m_sides[i].length);
    }
    m_side_count = 0;
    if (unit->IsKey()) {
        m_key_slots |= 1U << unit->Slot();
    }
    if ((m_key_slots & (1U << unit->Slot())) != 0) {
        unit->MarkKeyTrack();
    }
    return unit;
}

bool CMediaBuffer::CImpl::RunTurn() {
    // On the putting thread's own processor this thread steps back until that one is through with its put.
    for (int i = 0; i < MAX_YIELDS && m_waking.load() > 0; ++i) {
        std::this_thread::yield();
    }
    const uint64_t clock_begin = CTime::getCurrentMicroSecond();
    m_turn_begin_us.store(clock_begin);
    const uint64_t begin = own_time_us();
    for (unsigned int i = 0; i < MAX_GROUPS; ++i) {
        const std::shared_ptr<CSinkGroup> next = group(i);
        if (next == nullptr) {
            break;
        }
        const uint64_t limit = next->HasStreams() ? SPREAD_AFTER_US : SPREAD_DATAGRAMS_AFTER_US;
        // The clock first, which takes no system call: a thread's own time is never ahead of it.
        if (CTime::getCurrentMicroSecond() - clock_begin < limit || own_time_us() - begin < limit) {
            next->RunHere();
        } else {
            next->Kick();
        }
    }
    m_turn_begin_us.store(0);
    return false;
}

bool CMediaBuffer::CImpl::are_few_locked() {
    return m_group_count == 1 && m_groups[0]->Count() <= FEW_SINKS &&
           CTime::getCurrentMicroSecond() >= m_write_from_us.load(std::memory_order_relaxed);
}

void CMediaBuffer::CImpl::write_few() {
    const uint64_t begin = CTime::getCurrentMicroSecond();
    group(0)->RunHere();
    const uint64_t end = CTime::getCurrentMicroSecond();
    if (end - begin <= HAND_OVER_AFTER_US) {
        m_slow_writes.store(0, std::memory_order_relaxed);
    } else if (m_slow_writes.fetch_add(1, std::memory_order_relaxed) + 1 >= HAND_OVER_AFTER_WRITES) {
        m_write_from_us.store(end + HAND_OVER_US, std::memory_order_relaxed);
    }
}

// Sees to it that a thread of the pool writes the groups. A turn that began long ago is held up by a send procedure;
// the other groups don't wait for it.
void CMediaBuffer::CImpl::start_writing() {
    m_waking.fetch_add(1);
    Schedule();
    m_waking.fetch_sub(1);
    const uint64_t begin = m_turn_begin_us.load();
    if (begin == 0 || CTime::getCurrentMicroSecond() - begin < STUCK_AFTER_US) {
        return;
    }
    for (unsigned int i = 0; i < MAX_GROUPS; ++i) {
        const std::shared_ptr<CSinkGroup> next = group(i);
        if (next == nullptr) {
            break;
        }
        next->Kick();
    }
}

// Hands the unit to all groups: the set of those that don't keep up.
uint32_t CMediaBuffer::CImpl::hand_out_locked(COutputUnit* unit) {
    uint32_t late = 0;
    for (unsigned int i = 0; i < m_group_count; ++i) {
        late |= m_groups[i]->Put(unit) ? static_cast<uint32_t>(1) << i : 0;
    }
    return late;
}

void CMediaBuffer::CImpl::help(uint32_t groups) {
    for (unsigned int i = 0; groups != 0; ++i, groups >>= 1) {
        if ((groups & 1) != 0) {
            group(i)->RunHere();
        }
    }
}

std::shared_ptr<CSinkGroup> CMediaBuffer::CImpl::group(unsigned int index) {
    CGuard guard(m_mutex);
    return m_groups[index];
}

int CMediaBuffer::CImpl::PutFrameInfo(CMediaPacket* packet, int length) {
    CGuard guard(m_mutex);
    if (m_side_count == COutputUnit::MAX_SIDE) {
        return -1;
    }
    m_sides[m_side_count].packet = packet;
    m_sides[m_side_count].length = length;
    ++m_side_count;
    return 0;
}

void CMediaBuffer::CImpl::EnableAutoSend() {
    CGuard guard(m_mutex);
    m_auto_send = true;
}

bool CMediaBuffer::CImpl::AddSink(CGroupSink sink) {
    CGuard guard(m_mutex);
    return add_sink_locked(sink);
}

bool CMediaBuffer::CImpl::add_sink_locked(CGroupSink sink) {
    for (unsigned int i = 0; i < m_group_count; ++i) {
        if (m_groups[i]->Has(sink)) {
            return true;
        }
    }
    CSinkGroup* group = pick_group_locked();
    if (group == nullptr || !group->Add(sink, m_sequence)) {
        logError("%s:%d no memory for a sink\n", __FILE__, __LINE__);
        return false;
    }
    return true;
}

bool CMediaBuffer::CImpl::AddLevel2(CLevel2Buffer_IF* buffer) {
    CGuard guard(m_mutex);
    const bool may_wait = m_auto_send && dynamic_cast<CPooledSink*>(buffer) != nullptr;
    if (may_wait && !m_level2.Has(buffer)) {
        return add_sink_locked(CGroupSink(buffer));
    }
    if (!m_level2.Add(buffer)) {
        logError("%s:%d no memory for a level-2 buffer\n", __FILE__, __LINE__);
        return false;
    }
    return true;
}

void CMediaBuffer::CImpl::DelLevel2(CLevel2Buffer_IF* buffer) {
    m_level2.Remove(buffer);
    DelSink(CGroupSink(buffer));
}

// The smallest group, or a new one if all have enough.
CSinkGroup* CMediaBuffer::CImpl::pick_group_locked() {
    unsigned int best = 0;
    size_t best_count = SIZE_MAX;
    for (unsigned int i = 0; i < m_group_count; ++i) {
        const size_t count = m_groups[i]->Count();
        if (count < best_count) {
            best = i;
            best_count = count;
        }
    }
    if (best_count >= GROUP_SINKS && m_group_count < MAX_GROUPS) {
        try {
            m_groups[m_group_count] = std::make_shared<CSinkGroup>();
            best = m_group_count++;
        } catch (const std::bad_alloc&) {
            // the smallest one takes it
        }
    }
    return m_groups[best].get();
}

// Outside the lock: the group waits for a call of the sink, which may use the buffer.
void CMediaBuffer::CImpl::DelSink(CGroupSink sink) {
    for (unsigned int i = 0; i < MAX_GROUPS; ++i) {
        const std::shared_ptr<CSinkGroup> candidate = group(i);
        if (candidate == nullptr) {
            return;
        }
        candidate->Remove(sink);
    }
}

bool CMediaBuffer::CImpl::IsIdle() {
    for (unsigned int i = 0; i < MAX_GROUPS; ++i) {
        const std::shared_ptr<CSinkGroup> candidate = group(i);
        if (candidate == nullptr) {
            break;
        }
        if (!candidate->IsIdle()) {
            return false;
        }
    }
    return true;
}

void CMediaBuffer::CImpl::Close() {
    {
        CGuard guard(m_mutex);
        m_auto_send = false;
        drop_open_locked();
        drop_sides_locked();
    }
    for (unsigned int i = 0; i < MAX_GROUPS; ++i) {
        const std::shared_ptr<CSinkGroup> candidate = group(i);
        if (candidate != nullptr) {
            candidate->RemoveAll();
        }
    }
    m_level2.RemoveAll();
}

// What a Put that was under way at Close left.
CMediaBuffer::CImpl::~CImpl() {
    CGuard guard(m_mutex);
    drop_open_locked();
    drop_sides_locked();
}

void CMediaBuffer::CImpl::drop_open_locked() {
    if (m_open != nullptr) {
        m_open->Release();
    }
    m_open = nullptr;
    m_pair = PAIR_NONE;
}

void CMediaBuffer::CImpl::drop_sides_locked() {
    for (unsigned int i = 0; i < m_side_count; ++i) {
        m_sides[i].packet->Release();
    }
    m_side_count = 0;
}

CMediaBuffer::CMediaBuffer() {
    try {
        m_impl = std::make_shared<CImpl>();
    } catch (const std::bad_alloc&) {
        m_impl = nullptr;
    }
}

CMediaBuffer::~CMediaBuffer() {
    if (m_impl != nullptr) {
        m_impl->Close();
    }
}

void CMediaBuffer::EnableAutoSend() {
    if (m_impl != nullptr) {
        m_impl->EnableAutoSend();
    }
}

int CMediaBuffer::Put(CMediaPacket* packet, int length, int flag, int channel) {
    return CMediaBufferRef(this).Put(packet, length, flag, channel);
}

int CMediaBuffer::PutFrameInfo(CMediaPacket* packet, int length) {
    return CMediaBufferRef(this).PutFrameInfo(packet, length);
}

void CMediaBuffer::AddSender(CMediaStreamSender* sender) {
    CMediaBufferRef(this).Add(sender);
}

void CMediaBuffer::DelSender(CMediaStreamSender* sender) {
    const std::shared_ptr<CImpl> impl = m_impl;
    if (impl != nullptr && sender != nullptr) {
        impl->DelSink(CGroupSink(sender));
    }
}

bool CMediaBuffer::IsIdle() {
    return m_impl == nullptr || m_impl->IsIdle();
}

void CMediaBuffer::AddLevel2Buffer(CLevel2Buffer_IF* buffer) {
    CMediaBufferRef(this).Add(buffer);
}

void CMediaBuffer::DelLevel2Buffer(CLevel2Buffer_IF* buffer) {
    const std::shared_ptr<CImpl> impl = m_impl;
    if (impl != nullptr && buffer != nullptr) {
        impl->DelLevel2(buffer);
    }
}

CMediaBufferRef::CMediaBufferRef(const CMediaBuffer* buffer) : m_impl(buffer == nullptr ? nullptr : buffer->m_impl) {}

int CMediaBufferRef::Put(CMediaPacket* packet, int length, int flag, int channel) const {
    const std::shared_ptr<CMediaBuffer::CImpl> impl = m_impl;  // a sink may delete the buffer, or change this object
    if (impl == nullptr || packet == nullptr || length < 1 || packet->GetData() == nullptr) {
        return -1;
    }
    return impl->Put(packet, length, flag, channel);
}

void CMediaBufferRef::End(int channel) const {
    const std::shared_ptr<CMediaBuffer::CImpl> impl = m_impl;  // as above
    if (impl != nullptr) {
        impl->End(channel);
    }
}

bool CMediaBufferRef::Add(CMediaStreamSender* sender) const {
    return m_impl != nullptr && sender != nullptr && m_impl->AddSink(CGroupSink(sender));
}

bool CMediaBufferRef::Add(CLevel2Buffer_IF* buffer) const {
    return m_impl != nullptr && buffer != nullptr && m_impl->AddLevel2(buffer);
}

int CMediaBufferRef::PutFrameInfo(CMediaPacket* packet, int length) const {
    if (m_impl == nullptr || packet == nullptr || length < 1) {
        return -1;
    }
    return m_impl->PutFrameInfo(packet, length);
}

}  // namespace Tramel
}  // namespace Kavio
