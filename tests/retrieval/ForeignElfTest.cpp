// Objects made by another assembler at test time read back to exactly the rows that an
// independent DWARF dumper prints, queried by offset and by source.
#include "lines/Retrieve.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>

namespace {

struct Row {
    uint64_t address;
    uint32_t line, column, file;
    bool stmt;
    bool operator==(const Row &o) const {
        return address == o.address && line == o.line && column == o.column && file == o.file &&
               stmt == o.stmt;
    }
};
std::ostream &operator<<(std::ostream &os, const Row &r) {
    return os << "{0x" << std::hex << r.address << std::dec << " line " << r.line << " col "
              << r.column << " file " << r.file << (r.stmt ? " is_stmt" : "") << "}";
}

// Names that a linker keeps as sections of their own.
const char *const kSections[] = {".text", ".hotcode", ".coldcode"};
const char *const kInstructions[] = {"nop", "xorl %eax, %eax", "movl $1, %eax",
                                     "movabsq $0x1122334455667788, %rax"};

// Assembly with three code sections entered in turns, three files (one under an absolute
// include directory, one named through a parent step), a compilation unit written by hand, and
// code before the first located instruction of each section so sequences start inside them.
// Every (file, line) pair is used once; lines of section s lie in [10000 (s + 1), 10000 (s + 2)).
std::string GenerateAssembly(int rowsPerSection, const std::string &compDir) {
    std::ostringstream s;
    s << ".file 1 \"main.s\"\n"
      << ".file 2 \"/abs/inc\" \"defs.inc\"\n"
      << ".file 3 \"../rel/./more.s\"\n";
    for (const char *section : kSections)
        s << ".section " << section << ",\"ax\",@progbits\n  nop\n  nop\n  nop\n";
    int next[3] = {0, 0, 0};
    for (int round = 0; round * 50 < rowsPerSection; ++round) {
        for (int sec = 0; sec < 3; ++sec) {
            s << ".section " << kSections[sec] << ",\"ax\",@progbits\n";
            for (int k = 0; k < 50 && next[sec] < rowsPerSection; ++k, ++next[sec]) {
                int i = next[sec];
                int file = 1 + (i / 7) % 3;
                int line = 10000 * (sec + 1) + 3 * i;
                s << ".loc " << file << " " << line << " " << (i % 11) << "\n  "
                  << kInstructions[(i * 5 + sec) % 4] << "\n";
            }
        }
    }
    s << ".section .debug_abbrev,\"\",@progbits\n"
      << ".byte 1, 0x11, 1\n"
      << ".byte 0x13, 0x05, 0x10, 0x06, 0x03, 0x08, 0x1b, 0x08, 0x25, 0x08, 0x11, 0x01\n"
      << ".byte 0, 0, 0\n"
      << ".section .debug_info,\"\",@progbits\n"
      << ".long .Linfo_end - .Linfo_start\n.Linfo_start:\n"
      << ".short 2\n.long 0\n.byte 8\n.uleb128 1\n.short 0x8001\n.long 0\n"
      << ".asciz \"main.s\"\n.asciz \"" << compDir << "\"\n.asciz \"generator\"\n.quad 0\n"
      << ".byte 0\n.Linfo_end:\n";
    return s.str();
}

// The rows of each sequence that the dumper prints, and the address of its end-of-sequence row.
struct Sequence : std::vector<Row> {
    uint64_t end = 0;
};
std::vector<Sequence> DumpedSequences(const std::string &object) {
    qtest::CommandResult dump = qtest::RunCommand("llvm-dwarfdump-14 --debug-line " + object);
    EXPECT_EQ(dump.exitCode, 0) << dump.output;
    std::vector<Sequence> sequences(1);
    for (const std::string &text : qtest::SplitLines(dump.output)) {
        unsigned long long address;
        unsigned line, column, file;
        if (std::sscanf(text.c_str(), "0x%llx %u %u %u", &address, &line, &column, &file) != 4)
            continue;
        if (text.find("end_sequence") != std::string::npos) {
            sequences.back().end = address;
            sequences.emplace_back();
            continue;
        }
        bool stmt = text.find("is_stmt") != std::string::npos;
        sequences.back().push_back(Row{address, line, column, file, stmt});
    }
    sequences.pop_back();
    return sequences;
}

BrxHandle SectionNamed(BrxHandle file, const char *name) {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
    BrxHandle section = 0;
    EXPECT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0), 0) << name;
    return section;
}

