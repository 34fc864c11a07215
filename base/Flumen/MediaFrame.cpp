#include "Vidora/Flumen/MediaFrame.h"

#include "Flumen/MediaFrameInfo.h"

namespace Kavio {
namespace Flumen {

namespace {

// The frame's facts in its extra area, which every valid frame has; null for an invalid one.
MediaFrameInfo* info_of(const CMediaFrame& frame) {
    return static_cast<MediaFrameInfo*>(frame.getExtraData());
}

}  // namespace

CMediaFrame::CMediaFrame(unsigned int size) : Ostra::Memory::CPacket(size, sizeof(MediaFrameInfo)) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->Init(size);
    }
}

int CMediaFrame::getType() const {
    const MediaFrameInfo* info = info_of(*this);
    return info != nullptr ? info->GetType() : 0;
}

void CMediaFrame::setType(int type) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->SetType(type);
    }
}

int CMediaFrame::getSequence() const {
    const MediaFrameInfo* info = info_of(*this);
    return info != nullptr ? info->sequence : 0;
}

void CMediaFrame::setSequence(int sequence) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->sequence = sequence;
    }
}

int CMediaFrame::getChannel() const {
    const MediaFrameInfo* info = info_of(*this);
    return info != nullptr ? static_cast<int>(info->channel) : 0;
}

void CMediaFrame::setChannel(int channel) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->channel = static_cast<uint32_t>(channel);
    }
}

int CMediaFrame::getNewFormat() const {
    const MediaFrameInfo* info = info_of(*this);
    return info != nullptr ? info->new_format : 0;
}

void CMediaFrame::setNewFormat(int new_format) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->new_format = static_cast<int8_t>(new_format);
    }
}

double CMediaFrame::getUtc() const {
    const MediaFrameInfo* info = info_of(*this);
    return info != nullptr ? info->GetUtc() : 0;
}

void CMediaFrame::setUtc(double seconds) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->SetUtc(seconds);
    }
}

uint64_t CMediaFrame::getPts(PtsType type) const {
    const MediaFrameInfo* info = info_of(*this);
    return info != nullptr ? info->GetPts(type) : 0;
}

void CMediaFrame::setPts(uint64_t pts, PtsType type) {
    if (MediaFrameInfo* info = info_of(*this)) {
        info->SetPts(pts, type);
    }
}

}  // namespace Flumen
}  // namespace Kavio
