#ifndef VIDORA_FLUMEN_FRAMEFACTS_H
#define VIDORA_FLUMEN_FRAMEFACTS_H

#include <cstdint>

#include "Flumen/MediaFrameInfo.h"
#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Flumen {

// CFrameFacts: a frame's facts, for a class `Frame` that keeps them in a MediaFrameInfo. `Frame` derives from it and
// has
//     const MediaFrameInfo* facts() const;   the record, or null
//     MediaFrameInfo* changed_facts();       the same, which is about to be written
//
// The operations are those of CMediaFrame: without a record getters return 0, and setters do nothing. No lock of its
// own.
template <typename Frame>
class CFrameFacts {
public:
    int getType() const {
        return read<int>([](const MediaFrameInfo& info) { return info.GetType(); });
    }
    void setType(int type) {
        write([=](MediaFrameInfo& info) { info.SetType(type); });
    }
    int getSequence() const {
        return read<int>([](const MediaFrameInfo& info) { return info.sequence; });
    }
    void setSequence(int sequence) {
        write([=](MediaFrameInfo& info) { info.sequence = sequence; });
    }
    int getChannel() const {
        return read<int>([](const MediaFrameInfo& info) { return static_cast<int>(info.channel); });
    }
    void setChannel(int channel) {
        write([=](MediaFrameInfo& info) { info.channel = static_cast<uint32_t>(channel); });
    }
    int getNewFormat() const {
        return read<int>([](const MediaFrameInfo& info) { return info.new_format; });
    }
    void setNewFormat(int new_format) {
        write([=](MediaFrameInfo& info) { info.new_format = static_cast<int8_t>(new_format); });
    }
    double getUtc() const {
        return read<double>([](const MediaFrameInfo& info) { return info.GetUtc(); });
    }
    void setUtc(double seconds) {
        write([=](MediaFrameInfo& info) { info.SetUtc(seconds); });
    }
    uint64_t getPts(PtsType type) const {
        return read<uint64_t>([=](const MediaFrameInfo& info) { return info.GetPts(type); });
    }
    // A type that doesn't exist isn't a change.
    void setPts(uint64_t pts, PtsType type) {
        if (MediaFrameInfo::HasPts(type)) {
            write([=](MediaFrameInfo& info) { info.SetPts(pts, type); });
        }
    }

protected:
    CFrameFacts() = default;
    ~CFrameFacts() = default;

private:
    template <typename Result, typename Read>
    Result read(Read read) const {
        const MediaFrameInfo* info = static_cast<const Frame*>(this)->facts();
        return info != nullptr ? read(*info) : Result();
    }
    template <typename Write>
    void write(Write write) {
        if (MediaFrameInfo* info = static_cast<Frame*>(this)->changed_facts()) {
            write(*info);
        }
    }
};

}  // namespace Flumen
}  // namespace Kavio

#endif  // VIDORA_FLUMEN_FRAMEFACTS_H
