#ifndef VIDORA_TESTS_SUPPORT_DEPACKETISER_H
#define VIDORA_TESTS_SUPPORT_DEPACKETISER_H

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "StreamParser/Rtp2Frame.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {

using namespace Vidora;

// Parameter sets of a picture of 640 x 368, and what stands in front of each in a byte stream.
inline const Bytes CODE = FromHex("00000001");
inline const Bytes SPS = FromHex("6742c01eda0280be40");
inline const Bytes PPS = FromHex("68ce3c80");

// Takes a complete frame, which a buffer that is a byte too small doesn't get.
template <typename Engine>
Bytes TakeFrame(Engine& engine) {
    const uint32_t size = engine.GetFrameSize();
    Bytes frame(size);
    EXPECT_EQ(0u, size == 0 ? 0 : engine.GetFrame(frame.data(), size - 1));
    EXPECT_EQ(size, engine.GetFrame(frame.data(), size));
    return frame;
}

// Feeds packets as an owner does: takes each frame that is complete, clears, and feeds a packet again that was left
// out.
class Depacketiser : public IRtpNotify {
public:
    explicit Depacketiser(int enc_type, bool drop = false, uint32_t clock = 90000) {
        m_rtp2frame.Init(enc_type, 96, clock);
        m_rtp2frame.SetNotify(this);
        m_rtp2frame.SetDropDamaged(drop);
    }

    // The results, joined when a packet was fed twice: 20 for a frame before the packet, which was then taken. A packet
    // of a transport stream may bring more of them.
    int Put(const Bytes& packet) {
        int all = 0;
        for (size_t round = 0; round <= packet.size(); ++round) {
            m_held.push_back(packet);  // the engine borrows it until Clear
            const Bytes& held = m_held.back();
            const int ret = m_rtp2frame.PutPacket(held.data(), static_cast<int>(held.size()));
            if (ret > FRAME_MORE) {
                take();
            }
            if (ret != FRAME_MORE) {
                m_rtp2frame.Clear();
                m_held.clear();
            }
            all = all % 1000 * 10 + ret;
            if (ret != FRAME_COMPLETE_NEXT) {
                break;
            }
        }
        return all;
    }

    // Payloads of one frame, the last one with the marker, in packets that number on. The last result.
    int PutFrame(const std::vector<Bytes>& payloads) {
        int result = 0;
        for (const Bytes& payload : payloads) {
            m_spec.marker = &payload == &payloads.back();
            result = Put(MakeRtp(m_spec, payload));
            ++m_spec.sequence;
        }
        return result;
    }

    CRtp2Frame& Engine() { return m_rtp2frame; }
    Bytes Last() const { return m_frames.empty() ? Bytes() : m_frames.back(); }

    std::vector<Bytes> m_frames;
    std::string m_letters;              // of the frames
    std::vector<std::string> m_events;  // notifications

private:
    void take() {
        m_frames.push_back(TakeFrame(m_rtp2frame));
        m_letters += static_cast<char>(m_rtp2frame.GetFrameType());
    }
    void OnSsrcChanged(uint32_t old_ssrc, uint32_t new_ssrc) override {
        m_events.push_back("ssrc " + std::to_string(old_ssrc) + " " + std::to_string(new_ssrc));
    }
    void OnSequenceDisorder(uint16_t last, uint16_t now) override {
        m_events.push_back("seq " + std::to_string(last) + " " + std::to_string(now));
    }
    void OnReserved() override { ADD_FAILURE() << "the third slot was called"; }

    RtpFields m_spec;
    std::deque<Bytes> m_held;
    CRtp2Frame m_rtp2frame;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_DEPACKETISER_H
