#include "StreamSource/BufferTable.h"

#include <new>

namespace Kavio {
namespace Vidora {

bool CBufferTable::Add(packet_type_t packet_type, const CMediaBuffer* buffer) {
    Entry* entry = find(packet_type, buffer);
    if (entry != nullptr) {
        entry->ref = CMediaBufferRef(buffer);
        ++entry->clients;
        return true;
    }
    try {
        m_entries[packet_type].push_back({buffer, CMediaBufferRef(buffer), 1});
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return false;
    }
    return true;
}

void CBufferTable::Remove(packet_type_t packet_type, const CMediaBuffer* buffer) {
    std::vector<Entry>& entries = m_entries[packet_type];
    if (entries.empty()) {
        return;
    }
    Entry* entry = buffer == nullptr ? &entries.back() : find(packet_type, buffer);
    if (entry != nullptr && --entry->clients == 0) {
        entries.erase(entries.begin() + (entry - entries.data()));
    }
}

void CBufferTable::Cut(const CMediaBuffer* buffer) {
    for (std::vector<Entry>& entries : m_entries) {
        for (Entry& entry : entries) {
            if (entry.buffer == buffer) {
                entry.ref = CMediaBufferRef(nullptr);
            }
        }
    }
}

CBufferTable::Entry* CBufferTable::find(packet_type_t packet_type, const CMediaBuffer* buffer) {
    for (Entry& entry : m_entries[packet_type]) {
        if (entry.buffer == buffer) {
            return &entry;
        }
    }
    return nullptr;
}

int CBufferTable::Clients(packet_type_t packet_type) const {
    int count = 0;
    for (const Entry& entry : m_entries[packet_type]) {
        count += entry.clients;
    }
    return count;
}

int CBufferTable::Clients() const {
    return Clients(PACKET_TYPE_RTP) + Clients(PACKET_TYPE_KX) + Clients(PACKET_TYPE_TS);
}

}  // namespace Vidora
}  // namespace Kavio
