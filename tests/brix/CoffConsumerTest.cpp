// A COFF object written by brix with CodeView line information as Quillet lays it out: read by
// llvm-readobj (with the machine field cleared, since no tool here knows machine 0x0200) and
// read back through brix's own line blocks.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>

using namespace brixtest;

namespace {

// Little-endian appends for the CodeView bytes of the test object.
struct Bytes {
    std::vector<uint8_t> v;
    Bytes &U8(uint8_t x) {
        v.push_back(x);
        return *this;
    }
    Bytes &U16(uint16_t x) { return U8(uint8_t(x)).U8(uint8_t(x >> 8)); }
    Bytes &U32(uint32_t x) { return U16(uint16_t(x)).U16(uint16_t(x >> 16)); }
    Bytes &Str(const char *s) {
        while (*s)
            U8(uint8_t(*s++));
        return U8(0);
    }
    Bytes &Pad4() {
        while (v.size() % 4)
            U8(0);
        return *this;
    }
    // A subsection: kind, length, content, padding to 4.
    Bytes &Subsection(uint32_t kind, const Bytes &content) {
        U32(kind).U32(uint32_t(content.v.size()));
        v.insert(v.end(), content.v.begin(), content.v.end());
        return Pad4();
    }
    Bytes &ChecksumRecord(uint32_t stringOffset) {
        U32(stringOffset).U8(16).U8(1);
        for (int i = 0; i < 16; ++i)
            U8(uint8_t(i * 17));
        return U16(0);
    }
};

struct Pair {
    uint32_t offset, line;
    uint16_t column;
};

struct Block {
    uint32_t checksumOffset;
    std::vector<Pair> pairs;
};

Bytes Lines(uint32_t codeOffset, uint16_t flags, uint32_t codeSize,
            const std::vector<Block> &blocks) {
    Bytes b;
    b.U32(codeOffset).U16(0).U16(flags).U32(codeSize);
    for (const Block &block : blocks) {
        bool columns = flags & 1;
        b.U32(block.checksumOffset).U32(uint32_t(block.pairs.size()));
        b.U32(uint32_t(12 + block.pairs.size() * (columns ? 12 : 8)));
        for (const Pair &p : block.pairs)
            b.U32(p.offset).U32(p.line | 0x80000000u);
        if (columns)
            for (const Pair &p : block.pairs)
                b.U16(p.column).U16(0);
    }
    return b;
}

constexpr uint32_t kSymbols = 0xf1, kLines = 0xf2, kStrings = 0xf3, kChecksums = 0xf4;

// Writes the sample object. The COMDAT section's blocks name their file through the checksum
// table of their own symbol section. With `ownTableDiffers` that table differs from the main one
// (inc.inc first); otherwise it repeats the main one, so that a reader which takes the first
// table of the object (as llvm-readobj does) sees the same file names.
void WriteSample(const std::string &path, bool ownTableDiffers) {
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_COFF, &file), 0);
    BrxHandle text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
    AppendBytes(text, std::vector<uint8_t>(64, 0x90));
    BrxHandle inl = AddSection(file, ".text$inline_fn", BRX_SECTION_CODE, 16);
    AppendBytes(inl, std::vector<uint8_t>(16, 0xc3));
    BrxComdat any{BRX_COMDAT_ANY, 0};
    ASSERT_EQ(_brx_set_value(inl, BRX_KEY_COMDAT, &any, 0), 0);
    BrxHandle mainSymbols = AddSection(file, ".debug$S", BRX_SECTION_DEBUG, 4, 1);
    BrxHandle inlSymbols = AddSection(file, ".debug$S", BRX_SECTION_DEBUG, 4, 1);
    BrxComdat tie{BRX_COMDAT_ASSOCIATIVE, inl};
    ASSERT_EQ(_brx_set_value(inlSymbols, BRX_KEY_COMDAT, &tie, 0), 0);

    AddSymbol(file, "unit.asm", BRX_BINDING_LOCAL, BRX_SYMBOL_SOURCE_FILE, 0, 0);
    AddSymbol(file, "main_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, text, 0);
    BrxHandle inlineFn =
        AddSymbol(file, "inline_fn", BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION, inl, 4);

    // Main symbol section: strings "unit.asm" at 1 and "inc.inc" at 10, their checksum records
    // at 0 and 24, and the lines of .text.
    Bytes main;
    main.U32(4).Subsection(kSymbols, Bytes());
    main.Subsection(kStrings, Bytes().U8(0).Str("unit.asm").Str("inc.inc"));
    main.Subsection(kChecksums, Bytes().ChecksumRecord(1).ChecksumRecord(10));
    size_t linesAt = main.v.size() + 8;
    main.Subsection(
        kLines, Lines(0, 0, 64, {{0, {{0, 10, 0}, {4, 11, 0}, {8, 12, 0}}}, {24, {{16, 3, 0}}}}));
    AppendBytes(mainSymbols, main.v);
    AddRelocation(mainSymbols, 14, text, linesAt);
    AddRelocation(mainSymbols, 11, text, linesAt + 4);

    // The COMDAT section's own symbol section: its checksum table names "inc.inc" (string 10 of
    // the main table); its lines start 2 bytes into inline_fn, with columns.
    Bytes own;
    own.U32(4).Subsection(kSymbols, Bytes());
    Bytes ownChecksums;
    if (ownTableDiffers)
        ownChecksums.ChecksumRecord(10);
    else
        ownChecksums.ChecksumRecord(1).ChecksumRecord(10);
    own.Subsection(kChecksums, ownChecksums);
    size_t ownLinesAt = own.v.size() + 8;
    own.Subsection(kLines,
                   Lines(2, 1, 8, {{ownTableDiffers ? 0u : 24u, {{0, 20, 5}, {3, 21, 7}}}}));
    AppendBytes(inlSymbols, own.v);
    AddRelocation(inlSymbols, 14, inlineFn, ownLinesAt);
    AddRelocation(inlSymbols, 11, inlineFn, ownLinesAt + 4);
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);
}

