// Queries of the retrieval engine over line information decoded from memory.
#include "DwarfBytes.h"

#include "lines/Retrieve.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

using namespace quillet;
using namespace retrievaltest;

namespace {

constexpr BrxHandle kText = 21;
constexpr BrxHandle kInit = 22;

// One object in memory: a unit with files a.s and b.s, and two sequences of .text with one of
// .init between them, rows out of address order, two rows at one address and a row that is not a
// statement.
class RetrieveQuery : public ::testing::Test {
protected:
    void SetUp() override {
        LineUnit u;
        u.directories = {"/src/inc"};
        u.files = {{"a.s", 0}, {"B.inc", 1}};
        size_t start = u.ProgramStart();
        // .text, first sequence: 0x10 line 5, 0x14 line 6, 0x20 line 6 (file b), 0x20 line 9;
        // its code ends at 0x24
        placer.places[start + u.NextOperand()] = {kText, 0};
        u.SetAddress(0x10).AdvanceLine(4).Copy().Special(4, 1).SetFile(2).Special(12, 0);
        u.SetFile(1).Special(0, 3).AdvancePc(4).EndSequence();
        // .init: 0x0 line 30, to 0x2
        placer.places[start + u.NextOperand()] = {kInit, 0};
        u.SetAddress(0).AdvanceLine(29).Copy().AdvancePc(2).EndSequence();
        // .text again, below the first sequence: 0x0 line 2, 0x8 line 5 (not a statement), to
        // 0xc
        placer.places[start + u.NextOperand()] = {kText, 0};
        u.SetAddress(0).Special(0, 1).Op(6).Special(8, 3).AdvancePc(4).EndSequence();
        bytes = SectionBytes::Of(InfoUnit::Standard("a.s", "/src", 0), u.Encode());
        ASSERT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_NONE);
    }

    DbgSourceHandle *Source(const char *name) {
        std::vector<char> buffer(name, name + std::strlen(name) + 1);
        DbgSourceHandle *handle = nullptr;
        EXPECT_EQ(engine.FindSource(buffer.data(), &handle), DBG_ERR_NONE);
        return handle;
    }

    SectionBytes bytes;
    TestPlacer placer;
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

// Queries in turn: a flag of 1 continues after the last record found, through the records at one
// position; the next record lying above the position gives the previous one, inexactly.
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
        {"ContinuingAtTheSamePosition", a, 1, 5, DBG_ERR_NONE, 0x10, kText},
        {"ContinuingPastThePosition", a, 1, 5, DBG_ERR_INEXACT_POSITION, 0x10, kText},
        {"ExactInAnotherSection", a, 0, 30, DBG_ERR_NONE, 0x0, kInit},
        {"LineWithoutCodeGivesTheNearestBelow", a, 0, 7, DBG_ERR_INEXACT_POSITION, 0x14, kText},
        {"NearestBelowCanBeInAnEarlierFile", b, 0, 1, DBG_ERR_INEXACT_POSITION, 0x0, kInit},
        {"BelowEveryRecord", a, 0, 1, DBG_ERR_NO_LINE_AT_POSITION, 0, 0},
        {"OtherFile", b, 0, 6, DBG_ERR_NONE, 0x20, kText},
        {"ContinuingAfterTheLastRecord", b, 1, 6, DBG_ERR_NO_LINE_AT_POSITION, 0, 0},
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
// program, a type unit, and a program that two units name (read once). Each unit numbers its
// files and directories from its own base, and a version 5 table names its own directory 0.
TEST(RetrieveLoad, EveryUnitLeadsToItsOwnProgram) {
    LineUnit first;
    first.directories = {"inc"};
    first.files = {{"one.s", 0}, {"one.inc", 1}};
    first.SetAddress(0).AdvanceLine(9).SetFile(2).Copy().AdvancePc(4).EndSequence();
    LineUnit second;
    second.version = 5;
    second.compilationDirectory = "/two";
    second.files = {{"two.c", 0}, {"two.c", 0}};
    second.SetAddress(0x10).AdvanceLine(19).Copy().AdvancePc(4).EndSequence();
    SectionBytes bytes;
    bytes.line = qtest::Concat({first.Encode(), second.Encode()});
    uint64_t secondProgram = first.Encode().size();

    InfoUnit units[5] = {
        InfoUnit::Standard("one.s", "/one", 0), InfoUnit::Standard("none.s", "/none", 0),
        InfoUnit::Standard("type", "/type", 0), InfoUnit::Standard("two.c", "/unit", secondProgram),
        InfoUnit::Standard("again.s", "/one", 0)};
    units[1].attributes.pop_back(); // no statement list
    units[2].version = 5;
    units[2].unitType = 2; // a type unit: skipped whatever it holds
    units[2].tag = 0x41;
    units[3].version = 5;
    for (InfoUnit &unit : units) {
        unit.abbrevOffset = bytes.abbrev.size();
        bytes.abbrev = qtest::Concat({bytes.abbrev, unit.Abbrev()});
        bytes.info = qtest::Concat({bytes.info, unit.Info()});
    }
    TestPlacer placer;
    placer.fallback = kText;
    CBaseRetrieve engine;
    ASSERT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_NONE);
    auto [rowsBegin, rowsEnd] = engine.RowsOf(kText);
    std::vector<std::tuple<uint64_t, uint32_t, int32_t>> rows;
    for (const CLineRow *r = rowsBegin; r != rowsEnd; ++r)
        rows.emplace_back(r->m_nAddress, r->m_nLine, r->m_nFileIndex);
    EXPECT_EQ(rows, (decltype(rows){{0, 10, 1}, {0x10, 20, 3}}));
    ASSERT_EQ(engine.Files().FileCount(), 4u);
    EXPECT_EQ(engine.Files().Path(1), "/one/inc/one.inc");
    EXPECT_EQ(engine.Files().Path(2), "/two/two.c");
}

