// Objects made by other tools, read through brix: what brix answers must match what
// llvm-readobj reports for the same file.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

using namespace brixtest;

namespace {

// Whether a flag list ("Flags [ (0x6)" and its items) holds `flag`.
bool HasFlag(const readobj::Node &list, const std::string &flag) {
    for (const std::string &item : list.Names())
        if (item.rfind(flag + " ", 0) == 0)
            return true;
    return false;
}

// brix's relocations of `section` against llvm-readobj's list of them: offsets, types, addends
// where the format keeps them, and target names where the list names symbols of the table brix
// reads. Answers how many there were.
size_t ExpectRelocations(BrxHandle section, const readobj::Node &list, bool addends,
                         bool symbolsKnown) {
    std::vector<BrxHandle> relocs = Relocations(section);
    EXPECT_EQ(relocs.size(), list.children.size());
    for (size_t k = 0; k < relocs.size() && k < list.children.size(); ++k) {
        const readobj::Node &e = list.children[k];
        EXPECT_EQ(U64(relocs[k], BRX_KEY_RELOC_OFFSET), readobj::Number(e.Field("Offset")));
        EXPECT_EQ(U32(relocs[k], BRX_KEY_RELOC_TYPE), readobj::Number(e.Field("Type")));
        if (addends) {
            EXPECT_EQ(U64(relocs[k], BRX_KEY_RELOC_ADDEND), readobj::Number(e.Field("Addend")));
        }
        std::string symbol = readobj::WithoutNumber(e.Field("Symbol"));
        if (symbolsKnown && symbol != "-") {
            EXPECT_EQ(SymbolName(U32(relocs[k], BRX_KEY_RELOC_TARGET)), symbol);
        }
    }
    return relocs.size();
}

// Architecture-neutral assembly: code bytes, two functions, data words that refer to them.
std::string Assembly(const char *wordDirective, const char *extra) {
    std::string text = R"(
    .text
    .globl main_entry
    .type main_entry,@function
main_entry:
    .byte 1,2,3,4,5,6,7,8
    .size main_entry, .-main_entry
helper:
    .byte 9,10,11,12
    .section .text.other,"ax",@progbits
    .globl other
    .type other,@function
other:
    .byte 1,2,3,4
    .size other, 3
    .data
data_word:
    WORD main_entry
    WORD helper + 4
    WORD other
    .bss
    .zero 32
)";
    for (size_t at; (at = text.find("WORD")) != std::string::npos;)
        text.replace(at, 4, wordDirective);
    return text + extra;
}

struct ElfCase {
    const char *name;
    const char *triple;
    const char *word;
    const char *extra; // architecture-specific code (instructions give PC-relative relocations)
    const char *link;  // linker arguments, or null for the relocatable object
    int32_t format;
    uint32_t mode;
    uint32_t machine;
};

const char kX86Calls[] = R"(
    .section .text.calls,"ax",@progbits
    call helper
    movq data_word(%rip), %rax
)";

const ElfCase kElfCases[] = {
    {"x86_64", "x86_64-linux-gnu", ".quad", kX86Calls, nullptr, BRX_FORMAT_ELF64, 0, 62},
    {"i386_rel", "i386-linux-gnu", ".long", "", nullptr, BRX_FORMAT_ELF32, 0, 3},
    {"mips_big_endian", "mips-linux-gnu", ".long", "", nullptr, BRX_FORMAT_ELF32, 0, 8},
    {"ppc64_big_endian", "powerpc64-linux-gnu", ".quad", "", nullptr, BRX_FORMAT_ELF64, 0, 21},
    {"aarch64", "aarch64-linux-gnu", ".quad", "", nullptr, BRX_FORMAT_ELF64, 0, 183},
    {"x86_64_executable", "x86_64-linux-gnu", ".quad", kX86Calls, "-e main_entry", BRX_FORMAT_ELF64,
     1, 62},
    {"x86_64_shared", "x86_64-linux-gnu", ".quad", "", "-shared", BRX_FORMAT_ELF64, 2, 62},
};

class ForeignElf : public ::testing::TestWithParam<ElfCase> {};

