// Byte-exact DWARF entries and CodeView records of each object kind, written by the objects
// themselves into sections of a file made through brix.
#include "frame/BinarySection.h"
#include "objects/LabelObjects.h"
#include "objects/ProcObject.h"
#include "objects/ValueObjects.h"
#include "support/Bytes.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using qtest::Bytes;
using qtest::Concat;
using qtest::Text;

Bytes Zeros(size_t n) {
    return Bytes(n, 0);
}

CBaseLangObject *Object(DbgObject handle) {
    return reinterpret_cast<CBaseLangObject *>(handle);
}

class EntryBytes : public ::testing::TestWithParam<int32_t> {
protected:
    EntryBytes() : m(m_Dir.File("e.o"), GetParam()) {
        text = m.AddSection(".text", true, 0x100);
        EXPECT_EQ(m.OpenModule(), 0u);
        EXPECT_EQ(m.OpenSection(text), 0u);
    }
    unsigned Width() const { return GetParam() == BRX_FORMAT_ELF32 ? 4 : 8; }

    // The entry that the object writes as the first entry of a fresh .debug_info, and the
    // relocations made with it; its abbreviation is the first declared, code 1.
    Bytes Entry(DbgObject handle,
                std::vector<qtest::ModuleBuilder::Relocation> *relocations = nullptr) {
        CBinarySection info(m.File(), GetParam(), ".debug_info", 4, 0, 1);
        CBinarySection abbrev(m.File(), GetParam(), ".debug_abbrev", 4, 0, 1);
        CBaseLangObject *object = Object(handle);
        EXPECT_TRUE(object->ComputeDwarfSize().Ok());
        EXPECT_TRUE(object->WriteDwarf(info, abbrev).Ok());
        EXPECT_EQ(info.Size(), object->RecordLength());
        if (relocations)
            *relocations = m.Relocations(info.Section());
        return m.SectionBytes(info.Section());
    }

    qtest::TempDir m_Dir;
    qtest::ModuleBuilder m;
    BrxHandle text = 0;
};

TEST_P(EntryBytes, ConstantCarriesItsValueAsABlockAndATypeReference) {
    int16_t five = 5;
    DbgObject k = nullptr;
    ASSERT_EQ(m.Constant("X", 4, &five, &k), 0u);
    static_cast<CConstantObject *>(Object(k))->m_TypeRef.m_nOffset = 0x1122;
    EXPECT_EQ(Entry(k), Concat({{1}, Text("X"), {2, 5, 0}, {0x22, 0x11, 0, 0, 0, 0, 0, 0}}));
}

TEST_P(EntryBytes, RegisterSymbolIsLocatedInItsDwarfRegister) {
    DbgObject r = nullptr;
    ASSERT_EQ(m.Register("R", 5, 200, &r), 0u);
    EXPECT_EQ(Entry(r), (Bytes{1, 'R', 0, 0x03, 0x90, 0xC7, 0x01}));
}

TEST_P(EntryBytes, CodeLabelHasAnAddressOfTheUnitsWidthAndItsBinding) {
    BrxHandle global = m.AddSymbol("label_0010", text, 0x10, true);
    BrxHandle local = m.AddSymbol(".local", text, 0x20, false);
    DbgObject g = nullptr, l = nullptr;
    ASSERT_EQ(m.CodeLabel(global, &g), 0u);
    ASSERT_EQ(m.CodeLabel(local, &l), 0u);
    Bytes first = Entry(g);
    EXPECT_EQ(first, Concat({{1}, Text("label_0010"), Zeros(Width()), {1}}));
    EXPECT_EQ(first.size(), 12u + Width() + 1) << "21 bytes under ELF64";
    // A label outside a procedure keeps its leading dot.
    std::vector<qtest::ModuleBuilder::Relocation> relocations;
    EXPECT_EQ(Entry(l, &relocations), Concat({{1}, Text(".local"), Zeros(Width()), {0}}));
    ASSERT_EQ(relocations.size(), 1u);
    EXPECT_EQ(relocations[0].offset, 8u) << "code, name and NUL before the address";
    EXPECT_EQ(relocations[0].target, local);
}

