// The unit reader of .debug_info and .debug_abbrev: headers of versions 2 to 5, 32- and 64-bit,
// and the unit entry's attributes in every form producers write.
#include "DwarfBytes.h"

#include "dwarf/InfoSection.h"

#include <gtest/gtest.h>

using namespace quillet;
using namespace retrievaltest;

namespace {

struct Parsed {
    bool ok = false;
    CUnitHeader header;
    std::string name, directory, producer;
    bool hasStmtList = false;
    uint64_t stmtList = 0, low = 0;
};

// Reads the units of `bytes` one after another.
std::vector<Parsed> ParseAll(const SectionBytes &bytes) {
    CDwarfSections sections = bytes.View();
    CAbbrevSection abbrev(bytes.abbrev.data(), bytes.abbrev.size());
    CInfoSection info(sections, abbrev);
    std::vector<Parsed> units;
    for (;;) {
        Parsed p;
        bool more = false;
        if (info.NextUnit(p.header, more).Failed()) {
            units.push_back(p);
            break;
        }
        if (!more)
            break;
        CUnitEntry entry;
        p.ok = info.ReadUnitEntry(p.header, entry).Ok();
        p.name = std::string(entry.m_Name);
        p.directory = std::string(entry.m_CompilationDirectory);
        p.producer = std::string(entry.m_Producer);
        p.hasStmtList = entry.m_bHasStatementList;
        p.stmtList = entry.m_nStatementList;
        p.low = entry.m_nLowAddress;
        units.push_back(p);
    }
    return units;
}

Parsed Parse(const InfoUnit &unit, SectionBytes bytes = {}) {
    bytes.abbrev = unit.Abbrev();
    bytes.info = unit.Info();
    std::vector<Parsed> units = ParseAll(bytes);
    return units.empty() ? Parsed{} : units.front();
}

TEST(InfoSection, EveryHeaderLayout) {
    const struct {
        const char *name;
        uint16_t version;
        bool dwarf64;
        uint8_t unitType;
        uint64_t tag;
    } layouts[] = {
        {"V2", 2, false, 1, 0x11},        {"V3", 3, false, 1, 0x11},
        {"V4", 4, false, 1, 0x11},        {"V4Dwarf64", 4, true, 1, 0x11},
        {"V5Compile", 5, false, 1, 0x11}, {"V5Dwarf64", 5, true, 1, 0x11},
        {"V5Partial", 5, false, 3, 0x3c}, {"V5Skeleton", 5, false, 4, 0x4a},
    };
    for (const auto &l : layouts) {
        SCOPED_TRACE(l.name);
        InfoUnit unit = InfoUnit::Standard("m.c", "/w", 0);
        unit.version = l.version;
        unit.dwarf64 = l.dwarf64;
        unit.unitType = l.unitType;
        unit.tag = l.tag;
        unit.attributes[3] = {0x10, 0x17, InfoUnit::U(0x40, l.dwarf64 ? 8 : 4)}; // sec_offset
        unit.attributes.push_back({0x11, 0x01, InfoUnit::U(0x1000, 8)});
        Parsed p = Parse(unit);
        ASSERT_TRUE(p.ok);
        EXPECT_EQ(p.header.m_Form.m_nVersion, l.version);
        EXPECT_EQ(p.header.m_Form.m_nOffsetSize, l.dwarf64 ? 8u : 4u);
        EXPECT_EQ(p.header.m_nUnitType, l.unitType);
        EXPECT_EQ(p.name, "m.c");
        EXPECT_EQ(p.directory, "/w");
        EXPECT_EQ(p.producer, "test producer");
        EXPECT_TRUE(p.hasStmtList);
        EXPECT_EQ(p.stmtList, 0x40u);
        EXPECT_EQ(p.low, 0x1000u);
    }
}

TEST(InfoSection, StatementListInEveryDataForm) {
    struct {
        uint16_t form;
        Bytes value;
        uint64_t expected;
    } cases[] = {
        {0x0b, InfoUnit::U(0x12, 1), 0x12},
        {0x05, InfoUnit::U(0x1234, 2), 0x1234},
        {0x06, InfoUnit::U(0x12345678, 4), 0x12345678},
        {0x07, InfoUnit::U(0x123456789a, 8), 0x123456789a},
        {0x0f, {0xe5, 0x8e, 0x26}, 624485},
        {0x0d, {0x3f}, 63},
        {0x21, {}, 0x77}, // implicit_const: the value is in the declaration
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.form);
        InfoUnit unit = InfoUnit::Standard("m.s", "/w", 0);
        unit.attributes[3] = {0x10, c.form, c.value, 0x77};
        Parsed p = Parse(unit);
        ASSERT_TRUE(p.ok);
        EXPECT_EQ(p.stmtList, c.expected);
    }
}

