#ifndef VIDORA_OUTLETSINK_H
#define VIDORA_OUTLETSINK_H

#include "TrackSwitch.h"
#include "Tramel/PooledSink.h"
#include "Tramel/SinkEntry.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// COutletSink: what the sinks that send datagrams have in common: the switches of their tracks, and the entry in a
// group where they leave their sockets, as long as no track waits for a key frame.
//
// THREADING  As CPooledSink; the lock is a derived class's as well, which holds it over Put. The entry's turn is below
//            it.
class COutletSink : public Tramel::CPooledSink {
public:
    int Put(CMediaPacket* packet, int length, int /*flag*/, int tag) override {
        return PutRest(packet, 0, length, tag);
    }
    void EnterPlace(Tramel::CSinkEntry& entry) override {
        CGuard guard(m_mutex);
        if (m_entry == nullptr) {
            m_entry = &entry;
            publish_locked();
        }
    }
    void LeavePlace(Tramel::CSinkEntry& entry) override {
        CGuard guard(m_mutex);
        if (m_entry == &entry) {
            const Tramel::CTurnGuard turn(entry.turn);
            take_back_locked(entry);
            m_entry = nullptr;
        }
    }

protected:
    // Changes the tracks' switches, which the entry has a copy of.
    template <typename Change>
    void switch_locked(Change change) VIDORA_REQUIRES(m_mutex) {
        if (m_entry == nullptr) {
            change(m_tracks);
            return;
        }
        const Tramel::CTurnGuard turn(m_entry->turn);
        take_back_locked(*m_entry);
        change(m_tracks);
        m_entry->slots = m_tracks.Tracks();
        if (!m_tracks.AnyWaiting()) {
            fill_locked(*m_entry);
        }
    }
    // Leaves in the entry what the group may send by.
    void publish_locked() VIDORA_REQUIRES(m_mutex) {
        switch_locked([](CTrackSwitch&) {});
    }
    // The sockets that can be left in an entry now, which has none; under its turn.
    virtual void fill_locked(Tramel::CSinkEntry& entry) VIDORA_REQUIRES(m_mutex) = 0;

    CTrackSwitch m_tracks;  // changed with the lock
    CMutex m_mutex;
    Tramel::CSinkEntry* m_entry VIDORA_GUARDED_BY(m_mutex) = nullptr;

private:
    // Takes the sockets back, and notes what has left by them.
    void take_back_locked(Tramel::CSinkEntry& entry) {
        m_tracks.KeysPassed(entry.key_slots);
        entry.key_slots = 0;
        entry.CloseOutlets();
    }
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_OUTLETSINK_H
