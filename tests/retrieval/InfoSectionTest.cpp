// The compilation-unit reader of .debug_info and .debug_abbrev.
#include "DwarfBytes.h"

#include "dwarf/InfoSection.h"

#include <gtest/gtest.h>

using namespace quillet;
using namespace retrievaltest;

namespace {

struct Parsed {
    bool ok = false;
    std::string name, directory, producer;
    uint64_t stmtList = 0, low = 0, high = 0;
};

Parsed Parse(const InfoUnit &unit, const Bytes &strings = {}) {
    Bytes abbrevBytes = unit.Abbrev();
    Bytes infoBytes = unit.Info();
    CAbbrevSection abbrev(abbrevBytes.data(), abbrevBytes.size());
    CInfoSection info(infoBytes.data(), infoBytes.size(), abbrev, strings.data(), strings.size());
    Parsed p;
    p.ok = info.ParseUnit().Ok();
    p.name = std::string(info.Name());
    p.directory = std::string(info.CompilationDirectory());
    p.producer = std::string(info.Producer());
    p.stmtList = info.StatementList();
    p.low = info.LowAddress();
    p.high = info.HighAddress();
    return p;
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
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.form);
        InfoUnit unit = InfoUnit::Standard("m.s", "/w", 0);
        unit.attributes[3] = {0x10, c.form, c.value};
        Parsed p = Parse(unit);
        EXPECT_TRUE(p.ok);
        EXPECT_EQ(p.stmtList, c.expected);
    }
}

TEST(InfoSection, AttributesOfOtherProducersAreSkippedByForm) {
    InfoUnit unit;
    unit.attributes = {
        {0x13, 0x05, InfoUnit::U(0x8001, 2)}, // language
        {0x11, 0x01, InfoUnit::U(0x1000, 8)}, // low_pc
        {0x12, 0x01, InfoUnit::U(0x2000, 8)}, // high_pc
        {0x55, 0x17, InfoUnit::U(0x40, 4)},   // ranges, sec_offset
        {0x2001, 0x0a, {3, 9, 9, 9}},         // block1
        {0x2002, 0x09, {2, 7, 7}},            // block
        {0x2003, 0x03, {1, 0, 5}},            // block2
        {0x2004, 0x0c, {1}},                  // flag
        {0x2005, 0x19, {}},                   // flag_present
        {0x2006, 0x16, {0x0b, 0x44}},         // indirect data1
        {0x03, 0x08, InfoUnit::Str("main.s")},
        {0x2007, 0x13, InfoUnit::U(0, 4)}, // ref4
        {0x1b, 0x0e, InfoUnit::U(4, 4)},   // comp_dir through .debug_str
        {0x25, 0x08, InfoUnit::Str("another assembler")},
        {0x10, 0x06, InfoUnit::U(0x30, 4)},
    };
    Bytes strings;
    PutString(strings, "xyz");
    PutString(strings, "/build");
    Parsed p = Parse(unit, strings);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.name, "main.s");
    EXPECT_EQ(p.directory, "/build");
    EXPECT_EQ(p.producer, "another assembler");
    EXPECT_EQ(p.stmtList, 0x30u);
    EXPECT_EQ(p.low, 0x1000u);
    EXPECT_EQ(p.high, 0x2000u);
}

TEST(InfoSection, RefusedUnits) {
    struct Case {
        const char *name;
        InfoUnit unit;
    };
    std::vector<Case> cases;
    InfoUnit good = InfoUnit::Standard("m.s", "/w", 0);
    {
        InfoUnit u = good;
        u.version = 4;
        cases.push_back({"VersionOtherThanTwo", u});
    }
    {
        InfoUnit u = good;
        u.attributes.erase(u.attributes.begin() + 2);
        cases.push_back({"NoProducer", u});
    }
    {
        InfoUnit u = good;
        u.attributes[0] = {0x03, 0x0b, {1}};
        cases.push_back({"NameNotAString", u});
    }
    {
        InfoUnit u = good;
        u.attributes.push_back({0x11, 0x06, InfoUnit::U(0, 4)});
        cases.push_back({"LowAddressNotAnAddress", u});
    }
    {
        InfoUnit u = good;
        u.attributes.push_back({0x2000, 0x7f, {}});
        cases.push_back({"UnknownForm", u});
    }
    {
        InfoUnit u = good;
        u.abbrevOffset = 500;
        cases.push_back({"AbbreviationOffsetOutsideTheSection", u});
    }
    {
        InfoUnit u = good;
        u.attributes[1] = {0x1b, 0x0e, InfoUnit::U(0, 4)};
        cases.push_back({"StringOffsetWithoutStringSection", u});
    }
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(Parse(c.unit).ok);
    }
}

TEST(InfoSection, FirstAbbreviationMustBeTheCompilationUnit) {
    const Bytes declarations[] = {
        {0x02, 0x11, 0x01, 0x00, 0x00}, // code 2
        {0x01, 0x2e, 0x01, 0x00, 0x00}, // a subprogram
        {0x01, 0x11, 0x00, 0x00, 0x00}, // no children
        {0x01, 0x11, 0x01, 0x03},       // no terminating pair
    };
    for (const Bytes &d : declarations) {
        CAbbrevSection abbrev(d.data(), d.size());
        EXPECT_TRUE(abbrev.ParseFirstAbbrev(0).Failed());
    }
    Bytes empty = {0x01, 0x11, 0x01, 0x00, 0x00};
    CAbbrevSection abbrev(empty.data(), empty.size());
    EXPECT_TRUE(abbrev.ParseFirstAbbrev(0).Ok());
    EXPECT_TRUE(abbrev.Attributes().empty());
}

TEST(InfoSection, UnitsAreReadOneAfterAnother) {
    InfoUnit first = InfoUnit::Standard("one.s", "/1", 0);
    InfoUnit second = InfoUnit::Standard("two.s", "/2", 0x80);
    second.dwarf64 = true;
    second.attributes[3] = {0x10, 0x07, InfoUnit::U(0x80, 8)};
    Bytes abbrevBytes = first.Abbrev();
    Bytes infoBytes = first.Info();
    Bytes more = second.Info();
    infoBytes.insert(infoBytes.end(), more.begin(), more.end());
    // The second unit's abbreviation has the same shape except its statement-list form.
    Bytes secondAbbrev = second.Abbrev();
    second.abbrevOffset = abbrevBytes.size();
    abbrevBytes.insert(abbrevBytes.end(), secondAbbrev.begin(), secondAbbrev.end());
    infoBytes.resize(first.Info().size());
    more = second.Info();
    infoBytes.insert(infoBytes.end(), more.begin(), more.end());

    CAbbrevSection abbrev(abbrevBytes.data(), abbrevBytes.size());
    CInfoSection info(infoBytes.data(), infoBytes.size(), abbrev);
    ASSERT_TRUE(info.ParseUnit().Ok());
    EXPECT_FALSE(info.IsLastUnit());
    EXPECT_EQ(info.Name(), "one.s");
    ASSERT_TRUE(info.ParseUnit().Ok());
    EXPECT_TRUE(info.IsLastUnit());
    EXPECT_EQ(info.Name(), "two.s");
    EXPECT_EQ(info.CompilationDirectory(), "/2");
    EXPECT_EQ(info.StatementList(), 0x80u);
    EXPECT_TRUE(info.ParseUnit().Failed()); // nothing after the last unit
}

} // namespace
