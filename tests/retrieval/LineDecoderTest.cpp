// The line-program decoder on programs built opcode by opcode, in every header layout it reads.
#include "DwarfBytes.h"

#include "lines/LineSection.h"
#include "lines/Retrieve.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace quillet;
using namespace retrievaltest;

namespace {

struct Row {
    uint64_t address;
    uint32_t line, column;
    int32_t file;
    bool operator==(const Row &o) const {
        return address == o.address && line == o.line && column == o.column && file == o.file;
    }
};
std::ostream &operator<<(std::ostream &os, const Row &r) {
    return os << "{0x" << std::hex << r.address << std::dec << ", line " << r.line << ", col "
              << r.column << ", file " << r.file << "}";
}

struct Decoded {
    bool ok = false;
    uint64_t errorOffset = 0;
    std::vector<Row> rows;
    std::vector<uint32_t> flags;
    std::vector<CSequenceSpan> spans;
    CFileTable files;
};

// Decodes the first unit of the sections' .debug_line.
Decoded Decode(const CDwarfSections &sections, CSequencePlacer &placer,
               const std::string &dir = "/build", uint64_t strOffsetsBase = 0) {
    Decoded d;
    CLineSection reader(sections);
    CRowTable rows;
    CLineUnitContext unit{dir, strOffsetsBase};
    d.ok = reader.ReadHeader(0, unit, d.files).Ok() &&
           reader.DecodeUnit(placer, d.files, rows, d.spans).Ok();
    d.errorOffset = reader.ErrorOffset();
    for (const CLineRow &r : rows) {
        d.rows.push_back(Row{r.m_nAddress, r.m_nLine, r.m_nColumn, r.m_nFileIndex});
        d.flags.push_back(r.m_nFlags);
    }
    return d;
}

// Every sequence in section 7, unmoved.
Decoded Decode(const Bytes &line) {
    SectionBytes bytes;
    bytes.line = line;
    TestPlacer placer;
    placer.fallback = 7;
    return Decode(bytes.View(), placer);
}

LineUnit OneFile() {
    LineUnit u;
    u.files = {{"a.s", 0}};
    return u;
}

// The header layouts a program is decoded in: every version, 32- and 64-bit.
struct Layout {
    const char *name;
    uint16_t version;
    bool dwarf64;
};
const Layout kLayouts[] = {{"V2", 2, false}, {"V3", 3, false},       {"V4", 4, false},
                           {"V5", 5, false}, {"V2Dwarf64", 2, true}, {"V5Dwarf64", 5, true}};

// A unit in a layout. Version 5 numbers files from 0, and its producers name the primary file
// there as well as at 1: the tables get that entry 0, so the same program names the same files
// and every file index is one higher.
LineUnit InLayout(LineUnit u, const Layout &layout) {
    u.version = layout.version;
    u.dwarf64 = layout.dwarf64;
    if (layout.version >= 5 && !u.files.empty())
        u.files.insert(u.files.begin(), u.files.front());
    return u;
}

// Hand-made programs that exercise what compilers seldom or never write; the registers' common
// use is compared against a dumper on compilers' objects.
struct ProgramCase {
    const char *name;
    LineUnit unit;
    std::vector<Row> expected;
    std::vector<uint32_t> flags = {}; // if given, each row's flags
    bool beforeVersion5 = false;      // DW_LNE_define_file is reserved from version 5
};

std::vector<ProgramCase> ProgramCases() {
    std::vector<ProgramCase> cases;
    {
        // negate_stmt switches the statement register; end_sequence resets every register (line,
        // column, statement) for the next sequence.
        LineUnit u = OneFile();
        u.SetAddress(0x40).AdvanceLine(9).Copy().Op(6).SetColumn(3).Special(1, 1).Op(6);
        u.Special(1, 1).Op(6).EndSequence().SetAddress(0x80).Copy().EndSequence();
        cases.push_back({"EndOfSequenceResetsTheRegistersAndDropsItsRow",
                         u,
                         {{0x40, 10, 1, 0}, {0x41, 11, 4, 0}, {0x42, 12, 4, 0}, {0x80, 1, 1, 0}},
                         {kRowIsStmt, 0, kRowIsStmt, kRowIsStmt}});
    }
    {
        LineUnit u = OneFile();
        u.minInst = 4;
        u.SetAddress(0).AdvancePc(3).Copy().Special(2, 1).EndSequence();
        cases.push_back(
            {"MinimumInstructionLengthScalesAdvances", u, {{12, 1, 1, 0}, {20, 2, 1, 0}}});
    }
    {
        // A version 3 producer's header: line_base -5, line_range 14, opcode_base 13; opcodes
        // 10 and 11 (prologue end, epilogue begin) take no operand and 12 (set_isa) takes one.
        LineUnit u = OneFile();
        u.lineBase = -5;
        u.lineRange = 14;
        u.opcodeBase = 13;
        u.opcodeLengths = {0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1};
        u.SetAddress(0x10).Op(10).Op(11).Op(12).Op(0x85).Op(0x01).AdvanceLine(9);
        u.Special(0, -2).Special(3, 4);
        u.EndSequence();
        cases.push_back({"OpcodesBeyondTheKnownOnesAreSkippedByTheirDeclaredOperands",
                         u,
                         {{0x10, 8, 1, 0}, {0x13, 12, 1, 0}}});
    }
    {
        // With opcode_base 4, opcodes 4 to 9 are special opcodes, not standard ones.
        LineUnit u = OneFile();
        u.opcodeBase = 4;
        u.opcodeLengths = {0, 1, 1};
        u.SetAddress(0).Op(4).Op(5).EndSequence();
        cases.push_back(
            {"LowOpcodeBaseTurnsStandardNumbersIntoSpecials", u, {{0, 1, 1, 0}, {0, 2, 1, 0}}});
    }
    {
        LineUnit u = OneFile();
        u.SetAddress(0x1122334455667788).SetAddress(0xaabbccdd, 4).Copy().EndSequence();
        cases.push_back(
            {"FourByteOperandReplacesOnlyTheLowHalf", u, {{0x11223344aabbccdd, 1, 1, 0}}});
    }
    {
        // set_discriminator, an opcode of a vendor's range and one nobody defines: each is
        // stepped over by its length.
        LineUnit u = OneFile();
        u.SetAddress(0).Extended(4, {0x05}).Extended(0x80, {1, 2, 3}).Extended(0x21, {});
        u.Special(2, 1).EndSequence();
        cases.push_back({"UnknownExtendedOpcodesAreSkippedByTheirLength", u, {{2, 2, 1, 0}}});
    }
    {
        LineUnit u = OneFile();
        u.SetAddress(0).DefineFile("late.s", 0).SetFile(2).Copy().EndSequence();
        cases.push_back({"DefineFileAddsAFileMidProgram", u, {{0, 1, 1, 1}}, {}, true});
    }
    {
        // A code section without rows still ends a sequence; that needs no address.
        LineUnit u = OneFile();
        u.AdvancePc(16).EndSequence().SetAddress(0).Special(0, 1).EndSequence();
        cases.push_back({"EmptySequenceWithoutAddressIsAccepted", u, {{0, 2, 1, 0}}});
    }
    return cases;
}

TEST(LineDecoder, ProgramsDecodeToTheirRowsInEveryLayout) {
    for (const ProgramCase &c : ProgramCases()) {
        for (const Layout &layout : kLayouts) {
            if (c.beforeVersion5 && layout.version >= 5)
                continue;
            SCOPED_TRACE(std::string(c.name) + " " + layout.name);
            Decoded d = Decode(InLayout(c.unit, layout).Encode());
            EXPECT_TRUE(d.ok) << "error at " << d.errorOffset;
            std::vector<Row> expected = c.expected;
            for (Row &row : expected)
                row.file += layout.version >= 5 ? 1 : 0;
            EXPECT_EQ(d.rows, expected);
            if (!c.flags.empty()) {
                EXPECT_EQ(d.flags, c.flags);
            }
        }
    }
}

// Version 5 tables in the forms producers write: paths in .debug_line_str, in .debug_str and by
// index through .debug_str_offsets, directory indices of several widths, and content the reader
// steps over (MD5 sums, sizes, a vendor's source text, a block).
TEST(LineDecoder, Version5TablesInEveryForm) {
    SectionBytes bytes;
    bytes.lineStr = qtest::Concat({Text("/comp"), Text("inc")});
    bytes.str = qtest::Concat({Text("a.c"), Text("b.h"), Text("c.h")});
    // .debug_str_offsets: an 8-byte contribution header, then offsets of "b.h" and "c.h".
    bytes.strOffsets = {0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 8, 0, 0, 0};
    // Directories as line_strp: "/comp" and "inc". One table has one shape of file entries, so
    // each shape comes in a unit of its own.
    const Bytes directories = {1, 1, 0x1f, 2, 0, 0, 0, 0, 6, 0, 0, 0};
    const struct {
        Bytes files;
        std::vector<std::string> paths;
    } cases[] = {
        // Path as strp, directory as data1, MD5, size as data4, a vendor's source text as
        // line_strp, a block; one file: "a.c" in directory 0, a size of 1234, a block of 2.
        {qtest::Concat({{6, 1, 0x0e, 2, 0x0b, 5, 0x1e, 4, 0x06, 0x81, 0x40, 0x1f, 3, 0x09},
                        {1, 0, 0, 0, 0, 0},
                        Bytes(16, 0xab),
                        {0xd2, 0x04, 0, 0, 0, 0, 0, 0, 2, 0xee, 0xee}}),
         {"/comp/a.c"}},
        // Path as strx1, directory as data2; two files: "b.h" in "inc" and "c.h" in directory 0.
        {{2, 1, 0x25, 2, 0x05, 2, 0, 1, 0, 1, 0, 0}, {"/comp/inc/b.h", "/comp/c.h"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.paths.front());
        LineUnit u;
        u.version = 5;
        u.v5Tables = qtest::Concat({directories, c.files});
        u.SetAddress(0).SetFile(0).Copy().EndSequence();
        bytes.line = u.Encode();
        TestPlacer placer;
        placer.fallback = 7;
        Decoded d = Decode(bytes.View(), placer, "/unit", 8);
        ASSERT_TRUE(d.ok) << "error at " << d.errorOffset;
        EXPECT_EQ(d.rows.size(), 1u);
        ASSERT_EQ(d.files.FileCount(), c.paths.size());
        for (size_t i = 0; i < c.paths.size(); ++i)
            EXPECT_EQ(d.files.Path(int32_t(i)), c.paths[i]);
    }
}

struct MalformedCase {
    const char *name;
    SectionBytes section;
    size_t rowsBeforeFailure;
};

std::vector<MalformedCase> MalformedCases() {
    std::vector<MalformedCase> cases;
    // A case: unit `u` as `changeUnit` changes it, encoded, then its bytes as `changeBytes`
    // changes them; `rows` is how many rows decode before the fault.
    auto add = [&](const char *name, LineUnit u, size_t rows, auto changeUnit,
                   void (*changeBytes)(Bytes &) = nullptr) {
        changeUnit(u);
        SectionBytes b;
        b.line = u.Encode();
        if (changeBytes)
            changeBytes(b.line);
        cases.push_back({name, b, rows});
    };
    auto same = [](LineUnit &) {};
    LineUnit base = OneFile();
    base.SetAddress(0).Copy();
    LineUnit base5 = base;
    base5.version = 5;
    base5.files.push_back(base5.files.front()); // files 0 and 1, as producers write them
    // The header
    add("VersionBelowTwo", base, 0, [](LineUnit &u) { u.version = 1; });
    add("VersionAboveFive", base, 0, [](LineUnit &u) { u.version = 6; });
    add("HeaderLengthDisagreesWithTables", base, 0, [](LineUnit &u) { u.headerLengthSkew = 1; });
    add("Version5HeaderLengthDisagreesWithTables", base5, 0,
        [](LineUnit &u) { u.headerLengthSkew = -1; });
    add("Version5AddressSizeZero", base5, 0, [](LineUnit &u) { u.addressSize = 0; });
    add("Version5AddressSizeAboveEight", base5, 0, [](LineUnit &u) { u.addressSize = 16; });
    add("SeveralOperationsPerInstruction", base5, 0,
        [](LineUnit &u) { u.operationsPerInstruction = 4; });
    add("ZeroLineRange", base, 0, [](LineUnit &u) { u.lineRange = 0; });
    add("UnitRunsPastTheSection", base, 0, same, [](Bytes &b) { b[0] += 1; });
    add("TruncatedHeader", base, 0, same, [](Bytes &b) { b.resize(20); });
    add("ReservedUnitLength", base, 0, same,
        [](Bytes &b) { b[0] = 0xf0, b[1] = b[2] = b[3] = 0xff; });
    // The tables
    add("DirectoryBeyondTheList", OneFile(), 0, [](LineUnit &u) {
        u.files[0].directory = 1;
        u.SetAddress(0).Copy();
    });
    // A form nobody defines; a path as data1; a line_strp without .debug_line_str; a file in a
    // directory past the list; fewer entries than the count says.
    add("Version5UnknownForm", base5, 0, [](LineUnit &u) { u.v5Tables = {1, 1, 0x7f, 1, 0}; });
    add("Version5PathNotAString", base5, 0,
        [](LineUnit &u) { u.v5Tables = {1, 1, 0x0b, 1, 0, 0, 0}; });
    add("Version5PathOutsideLineStrings", base5, 0,
        [](LineUnit &u) { u.v5Tables = {1, 1, 0x1f, 1, 0, 0, 0, 0, 0, 0}; });
    add("Version5DirectoryBeyondTheList", base5, 0, [](LineUnit &u) {
        u.v5Tables = {1, 1, 0x08, 1, '/', 0, 2, 1, 0x08, 2, 0x0b, 1, 'a', 0, 3};
    });
    add("Version5FewerEntriesThanItsCount", base5, 0,
        [](LineUnit &u) { u.v5Tables = {1, 1, 0x08, 5, '/', 0}; });
    // Entries that take no bytes (no fields, or a flag_present field alone) would let a short
    // header claim billions of them.
    add("Version5EmptyEntryFormatWithAHugeCount", base5, 0,
        [](LineUnit &u) { u.v5Tables = {0, 0xff, 0xff, 0xff, 0xff, 0x0f}; });
    add("Version5EntriesOfNoBytesWithAHugeCount", base5, 0,
        [](LineUnit &u) { u.v5Tables = {1, 2, 0x19, 0xff, 0xff, 0xff, 0xff, 0x0f}; });
    // The program
    add("AddressOperandLongerThanEightBytes", base, 1, [](LineUnit &u) {
        u.program.insert(u.program.end(), {0, 10, 2, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    });
    add("FileNumberWithoutRecord", base, 1, [](LineUnit &u) { u.SetFile(2).Copy(); });
    add("FileNumberZeroBeforeVersion5", base, 1, [](LineUnit &u) { u.SetFile(0).Copy(); });
    // Version 5 numbers its two files 0 and 1.
    add("Version5FileNumberPastTheTable", base5, 1, [](LineUnit &u) { u.SetFile(2).Copy(); });
    add("SequenceWithoutSetAddress", OneFile(), 0, [](LineUnit &u) { u.Copy(); });
    add("SecondSequenceWithoutSetAddress", base, 1,
        [](LineUnit &u) { u.EndSequence().Special(1, 1); });
    add("TruncatedOperand", base, 1, [](LineUnit &u) { u.Op(2).Op(0x80); });
    add("ExtendedOpcodeLongerThanTheUnit", base, 1, [](LineUnit &u) {
        u.program.insert(u.program.end(), {0, 9, 0x80});
    });
    add("DefineFileWithBadDirectory", base, 1, [](LineUnit &u) { u.DefineFile("x.s", 5); });
    return cases;
}

TEST(LineDecoder, MalformedProgramsFailAndKeepEarlierRows) {
    for (const MalformedCase &c : MalformedCases()) {
        SCOPED_TRACE(c.name);
        TestPlacer placer;
        placer.fallback = 7;
        Decoded d = Decode(c.section.View(), placer);
        EXPECT_FALSE(d.ok);
        EXPECT_EQ(d.rows.size(), c.rowsBeforeFailure);
    }
}

// Each sequence is placed by its own set_address operand, a later one within a sequence moving
// the rows after it on; a sequence placed nowhere (code a linker dropped) leaves nothing.
TEST(LineDecoder, EverySequenceIsPlacedByItsOwnAddressOperand) {
    LineUnit u = OneFile();
    size_t first = u.NextOperand();
    u.SetAddress(0).Special(2, 1);
    size_t second = u.NextOperand();
    u.SetAddress(0x30).Special(0, 2).EndSequence();
    size_t dropped = u.NextOperand();
    u.SetAddress(0x99).Special(1, 1).EndSequence();
    size_t third = u.NextOperand();
    u.SetAddress(0).Copy().AdvancePc(4).EndSequence();
    size_t start = u.ProgramStart();

    TestPlacer placer;
    placer.places[start + first] = {11, 0x100}; // a symbol 0x100 into section 11
    placer.places[start + second] = {12, -0x30};
    placer.places[start + third] = {11, 0x8};
    placer.skipped = 0x99;
    SectionBytes bytes;
    bytes.line = u.Encode();
    Decoded d = Decode(bytes.View(), placer);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(placer.asked, (std::vector<uint64_t>{start + first, start + second, start + dropped,
                                                   start + third}));
    EXPECT_EQ(d.rows, (std::vector<Row>{{0x102, 2, 1, 0}, {0, 4, 1, 0}, {0x8, 1, 1, 0}}));
    // Each placement is a span of its own. The first ends where the address register stood when
    // the sequence moved on (0x102 in section 11); the others where their end of sequence is,
    // placed like their rows.
    ASSERT_EQ(d.spans.size(), 3u);
    const std::pair<BrxHandle, uint64_t> ends[] = {{11, 0x102}, {12, 0}, {11, 0xc}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(d.spans[i].m_Section, ends[i].first);
        EXPECT_EQ(d.spans[i].m_nEndAddress, ends[i].second);
    }
}

// Relocations of .debug_line are read where the operands stand: a set_address operand takes its
// relocation's value and section, and a fixed_advance_pc operand its relocation's difference.
TEST(LineDecoder, OperandsAreReadThroughTheirRelocations) {
    LineUnit u = OneFile();
    size_t operand = u.ProgramStart() + u.NextOperand();
    u.SetAddress(0).Copy().Op(9).Op(0).Op(0).Copy().EndSequence();
    size_t advance = u.ProgramStart() + u.program.size() - 6; // the fixed_advance_pc operand
    SectionBytes bytes;
    bytes.line = u.Encode();
    CRelocationMap relocations({{operand, 0x40, 11, 8}, {advance, 6, 0, 2}});
    CDwarfSections sections = bytes.View();
    sections.line.m_pRelocations = &relocations;
    struct SectionOfOperand : CSequencePlacer {
        Result Place(const CAddressOperand &operand, BrxHandle &section, int64_t &bias) override {
            section = operand.m_Section;
            bias = 0;
            return operand.m_Section ? Result::Placed : Result::Failed;
        }
    } placer;
    Decoded d = Decode(sections, placer);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.rows, (std::vector<Row>{{0x40, 1, 1, 0}, {0x46, 1, 1, 0}}));
    ASSERT_EQ(d.spans.size(), 1u);
    EXPECT_EQ(d.spans[0].m_Section, 11u);
}

} // namespace

// File tables whose thousands of entries all name one 64 KiB directory, in a version 2 table
// (the directory written once, inline) and a version 5 one (directories and file names as
// offsets into .debug_line_str): the reader keeps the directory once, so the whole table costs
// a few megabytes, not a copy of the directory per file. Measured in a child process, whose peak
// resident size says what the load cost.
struct HostileCase {
    const char *name;
    uint16_t version;
};

class HostileFileTables : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileFileTables, ShareOneLongDirectory) {
    constexpr size_t kFiles = 4000;
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer's shadow memory, red zones and quarantine of freed blocks take their share.
    constexpr long kBoundKiB = 48 * 1024;
#else
    constexpr long kBoundKiB = 16 * 1024;
#endif
    const std::string directory = "/" + std::string(64 * 1024, 'd');
    SectionBytes bytes;
    LineUnit u;
    u.version = GetParam().version;
    if (u.version >= 5) {
        PutString(bytes.lineStr, directory);
        PutString(bytes.lineStr, "f.c");
        Bytes &t = u.v5Tables;
        t.insert(t.end(), {1, 1, 0x1f, 2}); // directories: path as line_strp; two of them
        PutU(t, 0, 4);
        PutU(t, 0, 4);
        t.insert(t.end(), {2, 1, 0x1f, 2, 0x0f}); // files: path as line_strp, directory as udata
        PutULEB(t, kFiles);
        for (size_t i = 0; i < kFiles; ++i) {
            PutU(t, directory.size() + 1, 4);
            PutULEB(t, 1);
        }
    } else {
        u.directories = {directory};
        u.files.assign(kFiles, FileEntry{"f.c", 1});
    }
    u.SetAddress(0).Copy().SetFile(u.version >= 5 ? kFiles - 1 : kFiles).AdvancePc(4).Copy();
    u.EndSequence();
    bytes.line = u.Encode();
    InfoUnit info = InfoUnit::Standard("a.c", "/comp", 0);
    bytes.info = info.Info();
    bytes.abbrev = info.Abbrev();

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        rusage before{}, after{};
        getrusage(RUSAGE_SELF, &before);
        CBaseRetrieve engine;
        TestPlacer placer;
        placer.fallback = 7;
        CDwarfSections sections = bytes.View();
        uint32_t status = engine.LoadDwarf(sections, placer);
        getrusage(RUSAGE_SELF, &after);
        // The last file's path is made when asked for, the same as a kept one.
        if (status != DBG_ERR_NONE || engine.Files().FileCount() != kFiles ||
            engine.Rows().size() != 2 || engine.Files().Path(kFiles - 1) != directory + "/f.c")
            _exit(2);
        // Its name through the queries: by source, by offset, by index.
        const std::u16string wide = Utf8ToUtf16(directory + "/f.c");
        DbgSourceHandle *source = nullptr;
        DbgOffsetQuery query{engine.SectionHandle(7), 4};
        DbgInstInfo inst{};
        std::vector<char> name(3 * wide.size());
        uint32_t size = static_cast<uint32_t>(name.size());
        if (engine.FindSource((directory + "/f.c").c_str(), &source) != DBG_ERR_NONE ||
            source->name != wide || engine.InstInfoByOffset(1, &query, &inst) != DBG_ERR_NONE ||
            wide.compare(0, 257, inst.name, 257) != 0 ||
            engine.SourceFileName(kFiles - 1, name.data(), &size) != DBG_ERR_NONE ||
            name.data() != directory + "/f.c")
            _exit(3);
        _exit(after.ru_maxrss - before.ru_maxrss < kBoundKiB ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_NE(WEXITSTATUS(status), 2) << "the table did not load";
    EXPECT_NE(WEXITSTATUS(status), 3) << "a query named the last file wrong";
    EXPECT_EQ(WEXITSTATUS(status), 0)
        << "the load grew the process by " << kBoundKiB << " KiB or more";
}

INSTANTIATE_TEST_SUITE_P(Versions, HostileFileTables,
                         ::testing::Values(HostileCase{"Version2", 2}, HostileCase{"Version5", 5}),
                         [](const ::testing::TestParamInfo<HostileCase> &info) {
                             return std::string(info.param.name);
                         });
