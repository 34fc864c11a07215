#ifndef VIDORA_STREAMPARSER_RTPFRAMEWORK_H
#define VIDORA_STREAMPARSER_RTPFRAMEWORK_H

#include <cstddef>
#include <cstdint>

#include "StreamParser/RtpPacketNode.h"

namespace Kavio {
namespace Vidora {

// RtpCodecConfig: what goes in front of key frames that bring nothing of their own: H.264 parameter sets with start
// codes, an MPEG-4 configuration, a JPEG header. Owned bytes.
struct RtpCodecConfig {
    static constexpr uint32_t SIZE = 1024;

    uint32_t len = 0;
    uint32_t changes = 0;  // how often other bytes were set than there were
    unsigned char bytes[SIZE] = {};

    // Takes `size` bytes, fewer than SIZE. False with no change if there are more.
    bool Set(const unsigned char* data, size_t size);
    // Takes an H.264 sequence and picture parameter set, each with or without its start code. False with no change if
    // they are too long together.
    bool SetH264(const RtpIov& sps, const RtpIov& pps);
};

// RtpFrameWork: the frame that CRtp2Frame has in work, and what is known of its track. CRtp2Frame puts packets in; the
// rule of the codec turns them into a frame. Packets are borrowed until Clear.
struct RtpFrameWork {
    static constexpr uint8_t ASSIST_TYPE_NONE = 0xFF;

    // The packets, and how far the rule's walk over them has come: each is looked at once only, also if a frame turns
    // out to go on behind its marker.
    CRtpPacketList nodes;
    uint32_t done = 0;        // nodes done
    uint32_t prefix_len = 0;  // bytes of the configuration in front of them
    // Of the packet in work, for a rule that finds the frames by itself: its time, whether it has the marker, and how
    // many bytes of its payload are used up.
    uint64_t packet_ms = 0;
    bool marker = false;
    size_t used = 0;

    // Of the frame completed last, kept over Clear.
    int frame_type = 0;     // frame_type_t letter
    uint64_t frame_ms = 0;  // its time

    // Of the track.
    uint16_t width = 0;  // the last size that could be read
    uint16_t height = 0;
    int progressive = 0;  // 1 if frames aren't field-coded
    uint8_t assist_type = ASSIST_TYPE_NONE;
    int stream_kind = 0;  // stream_kind_t of what a transport stream holds
    RtpCodecConfig config;

    // The next packet that the rule hasn't looked at yet, or null.
    RtpPacketNode* NextNode() { return done < nodes.Count() ? nodes.begin() + done++ : nullptr; }
    // Puts the configuration in front of the frame.
    void SetConfigPrefix() { prefix_len = config.len; }
    // The frame's bytes. The second puts them into `buffer` of `capacity` bytes and returns their size, 0 if they don't
    // fit.
    uint32_t FrameSize() const;
    uint32_t WriteFrame(unsigned char* buffer, uint32_t capacity) const;
    // Lets all packets go.
    void Clear() {
        nodes.Clear();
        done = 0;
        prefix_len = 0;
    }
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPFRAMEWORK_H
