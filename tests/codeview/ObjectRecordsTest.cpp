// The CodeView records of the language objects as they reach the symbol section: every kind
// with its length, numeric leaves at each range boundary, and both register translations at the
// edges of every range.
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
        {1, 255, 0x8002, {0xFF, 0x00}},
        {2, 0x80, 0x8000, {0x80}}, // data1 signed: always one byte
        {3, 127, 0x8000, {0x7F}},
        {3, 128, 0x8002, {0x80, 0x00}},
        {3, 0xFFFF, 0x8002, {0xFF, 0xFF}},
        {4, 127, 0x8000, {0x7F}},
        {4, 0xFF80, 0x8000, {0x80}}, // -128
        {4, 128, 0x8001, {0x80, 0x00}},
        {4, 0xFF7F, 0x8001, {0x7F, 0xFF}}, // -129
        {5, 127, 0x8000, {0x7F}},
        {5, 128, 0x8002, {0x80, 0x00}},
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
        {7, 200, 0x8002, {0xC8, 0x00}},
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

class ObjectRecords : public ::testing::Test {
protected:
    qtest::TempDir m_Dir;
    std::string Write(const std::string &name, const std::string &content) const {
        const std::string path = m_Dir.File(name);
        EXPECT_TRUE(qtest::WriteTextFile(path, content)) << path;
        return path;
    }
};

