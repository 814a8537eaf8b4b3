// Queries of the retrieval engine over line information decoded from memory.
#include "DwarfBytes.h"

#include "lines/Retrieve.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>

using namespace quillet;
using namespace retrievaltest;

namespace {

constexpr BrxHandle kText = 21;
constexpr BrxHandle kInit = 22;

// Sequences go to the section that the test names for their operand offset.
struct TablePlacer : CSequencePlacer {
    std::map<uint64_t, BrxHandle> sections;
    Result Place(const CAddressOperand &operand, BrxHandle &section, int64_t &bias) override {
        auto it = sections.find(operand.m_nOffset);
        if (it == sections.end())
            return Result::Failed;
        section = it->second;
        bias = 0;
        return Result::Placed;
    }
};

// Every sequence in one section, unmoved.
struct OneSectionPlacer : CSequencePlacer {
    BrxHandle target = kText;
    Result Place(const CAddressOperand &, BrxHandle &section, int64_t &bias) override {
        section = target;
        bias = 0;
        return Result::Placed;
    }
};

// One object in memory: a unit with files a.s and b.s, and two sequences of .text with one of
// .init between them, rows out of address order, two rows at one address and a row that is not a
// statement.
class RetrieveQuery : public ::testing::Test {
protected:
    void SetUp() override {
        LineUnit u;
        u.directories = {"/src/inc"};
        u.files = {{"a.s", 0}, {"B.inc", 1}};
        size_t start;
        {
            LineUnit probe = u;
            start = probe.ProgramStart();
        }
        // .text, first sequence: 0x10 line 5, 0x14 line 6, 0x20 line 6 (file b), 0x20 line 9;
        // its code ends at 0x24
        placer.sections[start + u.NextOperand()] = kText;
        u.SetAddress(0x10).AdvanceLine(4).Copy().Special(4, 1).SetFile(2).Special(12, 0);
        u.SetFile(1).Special(0, 3).AdvancePc(4).EndSequence();
        // .init: 0x0 line 30, to 0x2
        placer.sections[start + u.NextOperand()] = kInit;
        u.SetAddress(0).AdvanceLine(29).Copy().AdvancePc(2).EndSequence();
        // .text again, below the first sequence: 0x0 line 2, 0x8 line 5 (not a statement), to
        // 0xc
        placer.sections[start + u.NextOperand()] = kText;
        u.SetAddress(0).Special(0, 1).Op(6).Special(8, 3).AdvancePc(4).EndSequence();
        line = u.Encode();

        InfoUnit cu = InfoUnit::Standard("a.s", "/src", 0);
        bytes.info = cu.Info();
        bytes.abbrev = cu.Abbrev();
        bytes.line = line;
        ASSERT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_NONE);
    }

    DbgSourceHandle *Source(const char *name) {
        std::vector<char> buffer(name, name + std::strlen(name) + 1);
        DbgSourceHandle *handle = nullptr;
        EXPECT_EQ(engine.FindSource(buffer.data(), &handle), DBG_ERR_NONE);
        return handle;
    }

    Bytes line;
    SectionBytes bytes;
    TablePlacer placer;
    CBaseRetrieve engine;
};

constexpr uint32_t kStmt = DBG_ROW_IS_STMT;
constexpr uint32_t kStart = DBG_ROW_SEQUENCE_START;

// Rows stay in table order with their sequences; each range ends at the next greater address of
// its sequence or at the sequence's end.
TEST_F(RetrieveQuery, RowsKeepTheirTableOrderAndSequences) {
    DbgLineSectionHandle *text = engine.SectionHandle(kText);
    const std::vector<DbgLineRow> expected = {
        {0x10, 0x14, 5, 0, 0, kStmt | kStart},
        {0x14, 0x20, 6, 0, 0, kStmt},
        {0x20, 0x20, 6, 0, 1, kStmt}, // another row follows at its address
        {0x20, 0x24, 9, 0, 0, kStmt},
        {0x0, 0x8, 2, 0, 0, kStmt | kStart},
        {0x8, 0xc, 5, 0, 0, 0},
    };
    uint64_t count = 0;
    ASSERT_EQ(engine.RowCount(text, &count), DBG_ERR_NONE);
    ASSERT_EQ(count, expected.size());
    std::vector<DbgLineRow> rows(10);
    count = rows.size();
    ASSERT_EQ(engine.GetRows(text, 0, rows.data(), &count), DBG_ERR_NONE);
    rows.resize(count);
    EXPECT_EQ(rows, expected);

    // Pages start anywhere, also inside a sequence; past the end nothing is copied.
    const struct {
        uint64_t first, asked, copied;
    } pages[] = {{3, 2, 2}, {4, 10, 2}, {6, 1, 0}, {~uint64_t(0), 1, 0}, {2, 0, 0}};
    for (const auto &page : pages) {
        SCOPED_TRACE(page.first);
        DbgLineRow out[10];
        count = page.asked;
        ASSERT_EQ(engine.GetRows(text, page.first, out, &count), DBG_ERR_NONE);
        ASSERT_EQ(count, page.copied);
        for (uint64_t i = 0; i < count; ++i)
            EXPECT_EQ(out[i], expected[page.first + i]);
    }
    ASSERT_EQ(engine.RowCount(engine.SectionHandle(kInit), &count), DBG_ERR_NONE);
    EXPECT_EQ(count, 1u);
}

