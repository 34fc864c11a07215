#ifndef VIDORA_TESTS_SUPPORT_COLLECTINGSINK_H
#define VIDORA_TESTS_SUPPORT_COLLECTINGSINK_H

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "Vidora/Tramel/Level2Buffer.h"
#include "Vidora/Tramel/MediaPacket.h"
#include "support/GuardedList.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {

// CCollectingSink: keeps a copy of all that a media buffer gives it. Any thread.
class CCollectingSink : public Tramel::CLevel2Buffer_IF {
public:
    struct Item {
        Bytes bytes;
        int flag;
        int channel;
    };

    // Called for each packet, before it is kept; set before the sink is added.
    std::function<void()> on_put;

    int Put(Tramel::CMediaPacket* packet, int length, int flag, int channel) override {
        if (on_put) {
            on_put();
        }
        m_items.Add({Bytes(packet->GetData(), packet->GetData() + length), flag, channel});
        return 0;
    }
    void End(int) override { ++m_ends; }
    int EndCount() const { return m_ends; }
    std::vector<Item> Items() const { return m_items.All(); }
    // The bytes of each as text.
    std::vector<std::string> Packets() const {
        std::vector<std::string> packets;
        for (const Item& item : Items()) {
            packets.emplace_back(item.bytes.begin(), item.bytes.end());
        }
        return packets;
    }
    size_t Count() const { return m_items.Size(); }
    void Clear() { m_items.Take(); }

private:
    CGuardedList<Item> m_items;
    std::atomic<int> m_ends{0};
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_COLLECTINGSINK_H
