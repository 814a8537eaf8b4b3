// Objects written by brix, read by binutils: the ELF writer's output must be accepted without a
// complaint and must show what was written.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <regex>

using namespace brixtest;

namespace {

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
