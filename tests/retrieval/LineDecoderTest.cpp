// The line-program decoder on programs built opcode by opcode.
#include "DwarfBytes.h"

#include "lines/LineSection.h"

#include <gtest/gtest.h>

#include <map>

using namespace quillet;
using namespace retrievaltest;

namespace {

// Places every sequence by its operand offset, as a table says; unknown offsets fail.
struct TablePlacer : CSequencePlacer {
    std::map<uint64_t, std::pair<BrxHandle, int64_t>> places;
    std::vector<uint64_t> asked;
    CError Place(uint64_t operandOffset, uint64_t, BrxHandle &section, int64_t &bias) override {
        asked.push_back(operandOffset);
        auto it = places.find(operandOffset);
        if (it == places.end())
            return kFailed;
        section = it->second.first;
        bias = it->second.second;
        return kOk;
    }
};

// Every sequence in section 7, unmoved.
struct AnyPlacer : CSequencePlacer {
    CError Place(uint64_t, uint64_t, BrxHandle &section, int64_t &bias) override {
        section = 7;
        bias = 0;
        return kOk;
    }
};

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
    std::vector<Row> rows;
    std::vector<uint32_t> flags;
    std::vector<CSequenceSpan> spans;
    CFileTable files;
};

Decoded Decode(const Bytes &section, CSequencePlacer &placer, const std::string &dir = "/build",
               uint64_t offset = 0) {
    Decoded d;
    CLineSection reader(section.data(), section.size());
    CRowTable rows;
    std::vector<CSequenceSpan> spans;
    d.ok = reader.ReadHeader(offset, dir, d.files).Ok() &&
           reader.DecodeUnit(placer, d.files, rows, spans).Ok();
    for (const CLineRow &r : rows) {
        d.rows.push_back(Row{r.m_nAddress, r.m_nLine, r.m_nColumn, r.m_nFileIndex});
        d.flags.push_back(r.m_nFlags);
    }
    d.spans = spans;
    return d;
}

LineUnit OneFile() {
    LineUnit u;
    u.files = {{"a.s", 0}};
    return u;
}

struct ProgramCase {
    const char *name;
    LineUnit unit;
    std::vector<Row> expected;
};

std::vector<ProgramCase> ProgramCases() {
    std::vector<ProgramCase> cases;
    {
        LineUnit u = OneFile();
        u.SetAddress(0).Special(0, 2).Special(4, 1).Special(16, 0).EndSequence();
        cases.push_back(
            {"SpecialOpcodesAdvanceBothRegisters", u, {{0, 3, 1, 0}, {4, 4, 1, 0}, {20, 4, 1, 0}}});
    }
    {
        LineUnit u = OneFile();
        u.SetAddress(0x100).AdvancePc(0x1000).AdvanceLine(99).Copy().AdvanceLine(-50).Copy();
        u.EndSequence();
        cases.push_back(
            {"LongFormsAndNegativeLineAdvance", u, {{0x1100, 100, 1, 0}, {0x1100, 50, 1, 0}}});
    }
    {
        LineUnit u = OneFile();
        u.files.push_back({"b.s", 0});
        u.SetAddress(0).SetColumn(7).Copy().SetFile(2).Special(1, 1).EndSequence();
        cases.push_back({"FileAndColumnRegisters", u, {{0, 1, 8, 0}, {1, 2, 8, 1}}});
    }
    {
        LineUnit u = OneFile();
        // (255 - 10) / 15 = 16 per const_add_pc; fixed_advance_pc takes a 16-bit operand.
        u.SetAddress(0).Op(8).Copy().Op(9).Op(0x34).Op(0x12).Copy().EndSequence();
        cases.push_back(
            {"ConstAddPcAndFixedAdvancePc", u, {{16, 1, 1, 0}, {16 + 0x1234, 1, 1, 0}}});
    }
    {
        LineUnit u = OneFile();
        // end_sequence resets every register, so the second sequence starts at line 1 again.
        u.SetAddress(0x40).AdvanceLine(9).Copy().SetColumn(3).EndSequence();
        u.SetAddress(0x80).Copy().EndSequence();
        cases.push_back({"EndOfSequenceRowsAreDroppedAndResetRegisters",
                         u,
                         {{0x40, 10, 1, 0}, {0x80, 1, 1, 0}}});
    }
    {
        LineUnit u = OneFile();
        u.minInst = 4;
        u.SetAddress(0).AdvancePc(3).Copy().Special(2, 1).EndSequence();
        cases.push_back(
            {"MinimumInstructionLengthScalesAdvances", u, {{12, 1, 1, 0}, {20, 2, 1, 0}}});
    }
    {
        // Another producer's header: line_base -5, line_range 14, opcode_base 13; opcodes 10 and
        // 11 take no operand and 12 takes one, as the header declares.
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
        LineUnit u = OneFile();
        u.SetAddress(0).DefineFile("late.s", 0).SetFile(2).Copy().EndSequence();
        cases.push_back({"DefineFileAddsAFileMidProgram", u, {{0, 1, 1, 1}}});
    }
    {
        LineUnit u = OneFile();
        u.dwarf64 = true;
        u.SetAddress(0).Special(2, 5).EndSequence();
        cases.push_back({"SixtyFourBitUnitLength", u, {{2, 6, 1, 0}}});
    }
    {
        // A code section without rows still ends a sequence; that needs no address.
        LineUnit u = OneFile();
        u.AdvancePc(16).EndSequence().SetAddress(0).Special(0, 1).EndSequence();
        cases.push_back({"EmptySequenceWithoutAddressIsAccepted", u, {{0, 2, 1, 0}}});
    }
    return cases;
}