TEST(RetrieveLoad, RowsDecodedBeforeAFaultStay) {
    LineUnit u;
    u.files = {{"a.s", 0}};
    u.SetAddress(0).Copy().Op(0); // an extended opcode without its length
    SectionBytes bytes = SectionBytes::Of(InfoUnit::Standard("a.s", "/", 0), u.Encode());
    TestPlacer placer;
    placer.fallback = kText;
    CBaseRetrieve engine;
    EXPECT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_READ_FAILED);
    EXPECT_EQ(engine.Rows().size(), 1u);
}

// Offsets spread over the whole 64-bit range, repeated, and decoded out of order: the bucket
// table must still find the first row at every offset and nothing in between.
TEST(RetrieveLookup, SparseAndRepeatedOffsets) {
    const uint64_t kFar = uint64_t(1) << 40, kHigh = uint64_t(1) << 63, kTop = ~uint64_t(0);
    const std::pair<uint64_t, uint32_t> rows[] = {
        {kTop, 9}, {kHigh, 8}, {kFar + 3, 7}, {kFar, 5}, {kFar, 6}, {5, 4}, {1, 3}, {0, 1}, {0, 2}};
    LineUnit u;
    u.files = {{"a.s", 0}};
    for (const auto &row : rows) {
        // One sequence per row: each sequence is placed by its own operand.
        u.SetAddress(row.first).AdvanceLine(int64_t(row.second) - 1).Copy().EndSequence();
    }
    SectionBytes bytes = SectionBytes::Of(InfoUnit::Standard("a.s", "/", 0), u.Encode());
    TestPlacer placer;
    placer.fallback = kText;
    CBaseRetrieve engine;
    ASSERT_EQ(engine.LoadDwarf(bytes.View(), placer), DBG_ERR_NONE);
    DbgLineSectionHandle *handle = engine.SectionHandle(kText);

    // An offset answers the first row there; one between rows answers nothing.
    const std::pair<uint64_t, uint32_t> hits[] = {{0, 1},        {1, 3},     {5, 4},   {kFar, 5},
                                                  {kFar + 3, 7}, {kHigh, 8}, {kTop, 9}};
    for (const auto &[offset, line] : hits) {
        SCOPED_TRACE(offset);
        DbgOffsetQuery query{handle, offset};
        DbgInstInfo out{};
        ASSERT_EQ(engine.InstInfoByOffset(1, &query, &out), DBG_ERR_NONE);
        EXPECT_EQ(out.line, line);
    }
    for (uint64_t offset : {uint64_t(2), kFar - 1, kFar + 1, kTop - 1, kHigh + 1}) {
        DbgOffsetQuery query{handle, offset};
        DbgInstInfo out{};
        EXPECT_EQ(engine.InstInfoByOffset(1, &query, &out), DBG_ERR_NO_LINE_AT_OFFSET) << offset;
    }
    // The row before the second row at kFar is the first one there.
    DbgOffsetQuery query{handle, kFar + 3};
    DbgInstInfo out{};
    ASSERT_EQ(engine.InstInfoByOffset(0, &query, &out), 0u);
    EXPECT_EQ(out.line, 6u);
}

} // namespace