TEST_P(ForeignElf, AssemblerObjectMatchesReadobj) {
    const ElfCase &c = GetParam();
    TempDir dir;
    std::string source = Assembly(c.word, c.extra);
    qtest::WriteTextFile(dir.File("t.s"), source);
    CommandResult mc = RunCommand("llvm-mc-14 -filetype=obj -triple " + std::string(c.triple) +
                                  " -g '" + dir.File("t.s") + "' -o '" + dir.File("t.o") + "'");
    ASSERT_EQ(mc.exitCode, 0) << mc.output;
    std::string path = dir.File("t.o");
    if (c.link) {
        path = dir.File("linked");
        CommandResult ld = RunCommand("ld " + std::string(c.link) + " -o '" + path + "' '" +
                                      dir.File("t.o") + "'");
        ASSERT_EQ(ld.exitCode, 0) << ld.output;
    }
    CommandResult dump = RunCommand(
        "llvm-readobj-14 --sections --relocations --expand-relocs --symbols '" + path + "'");
    ASSERT_EQ(dump.exitCode, 0) << dump.output;
    const readobj::Node root = readobj::Parse(dump.output);

    uint32_t mode = 7;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &file, 0), 0);
    EXPECT_EQ(mode, c.mode);
    EXPECT_EQ(U32(file, BRX_KEY_OBJECT_KIND), c.mode);
    EXPECT_EQ(U32(file, BRX_KEY_FORMAT), uint32_t(c.format));
    EXPECT_EQ(U32(file, BRX_KEY_MACHINE), c.machine);

    // Sections with content are offered; the format's tables are not.
    std::vector<const readobj::Node *> all = root.Child("Sections").Children("Section");
    std::vector<BrxHandle> sections = Sections(file);
    size_t offered = 0, symbolTable = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        const readobj::Node *s = all[i];
        std::string type = readobj::WithoutNumber(s->Field("Type"));
        if (type == "SHT_SYMTAB")
            symbolTable = i;
        if (type == "SHT_NULL" || type == "SHT_STRTAB" || type == "SHT_SYMTAB" ||
            type == "SHT_DYNSYM" || type == "SHT_RELA" || type == "SHT_REL" || type == "SHT_GROUP")
            continue;
        std::string name = readobj::WithoutNumber(s->Field("Name"));
        SCOPED_TRACE(name);
        ASSERT_LT(offered, sections.size());
        BrxHandle h = sections[offered++];
        EXPECT_EQ(SectionName(h), name);
        EXPECT_EQ(U64(h, BRX_KEY_SECTION_SIZE), readobj::Number(s->Field("Size")));
        EXPECT_EQ(U64(h, BRX_KEY_SECTION_ADDRESS), readobj::Number(s->Field("Address")));
        EXPECT_EQ((U32(h, BRX_KEY_SECTION_FLAGS) & BRX_SECTION_CODE) != 0,
                  HasFlag(s->Child("Flags"), "SHF_EXECINSTR"));
        EXPECT_EQ(SectionBytes(h).size(), readobj::Number(s->Field("Size")));
    }
    EXPECT_EQ(offered, sections.size());
    // .text, .text.other, .data and .bss; a link merges the two code sections.
    EXPECT_GE(offered, c.link ? 3u : 4u);

    // Symbols in table order (llvm-readobj also lists the null symbol first). In linked objects
    // a symbol's value is an address, brix's offset is relative to its section.
    std::vector<BrxHandle> symbols = Symbols(file);
    std::vector<const readobj::Node *> expected = root.Child("Symbols").Children("Symbol");
    ASSERT_EQ(expected.size(), symbols.size() + 1);
    for (size_t i = 0; i < symbols.size(); ++i) {
        const readobj::Node &e = *expected[i + 1];
        BrxHandle h = symbols[i];
        std::string name = readobj::WithoutNumber(e.Field("Name"));
        SCOPED_TRACE(name);
        std::string type = readobj::WithoutNumber(e.Field("Type"));
        if (type != "Section") { // brix names a section symbol after its section
            EXPECT_EQ(SymbolName(h), name);
        }
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_BINDING),
                  readobj::WithoutNumber(e.Field("Binding")) == "Local" ? 1u : 2u);
        uint32_t expectedType = type == "Function" ? 2 : type == "File" ? 4 : 0;
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_TYPE), expectedType);
        EXPECT_EQ(U64(h, BRX_KEY_SYMBOL_SIZE), readobj::Number(e.Field("Size")));
        std::string section = readobj::WithoutNumber(e.Field("Section"));
        BrxHandle sh = U32(h, BRX_KEY_SYMBOL_SECTION);
        uint64_t value = readobj::Number(e.Field("Value"));
        if (section == "Undefined" || section == "Absolute") {
            EXPECT_EQ(sh, 0u);
            EXPECT_EQ(U64(h, BRX_KEY_SYMBOL_OFFSET), value);
        } else {
            EXPECT_EQ(SectionName(sh), section);
            uint64_t base = c.mode == 0 ? 0 : U64(sh, BRX_KEY_SECTION_ADDRESS);
            EXPECT_EQ(U64(h, BRX_KEY_SYMBOL_OFFSET) + base, value);
        }
    }

    // Relocations, per section they apply to (sh_info); dynamic ones apply to none.
    size_t relocationCount = 0;
    for (const readobj::Node &list : root.Child("Relocations").children) {
        size_t index = size_t(readobj::Number(list.name.substr(list.name.find('(') + 1)));
        const readobj::Node &rel = *all.at(index);
        size_t target = size_t(readobj::Number(rel.Field("Info")));
        if (target == 0)
            continue;
        bool symbolsKnown = readobj::Number(rel.Field("Link")) == symbolTable;
        std::string targetName = readobj::WithoutNumber(all.at(target)->Field("Name"));
        SCOPED_TRACE(targetName);
        BrxHandle section = FindSection(file, targetName.c_str());
        ASSERT_NE(section, 0u);
        relocationCount += ExpectRelocations(section, list, true, symbolsKnown);
    }
    if (c.mode == 0) {
        EXPECT_GE(relocationCount, 3u);
    }
    EXPECT_EQ(_brx_close_file(file), 0);
}

