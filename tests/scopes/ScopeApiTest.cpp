#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

namespace {

class ScopeApi : public ::testing::Test {
protected:
    ScopeApi() : m(m_Dir.File("s.o"), BRX_FORMAT_ELF64) {
        text = m.AddSection(".text", true, 64);
        data = m.AddSection(".data", false, 16);
        f = m.AddSymbol("f", text, 0);
    }

    // A procedure object that no scope holds yet.
    DbgObject NewProcedure() {
        DbgEntryList list{&f, 1};
        DbgObjectProp prop{DBG_PROP_ENTRY_LIST, &list};
        DbgObject proc = nullptr;
        EXPECT_EQ(Dbg_create_object(DBG_OBJ_PROCEDURE, &prop, 1, nullptr, &proc), 0u);
        return proc;
    }

    qtest::TempDir m_Dir;
    qtest::ModuleBuilder m;
    BrxHandle text = 0, data = 0, f = 0;
};

// Which scope accepts which child: a module takes sections, a section procedures.
TEST_F(ScopeApi, EachKindAcceptsOnlyItsChildKind) {
    DbgScope module = nullptr, section = nullptr, procedure = nullptr, out = nullptr;
    ASSERT_EQ(m.OpenModule(u"c:\\work", u"m.asm", u"p", 0, &module), 0u);
    EXPECT_EQ(Dbg_open_procedure_scope(NewProcedure(), &out), DBG_ERR_SCOPE_NOT_OPENED);
    ASSERT_EQ(Dbg_open_section_scope(text, &section), 0u);
    EXPECT_EQ(Dbg_open_section_scope(data, &out), DBG_ERR_SCOPE_NOT_OPENED);
    DbgObject proc = NewProcedure();
    ASSERT_EQ(Dbg_open_procedure_scope(proc, &procedure), 0u);
    EXPECT_EQ(Dbg_open_section_scope(data, &out), DBG_ERR_SCOPE_NOT_OPENED);
    EXPECT_EQ(Dbg_open_procedure_scope(NewProcedure(), &out), DBG_ERR_SCOPE_NOT_OPENED);
    // A procedure opens one scope only.
    ASSERT_EQ(Dbg_set_current_scope(section), 0u);
    EXPECT_EQ(Dbg_open_procedure_scope(proc, &out), DBG_ERR_SCOPE_NOT_OPENED);
    EXPECT_EQ(out, nullptr) << "refused opens write no handle";
    DbgScope current = nullptr;
    ASSERT_EQ(Dbg_get_current_scope(&current), 0u);
    EXPECT_EQ(current, section) << "refused opens leave the current scope";
}

TEST_F(ScopeApi, ClosingMovesToTheParentAndRefusesScopesWithChildren) {
    DbgScope module = nullptr, section = nullptr, current = nullptr;
    ASSERT_EQ(m.OpenModule(u"c:\\work", u"m.asm", u"p", 0, &module), 0u);
    ASSERT_EQ(Dbg_open_section_scope(text, &section), 0u);
    ASSERT_EQ(Dbg_open_procedure_scope(NewProcedure(), nullptr), 0u);
    EXPECT_EQ(Dbg_close_current_scope(), 0u);
    ASSERT_EQ(Dbg_get_current_scope(&current), 0u);
    EXPECT_EQ(current, section);
    EXPECT_EQ(Dbg_close_current_scope(), DBG_ERR_SCOPE_NOT_CLOSED);
    ASSERT_EQ(Dbg_get_current_scope(&current), 0u);
    EXPECT_EQ(current, section) << "a refused close changes nothing";

    // A closed scope made current again cannot be closed twice.
    ASSERT_EQ(Dbg_set_current_scope(module), 0u);
    ASSERT_EQ(Dbg_open_section_scope(data, nullptr), 0u);
    DbgScope dataScope = nullptr;
    ASSERT_EQ(Dbg_get_current_scope(&dataScope), 0u);
    EXPECT_EQ(Dbg_close_current_scope(), 0u);
    ASSERT_EQ(Dbg_set_current_scope(dataScope), 0u);
    EXPECT_EQ(Dbg_close_current_scope(), DBG_ERR_SCOPE_NOT_CLOSED);
    // ...but still takes objects and lines.
    BrxHandle d = m.AddSymbol("d", data, 0);
    EXPECT_EQ(m.DataLabel(d, 5), 0u);
}

TEST_F(ScopeApi, ClosingTheModuleLeavesNoCurrentScope) {
    ASSERT_EQ(m.OpenModule(), 0u);
    EXPECT_EQ(Dbg_close_current_scope(), 0u);
    DbgScope current = reinterpret_cast<DbgScope>(1);
    ASSERT_EQ(Dbg_get_current_scope(&current), 0u);
    EXPECT_EQ(current, nullptr);
    EXPECT_EQ(Dbg_close_current_scope(), DBG_ERR_NO_CURRENT_SCOPE);
    EXPECT_EQ(m.CodeLabel(f), DBG_ERR_NO_CURRENT_SCOPE);
    EXPECT_NE(NewProcedure(), nullptr) << "a procedure needs no scope";
    EXPECT_EQ(Dbg_open_section_scope(text, nullptr), DBG_ERR_SCOPE_NOT_OPENED);
}

TEST_F(ScopeApi, SecondModuleIsRefused) {
    ASSERT_EQ(m.OpenModule(), 0u);
    EXPECT_EQ(m.OpenModule(), DBG_ERR_ALREADY_OPEN) << "the same object file";
    qtest::ModuleBuilder other(m_Dir.File("other.o"), BRX_FORMAT_ELF64, false);
    const uint16_t v[3] = {0, 0, 0};
    DbgScope scope = nullptr;
    EXPECT_EQ(Dbg_open_module_scope(other.File(), 1, 0, 0, 1, v, v, u"", u"", u"", u"", &scope),
              DBG_ERR_FAILED);
    EXPECT_EQ(scope, nullptr);
}

// Handles the library never gave out are refused, never followed.
TEST_F(ScopeApi, UnknownScopeHandlesAreRefused) {
    ASSERT_EQ(m.OpenModule(), 0u);
    int notAScope = 0;
    DbgScope bogus = reinterpret_cast<DbgScope>(&notAScope);
    DbgSource source = m.Source(u"a.asm");
    EXPECT_EQ(m.CodeLabel(f, nullptr, bogus), DBG_ERR_NO_CURRENT_SCOPE);
    EXPECT_EQ(m.Line(source, 3, 0, bogus), DBG_ERR_NO_CURRENT_SCOPE);
    ASSERT_EQ(Dbg_set_current_scope(bogus), 0u);
    EXPECT_EQ(Dbg_open_section_scope(text, nullptr), DBG_ERR_SCOPE_NOT_OPENED);
    EXPECT_EQ(Dbg_close_current_scope(), DBG_ERR_NO_CURRENT_SCOPE);
    EXPECT_EQ(m.CodeLabel(f), DBG_ERR_NO_CURRENT_SCOPE);
    EXPECT_EQ(Dbg_open_procedure_scope(reinterpret_cast<DbgObject>(&notAScope), nullptr),
              DBG_ERR_SCOPE_NOT_OPENED);
}

} // namespace
