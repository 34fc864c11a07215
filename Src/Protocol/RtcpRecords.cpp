#include "Protocol/RtcpRecords.h"

#include <cstring>
#include <new>

namespace Kavio {
namespace Vidora {

void RtcpFreeReports(rtcp_report*& list) {
    while (list != nullptr) {
        rtcp_report* next = list->next;
        delete list;
        list = next;
    }
}

rtcp_sdes_item* RtcpMakeItem(uint8_t type, uint8_t length, const void* text) {
    void* block = ::operator new(sizeof(rtcp_sdes_item) + length, std::nothrow);
    if (block == nullptr) {
        return nullptr;
    }
    rtcp_sdes_item* item = new (block) rtcp_sdes_item;
    uint8_t* copy = reinterpret_cast<uint8_t*>(item + 1);
    if (length > 0) {
        std::memcpy(copy, text, length);
    }
    item->type = type;
    item->length = length;
    item->text = copy;
    item->next = nullptr;
    return item;
}

void RtcpFreeItems(rtcp_sdes_item*& items) {
    while (items != nullptr) {
        rtcp_sdes_item* next = items->next;
        ::operator delete(items);
        items = next;
    }
}

void RtcpFreeChunks(rtcp_sdes_chunk& first) {
    RtcpFreeItems(first.items);
    while (first.next != nullptr) {
        rtcp_sdes_chunk* chunk = first.next;
        first.next = chunk->next;
        RtcpFreeItems(chunk->items);
        delete chunk;
    }
}

}  // namespace Vidora
}  // namespace Kavio
