// Objects written by this library's DWARF and CodeView outputs read back to exactly the line
// entries that were described: section, offset, line and file.
#include "support/ModuleBuilder.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <map>

namespace {

struct Entry {
    const char *section;
    uint64_t offset;
    uint32_t line;
    int file; // 0: main.asm, 1: defs.inc
    bool inProcedure;
};

// Consecutive rows of a section never repeat a line and no section starts at line 1: those
// are the two cases in which the line program writes no row by design.
const Entry kEntries[] = {
    {".text", 0x00, 10, 0, true},  {".text", 0x04, 11, 0, true},  {".text", 0x09, 30, 1, true},
    {".text", 0x0c, 12, 0, true},  {".text", 0x40, 7, 0, false},  {".text", 0x48, 8, 1, false},
    {".text", 0x100, 40, 0, true}, {".text", 0x1f0, 41, 0, true}, {".text2", 0x02, 90, 1, false},
    {".text2", 0x10, 5, 0, false}, {".text2", 0x11, 6, 0, false},
};

// The two source files, made in the test's directory (CodeView output reads them for their
// checksums); their absolute names read back unchanged from both formats.
struct Sources {
    std::string names[2];
    explicit Sources(const qtest::TempDir &dir) {
        qtest::RunCommand("mkdir -p " + dir.File("inc"));
        names[0] = dir.File("main.asm");
        names[1] = dir.File("inc/defs.inc");
        qtest::WriteTextFile(names[0], "main\n");
        qtest::WriteTextFile(names[1], "defs\n");
    }
    std::u16string Wide(int i) const { return std::u16string(names[i].begin(), names[i].end()); }
};

// Describes the entries (procedure entries in two procedures of .text) and writes the object.
void WriteModule(const std::string &path, int32_t format, const Sources &files) {
    qtest::ModuleBuilder m(path, format);
    BrxHandle text = m.AddSection(".text", true, 0x200);
    BrxHandle text2 = m.AddSection(".text2", true, 0x20);
    BrxHandle first = m.AddSymbol("first", text, 0);
    BrxHandle second = m.AddSymbol("second", text, 0x100);
    DbgScope module = nullptr;
    ASSERT_EQ(m.OpenModule(u"c:\\work", u"main.asm", u"qasm 1.0", 0, &module), 0u);
    DbgSource sources[2] = {m.Source(files.Wide(0)), m.Source(files.Wide(1))};
    std::map<std::string, BrxHandle> sections = {{".text", text}, {".text2", text2}};
    // Entries are described out of address order inside each scope: the output sorts them.
    auto describe = [&](const char *section, bool inProcedure, uint64_t from, uint64_t to) {
        for (int i = int(std::size(kEntries)) - 1; i >= 0; --i) {
            const Entry &e = kEntries[i];
            if (std::string(e.section) == section && e.inProcedure == inProcedure &&
                e.offset >= from && e.offset < to) {
                ASSERT_EQ(m.Line(sources[e.file], e.line, e.offset), 0u);
            }
        }
    };
    ASSERT_EQ(m.OpenSection(text), 0u);
    describe(".text", false, 0, 0x200);
    ASSERT_EQ(m.OpenProcedure({first}, 0, 0x40), 0u);
    describe(".text", true, 0, 0x40);
    ASSERT_EQ(m.Close(), 0u);
    ASSERT_EQ(m.OpenProcedure({second}, 0x100, 0x200), 0u);
    describe(".text", true, 0x100, 0x200);
    ASSERT_EQ(m.Close(), 0u);
    // A section that holds procedures stays open; the next section opens under the module.
    ASSERT_EQ(Dbg_set_current_scope(module), 0u);
    ASSERT_EQ(m.OpenSection(sections[".text2"]), 0u);
    describe(".text2", false, 0, 0x20);
    ASSERT_EQ(m.Close(), 0u);
    qtest::CheckCounter checks;
    DbgStatus emitted = m.Emit();
    for (const std::string &e : checks.Expressions())
        ADD_FAILURE() << "check: " << e;
    ASSERT_EQ(emitted, 0u);
    ASSERT_TRUE(m.Write());
}

class RoundTrip : public ::testing::TestWithParam<int32_t> {
protected:
    void TearDown() override { Dbg_finish(); }
    qtest::TempDir dir;
};

TEST_P(RoundTrip, EveryEntryReadsBackAtItsSectionAndOffset) {
    std::string path = dir.File("module.o");
    Sources files(dir);
    WriteModule(path, GetParam(), files);
    if (HasFatalFailure())
        return;

    uint32_t mode = 7;
    BrxHandle file = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &file, 0), BRX_OK);
    Dbg_init(1);
    std::map<std::string, DbgLineSectionHandle *> handles;
    for (const char *name : {".text", ".text2"}) {
        BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
        BrxHandle section = 0;
        ASSERT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0), BRX_OK);
        ASSERT_EQ(DbgLine_open_line_section(section, &handles[name]), 0u) << name;
    }
    size_t rows = 0;
    for (const Entry &e : kEntries) {
        SCOPED_TRACE(std::string(e.section) + " " + std::to_string(e.offset));
        DbgOffsetQuery query{handles[e.section], e.offset};
        DbgInstInfo info{};
        ASSERT_EQ(DbgLine_get_inst_info_by_offset(1, &query, &info), 0u);
        EXPECT_EQ(info.line, e.line);
        EXPECT_EQ(info.column, 1u);
        std::u16string name(info.name);
        // Both formats name a file by the absolute path it was described with.
        EXPECT_EQ(name, files.Wide(e.file));
        ++rows;
        // Nothing stands one byte after an entry unless another entry does.
        bool next = false;
        for (const Entry &o : kEntries)
            next |= std::string(o.section) == e.section && o.offset == e.offset + 1;
        if (!next) {
            query = DbgOffsetQuery{handles[e.section], e.offset + 1};
            EXPECT_EQ(DbgLine_get_inst_info_by_offset(1, &query, &info), 29u);
        }
    }
    EXPECT_EQ(rows, std::size(kEntries));
    Dbg_finish();
    _brx_close_file(file);

    // By name: the files, and each entry found again from its source position. A run opens one
    // source file, so each file has a run of its own.
    for (int which : {0, 1}) {
        SCOPED_TRACE(which);
        Dbg_init(1);
        std::string wanted = files.names[which];
        DbgSourceHandle *source = nullptr;
        ASSERT_EQ(DbgLine_open_object_and_source_file(path.c_str(), wanted.c_str(), &source), 0u);
        uint32_t count = 0;
        ASSERT_EQ(DbgLine_get_source_files_number(&count), 0u);
        ASSERT_EQ(count, 2u);
        char name[4200];
        uint32_t size = sizeof(name);
        ASSERT_EQ(DbgLine_get_source_file_name(int32_t(source->file_index), name, &size), 0u);
        EXPECT_EQ(name, wanted);
        for (const Entry &e : kEntries) {
            if (e.file != which)
                continue;
            SCOPED_TRACE(std::string(e.section) + " " + std::to_string(e.offset));
            DbgSourceQuery query{source, e.line, 1};
            DbgSourceResult result{};
            ASSERT_EQ(DbgLine_get_inst_info_by_source(0, &query, &result), 0u);
            EXPECT_EQ(result.address, e.offset);
        }
        Dbg_finish();
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, RoundTrip,
                         ::testing::Values(BRX_FORMAT_ELF32, BRX_FORMAT_ELF64, BRX_FORMAT_COFF),
                         [](const ::testing::TestParamInfo<int32_t> &info) {
                             return std::string(info.param == BRX_FORMAT_ELF32   ? "Elf32"
                                                : info.param == BRX_FORMAT_ELF64 ? "Elf64"
                                                                                 : "Coff");
                         });

} // namespace
