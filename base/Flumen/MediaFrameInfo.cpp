#include "Flumen/MediaFrameInfo.h"

namespace Kavio {
namespace Flumen {

namespace {

const int PTS_TYPE_COUNT = 6;

}  // namespace

void MediaFrameInfo::Init(uint32_t memory_capacity) {
    *this = MediaFrameInfo();
    flag1 = 1;
    flag2 = 1;
    capacity = memory_capacity;
}

int MediaFrameInfo::GetType() const {
    return kind == 'A' ? 'A' : static_cast<unsigned char>(frame_type);
}

void MediaFrameInfo::SetType(int type) {
    if (type == 'A') {
        kind = 'A';
        return;
    }
    kind = 'V';
    frame_type = static_cast<char>(type);
}

double MediaFrameInfo::GetUtc() const {
    return utc_sec + utc_ms * 0.001;
}

void MediaFrameInfo::SetUtc(double seconds) {
    if (!(seconds > 0)) {  // also what is no number at all
        seconds = 0;
    } else if (seconds >= 4294967296.0) {
        seconds = 4294967295.0;
    }
    utc_sec = static_cast<uint32_t>(seconds);
    utc_ms = static_cast<uint16_t>((seconds - utc_sec) * 1000);
}

uint64_t MediaFrameInfo::GetPts(int type) const {
    if (!HasPts(type)) {
        return 0;
    }
    return type == 0 ? pts0 : pts[type - 1];
}

void MediaFrameInfo::SetPts(uint64_t value, int type) {
    if (HasPts(type)) {
        (type == 0 ? pts0 : pts[type - 1]) = value;
    }
}

bool MediaFrameInfo::HasPts(int type) {
    return type >= 0 && type < PTS_TYPE_COUNT;
}

}  // namespace Flumen
}  // namespace Kavio
