// Objects written by brix, read by other tools and read back through brix. COFF objects carry
// CodeView line information as Quillet lays it out and are shown to llvm-readobj with the machine
// field cleared, since no tool here knows machine 0x0200. Counts too large for their 16-bit
// fields (COFF relocations, ELF sections) take the format's escape, which binutils and LLVM read.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <regex>

using namespace brixtest;

namespace {

std::string WithoutMachine(const TempDir &dir, const std::string &path) {
    std::vector<uint8_t> bytes = ReadFileBytes(path);
    bytes[0] = bytes[1] = 0;
    std::string copy = dir.File("no-machine.obj");
    WriteBytes(copy, bytes);
    return copy;
}

TEST(CoffConsumer, ReadobjAcceptsAndShowsTheObjectAndItsLineTables) {
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteCodeViewSample(path, false);
    CommandResult r = RunCommand(
        "llvm-readobj-14 --file-headers --sections --relocations --symbols --codeview '" +
        WithoutMachine(dir, path) + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(ConsumerComplaints(r.output).empty()) << r.output;
    for (const char *shown : {
             R"(SectionCount: 4)",
             R"(Name: \.text \()",
             R"(Name: \.text\$inline_fn)",
             R"(Name: \.debug\$S \()",
             R"(Selection: Any \(0x2\))",
             R"(Selection: Associative \(0x5\)\s+AssocSection: \.text\$inline_fn \(2\))",
             R"(FileName: unit\.asm)",
             R"(Name: inline_fn\s+Value: 4\s+Section: \.text\$inline_fn \(2\)\s+BaseType: Null)"
             R"( \(0x0\)\s+ComplexType: Function \(0x2\)\s+StorageClass: External)",
             R"(Name: main_fn\s+Value: 0\s+Section: \.text \(1\))",
             R"(Section \(3\) \.debug\$S \{\s+0x[0-9A-F]+ \S+ \.text \(\d+\)\s+0x[0-9A-F]+ \S+)"
             R"( \.text \(\d+\))",
             R"(Section \(4\) \.debug\$S \{\s+0x[0-9A-F]+ \S+ inline_fn)",
         })
        EXPECT_TRUE(std::regex_search(r.output, std::regex(shown))) << shown << "\n" << r.output;

    std::vector<std::string> tables;
    const readobj::Node root = readobj::Parse(r.output);
    for (const readobj::Node *table : root.Find("FunctionLineTable")) {
        std::string text = table->Field("LinkageName");
        for (const readobj::Node *segment : table->Children("FilenameSegment"))
            for (const readobj::Node *row : segment->Children())
                text += " " + readobj::WithoutNumber(segment->Field("Filename")) + row->name + "=" +
                        row->Field("LineNumberStart");
        tables.push_back(text);
    }
    // llvm-readobj shows pair offsets from the relocated symbol, without the header's offset.
    std::vector<std::string> expected = {
        ".text unit.asm+0x0=10 unit.asm+0x4=11 unit.asm+0x8=12 inc.inc+0x10=3",
        "inline_fn inc.inc+0x0=20 inc.inc+0x3=21"};
    EXPECT_EQ(tables, expected) << r.output;
}

// The COMDAT section's blocks name their files through its own checksum table, which here
// differs from the main one.
TEST(CoffConsumer, LineBlocksReadBackThroughBrix) {
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteCodeViewSample(path, true);
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &file, 0), 0);
    const std::vector<LineRow> expected = {
        {".text", "unit.asm", 0, 10, 0},          {".text", "unit.asm", 4, 11, 0},
        {".text", "unit.asm", 8, 12, 0},          {".text", "inc.inc", 16, 3, 0},
        {".text$inline_fn", "inc.inc", 6, 20, 5}, {".text$inline_fn", "inc.inc", 9, 21, 7}};
    EXPECT_EQ(LineRows(file), expected);
    // The source files are the files of the line information, once each, in first-seen order;
    // the symbol table's FILE record is a plain symbol.
    EXPECT_EQ(SourceFiles(file), (std::vector<std::string>{"unit.asm", "inc.inc"}));
    EXPECT_EQ(_brx_close_file(file), 0);
}