TEST(LineDecoder, ProgramsDecodeToTheirRows) {
    for (const ProgramCase &c : ProgramCases()) {
        SCOPED_TRACE(c.name);
        AnyPlacer placer;
        Decoded d = Decode(c.unit.Encode(), placer);
        EXPECT_TRUE(d.ok);
        EXPECT_EQ(d.rows, c.expected);
    }
}

struct MalformedCase {
    const char *name;
    Bytes section;
    size_t rowsBeforeFailure;
};

std::vector<MalformedCase> MalformedCases() {
    std::vector<MalformedCase> cases;
    auto add = [&](const char *name, const LineUnit &u, size_t rows) {
        cases.push_back({name, u.Encode(), rows});
    };
    LineUnit base = OneFile();
    base.SetAddress(0).Copy();
    {
        LineUnit u = base;
        u.version = 3;
        add("VersionOtherThanTwo", u, 0);
    }
    {
        LineUnit u = base;
        u.headerLengthSkew = 1;
        add("HeaderLengthDisagreesWithTables", u, 0);
    }
    {
        LineUnit u = base;
        u.Op(0).Op(1).Op(9);
        add("UnknownExtendedOpcode", u, 1);
    }
    {
        LineUnit u = base;
        u.program.insert(u.program.end(), {0, 10, 2, 1, 2, 3, 4, 5, 6, 7, 8, 9});
        add("AddressOperandLongerThanEightBytes", u, 1);
    }
    {
        LineUnit u = base;
        u.SetFile(2).Copy();
        add("FileNumberWithoutRecord", u, 1);
    }
    {
        LineUnit u = base;
        u.SetFile(0).Copy();
        add("FileNumberZero", u, 1);
    }
    {
        LineUnit u = OneFile();
        u.files[0].directory = 1;
        u.SetAddress(0).Copy();
        add("DirectoryBeyondTheList", u, 0);
    }
    {
        LineUnit u = OneFile();
        u.Copy();
        add("SequenceWithoutSetAddress", u, 0);
    }
    {
        LineUnit u = base;
        u.EndSequence().Special(1, 1);
        add("SecondSequenceWithoutSetAddress", u, 1);
    }
    {
        LineUnit u = base;
        u.Op(2).Op(0x80);
        add("TruncatedOperand", u, 1);
    }
    {
        LineUnit u = base;
        u.lineRange = 0;
        add("ZeroLineRange", u, 0);
    }
    {
        LineUnit u = base;
        u.DefineFile("x.s", 5);
        add("DefineFileWithBadDirectory", u, 1);
    }
    {
        Bytes b = base.Encode();
        b[0] += 1; // the unit claims one byte more than the section has
        cases.push_back({"UnitRunsPastTheSection", b, 0});
    }
    {
        Bytes b = base.Encode();
        b.resize(20);
        cases.push_back({"TruncatedHeader", b, 0});
    }
    return cases;
}

TEST(LineDecoder, MalformedProgramsFailAndKeepEarlierRows) {
    for (const MalformedCase &c : MalformedCases()) {
        SCOPED_TRACE(c.name);
        AnyPlacer placer;
        Decoded d = Decode(c.section, placer);
        EXPECT_FALSE(d.ok);
        EXPECT_EQ(d.rows.size(), c.rowsBeforeFailure);
    }
}

