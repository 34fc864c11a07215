#ifndef VIDORA_STREAMPARSER_STREAMDEC_H
#define VIDORA_STREAMPARSER_STREAMDEC_H

#include <cstddef>
#include <cstdint>

#include "StreamParser/ShownValue.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/KXFrame.h"

namespace Kavio {
namespace Vidora {

// What a depacketiser reports of the frame that it completed.
struct DecodedFrame {
    uint32_t size = 0;  // payload bytes
    int type = 0;       // frame_type_t letter
    uint64_t pts = 0;   // milliseconds
    uint8_t channel = 0;
    // For the private header only.
    uint8_t encode_code = 0;
    uint8_t sub_type = 0;
    uint8_t image_type = 0;
    uint16_t width = 0;
    uint16_t height = 0;
    uint8_t fallback_rate = 0;  // frames a second where none could be measured
    uint8_t audio_channels = 0;
    uint8_t sample_rate_code = 0;
};

// CStreamDec: what the decoders, packets to frames, have in common.
class CStreamDec : public CStreamParser {
public:
    // A decoder from RTP or TS to packets (1), bare frames or private frames. Null with a log line for another pair.
    static CStreamParserPtr Create(int src_type, int dst_type);

    int GetStatis(ParserStatis& statis) override;

protected:
    CStreamDec(int src_type, int dst_type) : m_src_type(src_type), m_dst_type(dst_type) {}

    // Of the completed frame: what is known of it; and its payload into `buffer` of `capacity` bytes, which returns its
    // size, 0 if it doesn't fit.
    virtual DecodedFrame describe_frame() const = 0;
    virtual uint32_t read_payload(unsigned char* buffer, uint32_t capacity) = 0;
    // Its payload of `size` bytes in a frame of its own, which isn't there any more then; an empty frame if memory is
    // short.
    virtual Flumen::CMediaFrame take_payload(uint32_t size);
    // All of the frame was taken: begins the next one, with the packet that revealed the end of this one if there is
    // such.
    virtual void go_on() = 0;

    // What OutputFrame returns of a completed frame: the frame, or the next of its `count` packets. Goes on after the
    // last.
    Flumen::CMediaFrame put_out(const Flumen::CMediaFrame* packets, size_t count);
    // The last line of PrintInfo.
    void print_measures() const;

    const int m_src_type;
    const int m_dst_type;
    CKXFrame m_frame;
    uint32_t m_sequence = 0;  // number of the next frame
    ParserStatis m_statis;
    size_t m_output_index = 0;  // the next packet to hand back, if packets are the destination

private:
    // The completed frame in the form of the destination, counted in the statistics. Empty, with nothing counted, if it
    // has no bytes or memory is short.
    Flumen::CMediaFrame build_frame(const DecodedFrame& decoded);
    // Sets the facts of one of the frame's packets. All packets have the frame's number; the first one is counted.
    void hand_back(Flumen::CMediaFrame& packet, const DecodedFrame& decoded, bool first);
    Flumen::CMediaFrame build_private(const DecodedFrame& decoded);
    void fill_header(const DecodedFrame& decoded);
    void set_facts(Flumen::CMediaFrame& frame, const DecodedFrame& decoded, uint32_t sequence) const;
    void count_frame(const Flumen::CMediaFrame& frame);
    void show_size(const DecodedFrame& decoded);

    CShownValue<int> m_shown_width;
    CShownValue<int> m_shown_height;
    CShownValue<float> m_shown_fps;
    CShownValue<float> m_shown_bit_rate;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STREAMDEC_H
