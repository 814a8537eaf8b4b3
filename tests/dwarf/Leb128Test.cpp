#include "dwarf/Leb128.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace quillet;

std::vector<uint8_t> ULEB(uint64_t v) {
    uint8_t b[10];
    return std::vector<uint8_t>(b, WriteULEB128(b, v));
}

std::vector<uint8_t> SLEB(int64_t v) {
    uint8_t b[10];
    return std::vector<uint8_t>(b, WriteSLEB128(b, v));
}

TEST(Leb128, UnsignedEncodingsAndSizes) {
    struct Case {
        uint64_t value;
        std::vector<uint8_t> bytes;
    } cases[] = {
        {0, {0x00}},
        {127, {0x7f}},
        {128, {0x80, 0x01}},
        {624485, {0xe5, 0x8e, 0x26}},
        {0x8000000000000000ull, {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}},
        {~0ull, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(ULEB(c.value), c.bytes) << c.value;
        EXPECT_EQ(SizeULEB128(c.value), c.bytes.size()) << c.value;
        const uint8_t *cursor = c.bytes.data();
        bool ok = true;
        EXPECT_EQ(ReadULEB128(cursor, c.bytes.data() + c.bytes.size(), ok), c.value);
        EXPECT_TRUE(ok);
        EXPECT_EQ(cursor, c.bytes.data() + c.bytes.size());
    }
}

TEST(Leb128, SignedEncodings) {
    struct Case {
        int64_t value;
        std::vector<uint8_t> bytes;
    } cases[] = {
        {0, {0x00}},
        {63, {0x3f}},
        {64, {0xc0, 0x00}},
        {-1, {0x7f}},
        {-64, {0x40}},
        {-65, {0xbf, 0x7f}},
        {-123456, {0xc0, 0xbb, 0x78}},
        {INT64_MIN, {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x7f}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(SLEB(c.value), c.bytes) << c.value;
        const uint8_t *cursor = c.bytes.data();
        bool ok = true;
        EXPECT_EQ(ReadSLEB128(cursor, c.bytes.data() + c.bytes.size(), ok), c.value);
        EXPECT_TRUE(ok);
    }
}

TEST(Leb128, ReadersStopAtTheEnd) {
    const uint8_t truncated[] = {0x80, 0x80};
    const uint8_t *cursor = truncated;
    bool ok = true;
    ReadULEB128(cursor, truncated + 2, ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(cursor, truncated + 2);
    cursor = truncated;
    ok = true;
    ReadSLEB128(cursor, truncated + 2, ok);
    EXPECT_FALSE(ok);
}

} // namespace
