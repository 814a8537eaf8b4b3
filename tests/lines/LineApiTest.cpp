// Line entries through the C API: where they are recorded, how their address is made, what is
// refused, and what is reported of an entry past its section's end.
#include "scopes/ScopeNode.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

namespace {

TEST(LineApi, EntriesLandInTheNamedOrCurrentScope) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("l.o"), BRX_FORMAT_ELF64);
    BrxHandle text = m.AddSection(".text", true, 64);
    DbgSource a = m.Source(u"a.asm");
    EXPECT_EQ(m.Line(a, 3, 0), DBG_ERR_NO_CURRENT_SCOPE) << "no module yet";
    DbgScope module = nullptr, section = nullptr;
    ASSERT_EQ(m.OpenModule(u"c:\\work", u"m.asm", u"p", 0, &module), 0u);
    ASSERT_EQ(m.OpenSection(text, &section), 0u);
    ASSERT_EQ(m.Line(a, 7, 4), 0u);
    ASSERT_EQ(m.Line(a, 9, 8, module), 0u);
    // Decreasing and repeated values are recorded unchanged.
    ASSERT_EQ(m.Line(a, 7, 2), 0u);
    const auto &lines = reinterpret_cast<CScopeNode *>(section)->Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].line, 7u);
    EXPECT_EQ(lines[0].Address(), 4u);
    EXPECT_EQ(lines[1].Address(), 2u);
    EXPECT_EQ(lines[0].fileIndex, -1);
    EXPECT_EQ(reinterpret_cast<CScopeNode *>(module)->Lines().size(), 1u);
}

TEST(LineApi, BaseAndOffsetAddWithCarry) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("l.o"), BRX_FORMAT_ELF64);
    DbgScope module = nullptr;
    ASSERT_EQ(m.OpenModule(u"c:\\work", u"m.asm", u"p", 0, &module), 0u);
    DbgLineDesc desc{m.Source(u"a.asm"), 5, 1, 0xFFFFFFFFu, 0x1u, 0x10};
    ASSERT_EQ(Dbg_create_line(nullptr, &desc), 0u);
    EXPECT_EQ(reinterpret_cast<CScopeNode *>(module)->Lines()[0].Address(), 0x20000000Full);
}

TEST(LineApi, BadSourceHandlesAreReportedNeverRead) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("l.o"), BRX_FORMAT_ELF64);
    ASSERT_EQ(m.OpenModule(), 0u);
    qtest::CheckCounter checks;
    int notASource = 0;
    EXPECT_EQ(m.Line(reinterpret_cast<DbgSource>(&notASource), 3, 0), DBG_ERR_LINE_REJECTED);
    EXPECT_EQ(checks.Count(), 1);
    EXPECT_EQ(m.Line(nullptr, 3, 0), 0u) << "recorded, with a check report";
    EXPECT_EQ(checks.Count(), 2);
    EXPECT_EQ(Dbg_create_line(nullptr, nullptr), DBG_ERR_LINE_REJECTED);
    EXPECT_EQ(checks.Count(), 3);
}

// Only sections that wrote rows have a sequence: the line program of a module whose code
// sections hold no entries is its header alone, 26 bytes with both tables empty.
TEST(LineApi, CodeSectionsWithoutRowsHaveNoSequence) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("l.o"), BRX_FORMAT_ELF64);
    BrxHandle text = m.AddSection(".text", true, 64);
    ASSERT_EQ(m.OpenModule(), 0u);
    ASSERT_EQ(m.OpenSection(text), 0u);
    ASSERT_EQ(m.Emit(), 0u);
    const std::vector<uint8_t> line = m.SectionBytes(".debug_line");
    EXPECT_EQ(line.size(), 26u);
    EXPECT_EQ(line.at(6), 16u) << "header_length";
}

// An entry past its section's end is written as described, and the check names the section
// and the offset.
TEST(LineApi, EntriesPastTheSectionEndAreWrittenAndReported) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("l.o"), BRX_FORMAT_ELF64);
    BrxHandle text = m.AddSection(".text", true, 0x10);
    ASSERT_EQ(m.OpenModule(), 0u);
    DbgSource a = m.Source(u"a.asm");
    ASSERT_EQ(m.OpenSection(text), 0u);
    ASSERT_EQ(m.Line(a, 3, 0x0c), 0u);
    ASSERT_EQ(m.Line(a, 4, 0x18), 0u) << "accepted: the section may still grow";
    ASSERT_EQ(m.Line(a, 5, 0x10), 0u);
    qtest::CheckCounter checks;
    ASSERT_EQ(m.Emit(), 0u);
    ASSERT_EQ(checks.Count(), 1) << "one report for the section";
    const std::string &report = checks.Expressions()[0];
    EXPECT_NE(report.find(".text"), std::string::npos) << report;
    EXPECT_NE(report.find("0x10"), std::string::npos) << report;
    // Rows in address order: line 3 opens the sequence, then 5 and 4 (a line back: long form).
    std::vector<uint8_t> line = m.SectionBytes(".debug_line");
    ASSERT_GE(line.size(), 12u);
    std::vector<uint8_t> rows(line.end() - 5 - 7, line.end() - 5);
    EXPECT_EQ(rows, (std::vector<uint8_t>{uint8_t(10 + 2 + 15 * 0x0c), uint8_t(10 + 2 + 15 * 4),
                                          0x02, 0x08, 0x03, 0x7f, 0x01}));
}

} // namespace