uint64_t SectionAddress(BrxHandle section) {
    uint64_t address = 0;
    EXPECT_EQ(_brx_get_keyed(section, BRX_KEY_SECTION_ADDRESS, nullptr, &address, 0), 0);
    return address;
}

// The object as assembled, linked into an executable, or linked into a shared object.
enum class Link { Relocatable, Executable, Shared };

class ForeignElf : public ::testing::TestWithParam<Link> {
protected:
    static constexpr int kRowsPerSection = 2000;
    const std::string kCompDir = "/build/gen";

    void SetUp() override {
        std::string source = dir.File("gen.s");
        object = dir.File("gen.o");
        ASSERT_TRUE(qtest::WriteTextFile(source, GenerateAssembly(kRowsPerSection, kCompDir)));
        qtest::CommandResult made =
            qtest::RunCommand("llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu -g "
                              "-dwarf-version=2 " +
                              source + " -o " + object);
        ASSERT_EQ(made.exitCode, 0) << made.output;
        if (GetParam() != Link::Relocatable) {
            std::string linked = dir.File("gen.linked");
            qtest::CommandResult link = qtest::RunCommand(
                std::string("ld ") + (GetParam() == Link::Shared ? "-shared" : "-e 0") + " -o " +
                linked + " " + object);
            ASSERT_EQ(link.exitCode, 0) << link.output;
            object = linked;
        }
        sequences = DumpedSequences(object);
        ASSERT_EQ(sequences.size(), 3u);
        char name[] = "/BUILD/gen/main.s";
        ASSERT_EQ(engine.OpenObjectAndSourceFile(object.c_str(), name, &mainSource), 0u);
    }

    // The sequence whose lines belong to section s.
    const Sequence &SequenceOf(int s) {
        for (const Sequence &seq : sequences)
            if (!seq.empty() && seq.front().line / 10000 == uint32_t(s + 1))
                return seq;
        ADD_FAILURE() << "no sequence for section " << s;
        return sequences.front();
    }

    qtest::TempDir dir;
    std::string object;
    std::vector<Sequence> sequences;
    CBaseRetrieve engine;
    DbgSourceHandle *mainSource = nullptr;
};

// Row by row through the row functions: the same rows, flags and ranges as the dumper's, and
// each row found again from every end of its range.
TEST_P(ForeignElf, RowsEqualTheDumpersSectionBySection) {
    for (int s = 0; s < 3; ++s) {
        SCOPED_TRACE(kSections[s]);
        BrxHandle section = SectionNamed(engine.Object(), kSections[s]);
        DbgLineSectionHandle *handle = engine.SectionHandle(section);
        uint64_t count = 0;
        ASSERT_EQ(engine.RowCount(handle, &count), 0u);
        std::vector<DbgLineRow> rows(count);
        ASSERT_EQ(engine.GetRows(handle, 0, rows.data(), &count), 0u);
        ASSERT_EQ(count, rows.size());
        // Rows are kept as offsets in their section; the dumper prints addresses.
        uint64_t base = SectionAddress(section);
        EXPECT_EQ(base != 0, GetParam() != Link::Relocatable);
        std::vector<Row> ours;
        for (const DbgLineRow &r : rows)
            ours.push_back(Row{r.offset + base, r.line, r.column, r.file_index + 1,
                               (r.flags & DBG_ROW_IS_STMT) != 0});
        const Sequence &theirs = SequenceOf(s);
        EXPECT_EQ(theirs.size(), size_t(kRowsPerSection));
        EXPECT_EQ(theirs.front().address - base, 3u); // three bytes before the first located one
        EXPECT_EQ(ours, static_cast<const std::vector<Row> &>(theirs));
        ASSERT_EQ(rows.size(), theirs.size());
        for (size_t i = 0; i < rows.size(); ++i) {
            uint64_t end = i + 1 < rows.size() ? theirs[i + 1].address : theirs.end;
            ASSERT_EQ(rows[i].end + base, end) << i;
            EXPECT_EQ(rows[i].flags & DBG_ROW_SEQUENCE_START, i == 0 ? DBG_ROW_SEQUENCE_START : 0);
            DbgLineRow found{};
            uint64_t index = 0;
            ASSERT_EQ(engine.FindRow(handle, rows[i].offset, &found, &index), 0u) << i;
            EXPECT_EQ(index, i);
            ASSERT_EQ(engine.FindRow(handle, rows[i].end - 1, &found, &index), 0u) << i;
            EXPECT_EQ(index, i);
        }
        DbgLineRow found{};
        EXPECT_EQ(engine.FindRow(handle, theirs.end - base, &found, nullptr), 29u);
        EXPECT_EQ(engine.FindRow(handle, theirs.front().address - base - 1, &found, nullptr), 29u);
    }
}