// More relocations than the 16-bit count holds: the count moves into the first record.
TEST(CoffConsumer, OverflowingRelocationCountIsReadByReadobjAndByBrix) {
    TempDir dir;
    std::string path = dir.File("relocs.obj");
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_COFF, &file), 0);
    BrxHandle text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
    BrxHandle debug = AddSection(file, ".debug$S", BRX_SECTION_DEBUG, 4, 1);
    const uint32_t count = 70000;
    AppendBytes(debug, std::vector<uint8_t>(4 * count, 0));
    for (uint32_t i = 0; i < count; ++i)
        AddRelocation(debug, 14, text, 4 * uint64_t(i));
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);

    std::string readable = WithoutMachine(dir, path);
    CommandResult r = RunCommand("llvm-readobj-14 --sections --relocations '" + readable +
                                 "' | grep -c ' Unknown .text ('");
    EXPECT_EQ(r.output, std::to_string(count) + "\n");
    r = RunCommand("llvm-readobj-14 --sections '" + readable + "'");
    EXPECT_TRUE(ConsumerComplaints(r.output).empty()) << r.output;
    EXPECT_NE(r.output.find("IMAGE_SCN_LNK_NRELOC_OVFL"), std::string::npos);

    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
    std::vector<BrxHandle> relocs = Relocations(FindSection(read, ".debug$S"));
    ASSERT_EQ(relocs.size(), count);
    EXPECT_EQ(U64(relocs.back(), BRX_KEY_RELOC_OFFSET), 4 * uint64_t(count - 1));
    EXPECT_EQ(_brx_close_file(read), 0);
}

// More sections than a 16-bit section number holds: the counts move into the null section
// header and symbols of the late sections into .symtab_shndx.
TEST(ElfManySections, ExtendedNumberingIsReadByReadelfAndByBrix) {
    TempDir dir;
    std::string path = dir.File("many.o");
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_ELF64, &file), 0);
    const int count = 70000;
    std::vector<BrxHandle> sections;
    for (int i = 0; i < count; ++i) {
        std::string name = ".text." + std::to_string(i);
        sections.push_back(AddSection(file, name.c_str(), BRX_SECTION_CODE, 1));
    }
    AppendBytes(sections.back(), {0xc3, 0xc3});
    AddSymbol(file, "late_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, sections.back(), 1);
    AddSymbol(file, "early_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, sections.front(), 0);
    AddRelocation(sections[100], 39, sections[count - 2], 0);
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);

    CommandResult r = RunCommand("readelf -h -s -r -W '" + path + "'");
    ASSERT_EQ(r.exitCode, 0);
    EXPECT_TRUE(ConsumerComplaints(r.output).empty()) << r.output.substr(0, 4000);
    // The null section, the sections, one RELA section and the four tables; the name table's
    // index is in the null section header too.
    for (const char *shown :
         {R"(Number of section headers:\s+0 \(70006\)\s+)"
          R"(Section header string table index: 65535 \(70005\))",
          R"(FUNC\s+GLOBAL\s+DEFAULT\s+70001 late_fn)", R"(\.text\.69998 \+ 0)"})
        EXPECT_TRUE(std::regex_search(r.output, std::regex(shown))) << shown;

    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
    std::vector<BrxHandle> readSections = Sections(read);
    ASSERT_EQ(readSections.size(), size_t(count));
    std::vector<BrxHandle> symbols = Symbols(read);
    ASSERT_FALSE(symbols.empty());
    BrxHandle late = symbols[symbols.size() - 2];
    EXPECT_EQ(SymbolName(late), "late_fn");
    EXPECT_EQ(U32(late, BRX_KEY_SYMBOL_SECTION), readSections.back());
    EXPECT_EQ(SymbolName(symbols.back()), "early_fn");
    EXPECT_EQ(U32(symbols.back(), BRX_KEY_SYMBOL_SECTION), readSections.front());
    std::vector<BrxHandle> relocs = Relocations(readSections[100]);
    ASSERT_EQ(relocs.size(), 1u);
    EXPECT_EQ(U32(U32(relocs[0], BRX_KEY_RELOC_TARGET), BRX_KEY_SYMBOL_SECTION),
              readSections[count - 2]);
    EXPECT_EQ(_brx_close_file(read), 0);
}

} // namespace