INSTANTIATE_TEST_SUITE_P(Producers, ForeignElf, ::testing::ValuesIn(kElfCases),
                         [](const auto &info) { return std::string(info.param.name); });

const char kSourceMain[] = R"(#include "helper.h"
int add(int a, int b) {
    return a + b;
}
inline int twice(int v) { return v * 2; }
int main(void) {
    int x = add(1, 2);
    return x + helper(3) + twice(x);
}
)";
const char kSourceHelper[] = R"(static int helper(int v) {
    return v * 2;
}
)";

struct CompileCase {
    const char *name;
    const char *flags;
    size_t comdatSections; // at least
};

class ForeignCoff : public ::testing::TestWithParam<CompileCase> {};

TEST_P(ForeignCoff, CompilerObjectMatchesReadobj) {
    TempDir dir;
    qtest::WriteTextFile(dir.File("main.c"), kSourceMain);
    qtest::WriteTextFile(dir.File("helper.h"), kSourceHelper);
    CommandResult cc = RunCommand("cd '" + dir.Path() +
                                  "' && clang-14 --target=x86_64-pc-windows-msvc -g -gcodeview " +
                                  GetParam().flags + " -c main.c -o main.obj");
    ASSERT_EQ(cc.exitCode, 0) << cc.output;
    std::string path = dir.File("main.obj");
    CommandResult dump = RunCommand("llvm-readobj-14 --sections --relocations --expand-relocs "
                                    "--symbols --codeview '" +
                                    path + "'");
    ASSERT_EQ(dump.exitCode, 0) << dump.output;
    const readobj::Node root = readobj::Parse(dump.output);

    uint32_t mode = 7;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &file, 0), 0);
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(U32(file, BRX_KEY_FORMAT), uint32_t(BRX_FORMAT_COFF));
    EXPECT_EQ(U32(file, BRX_KEY_MACHINE), 0x8664u);

    std::vector<BrxHandle> sections = Sections(file);
    std::vector<const readobj::Node *> expectedSections =
        root.Child("Sections").Children("Section");
    ASSERT_EQ(sections.size(), expectedSections.size());
    for (size_t i = 0; i < sections.size(); ++i) {
        const readobj::Node &e = *expectedSections[i];
        SCOPED_TRACE(e.Field("Name"));
        EXPECT_EQ(SectionName(sections[i]), readobj::WithoutNumber(e.Field("Name")));
        EXPECT_EQ(U64(sections[i], BRX_KEY_SECTION_SIZE), readobj::Number(e.Field("RawDataSize")));
        EXPECT_EQ((U32(sections[i], BRX_KEY_SECTION_FLAGS) & BRX_SECTION_CODE) != 0,
                  HasFlag(e.Child("Characteristics"), "IMAGE_SCN_CNT_CODE"));
    }

    // Symbols in table order; a FILE record is offered as a plain symbol named by its file.
    std::vector<BrxHandle> symbols = Symbols(file);
    std::vector<const readobj::Node *> expectedSymbols = root.Child("Symbols").Children("Symbol");
    ASSERT_LE(expectedSymbols.size(), symbols.size());
    std::map<std::string, uint64_t> functionOffsets;
    std::map<std::string, size_t> functionSections;
    size_t comdatSections = 0;
    for (size_t i = 0; i < expectedSymbols.size(); ++i) {
        const readobj::Node &e = *expectedSymbols[i];
        BrxHandle h = symbols[i];
        std::string name = e.Field("Name");
        SCOPED_TRACE(name);
        if (!e.Child("AuxFileRecord").name.empty())
            name = e.Child("AuxFileRecord").Field("FileName");
        EXPECT_EQ(SymbolName(h), name);
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_TYPE),
                  readobj::WithoutNumber(e.Field("ComplexType")) == "Function" ? 2u : 0u);
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_BINDING),
                  readobj::WithoutNumber(e.Field("StorageClass")) == "External" ? 2u : 1u);
        EXPECT_EQ(U64(h, BRX_KEY_SYMBOL_OFFSET), readobj::Number(e.Field("Value")));
        uint64_t number = readobj::Number(e.Field("Section"));
        bool inSection = e.Field("Section").rfind("IMAGE_SYM_", 0) != 0;
        BrxHandle section = U32(h, BRX_KEY_SYMBOL_SECTION);
        EXPECT_EQ(section, inSection ? sections.at(number - 1) : 0u);
        if (inSection) {
            functionOffsets[name] = readobj::Number(e.Field("Value"));
            functionSections[name] = number - 1;
        }
        // The definition record of a COMDAT section carries its selection.
        if (const readobj::Node &def = e.Child("AuxSectionDef"); !def.name.empty()) {
            uint32_t selection = uint32_t(readobj::Number(def.Field("Selection")));
            if (selection == 0)
                continue;
            BrxComdat comdat{};
            ASSERT_EQ(_brx_get_keyed(sections.at(number - 1), BRX_KEY_COMDAT, nullptr, &comdat, 0),
                      0);
            EXPECT_EQ(comdat.selection, selection);
            if (selection == BRX_COMDAT_ASSOCIATIVE) {
                EXPECT_EQ(comdat.section,
                          sections.at(readobj::Number(def.Field("AssocSection")) - 1));
            }
            ++comdatSections;
        }
    }
    EXPECT_GE(comdatSections, GetParam().comdatSections);

    size_t relocationCount = 0;
    for (const readobj::Node &list : root.Child("Relocations").children) {
        size_t number = size_t(readobj::Number(list.name.substr(list.name.find('(') + 1)));
        relocationCount += ExpectRelocations(sections.at(number - 1), list, false, true);
    }
    EXPECT_GE(relocationCount, 6u);

    // Line information: llvm-readobj gives offsets from the function's symbol; brix gives
    // section offsets. Sections are named by their position, since COMDAT ones share a name.
    std::vector<LineRow> expectedRows;
    std::set<std::string> expectedFiles;
    for (const readobj::Node *table : root.Find("FunctionLineTable")) {
        std::string function = table->Field("LinkageName");
        for (const readobj::Node *segment : table->Children("FilenameSegment")) {
            std::string fileName = readobj::WithoutNumber(segment->Field("Filename"));
            expectedFiles.insert(fileName);
            for (const readobj::Node *row : segment->Children())
                expectedRows.push_back(
                    {std::to_string(functionSections.at(function)), fileName,
                     functionOffsets.at(function) + readobj::Number(row->name.substr(1)),
                     uint32_t(readobj::Number(row->Field("LineNumberStart"))),
                     uint32_t(readobj::Number(row->Field("ColStart")))});
        }
    }
    ASSERT_GE(expectedRows.size(), 8u);
    std::vector<LineRow> rows = LineRows(file, true);
    std::sort(rows.begin(), rows.end());
    std::sort(expectedRows.begin(), expectedRows.end());
    EXPECT_EQ(rows, expectedRows);
    // The files the line information names are the source-file symbols.
    std::vector<std::string> files = SourceFiles(file);
    EXPECT_EQ(std::set<std::string>(files.begin(), files.end()), expectedFiles);
    EXPECT_EQ(files.size(), 2u);
    EXPECT_EQ(_brx_close_file(file), 0);
}