TEST(LineDecoder, EverySequenceIsPlacedByItsOwnAddressOperand) {
    LineUnit u = OneFile();
    size_t first = u.NextOperand();
    u.SetAddress(0).Special(2, 1);
    size_t second = u.NextOperand();
    u.SetAddress(0x30).Special(0, 2).EndSequence();
    size_t third = u.NextOperand();
    u.SetAddress(0).Copy().EndSequence();
    size_t start = u.ProgramStart();

    TablePlacer placer;
    placer.places[start + first] = {11, 0x100};  // a symbol 0x100 into section 11
    placer.places[start + second] = {12, -0x30}; // a later set_address moves the rows on
    placer.places[start + third] = {11, 0x8};
    Decoded d = Decode(u.Encode(), placer);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(placer.asked, (std::vector<uint64_t>{start + first, start + second, start + third}));
    EXPECT_EQ(d.rows, (std::vector<Row>{{0x102, 2, 1, 0}, {0, 4, 1, 0}, {0x8, 1, 1, 0}}));
    // Each placement is a span of its own. The first ends where the address register stood when
    // the sequence moved on (0x102 in section 11); the others at their end of sequence, placed
    // like their rows.
    ASSERT_EQ(d.spans.size(), 3u);
    const std::pair<BrxHandle, uint64_t> ends[] = {{11, 0x102}, {12, 0}, {11, 0x8}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(d.spans[i].m_Section, ends[i].first);
        EXPECT_EQ(d.spans[i].m_nEndAddress, ends[i].second);
    }
}

TEST(LineDecoder, RowsCarryTheStatementRegister) {
    LineUnit u = OneFile();
    // negate_stmt twice, then an end of sequence, which restores the header's default.
    u.SetAddress(0).Copy().Op(6).Special(1, 1).Op(6).Special(1, 1).Op(6).AdvancePc(2);
    u.EndSequence().SetAddress(0x10).Copy().EndSequence();
    AnyPlacer placer;
    Decoded d = Decode(u.Encode(), placer);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.flags, (std::vector<uint32_t>{kRowIsStmt, 0, kRowIsStmt, kRowIsStmt}));
    ASSERT_EQ(d.spans.size(), 2u);
    EXPECT_EQ(d.spans[0].m_nEndAddress, 4u);
    EXPECT_EQ(d.spans[1].m_nEndAddress, 0x10u);
}

TEST(LineDecoder, UnplaceableSequenceFailsTheUnit) {
    LineUnit u = OneFile();
    u.SetAddress(0).Copy();
    TablePlacer placer; // knows no relocation
    EXPECT_FALSE(Decode(u.Encode(), placer).ok);
}

TEST(LineDecoder, SecondUnitNumbersFilesAndDirectoriesFromItsOwnBase) {
    LineUnit a;
    a.directories = {"/inc"};
    a.files = {{"a.s", 0}, {"a.inc", 1}};
    a.SetAddress(0).SetFile(2).Copy().EndSequence();
    LineUnit b;
    b.files = {{"b.s", 0}};
    b.SetAddress(0).Copy().EndSequence();
    Bytes section = a.Encode();
    uint64_t secondOffset = section.size();
    Bytes second = b.Encode();
    section.insert(section.end(), second.begin(), second.end());

    CFileTable files;
    CLineSection reader(section.data(), section.size());
    AnyPlacer placer;
    CRowTable rows;
    std::vector<CSequenceSpan> spans;
    ASSERT_TRUE(reader.ReadHeader(0, "/one", files).Ok());
    ASSERT_TRUE(reader.DecodeUnit(placer, files, rows, spans).Ok());
    ASSERT_TRUE(reader.ReadHeader(secondOffset, "/two", files).Ok());
    ASSERT_TRUE(reader.DecodeUnit(placer, files, rows, spans).Ok());
    EXPECT_EQ(spans.size(), 2u);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].m_nFileIndex, 1);
    EXPECT_EQ(rows[1].m_nFileIndex, 2);
    ASSERT_EQ(files.FileCount(), 3u);
    EXPECT_EQ(files.GetFile(1)->m_Path, "/inc/a.inc");
    EXPECT_EQ(files.GetFile(2)->m_Path, "/two/b.s");
    EXPECT_EQ(files.GetFile(2)->m_nDirectory, 2u); // the second unit's directory 0
}

} // namespace
