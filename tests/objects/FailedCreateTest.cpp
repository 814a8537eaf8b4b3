// A Dbg_create_object that fails part-way leaves no trace in the output, and the bookkeeping that
// ties objects to their types and procedures stays cheap at the sizes assemblers reach.
#include "objects/LabelObjects.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>

namespace {

using Bytes = std::vector<uint8_t>;

// What a case describes around the failing call; every handle a case may need.
struct Module {
    qtest::ModuleBuilder &m;
    BrxHandle text, data, start, helper, counter;
    DbgType data4, data8, returnsData4;
};

struct FailedCreate {
    const char *what;
    DbgStatus status; // of the failing call
    std::function<DbgStatus(Module &)> failing;
    std::function<void(Module &)> afterwards;
};

// The debugging sections of a module described by `afterwards`, with `failing` run first when
// `withFailure` is set. Both runs write the same file name, so the outputs are comparable.
std::map<std::string, Bytes> Describe(const std::string &path, int32_t format,
                                      const FailedCreate &c, bool withFailure) {
    qtest::ModuleBuilder m(path, format);
    Module mod{m, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr};
    mod.text = m.AddSection(".text", true, 0x40);
    mod.data = m.AddSection(".data", false, 0x10);
    mod.start = m.AddSymbol("start", mod.text, 0);
    mod.helper = m.AddSymbol("helper", mod.text, 0x20);
    mod.counter = m.AddSymbol("counter", mod.data, 0, true, BRX_SYMBOL_PLAIN);
    EXPECT_EQ(Dbg_base_type(5, &mod.data4), 0u);
    EXPECT_EQ(Dbg_base_type(7, &mod.data8), 0u);
    EXPECT_EQ(Dbg_procedure_type(mod.data4, 2, &mod.returnsData4), 0u);
    EXPECT_EQ(m.OpenModule(), 0u);
    EXPECT_EQ(m.OpenSection(mod.text), 0u);
    if (withFailure) {
        EXPECT_EQ(c.failing(mod), c.status) << c.what;
    }
    c.afterwards(mod);
    EXPECT_EQ(m.Emit(), 0u) << c.what;
    std::map<std::string, Bytes> out;
    for (const char *name : {".debug_info", ".debug_abbrev", ".debug_line"})
        out[name] = m.SectionBytes(name);
    return out;
}

DbgStatus Create(int32_t kind, std::vector<DbgObjectProp> props) {
    DbgObject object = nullptr;
    DbgStatus status =
        Dbg_create_object(kind, props.data(), uint32_t(props.size()), nullptr, &object);
    EXPECT_EQ(object, nullptr) << "a failed create hands out no handle";
    return status;
}

class FailedCreates : public ::testing::TestWithParam<int32_t> {};

// The output after a failed create is byte for byte that of the module without the call.
TEST_P(FailedCreates, LeaveNothingBehind) {
    static int32_t value = 7, data8Code = 7;
    static uint32_t register600 = 600, register5 = 5;
    static DbgEntryList noEntries{nullptr, 1};
    FailedCreate cases[] = {
        {"typed data label refused at its next property, then a register symbol",
         DBG_ERR_BAD_PROPERTY,
         [](Module &mod) {
             return Create(DBG_OBJ_DATA_LABEL,
                           {{DBG_PROP_TYPE, &mod.data4}, {DBG_PROP_VALUE, &value}});
         },
         [](Module &mod) { EXPECT_EQ(mod.m.Register("acc", 7, 5), 0u); }},
        {"data label typed twice, then refused; then a typed data label", DBG_ERR_BAD_PROPERTY,
         [](Module &mod) {
             return Create(DBG_OBJ_DATA_LABEL, {{DBG_PROP_TYPE, &mod.data4},
                                                {DBG_PROP_BASE_TYPE, &data8Code},
                                                {DBG_PROP_VALUE, &value}});
         },
         [](Module &mod) { EXPECT_EQ(mod.m.DataLabel(mod.counter, 6), 0u); }},
        {"procedure refused after its default type, then a typed procedure",
         DBG_ERR_NULL_PROPERTY_VALUE,
         [](Module &) {
             return Create(DBG_OBJ_PROCEDURE, {{DBG_PROP_ENTRY_LIST, &noEntries}});
         },
         [](Module &mod) {
             EXPECT_EQ(
                 mod.m.OpenProcedure({mod.start}, 0, 0x20, nullptr, nullptr, mod.returnsData4), 0u);
             EXPECT_EQ(mod.m.Constant("K", 5, &value), 0u);
         }},
        {"register 600 on a typed register symbol, then more objects", DBG_ERR_BAD_PROPERTY_VALUE,
         [](Module &) {
             return Create(DBG_OBJ_ENREG_SYM, {{DBG_PROP_NAME, "r"},
                                               {DBG_PROP_BASE_TYPE, &data8Code},
                                               {DBG_PROP_REGISTER, &register600}});
         },
         [](Module &mod) {
             EXPECT_EQ(mod.m.Register("acc", 5, register5), 0u);
             EXPECT_EQ(mod.m.Constant("K", 5, &value), 0u);
             EXPECT_EQ(mod.m.CodeLabel(mod.helper), 0u);
         }},
    };
    qtest::TempDir dir;
    std::string path = dir.File("f.o");
    for (const FailedCreate &c : cases) {
        std::map<std::string, Bytes> clean = Describe(path, GetParam(), c, false);
        std::map<std::string, Bytes> after = Describe(path, GetParam(), c, true);
        for (const auto &[name, bytes] : clean)
            EXPECT_EQ(after[name], bytes) << c.what << ": " << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Elf, FailedCreates, ::testing::Values(BRX_FORMAT_ELF32, BRX_FORMAT_ELF64),
                         [](const ::testing::TestParamInfo<int32_t> &info) {
                             return info.param == BRX_FORMAT_ELF32 ? "Elf32" : "Elf64";
                         });

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Retyping is a constant-time move between referrer lists, whatever the order of the objects:
// quadratic bookkeeping takes many seconds here.
TEST(ObjectScale, RetypingManyObjectsIsLinear) {
    constexpr size_t kObjects = 320000;
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("r.o"), BRX_FORMAT_ELF64);
    ASSERT_EQ(m.OpenModule(), 0u);
    int32_t data4 = 5, data8 = 7;
    std::vector<DbgObject> labels(kObjects);
    DbgObjectProp typed{DBG_PROP_BASE_TYPE, &data4};
    for (DbgObject &label : labels)
        ASSERT_EQ(Dbg_create_object(DBG_OBJ_DATA_LABEL, &typed, 1, nullptr, &label), 0u);
    auto start = std::chrono::steady_clock::now();
    DbgObjectProp retype{DBG_PROP_BASE_TYPE, &data8};
    for (DbgObject label : labels)
        ASSERT_EQ(Dbg_add_object_prop(label, &retype, 1), 0u);
    EXPECT_LT(SecondsSince(start), 2.0);
}

// Whether a label is an entry point is answered without walking the procedure's entry list.
TEST(ObjectScale, EntryPointTestDoesNotScanTheEntryList) {
    constexpr uint32_t kEntries = 200000;
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("e.o"), BRX_FORMAT_ELF64);
    BrxHandle text = m.AddSection(".text", true, 16);
    ASSERT_EQ(m.OpenModule(), 0u);
    ASSERT_EQ(m.OpenSection(text), 0u);
    // Handles are only compared here, so made-up values serve.
    std::vector<BrxHandle> entries(kEntries);
    for (uint32_t i = 0; i < kEntries; ++i)
        entries[i] = 0x10000 + 3 * i;
    DbgEntryList list{entries.data(), kEntries};
    DbgObjectProp props[] = {{DBG_PROP_ENTRY_LIST, &list}};
    DbgObject proc = nullptr;
    ASSERT_EQ(Dbg_create_object(DBG_OBJ_PROCEDURE, props, 1, nullptr, &proc), 0u);
    ASSERT_EQ(Dbg_open_procedure_scope(proc, nullptr), 0u);
    std::vector<CCodeLabelObject *> labels;
    for (uint32_t i = 0; i < kEntries; ++i) {
        BrxHandle symbol = entries[kEntries - 1 - i] + (i % 2); // every other one is no entry
        DbgObjectProp prop{DBG_PROP_SYMBOL, &symbol};
        DbgObject label = nullptr;
        ASSERT_EQ(Dbg_create_object(DBG_OBJ_CODE_LABEL, &prop, 1, nullptr, &label), 0u);
        labels.push_back(reinterpret_cast<CCodeLabelObject *>(label));
    }
    auto start = std::chrono::steady_clock::now();
    size_t entryPoints = 0;
    for (CCodeLabelObject *label : labels)
        entryPoints += label->IsEntryPoint() ? 1 : 0;
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_EQ(entryPoints, kEntries / 2);
}

} // namespace
