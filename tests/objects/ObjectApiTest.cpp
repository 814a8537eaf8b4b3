// Status codes of Dbg_create_object and Dbg_add_object_prop.
#include "frame/LibraryState.h"
#include "objects/LabelObjects.h"
#include "objects/ProcObject.h"
#include "objects/ValueObjects.h"
#include "support/ModuleBuilder.h"
#include "types/DebugTypes.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

class ObjectApi : public ::testing::Test {
protected:
    ObjectApi() : m(m_Dir.File("o.o"), BRX_FORMAT_ELF64) {
        text = m.AddSection(".text", true, 64);
        symbol = m.AddSymbol("s", text, 0);
        EXPECT_EQ(m.OpenModule(), 0u);
        EXPECT_EQ(m.OpenSection(text), 0u);
        EXPECT_EQ(Dbg_base_type(5, &data4), 0u);
        EXPECT_EQ(Dbg_procedure_type(data4, 1, &procType), 0u);
    }

    qtest::TempDir m_Dir;
    qtest::ModuleBuilder m;
    BrxHandle text = 0, symbol = 0;
    DbgType data4 = nullptr, procType = nullptr;
};

// One property list per row, applied to a new object of the kind; the expected status. (The
// highest register number is checked with the targets' numberings.)
TEST_F(ObjectApi, PropertyListsGiveTheirStatus) {
    int32_t goodCode = 6, badCode = 13, voidCode = 12;
    uint32_t reg524 = 524;
    uint64_t offset = 16;
    uint16_t flags = 3;
    int32_t value = 9;
    BrxHandle entries[] = {symbol};
    DbgEntryList list{entries, 1}, nullList{nullptr, 1};
    struct Case {
        const char *what;
        int32_t kind;
        std::vector<DbgObjectProp> props;
        DbgStatus status;
    } cases[] = {
        {"label symbol", DBG_OBJ_CODE_LABEL, {{DBG_PROP_SYMBOL, &symbol}}, 0},
        {"label null symbol",
         DBG_OBJ_CODE_LABEL,
         {{DBG_PROP_SYMBOL, nullptr}},
         DBG_ERR_BAD_PROPERTY_VALUE},
        {"data null type", DBG_OBJ_DATA_LABEL, {{DBG_PROP_TYPE, nullptr}}, DBG_ERR_BAD_TYPE},
        {"constant null name",
         DBG_OBJ_CONSTANT,
         {{DBG_PROP_NAME, nullptr}},
         DBG_ERR_BAD_PROPERTY_VALUE},
        {"register null register",
         DBG_OBJ_ENREG_SYM,
         {{DBG_PROP_REGISTER, nullptr}},
         DBG_ERR_BAD_PROPERTY_VALUE},
        {"label type", DBG_OBJ_CODE_LABEL, {{DBG_PROP_TYPE, &data4}}, DBG_ERR_BAD_PROPERTY},
        {"data type then value",
         DBG_OBJ_DATA_LABEL,
         {{DBG_PROP_TYPE, &data4}, {DBG_PROP_VALUE, &value}},
         DBG_ERR_BAD_PROPERTY},
        {"data procedure type", DBG_OBJ_DATA_LABEL, {{DBG_PROP_TYPE, &procType}}, 0},
        {"data bad code", DBG_OBJ_DATA_LABEL, {{DBG_PROP_BASE_TYPE, &badCode}}, DBG_ERR_BAD_TYPE},
        {"constant full",
         DBG_OBJ_CONSTANT,
         {{DBG_PROP_NAME, "K"}, {DBG_PROP_BASE_TYPE, &goodCode}, {DBG_PROP_VALUE, &value}},
         0},
        {"constant value first",
         DBG_OBJ_CONSTANT,
         {{DBG_PROP_VALUE, &value}, {DBG_PROP_BASE_TYPE, &goodCode}},
         DBG_ERR_BAD_TYPE},
        {"constant void value",
         DBG_OBJ_CONSTANT,
         {{DBG_PROP_BASE_TYPE, &voidCode}, {DBG_PROP_VALUE, &value}},
         DBG_ERR_BAD_TYPE},
        {"constant procedure type",
         DBG_OBJ_CONSTANT,
         {{DBG_PROP_TYPE, &procType}},
         DBG_ERR_BAD_TYPE},
        {"constant register",
         DBG_OBJ_CONSTANT,
         {{DBG_PROP_REGISTER, &reg524}},
         DBG_ERR_BAD_PROPERTY},
        {"register value", DBG_OBJ_ENREG_SYM, {{DBG_PROP_VALUE, &value}}, DBG_ERR_BAD_PROPERTY},
        {"procedure all",
         DBG_OBJ_PROCEDURE,
         {{DBG_PROP_ENTRY_LIST, &list},
          {DBG_PROP_PROC_TYPE, &procType},
          {DBG_PROP_START, &offset},
          {DBG_PROP_END, &offset},
          {DBG_PROP_DEBUG_START, &reg524},
          {DBG_PROP_DEBUG_END, &reg524},
          {DBG_PROP_RETURN_REGISTER, &reg524},
          {DBG_PROP_PROC_FLAGS, &flags}},
         0},
        {"procedure null value before bad id",
         DBG_OBJ_PROCEDURE,
         {{DBG_PROP_SYMBOL, nullptr}},
         DBG_ERR_NULL_PROPERTY_VALUE},
        {"procedure null entries",
         DBG_OBJ_PROCEDURE,
         {{DBG_PROP_ENTRY_LIST, &nullList}},
         DBG_ERR_NULL_PROPERTY_VALUE},
        {"procedure basic type",
         DBG_OBJ_PROCEDURE,
         {{DBG_PROP_PROC_TYPE, &data4}},
         DBG_ERR_BAD_TYPE},
        {"procedure symbol", DBG_OBJ_PROCEDURE, {{DBG_PROP_SYMBOL, &symbol}}, DBG_ERR_BAD_PROPERTY},
    };
    for (const Case &c : cases) {
        DbgObject object = nullptr;
        EXPECT_EQ(
            Dbg_create_object(c.kind, c.props.data(), uint32_t(c.props.size()), nullptr, &object),
            c.status)
            << c.what;
        EXPECT_EQ(object != nullptr, c.status == 0) << c.what << ": a handle only on success";

        // The same list on an existing object: the records before the failing one stay.
        DbgObject existing = nullptr;
        ASSERT_EQ(Dbg_create_object(c.kind, nullptr, 0, nullptr, &existing), 0u);
        EXPECT_EQ(Dbg_add_object_prop(existing, c.props.data(), uint32_t(c.props.size())), c.status)
            << c.what;
    }
}

