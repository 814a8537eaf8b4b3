// Objects written through the keyed interface and opened again must answer what was written:
// sections with their flags and bytes, COMDAT selections, symbols and relocations. brix's reading
// is held against llvm-readobj's on foreign objects, so what it reads back is what the file says.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

using namespace brixtest;

namespace {

struct FormatCase {
    const char *name;
    int32_t format;
    uint32_t sectionRelocation; // the relocation Quillet uses against a section
    uint32_t addressRelocation; // the one it uses for an address
    bool keepsAddends;
    uint32_t defaultMachine;
};

const FormatCase kFormats[] = {
    {"elf32", BRX_FORMAT_ELF32, 37, 37, true, 50},
    {"elf64", BRX_FORMAT_ELF64, 37, 39, true, 50},
    {"coff", BRX_FORMAT_COFF, 11, 14, false, 0x200},
};

struct SectionSpec {
    const char *name;
    uint16_t flags;
    uint32_t alignment;
    std::vector<uint8_t> bytes;
};

struct SymbolSpec {
    const char *name;
    uint32_t binding;
    uint32_t type;
    const char *section; // null: none
    uint64_t offset;
};

std::vector<uint8_t> Pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = uint8_t(seed + i * 7);
    return v;
}

const std::vector<SectionSpec> kSections = {
    {".text", BRX_SECTION_CODE, 16, Pattern(48, 1)},
    {".text$inline_function", BRX_SECTION_CODE, 4, Pattern(12, 2)},
    {".debug$S", BRX_SECTION_DEBUG, 4, Pattern(20, 3)},
    {".debug_line", 0, 1, Pattern(64, 4)},
    {".data", 0, 8, {}},
};

const std::vector<SymbolSpec> kSymbols = {
    {"unit.asm", BRX_BINDING_LOCAL, BRX_SYMBOL_SOURCE_FILE, nullptr, 0},
    {"main_function", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, ".text", 16},
    {"inline_function", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, ".text$inline_function", 0},
    {"local_label", BRX_BINDING_LOCAL, BRX_SYMBOL_PLAIN, ".text", 40},
    {"imported", BRX_BINDING_GLOBAL, BRX_SYMBOL_PLAIN, nullptr, 0},
};

class RoundTrip : public ::testing::TestWithParam<FormatCase> {};

