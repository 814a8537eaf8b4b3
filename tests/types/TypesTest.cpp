// Basic and procedure types: the API, the table of basic types, their DWARF entries and the
// CodeView records of procedure types.
#include "frame/BinarySection.h"
#include "support/ModuleBuilder.h"
#include "types/DebugTypes.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

// Basic types are made once per code; procedure types check their kind, then their return type,
// and every call makes a new one.
TEST(Types, ApiChecksCodesKindsAndReturnTypes) {
    Dbg_init(0);
    DbgType data4 = nullptr, again = nullptr, proc = nullptr, another = nullptr, out = nullptr;
    ASSERT_EQ(Dbg_base_type(5, &data4), 0u);
    ASSERT_EQ(Dbg_base_type(5, &again), 0u);
    EXPECT_EQ(data4, again);
    for (int32_t bad : {0, -1, 13})
        EXPECT_EQ(Dbg_base_type(bad, &out), DBG_ERR_BAD_TYPE) << bad;
    ASSERT_EQ(Dbg_procedure_type(data4, 1, &proc), 0u);
    ASSERT_EQ(Dbg_procedure_type(data4, 1, &another), 0u);
    EXPECT_NE(proc, another);
    EXPECT_EQ(Dbg_procedure_type(proc, 3, &out), DBG_ERR_BAD_PROCEDURE_KIND);
    EXPECT_EQ(Dbg_procedure_type(proc, 1, &out), DBG_ERR_BAD_TYPE);
    EXPECT_EQ(Dbg_procedure_type(nullptr, 2, &out), DBG_ERR_BAD_TYPE);
    int notAType = 0;
    EXPECT_EQ(Dbg_procedure_type(reinterpret_cast<DbgType>(&notAType), 2, &out), DBG_ERR_BAD_TYPE);
    EXPECT_EQ(out, nullptr);
    Dbg_finish();
}

// Basic types: name, byte size and encoding of each code, and their primitive CodeView index.
TEST(Types, BasicTypeTable) {
    struct Case {
        int32_t code;
        const char *name;
        int16_t size, encoding;
        uint32_t index;
    } cases[] = {
        {1, "data1", 1, 8, 0x20},  {2, "data1", 1, 6, 0x10},    {3, "data2", 2, 7, 0x21},
        {4, "data2", 2, 5, 0x11},  {5, "data4", 4, 7, 0x22},    {6, "data4", 4, 5, 0x12},
        {7, "data8", 8, 7, 0x77},  {8, "data8", 8, 5, 0x76},    {9, "real4", 4, 4, 0x40},
        {10, "real8", 8, 4, 0x41}, {11, "real10", 10, 4, 0x42}, {12, "void", 0, 1, 0x03},
    };
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("t.o"), BRX_FORMAT_COFF);
    CBinarySection types(m.File(), BRX_FORMAT_COFF, ".debug$T", 4, 4, 1,
                         CBinarySection::LowBuffer{4});
    for (const Case &c : cases) {
        CDebugBasicType *type = BasicType(c.code);
        ASSERT_NE(type, nullptr);
        EXPECT_EQ(type->Name(), c.name);
        EXPECT_EQ(type->ByteSize(), c.size) << c.code;
        EXPECT_EQ(type->Encoding(), c.encoding) << c.code;
        uint32_t index = 0;
        ASSERT_TRUE(type->GetTypeIndex(types, index).Ok());
        EXPECT_EQ(index, c.index) << c.code;
    }
    EXPECT_EQ(types.Size(), 0u) << "basic types write no record";
}

// A procedure type takes two indices, its argument list's and its own, on first use only.
TEST(Types, ProcedureTypeRecordsAreWrittenOnFirstUse) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("t.o"), BRX_FORMAT_COFF);
    DbgType data4 = nullptr, p1 = nullptr, p2 = nullptr;
    ASSERT_EQ(Dbg_base_type(5, &data4), 0u);
    ASSERT_EQ(Dbg_procedure_type(data4, 1, &p1), 0u);
    ASSERT_EQ(Dbg_procedure_type(data4, 2, &p2), 0u);
    CBinarySection types(m.File(), BRX_FORMAT_COFF, ".debug$T", 4, 4, 1,
                         CBinarySection::LowBuffer{4});
    ASSERT_TRUE(types.StartSubsection(CV_SIGNATURE).Ok());
    uint32_t index = 0;
    ASSERT_TRUE(FromHandle(p1)->GetTypeIndex(types, index).Ok());
    EXPECT_EQ(index, 0x1001u);
    ASSERT_TRUE(FromHandle(p1)->GetTypeIndex(types, index).Ok());
    EXPECT_EQ(index, 0x1001u);
    ASSERT_TRUE(FromHandle(p2)->GetTypeIndex(types, index).Ok());
    EXPECT_EQ(index, 0x1003u);
    Bytes expected = {4,    0,    0,    0, // signature
                      0x06, 0x00, 0x01, 0x12, 0,    0, 0, 0, 0x0e, 0x00, 0x08, 0x10,
                      0x22, 0,    0,    0,    0x0d, 0, 0, 0, 0x00, 0x10, 0,    0,
                      0x06, 0x00, 0x01, 0x12, 0,    0, 0, 0, 0x0e, 0x00, 0x08, 0x10,
                      0x22, 0,    0,    0,    0x00, 0, 0, 0, 0x02, 0x10, 0,    0};
    EXPECT_EQ(m.SectionBytes(".debug$T"), expected);
}

TEST(Types, BaseTypeEntries) {
    qtest::TempDir dir;
    qtest::ModuleBuilder m(dir.File("t.o"), BRX_FORMAT_ELF64);
    CBinarySection info(m.File(), BRX_FORMAT_ELF64, ".debug_info", 4, 0, 1);
    CBinarySection abbrev(m.File(), BRX_FORMAT_ELF64, ".debug_abbrev", 4, 0, 1);
    for (int32_t code : {5, 12}) {
        CDebugBasicType *type = BasicType(code);
        ASSERT_TRUE(type->ComputeDwarfSize().Ok());
        ASSERT_TRUE(type->WriteDwarf(info, abbrev).Ok());
    }
    EXPECT_EQ(m.SectionBytes(".debug_info"),
              (Bytes{1, 'd', 'a', 't', 'a', '4', 0, 4, 7, 1, 'v', 'o', 'i', 'd', 0, 0, 1}));
    EXPECT_EQ(m.SectionBytes(".debug_abbrev"),
              (Bytes{1, 0x24, 0x00, 0x03, 0x08, 0x0b, 0x0d, 0x3e, 0x0d, 0x00, 0x00}));
}

} // namespace