TEST_P(ForeignElf, FilesAreJoinedAndNormalised) {
    uint32_t count = 0;
    ASSERT_EQ(engine.SourceFileCount(&count), 0u);
    ASSERT_EQ(count, 3u);
    const char *expected[] = {"/build/gen/main.s", "/abs/inc/defs.inc", "/build/rel/more.s"};
    for (int i = 0; i < 3; ++i) {
        char buffer[64];
        uint32_t size = sizeof(buffer);
        ASSERT_EQ(engine.SourceFileName(i, buffer, &size), 0u);
        EXPECT_STREQ(buffer, expected[i]);
    }
    EXPECT_EQ(mainSource->file_index, 0u);
}

TEST_P(ForeignElf, EveryRowIsFoundByOffsetAndBySource) {
    DbgSourceHandle *files[3];
    char names[3][32] = {"/build/gen/main.s", "/abs/inc/defs.inc", "/build/rel/more.s"};
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(engine.FindSource(names[i], &files[i]), 0u);
    for (int s = 0; s < 3; ++s) {
        SCOPED_TRACE(kSections[s]);
        BrxHandle section = SectionNamed(engine.Object(), kSections[s]);
        DbgLineSectionHandle *handle = engine.SectionHandle(section);
        uint64_t base = SectionAddress(section);
        std::vector<Row> rows = SequenceOf(s);
        for (Row &row : rows)
            row.address -= base;
        for (size_t i = 0; i < rows.size(); ++i) {
            const Row &row = rows[i];
            DbgOffsetQuery query{handle, row.address};
            DbgInstInfo info{};
            ASSERT_EQ(engine.InstInfoByOffset(1, &query, &info), 0u) << row;
            EXPECT_EQ(info.line, row.line);
            EXPECT_EQ(info.column, row.column + 1);
            EXPECT_EQ(info.file_index + 1, row.file);
            if (i > 0) {
                query.offset = row.address;
                ASSERT_EQ(engine.InstInfoByOffset(0, &query, &info), 0u);
                EXPECT_EQ(info.line, rows[i - 1].line);
                EXPECT_EQ(query.offset, rows[i - 1].address);
            }
            DbgSourceQuery bySource{files[row.file - 1], row.line, uint16_t(row.column + 1)};
            DbgSourceResult result{};
            ASSERT_EQ(engine.InstInfoBySource(0, &bySource, &result), 0u) << row;
            EXPECT_EQ(result.address, row.address);
            EXPECT_EQ(result.handle->section, section);
            // One line further has no code: the nearest position below is this row.
            bySource.line = row.line + 1;
            bySource.column = 0;
            EXPECT_EQ(engine.InstInfoBySource(0, &bySource, &result), DBG_ERR_INEXACT_POSITION);
            EXPECT_EQ(result.address, row.address);
        }
        // Between two rows there is no row.
        DbgOffsetQuery between{handle, rows[1].address - 1};
        DbgInstInfo info{};
        if (rows[1].address - rows[0].address > 1) {
            EXPECT_EQ(engine.InstInfoByOffset(1, &between, &info), DBG_ERR_NO_LINE_AT_OFFSET);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Links, ForeignElf,
                         ::testing::Values(Link::Relocatable, Link::Executable, Link::Shared),
                         [](const ::testing::TestParamInfo<Link> &info) {
                             return std::string(info.param == Link::Relocatable  ? "Relocatable"
                                                : info.param == Link::Executable ? "Executable"
                                                                                 : "Shared");
                         });

} // namespace
