#include <gtest/gtest.h>

#include <cstring>

#include "Vidora/Ostra/BitReader.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio::Ostra {
namespace {

// Every kind of value, written and read back in the same order.
size_t write_all(CByteWriter& writer) {
    writer.WriteU8(0x01);
    writer.WriteU16(0);
    writer.WriteU24(0x040506);
    writer.WriteU32(0x0708090a);
    writer.WriteU64(0x0b0c0d0e0f101112);
    writer.WriteU16Le(0x1413);
    writer.WriteU32Le(0x18171615);
    writer.WriteU64Le(0x201f1e1d1c1b1a19);
    writer.WriteBytes("\x21\x22", 2);
    writer.Fill(0x23, 2);
    writer.PatchU16(1, 0x0203);
    return writer.Offset();
}

TEST(Bytes, WhatIsWrittenIsReadAtAnyCut) {
    CByteWriter counter(nullptr, 0);
    const size_t size = write_all(counter);
    EXPECT_TRUE(counter.Ok());
    uint8_t bytes[64];
    for (size_t capacity = 0; capacity <= size; ++capacity) {
        std::memset(bytes, 0xee, sizeof(bytes));
        CByteWriter writer(bytes, capacity);
        write_all(writer);
        EXPECT_EQ(capacity == size, writer.Ok());
        EXPECT_EQ(0xee, bytes[capacity]);
    }
    for (size_t i = 0; i + 1 < size; ++i) {
        EXPECT_EQ(i + 1, bytes[i]);  // 1 to 35
    }
    for (size_t cut = 0; cut <= size; ++cut) {
        CByteReader reader(bytes, cut);
        reader.Skip(1);
        const uint16_t second = reader.ReadU16();
        EXPECT_EQ(cut >= 3 ? 0x0203 : 0, second);
        reader.ReadU24();
        const uint32_t fourth = reader.ReadU32();
        EXPECT_EQ(cut >= 10 ? 0x0708090au : 0, fourth);
        reader.ReadU64();
        reader.ReadU16Le();
        const uint32_t seventh = reader.ReadU32Le();
        EXPECT_EQ(cut >= 24 ? 0x18171615u : 0, seventh);
        reader.ReadU64Le();
        uint8_t rest[4] = {};
        EXPECT_EQ(cut == size, reader.Read(rest, sizeof(rest)));
        EXPECT_EQ(cut == size, reader.Ok());
        EXPECT_LE(reader.Offset(), cut);
    }
}

TEST(Bytes, FailureStaysAndNoLengthWrapsAround) {
    const uint8_t bytes[] = {1, 2, 3, 4};
    CByteReader reader(bytes, sizeof(bytes));
    CByteReader sub = reader.SubReader(3);
    EXPECT_EQ(3, sub.PeekU8(2));
    EXPECT_EQ(0, sub.PeekU8(SIZE_MAX));
    EXPECT_FALSE(sub.Skip(SIZE_MAX));
    EXPECT_EQ(nullptr, sub.ReadBytes(1));
    EXPECT_FALSE(sub.Seek(0));
    EXPECT_EQ(4, reader.ReadU8());
    EXPECT_TRUE(reader.Seek(0));
    EXPECT_FALSE(reader.SubReader(5).Ok() || reader.Ok());
    CByteReader nothing(nullptr, 9);
    EXPECT_TRUE(nothing.SubReader(0).Ok() && nothing.Read(nullptr, 0));
    EXPECT_EQ(0u, nothing.ReadU8());
    EXPECT_FALSE(nothing.Ok());

    uint8_t out[4];
    CByteWriter writer(out, sizeof(out));
    writer.WriteU8(1);
    EXPECT_EQ(nullptr, writer.Reserve(SIZE_MAX));
    EXPECT_FALSE(writer.WriteU8(2));
    CByteWriter patched(out, sizeof(out));
    patched.WriteU16(1);
    patched.PatchU16(1, 7);  // half of it wasn't written
    EXPECT_FALSE(patched.Ok());
}

TEST(Bits, RunsOverBytesAndExpGolombCodes) {
    const uint8_t bytes[] = {0xa5, 0x0f, 0xff, 0x00, 0x80};
    CBitReader bits(bytes, sizeof(bytes));
    EXPECT_EQ(0x5u, bits.ReadBits(3));
    EXPECT_EQ(0x050fffu >> 4, bits.ReadBits(17) & 0xffff);
    EXPECT_EQ(20u, bits.BitOffset());
    EXPECT_EQ(0xf0080u, bits.ReadBits(20));
    EXPECT_FALSE(bits.ReadFlag());
    EXPECT_FALSE(bits.Ok());

    // 1 | 010 | 011 | 00100 | 00101, then an end inside a code.
    const uint8_t codes[] = {0xa6, 0x42, 0x80};
    CBitReader unsigned_codes(codes, sizeof(codes));
    for (uint32_t value = 0; value < 5; ++value) {
        EXPECT_EQ(value, unsigned_codes.ReadUe());
    }
    EXPECT_EQ(0u, unsigned_codes.ReadUe());
    EXPECT_FALSE(unsigned_codes.Ok());
    CBitReader signed_codes(codes, sizeof(codes));
    for (const int32_t value : {0, 1, -1, 2, -2}) {
        EXPECT_EQ(value, signed_codes.ReadSe());
    }
    const uint8_t longest[] = {0, 0, 0, 1, 0xff, 0xff, 0xff, 0xff};  // 31 zeros, then 32 bits
    EXPECT_EQ(0xfffffffeu, CBitReader(longest, sizeof(longest)).ReadUe());
    EXPECT_EQ(-0x7fffffff, CBitReader(longest, sizeof(longest)).ReadSe());
    const uint8_t zeros[8] = {};
    CBitReader too_long(zeros, sizeof(zeros));
    EXPECT_EQ(0u, too_long.ReadUe());
    EXPECT_FALSE(too_long.Ok());
    EXPECT_FALSE(CBitReader(bytes, sizeof(bytes)).SkipBits(UINT64_MAX));
}

}  // namespace
}  // namespace Kavio::Ostra