// COFF states a function's size only in a function-definition record, which compilers seldom
// write; the section definition that follows a section symbol is no size.
TEST(ForeignCoffSymbols, FunctionDefinitionRecordGivesTheSize) {
    TempDir dir;
    const std::string yaml = R"(--- !COFF
header: { Machine: IMAGE_FILE_MACHINE_AMD64, Characteristics: [ ] }
sections:
  - Name: .text
    Characteristics: [ IMAGE_SCN_CNT_CODE, IMAGE_SCN_MEM_EXECUTE, IMAGE_SCN_MEM_READ ]
    Alignment: 16
    SectionData: '9090909090C3C3C3'
symbols:
  - { Name: .text, Value: 0, SectionNumber: 1, SimpleType: IMAGE_SYM_TYPE_NULL,
      ComplexType: IMAGE_SYM_DTYPE_NULL, StorageClass: IMAGE_SYM_CLASS_STATIC,
      SectionDefinition: { Length: 8, NumberOfRelocations: 0, NumberOfLinenumbers: 0,
                           CheckSum: 0, Number: 1 } }
  - { Name: sized, Value: 0, SectionNumber: 1, SimpleType: IMAGE_SYM_TYPE_NULL,
      ComplexType: IMAGE_SYM_DTYPE_FUNCTION, StorageClass: IMAGE_SYM_CLASS_EXTERNAL,
      FunctionDefinition: { TagIndex: 0, TotalSize: 6, PointerToLinenumber: 0,
                            PointerToNextFunction: 0 } }
  - { Name: unsized, Value: 6, SectionNumber: 1, SimpleType: IMAGE_SYM_TYPE_NULL,
      ComplexType: IMAGE_SYM_DTYPE_FUNCTION, StorageClass: IMAGE_SYM_CLASS_STATIC }
...
)";
    qtest::WriteTextFile(dir.File("f.yaml"), yaml);
    CommandResult made =
        RunCommand("yaml2obj-14 '" + dir.File("f.yaml") + "' -o '" + dir.File("f.obj") + "'");
    ASSERT_EQ(made.exitCode, 0) << made.output;
    uint32_t mode = 7;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(dir.File("f.obj").c_str(), &mode, &file, 0), 0);
    std::map<std::string, uint64_t> sizes;
    for (BrxHandle symbol : Symbols(file))
        sizes[SymbolName(symbol)] = U64(symbol, BRX_KEY_SYMBOL_SIZE);
    EXPECT_EQ(sizes, (std::map<std::string, uint64_t>{{".text", 0}, {"sized", 6}, {"unsized", 0}}));
    EXPECT_EQ(_brx_close_file(file), 0);
}

// With function sections every function has a COMDAT code section and its own associated
// .debug$S; without them the functions share .text and their lines start inside it.
INSTANTIATE_TEST_SUITE_P(Layouts, ForeignCoff,
                         ::testing::Values(CompileCase{"SharedText", "", 0},
                                           CompileCase{"FunctionSections", "-ffunction-sections",
                                                       3}),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
