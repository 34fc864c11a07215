#include "MediaFrame.h"

#include <new>

namespace Kavio {
namespace Vidora {

CMediaFrame::CMediaFrame(uint32_t size, int mode) : m_mode(mode) {
    if (mode == MEDIA_FRAME_SHARED) {
        m_frame = Flumen::CMediaFrame(size);
    } else if (mode == MEDIA_FRAME_RAW) {
        m_raw = new (std::nothrow) CRawMemory(size);
    }
}

CMediaFrame::CMediaFrame(const CMediaFrame& other) : CMediaPacket(), CFrameFacts(), m_mode(other.m_mode) {
    if (m_mode == MEDIA_FRAME_SHARED) {
        m_frame = other.m_frame;
    } else if (m_mode == MEDIA_FRAME_RAW) {
        assign_raw(other.m_raw);
    }
}

CMediaFrame& CMediaFrame::operator=(const CMediaFrame& other) {
    if (this == &other) {
        return *this;
    }
    if (m_mode == MEDIA_FRAME_SHARED && other.m_mode != MEDIA_FRAME_SHARED) {
        m_frame = Flumen::CMediaFrame();
    }
    m_mode = other.m_mode;
    assign_raw(m_mode == MEDIA_FRAME_RAW ? other.m_raw : nullptr);
    if (m_mode == MEDIA_FRAME_SHARED) {
        m_frame = other.m_frame;
    }
    return *this;
}

// Shares the other's memory, or releases the own one if there is none.
void CMediaFrame::assign_raw(const CRawMemory* other) {
    if (other == nullptr) {
        delete m_raw;
        m_raw = nullptr;
        return;
    }
    if (m_raw == nullptr) {
        m_raw = new (std::nothrow) CRawMemory();
    }
    if (m_raw != nullptr) {
        *m_raw = *other;
    }
}

const Flumen::CMediaFrame* CMediaFrame::shared() const {
    return m_mode == MEDIA_FRAME_SHARED && m_frame.valid() ? &m_frame : nullptr;
}

Flumen::CMediaFrame* CMediaFrame::shared() {
    return m_mode == MEDIA_FRAME_SHARED && m_frame.valid() ? &m_frame : nullptr;
}

Memory::CPacket* CMediaFrame::getPacket() {
    if (m_mode == MEDIA_FRAME_SHARED) {
        return &m_frame;
    }
    return raw() != nullptr ? raw()->getPacket() : nullptr;
}

int CMediaFrame::putBuffer(const void* data, uint32_t length) {
    if (Flumen::CMediaFrame* frame = shared()) {
        return static_cast<int>(frame->putBuffer(data, length));
    }
    return raw() != nullptr ? raw()->putBuffer(data, length) : -1;
}

int CMediaFrame::resize(uint32_t size) {
    if (Flumen::CMediaFrame* frame = shared()) {
        return frame->resize(size) ? 0 : -1;
    }
    return raw() != nullptr ? raw()->resize(size) : -1;
}

const MediaFrameInfo* CMediaFrame::facts() const {
    if (const Flumen::CMediaFrame* frame = shared()) {
        return static_cast<const MediaFrameInfo*>(frame->getExtraData());
    }
    return raw() != nullptr ? raw()->facts() : nullptr;
}

MediaFrameInfo* CMediaFrame::changed_facts() {
    if (Flumen::CMediaFrame* frame = shared()) {
        return static_cast<MediaFrameInfo*>(frame->getExtraData());
    }
    return raw() != nullptr ? raw()->changed_facts() : nullptr;
}

}  // namespace Vidora
}  // namespace Kavio