TEST_P(RoundTrip, ReadingBackAnswersWhatWasWritten) {
    const FormatCase &c = GetParam();
    TempDir dir;
    std::string path = dir.File(std::string(c.name) + ".o");

    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), c.format, &file), 0);
    std::map<std::string, BrxHandle> written;
    for (const SectionSpec &s : kSections) {
        BrxHandle h = AddSection(file, s.name, s.flags, s.alignment, s.flags ? 0 : 1);
        if (!s.bytes.empty())
            AppendBytes(h, s.bytes);
        written[s.name] = h;
    }
    BrxComdat any{BRX_COMDAT_ANY, 0};
    ASSERT_EQ(_brx_set_value(written[".text$inline_function"], BRX_KEY_COMDAT, &any, 0), 0);
    BrxComdat tie{BRX_COMDAT_ASSOCIATIVE, written[".text$inline_function"]};
    ASSERT_EQ(_brx_set_value(written[".debug$S"], BRX_KEY_COMDAT, &tie, 0), 0);
    std::map<std::string, BrxHandle> symbols;
    for (const SymbolSpec &s : kSymbols)
        symbols[s.name] = AddSymbol(file, s.name, s.binding, s.type,
                                    s.section ? written[s.section] : 0, s.offset);
    BrxHandle line = written[".debug_line"];
    // Made out of offset order: the file holds them sorted by offset.
    AddRelocation(line, c.addressRelocation, symbols["main_function"], 24, c.keepsAddends ? -4 : 0);
    AddRelocation(line, c.sectionRelocation, written[".text"], 8);
    AddRelocation(line, c.addressRelocation, written[".text"], 12);
    AddRelocation(written[".debug$S"], c.addressRelocation, written[".text$inline_function"], 4);
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);

    // binutils reads an ELF object without a complaint and shows what brix is not asked about
    // (allocation and execution flags, the group of a COMDAT section and what it holds) and the
    // symbol and relocation fields as it decodes them.
    if (c.format != BRX_FORMAT_COFF) {
        CommandResult r = RunCommand("readelf -a -W '" + path + "'");
        EXPECT_TRUE(ConsumerComplaints(r.output).empty()) << r.output;
        for (const char *shown : {
                 R"(\] \.text\s+PROGBITS\s+\S+ \S+ 000030 00\s+AX )",
                 R"(\] \.debug_line\s+PROGBITS\s+\S+ \S+ 000040 00\s+0 )",
                 R"(\] \.text\$inline_function\s+PROGBITS.* AXG )",
                 R"(\] \.rela\.debug_line\s+RELA.* I )",
                 R"(COMDAT group section \[\s*\d+\] `\.group' \[inline_function\] contains 3)",
                 R"(\[\s*\d+\]\s+\.debug\$S\n)",
                 R"(\[\s*\d+\]\s+\.rela\.debug\$S\n)",
                 R"(FILE\s+LOCAL\s+DEFAULT\s+ABS unit\.asm)",
                 R"(0+10\s+0 FUNC\s+GLOBAL\s+DEFAULT\s+\d+ main_function)",
                 R"(NOTYPE\s+GLOBAL\s+DEFAULT\s+UND imported)",
                 R"(0+18\s+\S+\s+\S+\s+0+10\s+main_function - 4)",
             })
            EXPECT_TRUE(std::regex_search(r.output, std::regex(shown))) << shown << "\n"
                                                                        << r.output;
    }

    uint32_t mode = 7;
    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &read, 0), 0);
    EXPECT_EQ(mode, 0u);
    EXPECT_EQ(U32(read, BRX_KEY_FORMAT), uint32_t(c.format));
    EXPECT_EQ(U32(read, BRX_KEY_OBJECT_KIND), 0u);
    EXPECT_EQ(U32(read, BRX_KEY_MACHINE), c.defaultMachine);

    std::map<std::string, BrxHandle> sections;
    for (BrxHandle h : Sections(read))
        sections[SectionName(h)] = h;
    for (const SectionSpec &s : kSections) {
        SCOPED_TRACE(s.name);
        ASSERT_TRUE(sections.count(s.name));
        BrxHandle h = sections[s.name];
        EXPECT_EQ(U32(h, BRX_KEY_OWNER), read);
        EXPECT_EQ(U32(h, BRX_KEY_SECTION_FLAGS) & BRX_SECTION_CODE, s.flags & BRX_SECTION_CODE);
        EXPECT_EQ(U32(h, BRX_KEY_SECTION_ALIGNMENT), s.alignment);
        EXPECT_EQ(SectionBytes(h), s.bytes); // as many as its size says
        EXPECT_EQ(FindSection(read, s.name), h);
    }
    BrxComdat comdat{};
    ASSERT_EQ(
        _brx_get_keyed(sections[".text$inline_function"], BRX_KEY_COMDAT, nullptr, &comdat, 0), 0);
    EXPECT_NE(comdat.selection, 0u);
    ASSERT_EQ(_brx_get_keyed(sections[".debug$S"], BRX_KEY_COMDAT, nullptr, &comdat, 0), 0);
    EXPECT_EQ(comdat.selection, uint32_t(BRX_COMDAT_ASSOCIATIVE));
    EXPECT_EQ(comdat.section, sections[".text$inline_function"]);
    ASSERT_EQ(_brx_get_keyed(sections[".text"], BRX_KEY_COMDAT, nullptr, &comdat, 0), 0);
    EXPECT_EQ(comdat.selection, 0u);

    std::map<std::string, BrxHandle> readSymbols;
    for (BrxHandle h : Symbols(read))
        readSymbols.emplace(SymbolName(h), h); // the first of a name
    for (const SymbolSpec &s : kSymbols) {
        SCOPED_TRACE(s.name);
        ASSERT_TRUE(readSymbols.count(s.name));
        BrxHandle h = readSymbols[s.name];
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_BINDING), s.binding);
        // COFF offers the symbol table's file entries as plain symbols: only line information
        // names source files there.
        uint32_t expectedType = c.format == BRX_FORMAT_COFF && s.type == BRX_SYMBOL_SOURCE_FILE
                                    ? BRX_SYMBOL_PLAIN
                                    : s.type;
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_TYPE), expectedType);
        EXPECT_EQ(U32(h, BRX_KEY_SYMBOL_SECTION), s.section ? sections[s.section] : 0u);
        EXPECT_EQ(U64(h, BRX_KEY_SYMBOL_OFFSET), s.offset);
        EXPECT_EQ(U32(h, BRX_KEY_OWNER), SymbolTable(read));
    }

    // Relocations against a section come back against its section symbol.
    struct Expected {
        uint64_t offset;
        uint32_t type;
        const char *section;
        int64_t addend;
    };
    const Expected expected[] = {{8, c.sectionRelocation, ".text", 0},
                                 {12, c.addressRelocation, ".text", 0},
                                 {24, c.addressRelocation, ".text", c.keepsAddends ? -4 : 0}};
    std::vector<BrxHandle> relocs = Relocations(sections[".debug_line"]);
    ASSERT_EQ(relocs.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(U32(relocs[i], BRX_KEY_OWNER), sections[".debug_line"]);
        EXPECT_EQ(U64(relocs[i], BRX_KEY_RELOC_OFFSET), expected[i].offset);
        EXPECT_EQ(U32(relocs[i], BRX_KEY_RELOC_TYPE), expected[i].type);
        EXPECT_EQ(int64_t(U64(relocs[i], BRX_KEY_RELOC_ADDEND)), expected[i].addend);
        BrxHandle target = U32(relocs[i], BRX_KEY_RELOC_TARGET);
        EXPECT_EQ(U32(target, BRX_KEY_SYMBOL_SECTION), sections[expected[i].section]);
    }
    EXPECT_EQ(U64(U32(relocs[2], BRX_KEY_RELOC_TARGET), BRX_KEY_SYMBOL_OFFSET), 16u);
    EXPECT_EQ(SymbolName(U32(relocs[2], BRX_KEY_RELOC_TARGET)), "main_function");
    EXPECT_EQ(Relocations(sections[".debug$S"]).size(), 1u);
    EXPECT_TRUE(Relocations(sections[".text"]).empty());
    EXPECT_EQ(_brx_close_file(read), 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip, ::testing::ValuesIn(kFormats),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