// A section scope holding one object of each kind, and a procedure with an inner label; each
// record must carry its kind, its length field and its name where the layout puts them.
TEST_F(ObjectRecords, EveryKindWithItsLength) {
    CoffModule m(m_Dir.Path() + "/objects.obj");
    m.OpenModule();
    const BrxHandle text = m.Section(".text", 0x40);
    const BrxHandle lbl = m.Symbol("lbl", text, 4, false, BRX_SYMBOL_PLAIN);
    const BrxHandle gdata = m.Symbol("gvar", text, 8, true, BRX_SYMBOL_PLAIN);
    const BrxHandle ldata = m.Symbol("lv", text, 12, false, BRX_SYMBOL_PLAIN);
    const BrxHandle proc = m.Symbol("proc", text, 0x10);
    const BrxHandle inner = m.Symbol("inner", text, 0x14, false, BRX_SYMBOL_PLAIN);
    DbgScope section = m.OpenSection(text);

    DbgObject object = nullptr;
    const DbgObjectProp label[] = {{DBG_PROP_SYMBOL, &lbl}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_CODE_LABEL, label, 1, section, &object), 0u);
    const int32_t data4 = 5, data2s = 4;
    const DbgObjectProp global[] = {{DBG_PROP_SYMBOL, &gdata}, {DBG_PROP_BASE_TYPE, &data4}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_DATA_LABEL, global, 2, section, &object), 0u);
    const DbgObjectProp local[] = {{DBG_PROP_SYMBOL, &ldata}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_DATA_LABEL, local, 1, section, &object), 0u);
    const int16_t big = -300;
    const DbgObjectProp constant[] = {
        {DBG_PROP_BASE_TYPE, &data2s}, {DBG_PROP_VALUE, &big}, {DBG_PROP_NAME, "K"}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_CONSTANT, constant, 3, section, &object), 0u);
    const uint32_t reg = 200;
    const DbgObjectProp enreg[] = {
        {DBG_PROP_BASE_TYPE, &data4}, {DBG_PROP_NAME, "R"}, {DBG_PROP_REGISTER, &reg}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_ENREG_SYM, enreg, 3, section, &object), 0u);
    DbgScope procScope = m.OpenProcedure(proc, 0x10, 0x40);
    const DbgObjectProp innerLabel[] = {{DBG_PROP_SYMBOL, &inner}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_CODE_LABEL, innerLabel, 1, procScope, &object), 0u);
    const DbgObjectProp mainLabel[] = {{DBG_PROP_SYMBOL, &proc}};
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_CODE_LABEL, mainLabel, 1, procScope, &object), 0u);
    m.Close();
    ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);

    const BrxHandle symbols = m.SectionsNamed(".debug$S").at(0);
    const auto subsections = Subsections(CoffModule::Contents(symbols));
    ASSERT_FALSE(subsections.empty());
    const auto records = Records(subsections[0].content);
    ASSERT_EQ(records.size(), 11u);

    const struct {
        uint16_t kind;
        size_t size; // the whole record
        size_t nameAt;
        const char *name;
    } expected[] = {
        {0x1105, 3 + 12, 11, "lbl"},   // S_LABEL32
        {0x110D, 4 + 15, 14, "gvar"},  // S_GDATA32
        {0x110C, 2 + 15, 14, "lv"},    // S_LDATA32, untyped
        {0x1107, 1 + 2 + 11, 12, "K"}, // S_CONSTANT, LF_SHORT
        {0x1106, 1 + 11, 10, "R"},     // S_REGISTER
        {0x1110, 4 + 41, 39, "proc"},  // S_GPROC32
        {0x1105, 5 + 12, 11, "inner"}, // the inner label; the main-symbol label is not written
        {0x0006, 4, 0, nullptr},       // S_END
    };
    for (size_t i = 0; i < std::size(expected); ++i) {
        const Record &r = records[3 + i];
        EXPECT_EQ(r.kind, expected[i].kind) << "record " << i;
        EXPECT_EQ(r.bytes.size(), expected[i].size) << "record " << i;
        EXPECT_EQ(U16(r.bytes, 0) + 2u, r.bytes.size()) << "record " << i;
        if (expected[i].name && r.bytes.size() > expected[i].nameAt) {
            EXPECT_STREQ(reinterpret_cast<const char *>(&r.bytes[expected[i].nameAt]),
                         expected[i].name)
                << "record " << i;
        }
    }
    // The module's records: object name (path + 9 bytes), compile record (producer + 28) and
    // environment block (21 + working directory + tool path + source path).
    const std::string objectPath = m.Builder().Path();
    EXPECT_EQ(records[0].bytes.size(), objectPath.size() + 9);
    EXPECT_STREQ(reinterpret_cast<const char *>(&records[0].bytes[8]), objectPath.c_str());
    EXPECT_EQ(records[1].bytes.size(), std::string("quillet test").size() + 28);
    EXPECT_STREQ(reinterpret_cast<const char *>(&records[1].bytes[26]), "quillet test");
    const std::string tool = "c:\\tools\\qasm.exe", source = "/src/main.asm";
    EXPECT_EQ(records[2].bytes.size(),
              21 + WorkingDirectory().size() + tool.size() + source.size());

    // Types and values where they stand.
    EXPECT_EQ(U32(records[4].bytes, 4), 0x22u);   // data4 unsigned
    EXPECT_EQ(U32(records[5].bytes, 4), 0x03u);   // void
    EXPECT_EQ(U16(records[6].bytes, 8), 0x8001u); // LF_SHORT
    EXPECT_EQ(U16(records[6].bytes, 10), uint16_t(-300));
    EXPECT_EQ(U16(records[7].bytes, 8), 2119u);  // register 200: 200 + 1919
    EXPECT_EQ(U32(records[8].bytes, 16), 0x30u); // procedure length

    // Each label, data and procedure record has a section-index relocation at its segment field
    // and a section-relative one at its offset field, against its symbol.
    const auto relocations = m.Relocations(symbols);
    const size_t base = 12;
    const struct {
        size_t record;
        size_t segment, offset;
        BrxHandle symbol;
    } fields[] = {
        {3, 8, 4, lbl}, {4, 12, 8, gdata}, {5, 12, 8, ldata}, {8, 36, 32, proc}, {9, 8, 4, inner}};
    ASSERT_EQ(relocations.size(), 2 * std::size(fields));
    for (size_t i = 0; i < std::size(fields); ++i) {
        const size_t at = base + records[fields[i].record].offset;
        EXPECT_EQ(relocations[2 * i].offset, at + fields[i].segment) << i;
        EXPECT_EQ(relocations[2 * i].type, 11u) << i;
        EXPECT_EQ(relocations[2 * i].target, fields[i].symbol) << i;
        EXPECT_EQ(relocations[2 * i + 1].offset, at + fields[i].offset) << i;
        EXPECT_EQ(relocations[2 * i + 1].type, 14u) << i;
        EXPECT_EQ(relocations[2 * i + 1].target, fields[i].symbol) << i;
    }
}

} // namespace