TEST_F(RetrieveQuery, FindRowAnswersTheRowWhoseRangeHoldsTheOffset) {
    DbgLineSectionHandle *text = engine.SectionHandle(kText);
    const struct {
        uint64_t offset;
        uint32_t status;
        uint64_t index;
    } cases[] = {
        {0x0, 0, 4},  {0x7, 0, 4},   {0x8, 0, 5},
        {0xb, 0, 5},  {0xc, 29, 0},  {0xf, 29, 0}, // between the end of one sequence and the next
        {0x10, 0, 0}, {0x1f, 0, 1},  {0x20, 0, 3}, // of two rows at one address, the last
        {0x23, 0, 3}, {0x24, 29, 0}, {~uint64_t(0), 29, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.offset);
        DbgLineRow row{};
        uint64_t index = 99;
        ASSERT_EQ(engine.FindRow(text, c.offset, &row, &index), c.status);
        if (c.status != 0)
            continue;
        EXPECT_EQ(index, c.index);
        DbgLineRow same{};
        uint64_t count = 1;
        ASSERT_EQ(engine.GetRows(text, index, &same, &count), DBG_ERR_NONE);
        EXPECT_EQ(row, same);
        EXPECT_EQ(engine.FindRow(text, c.offset, &row, nullptr), DBG_ERR_NONE);
    }
    DbgLineRow row{};
    EXPECT_EQ(engine.FindRow(engine.SectionHandle(555), 0, &row, nullptr),
              DBG_ERR_NO_LINE_AT_OFFSET); // a section without rows
}

TEST_F(RetrieveQuery, ByOffset) {
    DbgLineSectionHandle *text = engine.SectionHandle(kText);
    DbgLineSectionHandle *init = engine.SectionHandle(kInit);
    EXPECT_EQ(text->section_number, 0u);
    EXPECT_EQ(init->section_number, 1u);
    EXPECT_EQ(engine.SectionHandle(kText), text); // a section keeps its number

    struct Case {
        DbgLineSectionHandle *handle;
        uint32_t flag;
        uint64_t offset;
        uint32_t status;
        uint64_t foundOffset;
        uint32_t line;
        uint32_t file;
    } cases[] = {
        {text, 1, 0x8, DBG_ERR_NONE, 0x8, 5, 0},
        {text, 0, 0x8, DBG_ERR_NONE, 0x0, 2, 0},           // the row before
        {text, 0, 0x0, DBG_ERR_NO_PREVIOUS_LINE, 0, 0, 0}, // before the first row
        {text, 1, 0x9, DBG_ERR_NO_LINE_AT_OFFSET, 0, 0, 0},
        {text, 1, 0x100, DBG_ERR_NO_LINE_AT_OFFSET, 0, 0, 0},
        {text, 1, 0x20, DBG_ERR_NONE, 0x20, 6, 1}, // the first of two rows there
        {text, 0, 0x20, DBG_ERR_NONE, 0x14, 6, 0},
        {init, 1, 0x0, DBG_ERR_NONE, 0x0, 30, 0},
    };
    // One buffer for every query, as callers keep it: it starts as garbage, then holds the other
    // file's name or the same one with a stray unit in its padding.
    DbgInstInfo out;
    std::memset(&out, 0xab, sizeof(out));
    for (const Case &c : cases) {
        SCOPED_TRACE(c.offset);
        DbgOffsetQuery query{c.handle, c.offset};
        out.name[200] = u'x';
        ASSERT_EQ(engine.InstInfoByOffset(c.flag, &query, &out), c.status);
        if (c.status != DBG_ERR_NONE)
            continue;
        EXPECT_EQ(query.offset, c.foundOffset);
        EXPECT_EQ(out.line, c.line);
        EXPECT_EQ(out.column, 1u);
        EXPECT_EQ(out.file_index, c.file);
        std::u16string padded = c.file == 0 ? u"/src/a.s" : u"/src/inc/B.inc";
        padded.resize(257, u'\0');
        EXPECT_EQ(std::u16string(out.name, 257), padded);
    }
}

