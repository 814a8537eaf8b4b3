// A COFF object written by brix with CodeView line information as Quillet lays it out: read by
// llvm-readobj (with the machine field cleared, since no tool here knows machine 0x0200) and
// read back through brix's own line blocks.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>

using namespace brixtest;

namespace {

std::string WithoutMachine(const TempDir &dir, const std::string &path) {
    std::vector<uint8_t> bytes = ReadFileBytes(path);
    bytes[0] = bytes[1] = 0;
    std::string copy = dir.File("no-machine.obj");
    WriteFileBytes(copy, bytes);
    return copy;
}

TEST(CoffConsumer, ReadobjAcceptsAndShowsTheObject) {
    if (!ToolAvailable("llvm-readobj-14"))
        FAIL() << "llvm-readobj-14 is not installed";
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteCodeViewSample(path, false);
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
        FAIL() << "llvm-readobj-14 is not installed";
    TempDir dir;
    std::string path = dir.File("sample.obj");
    WriteCodeViewSample(path, false);
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
    WriteCodeViewSample(path, true);
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

namespace {

// More relocations than the 16-bit count holds: the count moves into the first record.
TEST(CoffManyRelocations, OverflowCountIsReadByReadobjAndByBrix) {
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

    ASSERT_TRUE(ToolAvailable("llvm-readobj-14")) << "llvm-readobj-14 is not installed";
    {
        CommandResult r = RunCommand("llvm-readobj-14 --sections --relocations '" +
                                     WithoutMachine(dir, path) + "' | grep -c ' Unknown .text ('");
        EXPECT_EQ(r.output, std::to_string(count) + "\n");
        r = RunCommand("llvm-readobj-14 --sections '" + WithoutMachine(dir, path) + "'");
        EXPECT_TRUE(ComplaintLines(r.output).empty()) << r.output;
        EXPECT_NE(r.output.find("IMAGE_SCN_LNK_NRELOC_OVFL"), std::string::npos);
    }
    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
    std::vector<BrxHandle> relocs = Relocations(FindSection(read, ".debug$S"));
    ASSERT_EQ(relocs.size(), count);
    EXPECT_EQ(U64(relocs.back(), BRX_KEY_RELOC_OFFSET), 4 * uint64_t(count - 1));
    EXPECT_EQ(_brx_close_file(read), 0);
}

} // namespace