// Strings in .debug_str, .debug_line_str and by index through .debug_str_offsets (whose base
// comes after the names that use it), an indexed low address, and the attributes of other
// producers skipped by their form.
TEST(InfoSection, StringsAndAddressesThroughTheirSections) {
    SectionBytes bytes;
    bytes.str = qtest::Concat({Text("clang 14"), Text("m.c")});
    bytes.lineStr = Text("/w");
    PutU(bytes.strOffsets, 0, 8); // contribution header
    PutU(bytes.strOffsets, 9, 4); // index 0: "m.c"
    PutU(bytes.addr, 0, 8);       // contribution header
    PutU(bytes.addr, 0x2000, 8);  // index 0
    InfoUnit unit;
    unit.version = 5;
    unit.attributes = {
        {0x25, 0x0e, InfoUnit::U(0, 4)},    // producer: strp
        {0x13, 0x05, InfoUnit::U(0x1d, 2)}, // language: data2
        {0x03, 0x25, {0}},                  // name: strx1, index 0
        {0x72, 0x17, InfoUnit::U(8, 4)},    // str_offsets_base
        {0x10, 0x17, InfoUnit::U(0x30, 4)}, // stmt_list
        {0x1b, 0x1f, InfoUnit::U(0, 4)},    // comp_dir: line_strp
        {0x11, 0x1b, {0}},                  // low_pc: addrx, index 0
        {0x12, 0x06, InfoUnit::U(0x40, 4)}, // high_pc: a length
        {0x73, 0x17, InfoUnit::U(8, 4)},    // addr_base
        {0x2137, 0x0a, {3, 1, 2, 3}},       // a vendor's block
        {0x3e, 0x1e, Bytes(16, 0xcc)},      // data16
        {0x01, 0x16, {0x0b, 7}},            // indirect: data1
    };
    Parsed p = Parse(unit, bytes);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.producer, "clang 14");
    EXPECT_EQ(p.name, "m.c");
    EXPECT_EQ(p.directory, "/w");
    EXPECT_EQ(p.stmtList, 0x30u);
    EXPECT_EQ(p.low, 0x2000u);
}

// Units refused for their declarations or values, and for damage to their bytes.
TEST(InfoSection, RefusedUnits) {
    const struct {
        const char *name;
        void (*change)(InfoUnit &);
        void (*damage)(SectionBytes &);
    } cases[] = {
        {"VersionBelowTwo", [](InfoUnit &u) { u.version = 1; }, nullptr},
        {"VersionAboveFive", [](InfoUnit &u) { u.version = 6; }, nullptr},
        {"NameNotAString",
         [](InfoUnit &u) {
             u.attributes[0] = {0x03, 0x0b, {1}};
         },
         nullptr},
        {"LowAddressNotAnAddress",
         [](InfoUnit &u) {
             u.attributes.push_back({0x11, 0x06, InfoUnit::U(0, 4)});
         },
         nullptr},
        {"UnknownForm",
         [](InfoUnit &u) {
             u.attributes.push_back({0x2000, 0x7f, {}});
         },
         nullptr},
        {"AbbreviationOffsetOutsideTheSection", [](InfoUnit &u) { u.abbrevOffset = 500; }, nullptr},
        {"StringOffsetWithoutStringSection",
         [](InfoUnit &u) {
             u.attributes[1] = {0x1b, 0x0e, InfoUnit::U(0, 4)};
         },
         nullptr},
        {"StringIndexWithoutOffsets",
         [](InfoUnit &u) {
             u.attributes[1] = {0x1b, 0x25, {0}};
         },
         nullptr},
        {"NotACompilationUnit", [](InfoUnit &u) { u.tag = 0x2e; }, nullptr},
        {"AddressSizeZero", [](InfoUnit &u) { u.addressSize = 0; }, nullptr},
        {"AddressSizeAboveEight", [](InfoUnit &u) { u.addressSize = 9; }, nullptr},
        {"UnitPastTheSection", [](InfoUnit &) {}, [](SectionBytes &b) { b.info[0] = 0x7f; }},
        {"EntryCodeNotDeclared", [](InfoUnit &) {}, [](SectionBytes &b) { b.info[11] = 2; }},
        {"DeclarationWithoutTerminator", [](InfoUnit &) {},
         [](SectionBytes &b) { b.abbrev.resize(b.abbrev.size() - 3); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        InfoUnit unit = InfoUnit::Standard("m.s", "/w", 0);
        c.change(unit);
        SectionBytes bytes = SectionBytes::Of(unit);
        if (c.damage)
            c.damage(bytes);
        std::vector<Parsed> units = ParseAll(bytes);
        ASSERT_FALSE(units.empty());
        EXPECT_FALSE(units.front().ok);
    }
}

TEST(InfoSection, AbbreviationTables) {
    // Codes 1 and 7 (sparse), a code declared twice, and a table without its terminating code.
    const Bytes tables[] = {
        {1, 0x11, 1, 0x03, 0x08, 0, 0, 7, 0x2e, 0, 0x21, 0x21, 0x05, 0, 0, 0},
        {1, 0x11, 1, 0, 0, 1, 0x2e, 0, 0, 0, 0},
        {1, 0x11, 1, 0x03, 0x08, 0, 0},
    };
    CAbbrevSection sparse(tables[0].data(), tables[0].size());
    ASSERT_TRUE(sparse.UseTable(0).Ok());
    ASSERT_NE(sparse.Find(1), nullptr);
    EXPECT_EQ(sparse.Find(1)->m_nTag, 0x11u);
    EXPECT_TRUE(sparse.Find(1)->m_bChildren);
    const CAbbrev *seven = sparse.Find(7);
    ASSERT_NE(seven, nullptr);
    EXPECT_FALSE(seven->m_bChildren);
    ASSERT_EQ(seven->m_Attributes.size(), 1u);
    EXPECT_EQ(seven->m_Attributes[0].m_nImplicitConst, 5);
    EXPECT_EQ(sparse.Find(2), nullptr);
    CAbbrevSection twice(tables[1].data(), tables[1].size());
    EXPECT_TRUE(twice.UseTable(0).Failed());
    CAbbrevSection cut(tables[2].data(), tables[2].size());
    EXPECT_TRUE(cut.UseTable(0).Failed());
    EXPECT_TRUE(cut.UseTable(100).Failed());
}

} // namespace