TEST_F(RetrieveQuery, ByOffsetRefusesSectionsNeverOpened) {
    DbgLineSectionHandle stranger{kInit, 0}; // a real section, but never opened
    DbgOffsetQuery query{&stranger, 0};
    DbgInstInfo out{};
    EXPECT_EQ(engine.InstInfoByOffset(1, &query, &out), DBG_ERR_OBJECT_FILE);
    DbgLineSectionHandle unknown{999, 0};
    query.handle = &unknown;
    EXPECT_EQ(engine.InstInfoByOffset(1, &query, &out), DBG_ERR_OBJECT_FILE);
    // A section with no rows has a handle whose queries find nothing.
    query.handle = engine.SectionHandle(555);
    EXPECT_EQ(engine.InstInfoByOffset(1, &query, &out), DBG_ERR_NO_LINE_AT_OFFSET);
}

TEST_F(RetrieveQuery, LongNamesFillTheNameFieldWithoutTerminator) {
    // Checked through the copy rule directly: a 300-unit path fills all 257 units.
    Bytes longLine;
    LineUnit u;
    u.files = {{std::string(300, 'n'), 0}};
    TablePlacer p;
    p.sections[u.ProgramStart() + u.NextOperand()] = kText;
    u.SetAddress(0).Copy();
    longLine = u.Encode();
    SectionBytes longBytes = bytes;
    longBytes.line = longLine;
    CBaseRetrieve other;
    ASSERT_EQ(other.LoadDwarf(longBytes.View(), p), DBG_ERR_NONE);
    DbgOffsetQuery query{other.SectionHandle(kText), 0};
    DbgInstInfo out;
    std::memset(&out, 0xff, sizeof(out));
    ASSERT_EQ(other.InstInfoByOffset(1, &query, &out), DBG_ERR_NONE);
    EXPECT_EQ(out.name[0], u'/');
    EXPECT_EQ(out.name[256], u'n');
}

TEST_F(RetrieveQuery, SourceNamesAreFoundInAnyLetterCase) {
    char name[] = "/SRC/INC/b.INC";
    DbgSourceHandle *handle = nullptr;
    ASSERT_EQ(engine.FindSource(name, &handle), DBG_ERR_NONE);
    EXPECT_STREQ(name, "/SRC/INC/b.INC"); // the caller's buffer is not written
    EXPECT_EQ(handle->file_index, 1u);
    EXPECT_EQ(std::u16string(handle->name), u"/src/inc/B.inc");
    char missing[] = "/src/c.s";
    EXPECT_EQ(engine.FindSource(missing, &handle), DBG_ERR_SOURCE_NOT_FOUND);
}

TEST_F(RetrieveQuery, BySource) {
    DbgSourceHandle *a = Source("/src/a.s");
    DbgSourceHandle *b = Source("/src/inc/b.inc");
    struct Case {
        const char *name;
        DbgSourceHandle *handle;
        uint32_t flag, line;
        uint32_t status;
        uint64_t address;
        BrxHandle section;
    } cases[] = {
        {"ExactPosition", a, 0, 5, DBG_ERR_NONE, 0x8, kText}, // the lowest address of line 5
        {"ExactInAnotherSection", a, 0, 30, DBG_ERR_NONE, 0x0, kInit},
        {"LineWithoutCodeGivesTheNearestBelow", a, 0, 7, DBG_ERR_INEXACT_POSITION, 0x14, kText},
        {"NearestBelowCanBeInAnEarlierFile", b, 0, 1, DBG_ERR_INEXACT_POSITION, 0x0, kInit},
        {"BelowEveryRecord", a, 0, 1, DBG_ERR_NO_LINE_AT_POSITION, 0, 0},
        {"OtherFile", b, 0, 6, DBG_ERR_NONE, 0x20, kText},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        DbgSourceQuery query{c.handle, c.line, 1};
        DbgSourceResult result{nullptr, 0xdead};
        ASSERT_EQ(engine.InstInfoBySource(c.flag, &query, &result), c.status);
        if (c.status == DBG_ERR_NO_LINE_AT_POSITION)
            continue;
        EXPECT_EQ(result.address, c.address);
        ASSERT_NE(result.handle, nullptr);
        EXPECT_EQ(result.handle->section, c.section);
    }
}