std::string WithoutMachine(const TempDir &dir, const std::string &path) {
    std::vector<uint8_t> bytes = ReadFileBytes(path);
    bytes[0] = bytes[1] = 0;
    std::string copy = dir.File("no-machine.obj");
    WriteFileBytes(copy, bytes);
    return copy;
}

TEST(CoffConsumer, ReadobjAcceptsAndShowsTheObject) {
    if (!ToolAvailable("llvm-readobj-14"))
        GTEST_SKIP() << "llvm-readobj-14 is not installed";
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteSample(path, false);
    CommandResult r =
        RunCommand("llvm-readobj-14 --file-headers --sections --relocations --symbols '" +
                   WithoutMachine(dir, path) + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(ComplaintLines(r.output).empty()) << r.output;
    const std::string &out = r.output;
    EXPECT_NE(out.find("SectionCount: 4"), std::string::npos) << out;
    for (const char *name : {".text (", ".text$inline_fn", ".debug$S ("})
        EXPECT_NE(out.find(std::string("Name: ") + name), std::string::npos) << name;
    EXPECT_TRUE(std::regex_search(out, std::regex(R"(Selection: Any \(0x2\))"))) << out;
    EXPECT_TRUE(std::regex_search(
        out,
        std::regex(R"(Selection: Associative \(0x5\)\s+AssocSection: \.text\$inline_fn \(2\))")))
        << out;
    EXPECT_TRUE(std::regex_search(out, std::regex(R"(FileName: unit\.asm)"))) << out;
    EXPECT_TRUE(std::regex_search(
        out,
        std::regex(
            R"(Name: inline_fn\s+Value: 4\s+Section: \.text\$inline_fn \(2\)\s+BaseType: Null \(0x0\)\s+ComplexType: Function \(0x2\)\s+StorageClass: External)")))
        << out;
    EXPECT_TRUE(
        std::regex_search(out, std::regex(R"(Name: main_fn\s+Value: 0\s+Section: \.text \(1\))")))
        << out;
    EXPECT_TRUE(std::regex_search(
        out,
        std::regex(
            R"(Section \(3\) \.debug\$S \{\s+0x[0-9A-F]+ \S+ \.text \(\d+\)\s+0x[0-9A-F]+ \S+ \.text \(\d+\))")))
        << out;
    EXPECT_TRUE(std::regex_search(
        out, std::regex(R"(Section \(4\) \.debug\$S \{\s+0x[0-9A-F]+ \S+ inline_fn)")))
        << out;
}

TEST(CoffConsumer, ReadobjShowsTheLineTables) {
    if (!ToolAvailable("llvm-readobj-14"))
        GTEST_SKIP() << "llvm-readobj-14 is not installed";
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteSample(path, false);
    CommandResult r = RunCommand("llvm-readobj-14 --codeview '" + WithoutMachine(dir, path) + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(ComplaintLines(r.output).empty()) << r.output;
    ReadobjNode root = ParseReadobj(r.output);
    std::vector<std::string> tables;
    std::function<void(const ReadobjNode &)> walk = [&](const ReadobjNode &n) {
        if (n.name == "FunctionLineTable") {
            std::string text = n.Get("LinkageName");
            for (const ReadobjNode &segment : n.children)
                for (const ReadobjNode &row : segment.children)
                    if (!row.Get("LineNumberStart").empty())
                        text += " " + StripNumber(segment.Get("Filename")) + row.name + "=" +
                                row.Get("LineNumberStart");
            tables.push_back(text);
        }
        for (const ReadobjNode &c : n.children)
            walk(c);
    };
    walk(root);
    // llvm-readobj shows pair offsets from the relocated symbol, without the header's offset.
    std::vector<std::string> expected = {
        ".text unit.asm+0x0=10 unit.asm+0x4=11 unit.asm+0x8=12 inc.inc+0x10=3",
        "inline_fn inc.inc+0x0=20 inc.inc+0x3=21"};
    EXPECT_EQ(tables, expected) << r.output;
}

TEST(CoffConsumer, LineBlocksReadBackThroughBrix) {
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteSample(path, true);
    BrxHandle file = 0;
    uint32_t mode = 7;
    ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &file, 0), 0);

    struct Row {
        std::string section, file;
        uint64_t address;
        uint32_t line, column;
        bool operator==(const Row &o) const {
            return section == o.section && file == o.file && address == o.address &&
                   line == o.line && column == o.column;
        }
    };
    std::vector<Row> rows;
    std::vector<size_t> blockSizes;
    for (BrxHandle section : Sections(file)) {
        BrxHandle previous = BRX_FIRST, block = 0;
        int32_t r;
        while ((r = _brx_get_keyed(section, BRX_KEY_NEXT_LINE_BLOCK, &previous, &block, 0)) == 0) {
            EXPECT_EQ(U32(block, BRX_KEY_OWNER), section);
            BrxHandle source = U32(U32(block, BRX_KEY_LINE_BLOCK_FILE), BRX_KEY_LINE_FILE_SYMBOL);
            blockSizes.push_back(U32(block, BRX_KEY_LINE_ITEM_COUNT));
            BrxHandle prevItem = BRX_FIRST, item = 0;
            while (_brx_get_keyed(block, BRX_KEY_NEXT_LINE_ITEM, &prevItem, &item, 0) == 0) {
                rows.push_back(
                    {SectionName(section), SymbolName(source), U64(item, BRX_KEY_LINE_ITEM_ADDRESS),
                     U32(item, BRX_KEY_LINE_ITEM_LINE), U32(item, BRX_KEY_LINE_ITEM_COLUMN)});
                prevItem = item;
            }
            previous = block;
        }
        EXPECT_EQ(r, BRX_ERR_NO_MORE);
    }
    const std::vector<Row> expected = {
        {".text", "unit.asm", 0, 10, 0},          {".text", "unit.asm", 4, 11, 0},
        {".text", "unit.asm", 8, 12, 0},          {".text", "inc.inc", 16, 3, 0},
        {".text$inline_fn", "inc.inc", 6, 20, 5}, {".text$inline_fn", "inc.inc", 9, 21, 7}};
    EXPECT_EQ(rows.size(), expected.size());
    for (size_t i = 0; i < std::min(rows.size(), expected.size()); ++i)
        EXPECT_TRUE(rows[i] == expected[i]) << i << ": " << rows[i].section << " " << rows[i].file
                                            << " " << rows[i].address << " " << rows[i].line;
    EXPECT_EQ(blockSizes, (std::vector<size_t>{3, 1, 2}));

    // The source files are the files of the line information, once each, in first-seen order;
    // the symbol table's FILE record is a plain symbol.
    std::vector<std::string> sources;
    uint32_t sourceFile = BRX_SYMBOL_SOURCE_FILE;
    BrxFindSymbol find{BRX_FIRST, BRX_KEY_SYMBOL_TYPE, &sourceFile};
    BrxHandle symbol = 0;
    while (_brx_get_keyed(SymbolTable(file), BRX_KEY_FIND_SYMBOL, &find, &symbol, 0) == 0) {
        sources.push_back(SymbolName(symbol));
        find.after = symbol;
    }
    EXPECT_EQ(sources, (std::vector<std::string>{"unit.asm", "inc.inc"}));
    EXPECT_EQ(_brx_close_file(file), 0);
}

} // namespace
