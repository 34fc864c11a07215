#ifndef VIDORA_MEDIAFRAME_H
#define VIDORA_MEDIAFRAME_H

#include <cstdint>
#include <utility>

#include "Flumen/FrameFacts.h"
#include "RawMemory.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// What a CMediaFrame is backed by.
enum media_frame_mode_t : int { MEDIA_FRAME_RAW = 0, MEDIA_FRAME_SHARED = 1 };

// CMediaFrame: a media packet that carries one frame or block of bytes through a CMediaBuffer. It is backed by a
// Flumen::CMediaFrame, whose contents it shares, or on a CRawMemory of its own, and forwards to that. Neither copies
// nor assignments copy media bytes.
//
// The two classes of this name differ: Flumen's is a handle that is passed by value, this one a heap object whose
// life the buffer governs.
//
// THREADING  One thread at a time; a buffer's sinks read it on several, after the last change.
// Without contents, numbers and pointers are 0 or null, putBuffer and resize return -1, and setters do nothing.
class CMediaFrame : public CMediaPacket, public Flumen::CFrameFacts<CMediaFrame> {
public:
    // Shared mode, no contents.
    CMediaFrame() = default;
    // `size` bytes, as the constructor of the class that the mode names. Another mode has no contents.
    explicit CMediaFrame(uint32_t size, int mode = MEDIA_FRAME_SHARED);
    // Shares the contents of the frame: how it gets into a buffer without a copy.
    explicit CMediaFrame(const Flumen::CMediaFrame& frame) : m_frame(frame) {}
    // Takes the other's mode and shares its contents.
    CMediaFrame(const CMediaFrame& other);
    CMediaFrame& operator=(const CMediaFrame& other);
    ~CMediaFrame() override { delete m_raw; }

    unsigned char* GetData() override { return getBuffer(); }

    bool valid() const {
        return read([](const auto& backing) { return backing.valid(); });
    }
    // The frame of shared mode; an invalid one otherwise.
    Flumen::CMediaFrame GetShared() const { return m_mode == MEDIA_FRAME_SHARED ? m_frame : Flumen::CMediaFrame(); }
    // The contents as a packet, owned by this object; null if there are none.
    Memory::CPacket* getPacket();
    // Appends as many of the bytes as fit and returns their number.
    int putBuffer(const void* data, uint32_t length);
    unsigned char* getBuffer() const {
        return read([](const auto& backing) { return backing.getBuffer(); });
    }
    // Sets the bytes in use. 0 or -1.
    int resize(uint32_t size);
    uint32_t size() const {
        return read([](const auto& backing) { return backing.size(); });
    }
    uint32_t capacity() const {
        return read([](const auto& backing) { return backing.capacity(); });
    }

    // For CFrameFacts: the record of the facts of the backing in force, or null.
    const MediaFrameInfo* facts() const;
    MediaFrameInfo* changed_facts();

private:
    // What `read_backing` returns for the backing in force, or a zero.
    template <typename Read>
    auto read(Read read_backing) const -> decltype(read_backing(std::declval<const CRawMemory&>())) {
        if (const Flumen::CMediaFrame* frame = shared()) {
            return read_backing(*frame);
        }
        return raw() != nullptr ? read_backing(*raw()) : 0;
    }
    // The backing in force, or null.
    const Flumen::CMediaFrame* shared() const;
    Flumen::CMediaFrame* shared();
    CRawMemory* raw() const { return m_mode == MEDIA_FRAME_RAW ? m_raw : nullptr; }
    void assign_raw(const CRawMemory* other);

    int32_t m_mode = MEDIA_FRAME_SHARED;
    Flumen::CMediaFrame m_frame;
    CRawMemory* m_raw = nullptr;  // owned
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MEDIAFRAME_H