TEST_F(ObjectApi, RecordsBeforeAFailingOneStayApplied) {
    DbgObject label = nullptr;
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_DATA_LABEL, nullptr, 0, nullptr, &label), 0u);
    int32_t value = 1;
    DbgObjectProp props[] = {{DBG_PROP_TYPE, &data4}, {DBG_PROP_VALUE, &value}};
    EXPECT_EQ(Dbg_add_object_prop(label, props, 2), DBG_ERR_BAD_PROPERTY);
    auto *object = reinterpret_cast<CDataLabelObject *>(label);
    EXPECT_EQ(object->m_pType, FromHandle(data4));
}

// Kinds outside 1 to 5 and handles the library never gave out are refused; only the low 16 bits
// of a count are used, so 65536 records are none.
TEST_F(ObjectApi, KindsHandlesAndCountsAreChecked) {
    DbgObject object = nullptr;
    EXPECT_EQ(Dbg_create_object(0, nullptr, 0, nullptr, &object), DBG_ERR_BAD_OBJECT_KIND);
    EXPECT_EQ(Dbg_create_object(6, nullptr, 0, nullptr, &object), DBG_ERR_BAD_OBJECT_KIND);
    EXPECT_EQ(object, nullptr);

    DbgObjectProp bad{DBG_PROP_REGISTER, nullptr};
    DbgObject label = nullptr;
    EXPECT_EQ(Dbg_create_object(DBG_OBJ_CODE_LABEL, &bad, 0x10000, nullptr, &label), 0u);
    EXPECT_EQ(Dbg_add_object_prop(label, &bad, 0x10001), DBG_ERR_BAD_PROPERTY);

    int notAnObject = 0;
    DbgObjectProp prop{DBG_PROP_SYMBOL, &symbol};
    EXPECT_EQ(Dbg_add_object_prop(reinterpret_cast<DbgObject>(&notAnObject), &prop, 1),
              DBG_ERR_NOT_AN_OBJECT);
    EXPECT_EQ(Dbg_add_object_prop(nullptr, &prop, 1), DBG_ERR_NOT_AN_OBJECT);
    // A type handle is not an object handle either.
    EXPECT_EQ(Dbg_add_object_prop(reinterpret_cast<DbgObject>(data4), &prop, 1),
              DBG_ERR_NOT_AN_OBJECT);
}