TEST_P(EntryBytes, DataLabelsWithAndWithoutType) {
    BrxHandle typedSymbol = m.AddSymbol("buffer", text, 0x40, false);
    BrxHandle plainSymbol = m.AddSymbol("flag", text, 0x48, true);
    DbgObject typed = nullptr, plain = nullptr;
    ASSERT_EQ(m.DataLabel(typedSymbol, 6, &typed), 0u);
    ASSERT_EQ(m.DataLabel(plainSymbol, 0, &plain), 0u);
    static_cast<CDataLabelObject *>(Object(typed))->m_TypeRef.m_nOffset = 0x77;
    Bytes entry = Entry(typed);
    EXPECT_EQ(entry,
              Concat({{1}, Text("buffer"), Zeros(Width()), {0x77, 0, 0, 0, 0, 0, 0, 0}, {0}}));
    if (GetParam() == BRX_FORMAT_ELF64) {
        EXPECT_EQ(entry.size(), 25u);
    }
    // An untyped one is a plain label entry: name, address, external flag.
    ASSERT_TRUE(Object(plain)->ComputeDwarfSize().Ok());
    EXPECT_EQ(Object(plain)->RecordLength(), 1u + 5 + Width() + 1);
}

TEST_P(EntryBytes, ProcedureEntryAndItsEndSymbol) {
    BrxHandle main = m.AddSymbol(".main", text, 0x10);
    DbgObject proc = nullptr;
    ASSERT_EQ(m.OpenProcedure({main}, 0x10, 0x30, nullptr, &proc, nullptr, 5), 0u);
    auto *p = static_cast<CProcObject *>(Object(proc));
    p->m_nSibling = 0x99;
    std::vector<qtest::ModuleBuilder::Relocation> relocations;
    Bytes entry = Entry(proc, &relocations);
    // Sibling, name without its dot, low and high address, external, return-address block.
    EXPECT_EQ(entry, Concat({{1, 0x99, 0, 0, 0, 0, 0, 0, 0},
                             Text("main"),
                             Zeros(2 * Width()),
                             {1, 0x02, 0x90, 0x04}}));
    if (GetParam() == BRX_FORMAT_ELF64) {
        EXPECT_EQ(entry.size(), 34u);
    }
    ASSERT_EQ(relocations.size(), 2u);
    EXPECT_EQ(relocations[0].offset, 14u);
    EXPECT_EQ(relocations[0].target, main);
    EXPECT_EQ(relocations[1].offset, 14u + Width());
    // The end symbol stands at the procedure's end offset.
    BrxFindSymbol find{BRX_FIRST, BRX_KEY_SYMBOL_NAME, "$$$00001"};
    BrxHandle end = 0;
    ASSERT_EQ(_brx_get_keyed(m.SymbolTable(), BRX_KEY_FIND_SYMBOL, &find, &end, 0), 0);
    EXPECT_EQ(relocations[1].target, end);
    uint64_t offset = 0;
    ASSERT_EQ(_brx_get_keyed(end, BRX_KEY_SYMBOL_OFFSET, nullptr, &offset, 0), 0);
    EXPECT_EQ(offset, 0x30u);
    uint32_t type = BRX_SYMBOL_FUNCTION;
    ASSERT_EQ(_brx_get_keyed(end, BRX_KEY_SYMBOL_TYPE, nullptr, &type, 0), 0);
    EXPECT_EQ(type, uint32_t(BRX_SYMBOL_PLAIN)); // a place, not a function
}

INSTANTIATE_TEST_SUITE_P(Elf, EntryBytes, ::testing::Values(BRX_FORMAT_ELF32, BRX_FORMAT_ELF64),
                         [](const ::testing::TestParamInfo<int32_t> &info) {
                             return info.param == BRX_FORMAT_ELF32 ? "Elf32" : "Elf64";
                         });

// ---- CodeView records ------------------------------------------------------------------------

class RecordBytes : public ::testing::Test {
protected:
    RecordBytes() : m(m_Dir.File("c.o"), BRX_FORMAT_COFF) {
        text = m.AddSection(".text", true, 0x100);
        EXPECT_EQ(m.OpenModule(), 0u);
        EXPECT_EQ(m.OpenSection(text), 0u);
    }
    Bytes Record(DbgObject handle) {
        CBinarySection symbols(m.File(), BRX_FORMAT_COFF, ".debug$S", 4, 4, 1,
                               CBinarySection::LowBuffer{0});
        CBinarySection types(m.File(), BRX_FORMAT_COFF, ".debug$T", 4, 4, 1,
                             CBinarySection::LowBuffer{0});
        EXPECT_TRUE(Object(handle)->WriteCodeView(symbols, types).Ok());
        return m.SectionBytes(symbols.Section());
    }

