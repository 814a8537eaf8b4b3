#include "frame/LibraryState.h"
#include "support/ModuleBuilder.h"
#include "types/DebugTypes.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Lifecycle, RetrievalModesShareOneReader) {
    Dbg_init(1);
    CBaseRetrieve *reader = State().reader.get();
    ASSERT_NE(reader, nullptr);
    Dbg_init(1);
    EXPECT_EQ(State().reader.get(), reader);
    Dbg_finish();
    EXPECT_EQ(State().reader.get(), nullptr);
    Dbg_init(2);
    EXPECT_NE(State().reader.get(), nullptr);
    EXPECT_EQ(State().mode, 2u);
    Dbg_finish();
}

TEST(Lifecycle, ProductionMakesTheVoidAndDefaultProcedureTypes) {
    Dbg_init(0);
    DbgType voidType = nullptr;
    ASSERT_EQ(Dbg_base_type(12, &voidType), 0u);
    EXPECT_EQ(FromHandle(voidType), State().voidType);
    ASSERT_NE(State().defaultProcType, nullptr);
    EXPECT_EQ(State().defaultProcType->ReturnType(), State().voidType);
    EXPECT_EQ(State().typeTable.size(), 2u);
    Dbg_finish();
    EXPECT_TRUE(State().typeTable.empty());
    EXPECT_EQ(FromHandle(voidType), nullptr) << "released types are unknown handles";
}

TEST(Lifecycle, NullObjectFileIsReportedAndRefused) {
    qtest::CheckCounter checks;
    Dbg_init(0);
    DbgScope scope = nullptr;
    const uint16_t v[3] = {0, 0, 0};
    EXPECT_EQ(Dbg_open_module_scope(0, 1, 0, 0, 1, v, v, u"", u"", u"", u"", &scope),
              DBG_ERR_FAILED);
    EXPECT_EQ(checks.Count(), 1);
    EXPECT_EQ(State().binding.file, 0u);
    EXPECT_EQ(scope, nullptr);
    Dbg_finish();
}

// An object file that can no longer take sections ends the emission with 26, without a crash.
TEST(Lifecycle, EmitIntoAClosedObjectFileFails) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("c.o"), BRX_FORMAT_ELF64);
    BrxHandle text = m.AddSection(".text", true, 16);
    ASSERT_EQ(m.OpenModule(), 0u);
    ASSERT_EQ(m.OpenSection(text), 0u);
    ASSERT_EQ(_brx_close_file(m.File()), 0);
    EXPECT_EQ(m.Emit(), DBG_ERR_OBJECT_FILE);
}

// Every process-wide item goes back to its start, so a second run writes the same bytes.
TEST(Lifecycle, SecondRunInOneProcessWritesTheSameBytes) {
    qtest::TempDir dir;
    auto run = [&](const std::string &name) {
        std::vector<Bytes> sections;
        qtest::ModuleBuilder m(dir.File(name), BRX_FORMAT_ELF64);
        BrxHandle text = m.AddSection(".text", true, 32);
        BrxHandle f = m.AddSymbol("f", text, 0);
        EXPECT_EQ(m.OpenModule(), 0u);
        DbgSource s = m.Source(u"c:\\src\\a.asm");
        EXPECT_EQ(m.OpenSection(text), 0u);
        EXPECT_EQ(m.OpenProcedure({f}, 0, 16), 0u);
        int32_t value = 7;
        EXPECT_EQ(m.Constant("K", 3, &value), 0u);
        EXPECT_EQ(m.Line(s, 5, 2), 0u);
        EXPECT_EQ(m.Emit(), 0u);
        for (const char *section : {".debug_info", ".debug_abbrev", ".debug_line"})
            sections.push_back(m.SectionBytes(section));
        return sections;
    };
    std::vector<Bytes> first = run("1.o");
    std::vector<Bytes> second = run("2.o");
    ASSERT_FALSE(first[0].empty());
    EXPECT_EQ(first, second);
}

} // namespace