TEST_F(RetrieveQuery, ContinuingWalksThroughRecordsAtTheSamePosition) {
    DbgSourceHandle *a = Source("/src/a.s");
    DbgSourceQuery query{a, 5, 1};
    DbgSourceResult result{};
    ASSERT_EQ(engine.InstInfoBySource(0, &query, &result), DBG_ERR_NONE);
    EXPECT_EQ(result.address, 0x8u);
    ASSERT_EQ(engine.InstInfoBySource(1, &query, &result), DBG_ERR_NONE);
    EXPECT_EQ(result.address, 0x10u);
    // The next record (line 6) lies above the key: the previous record is given, inexactly.
    ASSERT_EQ(engine.InstInfoBySource(1, &query, &result), DBG_ERR_INEXACT_POSITION);
    EXPECT_EQ(result.address, 0x10u);
    // Continuing after the very last record finds nothing more.
    DbgSourceQuery last{Source("/src/inc/b.inc"), 6, 1};
    ASSERT_EQ(engine.InstInfoBySource(0, &last, &result), DBG_ERR_NONE);
    EXPECT_EQ(engine.InstInfoBySource(1, &last, &result), DBG_ERR_NO_LINE_AT_POSITION);
}

TEST_F(RetrieveQuery, SourceFileNamesAndBufferSizes) {
    uint32_t count = 0;
    ASSERT_EQ(engine.SourceFileCount(&count), DBG_ERR_NONE);
    EXPECT_EQ(count, 2u);
    char buffer[64];
    uint32_t exact = 2 * 8 + 1; // "/src/a.s" is 8 units
    uint32_t size = exact;
    ASSERT_EQ(engine.SourceFileName(0, buffer, &size), DBG_ERR_NONE);
    EXPECT_STREQ(buffer, "/src/a.s");
    EXPECT_EQ(size, exact); // the size is not changed
    size = exact - 1;
    EXPECT_EQ(engine.SourceFileName(0, buffer, &size), DBG_ERR_BAD_SOURCE_INDEX);
    size = sizeof(buffer);
    EXPECT_EQ(engine.SourceFileName(2, buffer, &size), DBG_ERR_BAD_SOURCE_INDEX);
    EXPECT_EQ(engine.SourceFileName(-1, buffer, &size), DBG_ERR_BAD_SOURCE_INDEX);
}

// Every unit of .debug_info leads to its own line program: units of any version, one without a
// program, a type unit, and a program that two units name (read once).
TEST(RetrieveLoad, EveryUnitLeadsToItsOwnProgram) {
    LineUnit first;
    first.files = {{"one.s", 0}};
    first.SetAddress(0).AdvanceLine(9).Copy().AdvancePc(4).EndSequence();
    LineUnit second;
    second.version = 5;
    second.compilationDirectory = "/two";
    second.files = {{"two.c", 0}, {"two.c", 0}};
    second.SetAddress(0x10).AdvanceLine(19).Copy().AdvancePc(4).EndSequence();
    SectionBytes bytes;
    bytes.line = first.Encode();
    uint64_t secondProgram = bytes.line.size();
    Bytes more = second.Encode();
    bytes.line.insert(bytes.line.end(), more.begin(), more.end());

    InfoUnit units[5] = {
        InfoUnit::Standard("one.s", "/one", 0), InfoUnit::Standard("none.s", "/none", 0),
        InfoUnit::Standard("type", "/type", 0), InfoUnit::Standard("two.c", "/two", secondProgram),
        InfoUnit::Standard("again.s", "/one", 0)};
    units[1].attributes.pop_back(); // no statement list
    units[2].version = 5;
    units[2].unitType = 2; // a type unit: skipped whatever it holds
    units[2].tag = 0x41;
    units[3].version = 5;
    for (InfoUnit &unit : units) {
        unit.abbrevOffset = bytes.abbrev.size();
        Bytes abbrev = unit.Abbrev(), info = unit.Info();
        bytes.abbrev.insert(bytes.abbrev.end(), abbrev.begin(), abbrev.end());
        bytes.info.insert(bytes.info.end(), info.begin(), info.end());
    }
    OneSectionPlacer placer;
    CBaseRetrieve engine;
    ASSERT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_NONE);
    auto [rowsBegin, rowsEnd] = engine.RowsOf(kText);
    std::vector<std::pair<uint64_t, uint32_t>> rows;
    for (const CLineRow *r = rowsBegin; r != rowsEnd; ++r)
        rows.emplace_back(r->m_nAddress, r->m_nLine);
    EXPECT_EQ(rows, (std::vector<std::pair<uint64_t, uint32_t>>{{0, 10}, {0x10, 20}}));
    ASSERT_EQ(engine.Files().FileCount(), 3u);
    EXPECT_EQ(engine.Files().Path(0), "/one/one.s");
    EXPECT_EQ(engine.Files().Path(1), "/two/two.c");
}