    qtest::TempDir m_Dir;
    qtest::ModuleBuilder m;
    BrxHandle text = 0;
};

TEST_F(RecordBytes, RegisterRecord) {
    DbgObject r = nullptr;
    ASSERT_EQ(m.Register("R", 5, 200, &r), 0u);
    EXPECT_EQ(Record(r), (Bytes{0x0A, 0, 0x06, 0x11, 0x22, 0, 0, 0, 0x47, 0x08, 'R', 0}));
}

// Each kind's record, by the length its name and value give it; the length field counts all but
// itself.
TEST_F(RecordBytes, EachKindHasTheLengthOfItsLayout) {
    BrxHandle main = m.AddSymbol("main", text, 0);
    DbgObject proc = nullptr, label = nullptr, typed = nullptr, untyped = nullptr;
    DbgObject minusOne = nullptr, shortValue = nullptr;
    ASSERT_EQ(m.OpenProcedure({main}, 0, 0x20, nullptr, &proc), 0u);
    uint16_t flags = 0xFFFF;
    DbgObjectProp prop{DBG_PROP_PROC_FLAGS, &flags};
    ASSERT_EQ(Dbg_add_object_prop(proc, &prop, 1), 0u);
    ASSERT_EQ(m.CodeLabel(m.AddSymbol("label_0010", text, 0x10), &label), 0u);
    ASSERT_EQ(m.DataLabel(m.AddSymbol("buffer", text, 0x40), 5, &typed), 0u);
    ASSERT_EQ(m.DataLabel(m.AddSymbol(".flag", text, 0x48), 0, &untyped), 0u);
    const int32_t minus1 = -1;
    const int16_t minus300 = -300;
    ASSERT_EQ(m.Constant("K", 6, &minus1, &minusOne), 0u);
    ASSERT_EQ(m.Constant("K", 4, &minus300, &shortValue), 0u);
    const struct {
        const char *what;
        DbgObject object;
        size_t size;
        uint32_t typeIndex; // at offset 4, where the kind has one
    } cases[] = {
        {"a procedure named main", proc, 45, 0},
        {"a label with a 10-character name", label, 22, 0},
        {"a typed data label with a 6-character name", typed, 21, 0x22},
        {"an untyped data label keeps its dot and has the void type", untyped, 20, 0x03},
        {"a constant whose value fits LF_CHAR", minusOne, 13, 0x12},
        {"a constant whose value needs LF_SHORT", shortValue, 14, 0x11},
    };
    for (const auto &c : cases) {
        const Bytes record = Record(c.object);
        ASSERT_EQ(record.size(), c.size) << c.what;
        EXPECT_EQ(qtest::U16(record, 0), c.size - 2) << c.what;
        if (c.typeIndex) {
            EXPECT_EQ(qtest::U32(record, 4), c.typeIndex) << c.what;
        }
    }
    const Bytes p = Record(proc);
    EXPECT_EQ(p[16], 0x20) << "length";
    EXPECT_EQ(p[24], 0x20) << "debug end defaults to the length";
    EXPECT_EQ(p[38], 0x1F) << "five flag bits";
}

// ---- Register numbers ------------------------------------------------------------------------

TEST(RegisterNumbers, EveryRangeEdgeTranslates) {
    struct Case {
        uint32_t reg;
        uint16_t codeView, dwarf;
    } cases[] = {
        {0, 0, 0},        {1, 1024, 0},     {128, 1151, 127},  {129, 2048, 128},  {256, 2175, 255},
        {257, 3072, 328}, {384, 3199, 455}, {385, 512, 320},   {392, 519, 327},   {393, 768, 768},
        {394, 4096, 456}, {521, 4223, 583}, {522, 1019, 1019}, {523, 1017, 1017}, {524, 1016, 584},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(ToCodeViewRegister(c.reg), c.codeView) << c.reg;
        EXPECT_EQ(ToDwarfRegister(c.reg), c.dwarf) << c.reg;
    }
}

} // namespace