// Setting a type again moves the object's reference field from the old type to the new one, so
// it receives the offset of the type it has.
TEST_F(ObjectApi, RetypedObjectRefersToItsLastType) {
    int32_t signedCode = 6;
    DbgObject label = nullptr;
    BrxHandle d = m.AddSymbol("d", text, 8);
    ASSERT_EQ(m.DataLabel(d, 5, &label), 0u);
    DbgObjectProp retype{DBG_PROP_BASE_TYPE, &signedCode};
    ASSERT_EQ(Dbg_add_object_prop(label, &retype, 1), 0u);
    DbgType data4s = nullptr;
    ASSERT_EQ(Dbg_base_type(6, &data4s), 0u);
    auto *object = reinterpret_cast<CDataLabelObject *>(label);
    auto *last = static_cast<CDebugBasicType *>(FromHandle(data4s));
    auto *first = static_cast<CDebugBasicType *>(FromHandle(data4));
    // Lay each type out at an offset of its own; only the last type reaches the label.
    uint64_t saved = State().runningEntryOffset;
    State().runningEntryOffset = 0x1234;
    last->LayOut();
    State().runningEntryOffset = 0x5678;
    first->LayOut();
    State().runningEntryOffset = saved;
    EXPECT_EQ(object->m_TypeRef.m_nOffset, 0x1234u);
    EXPECT_EQ(first->ReferrerCount(), 0u);
}

// Writers of incomplete objects fail and the emission reports it; nothing crashes.
TEST(IncompleteObjects, MakeTheEmissionFail) {
    struct Case {
        const char *what;
        DbgStatus status;
        std::function<void()> describe;
    } cases[] = {
        {"label without symbol", DBG_ERR_WRITE_FAILED,
         [] {
             DbgObject o = nullptr;
             Dbg_create_object(DBG_OBJ_CODE_LABEL, nullptr, 0, nullptr, &o);
         }},
        {"constant without value", DBG_ERR_WRITE_FAILED,
         [] {
             int32_t code = 5;
             DbgObjectProp props[] = {{DBG_PROP_NAME, "K"}, {DBG_PROP_BASE_TYPE, &code}};
             DbgObject o = nullptr;
             Dbg_create_object(DBG_OBJ_CONSTANT, props, 2, nullptr, &o);
         }},
        {"register without name", DBG_ERR_WRITE_FAILED,
         [] {
             int32_t code = 5;
             DbgObjectProp props[] = {{DBG_PROP_BASE_TYPE, &code}};
             DbgObject o = nullptr;
             Dbg_create_object(DBG_OBJ_ENREG_SYM, props, 1, nullptr, &o);
         }},
        // A section ignores its procedures' layout failures; the entry then fails to write.
        {"procedure without entries", DBG_ERR_WRITE_FAILED,
         [] {
             DbgObject proc = nullptr;
             Dbg_create_object(DBG_OBJ_PROCEDURE, nullptr, 0, nullptr, &proc);
             Dbg_open_procedure_scope(proc, nullptr);
         }},
    };
    for (const Case &c : cases) {
        qtest::TempDir dir;
        qtest::ModuleBuilder m(dir.File("i.o"), BRX_FORMAT_ELF64);
        BrxHandle text = m.AddSection(".text", true, 16);
        ASSERT_EQ(m.OpenModule(), 0u);
        ASSERT_EQ(m.OpenSection(text), 0u);
        c.describe();
        EXPECT_EQ(m.Emit(), c.status) << c.what;
    }
}

} // namespace