TEST(RetrieveLoad, ShortLineSectionAndBrokenUnits) {
    InfoUnit cu = InfoUnit::Standard("a.s", "/", 0);
    LineUnit u;
    u.files = {{"a.s", 0}};
    u.SetAddress(0).Copy().Copy();
    SectionBytes good;
    good.info = cu.Info();
    good.abbrev = cu.Abbrev();
    good.line = u.Encode();
    OneSectionPlacer placer;
    placer.target = 1;
    {
        CDwarfSections shorter = good.View();
        shorter.line.m_nSize = 31;
        CBaseRetrieve engine;
        EXPECT_EQ(engine.LoadDwarf(shorter, placer), DBG_ERR_LINE_SECTION_TOO_SHORT);
    }
    {
        SectionBytes broken = good;
        broken.line.back() = 0x00; // the last opcode becomes an extended one with no length
        CBaseRetrieve engine;
        EXPECT_EQ(engine.LoadDwarf(broken.View(), placer), DBG_ERR_READ_FAILED);
        EXPECT_EQ(engine.Rows().size(), 1u); // the row decoded before the fault stays
    }
    {
        SectionBytes broken = good;
        broken.info[4] = 6; // version 6
        CBaseRetrieve engine;
        EXPECT_EQ(engine.LoadDwarf(broken.View(), placer), DBG_ERR_READ_FAILED);
    }
}

} // namespace

namespace {

// Offsets spread over the whole 64-bit range, repeated, and decoded out of order: the bucket
// table must still find the first row at every offset and nothing in between.
TEST(RetrieveLookup, SparseAndRepeatedOffsets) {
    const uint64_t kFar = uint64_t(1) << 40;
    const std::pair<uint64_t, uint32_t> rows[] = {
        {~uint64_t(0), 9},
        {uint64_t(1) << 63, 8},
        {kFar + 3, 7},
        {kFar, 5},
        {kFar, 6},
        {5, 4},
        {1, 3},
        {0, 1},
        {0, 2},
    };
    LineUnit u;
    u.files = {{"a.s", 0}};
    for (const auto &row : rows) {
        // One sequence per row: each sequence is placed by its own operand.
        u.SetAddress(row.first).AdvanceLine(int64_t(row.second) - 1).Copy().EndSequence();
    }
    InfoUnit cu = InfoUnit::Standard("a.s", "/", 0);
    SectionBytes bytes;
    bytes.info = cu.Info();
    bytes.abbrev = cu.Abbrev();
    bytes.line = u.Encode();
    OneSectionPlacer placer;
    CBaseRetrieve engine;
    ASSERT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_NONE);
    DbgLineSectionHandle *handle = engine.SectionHandle(kText);

    const struct {
        uint64_t offset;
        uint32_t status;
        uint32_t line;
    } cases[] = {
        {0, 0, 1},
        {1, 0, 3},
        {5, 0, 4},
        {kFar, 0, 5},
        {kFar + 3, 0, 7},
        {uint64_t(1) << 63, 0, 8},
        {~uint64_t(0), 0, 9},
        {2, 29, 0},
        {kFar - 1, 29, 0},
        {kFar + 1, 29, 0},
        {~uint64_t(0) - 1, 29, 0},
        {(uint64_t(1) << 63) + 1, 29, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.offset);
        DbgOffsetQuery query{handle, c.offset};
        DbgInstInfo out{};
        ASSERT_EQ(engine.InstInfoByOffset(1, &query, &out), c.status);
        if (c.status == 0) {
            EXPECT_EQ(out.line, c.line);
        }
    }
    // The row before the second row at kFar is the first one there.
    DbgOffsetQuery query{handle, kFar + 3};
    DbgInstInfo out{};
    ASSERT_EQ(engine.InstInfoByOffset(0, &query, &out), 0u);
    EXPECT_EQ(out.line, 6u);
}

} // namespace
