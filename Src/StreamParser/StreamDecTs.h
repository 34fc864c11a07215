#ifndef VIDORA_STREAMPARSER_STREAMDECTS_H
#define VIDORA_STREAMPARSER_STREAMDECTS_H

#include <cstdint>
#include <memory>
#include <vector>

#include "StreamParser/StreamDec.h"
#include "StreamParser/Ts2Frame.h"

namespace Kavio {
namespace Vidora {

// CStreamDecTs: the packets of a transport stream to the frames of its first track, or back to the packets of each
// frame. An input is one packet of 188 bytes.
class CStreamDecTs final : public CStreamDec {
public:
    // Packets of one frame that are kept when they are to be handed back: more than the frame's buffer takes.
    static constexpr size_t MAX_PACKETS = 16384;

    CStreamDecTs(int src_type, int dst_type);
    ~CStreamDecTs() override;

    int InputFrame(const Flumen::CMediaFrame& frame) override;
    Flumen::CMediaFrame OutputFrame() override;
    void Clean() override;
    void PrintInfo() override;

private:
    bool keep_packet(const Flumen::CMediaFrame& packet);
    DecodedFrame describe_frame() const override;
    uint32_t read_payload(unsigned char* buffer, uint32_t capacity) override;
    Flumen::CMediaFrame take_payload(uint32_t size) override;
    void go_on() override;

    std::unique_ptr<Ts2Frame> m_ts2frame;
    Flumen::CMediaFrame m_last;                  // the input that ended the frame and belongs to the next one
    std::vector<Flumen::CMediaFrame> m_packets;  // of the frame in work, if packets are the destination
    int m_status = FRAME_MORE;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STREAMDECTS_H
