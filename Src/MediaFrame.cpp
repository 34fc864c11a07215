#include "MediaFrame.h"

#include <new>

namespace Kavio {
namespace Vidora {

namespace {

// Gives what `read` gives for the backing that there is, or a zero.
template <typename Result, typename Read>
Result read_of(const Flumen::CMediaFrame* shared, const CRawMemory* raw, Read read) {
    if (shared != nullptr) {
        return read(*shared);
    }
    return raw != nullptr ? read(*raw) : Result();
}

template <typename Write>
void write_to(Flumen::CMediaFrame* shared, CRawMemory* raw, Write write) {
    if (shared != nullptr) {
        write(*shared);
    } else if (raw != nullptr) {
        write(*raw);
    }
}

}  // namespace

CMediaFrame::CMediaFrame(uint32_t size, int mode) : m_mode(mode) {
    if (mode == MEDIA_FRAME_SHARED) {
        m_frame = Flumen::CMediaFrame(size);
    } else if (mode == MEDIA_FRAME_RAW) {
        m_raw = new (std::nothrow) CRawMemory(size);
    }
}

CMediaFrame::CMediaFrame(const CMediaFrame& other) : CMediaPacket(), m_mode(other.m_mode) {
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

// Shares the other's memory, or lets go of the own one if there is none.
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

bool CMediaFrame::valid() const {
    return read_of<bool>(shared(), raw(), [](const auto& backing) { return backing.valid(); });
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

unsigned char* CMediaFrame::getBuffer() const {
    return read_of<unsigned char*>(shared(), raw(), [](const auto& backing) { return backing.getBuffer(); });
}

int CMediaFrame::resize(uint32_t size) {
    if (Flumen::CMediaFrame* frame = shared()) {
        return frame->resize(size) ? 0 : -1;
    }
    return raw() != nullptr ? raw()->resize(size) : -1;
}

uint32_t CMediaFrame::size() const {
    return read_of<uint32_t>(shared(), raw(), [](const auto& backing) { return backing.size(); });
}

uint32_t CMediaFrame::capacity() const {
    return read_of<uint32_t>(shared(), raw(), [](const auto& backing) { return backing.capacity(); });
}

int CMediaFrame::getType() const {
    return read_of<int>(shared(), raw(), [](const auto& backing) { return backing.getType(); });
}

void CMediaFrame::setType(int type) {
    write_to(shared(), raw(), [=](auto& backing) { backing.setType(type); });
}

int CMediaFrame::getSequence() const {
    return read_of<int>(shared(), raw(), [](const auto& backing) { return backing.getSequence(); });
}

void CMediaFrame::setSequence(int sequence) {
    write_to(shared(), raw(), [=](auto& backing) { backing.setSequence(sequence); });
}

int CMediaFrame::getChannel() const {
    return read_of<int>(shared(), raw(), [](const auto& backing) { return backing.getChannel(); });
}

void CMediaFrame::setChannel(int channel) {
    write_to(shared(), raw(), [=](auto& backing) { backing.setChannel(channel); });
}

int CMediaFrame::getNewFormat() const {
    return read_of<int>(shared(), raw(), [](const auto& backing) { return backing.getNewFormat(); });
}

void CMediaFrame::setNewFormat(int new_format) {
    write_to(shared(), raw(), [=](auto& backing) { backing.setNewFormat(new_format); });
}

double CMediaFrame::getUtc() const {
    return read_of<double>(shared(), raw(), [](const auto& backing) { return backing.getUtc(); });
}

void CMediaFrame::setUtc(double seconds) {
    write_to(shared(), raw(), [=](auto& backing) { backing.setUtc(seconds); });
}

uint64_t CMediaFrame::getPts(PtsType type) const {
    return read_of<uint64_t>(shared(), raw(), [=](const auto& backing) { return backing.getPts(type); });
}

void CMediaFrame::setPts(uint64_t pts, PtsType type) {
    write_to(shared(), raw(), [=](auto& backing) { backing.setPts(pts, type); });
}

}  // namespace Vidora
}  // namespace Kavio
