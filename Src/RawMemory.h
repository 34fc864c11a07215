#ifndef VIDORA_RAWMEMORY_H
#define VIDORA_RAWMEMORY_H

#include <cstdint>

#include "Flumen/FrameFacts.h"
#include "Flumen/MediaFrameInfo.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

using Flumen::MediaFrameInfo;
using Flumen::PtsType;

struct RawCounter;

// CRawMemory: a media packet over a reference-counted block of heap memory, with the same facts of a frame as a
// Flumen::CMediaFrame.
//
// Copies share the block; no operation copies media bytes but getPacket, which makes a Memory::CPacket of them when one
// is asked for, and then only what changed.
//
// THREADING  The count is atomic, so that copies of one block may live on several threads; all else is used by one
//            thread at a time.
// An operation on an invalid object returns 0, null or what it says, and does nothing.
class CRawMemory : public CMediaPacket, public Flumen::CFrameFacts<CRawMemory> {
public:
    // No contents: invalid.
    CRawMemory() = default;
    // `capacity` bytes, uninitialised and all counted as in use: resize(0) before appending. Invalid if `capacity` is 0
    // or memory is short.
    explicit CRawMemory(uint32_t capacity);
    // Shares the other's contents.
    CRawMemory(const CRawMemory& other);
    // Takes a packet's bytes and facts over without a copy. Asserts that its extra area holds a MediaFrameInfo.
    explicit CRawMemory(const Memory::CPacket& packet);
    CRawMemory& operator=(const CRawMemory& other);
    ~CRawMemory() override;

    unsigned char* GetData() override { return getBuffer(); }

    bool valid() const { return m_counter != nullptr; }
    // The packet image, brought up to date, owned by this object; null if invalid or if memory is short.
    Memory::CPacket* getPacket();
    // Appends as many of the bytes as fit and returns their number; -1 if invalid.
    int putBuffer(const void* data, uint32_t length);
    unsigned char* getBuffer() const;
    // Sets the bytes in use, at most to the capacity: 0, or -1 if invalid. It doesn't make the packet image stale.
    int resize(uint32_t size);
    uint32_t size() const;
    uint32_t capacity() const;

    // For CFrameFacts. The record of the facts, or null if there is none; changed_facts makes the packet image stale.
    const MediaFrameInfo* facts() const;
    MediaFrameInfo* changed_facts();

private:
    void release();

    bool m_need_packet = true;   // no packet image was made yet
    bool m_data_dirty = false;   // the data changed since
    bool m_extra_dirty = false;  // the facts changed since
    RawCounter* m_counter = nullptr;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RAWMEMORY_H
