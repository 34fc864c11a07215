#ifndef VIDORA_TESTS_SUPPORT_PACKERUNITS_H
#define VIDORA_TESTS_SUPPORT_PACKERUNITS_H

#include <gtest/gtest.h>

#include <vector>

#include "StreamParser/Frame2Packet.h"
#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

// The output of a packer for one frame, unit by unit; checks that its counts agree and that it keeps to the capacity.
inline std::vector<Bytes> UnitsOf(IFrame2Packet& packer) {
    std::vector<Bytes> units;
    EXPECT_EQ(packer.GetPacketSize() > 0, packer.GetPacketCount() > 0);
    for (int size = packer.GetPacketSize(); size > 0; size = packer.GetPacketSize()) {
        Bytes unit(static_cast<size_t>(size));
        EXPECT_EQ(0, packer.GetPacket(unit.data(), static_cast<unsigned>(size - 1)));
        EXPECT_EQ(size, packer.GetPacket(unit.data(), static_cast<unsigned>(size)));
        units.push_back(unit);
        const int left = packer.GetTotalSize() - size;
        EXPECT_EQ(left > 0 ? 0 : -1, packer.NextPacket());
        EXPECT_EQ(left, packer.GetTotalSize());
    }
    return units;
}

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_PACKERUNITS_H
