#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>

#include "MediaFrame.h"
#include "RawMemory.h"
#include "support/Capture.h"

namespace Kavio::Vidora {
namespace {

const PtsType NO_PTS_TYPE = static_cast<PtsType>(6);

const MediaFrameInfo& info_of(Memory::CPacket& packet) {
    return *static_cast<MediaFrameInfo*>(packet.getExtraData());
}

TEST(RawMemory, FillsUpToItsCapacityAndIsHarmlessWithoutOne) {
    CRawMemory memory(100);
    EXPECT_EQ(0, memory.resize(0));
    const std::string bytes(150, 'x');
    EXPECT_EQ(100, memory.putBuffer(bytes.data(), 150));
    EXPECT_EQ(0, memory.putBuffer(bytes.data(), 150));
    EXPECT_EQ(0, memory.resize(500));
    EXPECT_EQ(100u, memory.size());
    EXPECT_EQ(memory.getBuffer(), memory.GetData());

    CRawMemory nothing(0);
    EXPECT_FALSE(nothing.valid());
    EXPECT_EQ(0u, nothing.size() + nothing.capacity());
    EXPECT_EQ(-1, nothing.putBuffer("a", 1));
    EXPECT_EQ(-1, nothing.resize(1));
    EXPECT_EQ(nullptr, nothing.getPacket());
    EXPECT_EQ(nullptr, nothing.GetData());
    nothing.setType('I');
    nothing.setPts(1, Flumen::PTS_TYPE_MS);
    EXPECT_EQ(0, nothing.getType());
    EXPECT_FALSE(CRawMemory(Memory::CPacket()).valid());
}

TEST(RawMemory, PacketImageIsMadeOnceAndFollowsWhatWasPut) {
    CRawMemory memory(8);
    memory.resize(0);
    memory.putBuffer("ab", 2);
    memory.setType('I');
    Memory::CPacket* packet = memory.getPacket();
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ(8u, packet->capacity());
    EXPECT_EQ(0, std::memcmp(packet->getBuffer(), "ab", 2));
    EXPECT_EQ('V', info_of(*packet).kind);
    const unsigned char* image = packet->getBuffer();
    memory.putBuffer("cd", 2);
    memory.setType('A');
    EXPECT_EQ(4u, memory.getPacket()->size());
    EXPECT_EQ(image, packet->getBuffer());
    EXPECT_EQ('A', info_of(*packet).kind);
    memory.resize(1);  // alone it doesn't make the image stale
    EXPECT_EQ(4u, memory.getPacket()->size());
    // Neither does a time stamp type that doesn't exist.
    memory.setPts(5, NO_PTS_TYPE);
    const_cast<MediaFrameInfo&>(info_of(*packet)).sequence = 77;
    EXPECT_EQ(77, info_of(*memory.getPacket()).sequence);
    EXPECT_EQ(0u, memory.getPts(NO_PTS_TYPE));
}

TEST(RawMemory, CopiesShareAndTheLastOneFrees) {
    auto first = std::make_unique<CRawMemory>(4);
    CRawMemory second(*first);
    CRawMemory third;
    third = second;
    std::memcpy(first->getBuffer(), "1234", 4);
    first.reset();
    EXPECT_EQ(0, std::memcmp(third.getBuffer(), "1234", 4));
    second = CRawMemory();
    third = *&third;
    EXPECT_EQ(0, std::memcmp(third.getBuffer(), "1234", 4));
    std::thread other([copy = third]() mutable { copy = CRawMemory(2); });
    third = CRawMemory();
    other.join();
}

TEST(RawMemory, TakesAPacketOverWithoutACopy) {
    Flumen::CMediaFrame frame(4);
    frame.setSequence(9);
    CRawMemory memory{static_cast<const Memory::CPacket&>(frame)};
    EXPECT_EQ(frame.getBuffer(), memory.getBuffer());
    EXPECT_EQ(9, memory.getSequence());
    memory.resize(2);
    CRawMemory copy(memory);
    EXPECT_EQ(frame.getBuffer(), copy.getPacket()->getBuffer());
    EXPECT_EQ(2u, frame.size());

    const Support::CAssertCapture asserts;
    CRawMemory without_facts(Memory::CPacket(4, 79));
    EXPECT_EQ(0, without_facts.getType());
    EXPECT_EQ((std::vector<std::string>(2, "m_counter->m_extra_len >= sizeof(MediaFrameInfo)")), asserts.Texts());
}

TEST(MediaFrame, WithoutABackingIsHarmless) {
    for (CMediaFrame& frame : std::vector<CMediaFrame>{CMediaFrame(), CMediaFrame(4, 2), CMediaFrame(0, 0)}) {
        EXPECT_FALSE(frame.valid());
        EXPECT_EQ(-1, frame.putBuffer("a", 1));
        EXPECT_EQ(-1, frame.resize(0));
        EXPECT_EQ(nullptr, frame.GetData());
        frame.setType('I');
        EXPECT_EQ(0, frame.getType());
    }
}

TEST(MediaFrame, EveryPairOfModesAssignsAndShares) {
    for (const int from : {0 + MEDIA_FRAME_RAW, 0 + MEDIA_FRAME_SHARED, 2}) {  // 2 is no mode
        for (const int to : {0 + MEDIA_FRAME_RAW, 0 + MEDIA_FRAME_SHARED, 2}) {
            for (const uint32_t size : {0u, 5u}) {
                const CMediaFrame source(size, from);
                CMediaFrame target(7, to);
                target = source;
                EXPECT_EQ(source.getBuffer(), target.getBuffer()) << from << to << size;
                EXPECT_EQ(source.valid(), target.valid());
                EXPECT_EQ(source.getBuffer(), CMediaFrame(target).getBuffer());
            }
        }
    }
    Flumen::CMediaFrame frame(3);
    CMediaPacket* packet = new CMediaFrame(frame);
    EXPECT_EQ(frame.getBuffer(), packet->GetData());
    packet->Release();
}

}  // namespace
}  // namespace Kavio::Vidora
