#ifndef VIDORA_TESTS_SUPPORT_PACKERUNITS_H
#define VIDORA_TESTS_SUPPORT_PACKERUNITS_H

#include <gtest/gtest.h>

#include <vector>

#include "StreamParser/Frame2Packet.h"
#include "support/SampleTable.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {

using namespace Vidora;

// Units in hexadecimal digits, parted by commas.
inline std::vector<Bytes> UnitsFromHex(const std::string& texts) {
    std::vector<Bytes> units;
    for (const std::string& text : SplitText(texts, ',')) {
        units.push_back(FromHex(text));
    }
    return units;
}

// The output of a packer for one frame, unit by unit, the first of them with `extra` bytes that its size leaves out;
// checks that its counts agree and that it keeps to the capacity.
inline std::vector<Bytes> UnitsOf(IFrame2Packet& packer, size_t extra = 0) {
    std::vector<Bytes> units;
    const int count = packer.GetPacketCount();
    EXPECT_EQ(packer.GetPacketSize() > 0, count > 0);
    for (int size = packer.GetPacketSize(); size > 0; size = packer.GetPacketSize()) {
        Bytes unit(static_cast<size_t>(size) + (units.empty() ? extra : 0));
        EXPECT_EQ(0, packer.GetPacket(unit.data(), static_cast<unsigned>(unit.size() - 1)));
        EXPECT_EQ(static_cast<int>(unit.size()), packer.GetPacket(unit.data(), static_cast<unsigned>(unit.size())));
        units.push_back(unit);
        const int left = packer.GetTotalSize() - size;
        EXPECT_EQ(left > 0 ? 0 : -1, packer.NextPacket());
        EXPECT_EQ(left, packer.GetTotalSize());
    }
    EXPECT_EQ(static_cast<size_t>(count), units.size());
    return units;
}

// The same of a frame that is put in; nothing if it was refused.
inline std::vector<Bytes> Pack(IFrame2Packet& packer, const Bytes& frame, int enc_type, uint64_t pts = 1) {
    if (packer.PutFrame(frame.data(), static_cast<unsigned>(frame.size()), enc_type, pts, 0) != 0) {
        EXPECT_EQ(0, packer.GetPacketCount());
        EXPECT_EQ(0, packer.GetPacketSize());
        EXPECT_EQ(0, packer.GetTotalSize());
        EXPECT_EQ(-1, packer.NextPacket());
        return {};
    }
    return UnitsOf(packer);
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_PACKERUNITS_H
