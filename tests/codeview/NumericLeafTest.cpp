// The numeric leaf of a constant's CodeView record: the smallest leaf that holds the value, at
// each boundary of every range.
#include "codeview/CodeViewReading.h"

#include "objects/ValueObjects.h"
#include "types/DebugTypes.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace cvtest;

struct LeafCase {
    int32_t code;   // base-type code
    uint64_t value; // the value's bytes, little-endian, as wide as the type
    uint16_t leaf;
    Bytes bytes;
};

TEST(NumericLeaf, SmallestLeafAtEachRangeBoundary) {
    const LeafCase cases[] = {
        // data1 unsigned: 127 still fits a signed byte, 128 does not.
        {1, 127, 0x8000, {0x7F}},
        {1, 128, 0x8002, {0x80, 0x00}},
        {2, 0x80, 0x8000, {0x80}}, // data1 signed: always one byte
        {3, 0xFFFF, 0x8002, {0xFF, 0xFF}},
        {4, 127, 0x8000, {0x7F}},
        {4, 0xFF80, 0x8000, {0x80}}, // -128
        {4, 128, 0x8001, {0x80, 0x00}},
        {4, 0xFF7F, 0x8001, {0x7F, 0xFF}}, // -129
        {5, 127, 0x8000, {0x7F}},
        {5, 0xFFFF, 0x8002, {0xFF, 0xFF}},
        {5, 0x10000, 0x8004, {0x00, 0x00, 0x01, 0x00}},
        {6, 0xFFFFFF80, 0x8000, {0x80}},       // -128
        {6, 0xFFFFFF7F, 0x8001, {0x7F, 0xFF}}, // -129
        {6, 32767, 0x8001, {0xFF, 0x7F}},
        {6, 32768, 0x8003, {0x00, 0x80, 0x00, 0x00}},
        {6, 0xFFFF8000, 0x8001, {0x00, 0x80}}, // -32768
        {6, 0xFFFF7FFF, 0x8003, {0xFF, 0x7F, 0xFF, 0xFF}},
        {6, 0xFFFFFFFF, 0x8000, {0xFF}}, // -1
        {6, 40000, 0x8003, {0x40, 0x9C, 0x00, 0x00}},
        {7, 0xFFFFFFFF, 0x8004, {0xFF, 0xFF, 0xFF, 0xFF}},
        {7, 0x100000000, 0x800A, {0, 0, 0, 0, 1, 0, 0, 0}},
        {8, 0x7FFFFFFF, 0x8003, {0xFF, 0xFF, 0xFF, 0x7F}},
        {8, 0x80000000, 0x8009, {0x00, 0x00, 0x00, 0x80, 0, 0, 0, 0}},
        {8, 0xFFFFFFFF, 0x8009, {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}},
        {8, 0xFFFFFFFF80000000, 0x8003, {0x00, 0x00, 0x00, 0x80}}, // -2^31
        {8, 0xFFFFFFFF7FFFFFFF, 0x8009, {0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF}},
        {8, 0xFFFFFFFFFFFFFFFE, 0x8000, {0xFE}}, // -2
        {9, 0x3FC00000, 0x8005, {0x00, 0x00, 0xC0, 0x3F}},
        {10, 0x3FF8000000000000, 0x8006, {0, 0, 0, 0, 0, 0, 0xF8, 0x3F}},
    };
    Dbg_init(0);
    for (const LeafCase &c : cases) {
        CConstantObject constant(nullptr);
        constant.SetType(BasicType(c.code));
        ASSERT_TRUE(constant.SetValue(&c.value).Ok());
        NumericLeaf leaf;
        ASSERT_TRUE(constant.EncodeNumericLeaf(leaf).Ok()) << "code " << c.code;
        EXPECT_EQ(leaf.leaf, c.leaf) << "code " << c.code << " value " << c.value;
        EXPECT_EQ(Bytes(leaf.bytes, leaf.bytes + leaf.count), c.bytes)
            << "code " << c.code << " value " << c.value;
    }
    // real10: the ten bytes as given.
    const uint8_t ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    CConstantObject real10(nullptr);
    real10.SetType(BasicType(11));
    ASSERT_TRUE(real10.SetValue(ten).Ok());
    NumericLeaf leaf;
    ASSERT_TRUE(real10.EncodeNumericLeaf(leaf).Ok());
    EXPECT_EQ(leaf.leaf, 0x8007);
    EXPECT_EQ(Bytes(leaf.bytes, leaf.bytes + leaf.count), Bytes(ten, ten + 10));
    Dbg_finish();
}

} // namespace
