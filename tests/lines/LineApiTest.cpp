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

TEST(LineApi, SameNameRegisteredTwiceGivesTwoFiles) {
    Dbg_init(0);
    DbgSource first = nullptr, second = nullptr;
    ASSERT_EQ(DbgLine_create_source(u"a.asm", &first), 0u);
    ASSERT_EQ(DbgLine_create_source(u"a.asm", &second), 0u);
    EXPECT_NE(first, second);
    Dbg_finish();
}

} // namespace
