// The six exported retrieval functions over objects written through brix with line information
// laid out byte by byte: lifecycle, placement through relocations, and every refusal.
#include "DwarfBytes.h"

#include "support/ModuleBuilder.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace retrievaltest;

namespace {

constexpr uint64_t kTextSize = 0x200;
constexpr uint64_t kInnerOffset = 0x40;

// A relocation at a DW_LNE_set_address operand: against .text itself or against a symbol
// placed kInnerOffset into it.
struct Reloc {
    uint64_t operand;
    bool againstSymbol;
    int64_t addend;
};

struct ObjectSpec {
    Bytes info, abbrev, line;
    std::vector<Reloc> relocations;
    bool withInfo = true;
    int32_t format = BRX_FORMAT_ELF64;
};

bool AddDebugSection(qtest::ModuleBuilder &m, const char *name, const Bytes &bytes,
                     BrxHandle *out = nullptr) {
    BrxHandle section = m.AddSection(name, false, 0);
    if (!section)
        return false;
    if (!bytes.empty()) {
        BrxBytes data{bytes.size(), 0, const_cast<uint8_t *>(bytes.data())};
        if (_brx_set_value(section, BRX_KEY_SECTION_DATA, &data, 0) != BRX_OK)
            return false;
    }
    if (out)
        *out = section;
    return true;
}

std::string WriteObject(const qtest::TempDir &dir, const std::string &name,
                        const ObjectSpec &spec) {
    std::string path = dir.File(name);
    qtest::ModuleBuilder m(path, spec.format, false);
    BrxHandle text = m.AddSection(".text", true, kTextSize);
    BrxHandle inner = m.AddSymbol("inner", text, kInnerOffset, false, BRX_SYMBOL_PLAIN);
    BrxHandle line = 0;
    EXPECT_TRUE(AddDebugSection(m, ".debug_abbrev", spec.abbrev));
    if (spec.withInfo) {
        EXPECT_TRUE(AddDebugSection(m, ".debug_info", spec.info));
    }
    EXPECT_TRUE(AddDebugSection(m, ".debug_line", spec.line, &line));
    for (const Reloc &r : spec.relocations) {
        uint32_t type = spec.format == BRX_FORMAT_ELF32 ? 37 : 39;
        BrxHandle target = r.againstSymbol ? inner : text;
        BrxAttr attrs[] = {{BRX_KEY_RELOC_TYPE, &type},
                           {BRX_KEY_RELOC_OFFSET, &r.operand},
                           {BRX_KEY_RELOC_TARGET, &target},
                           {BRX_KEY_RELOC_ADDEND, &r.addend}};
        BrxHandle reloc = 0;
        EXPECT_EQ(_brx_create_object(line, spec.format, BRX_KIND_RELOCATION, 4, attrs, &reloc, 0),
                  BRX_OK);
    }
    EXPECT_TRUE(m.Write());
    return path;
}

// Two sequences in .text: one at the start of .text + addend 0x10, one through the symbol
// `inner` with addend 4 (so at 0x44); files main.s and Inc/Defs.inc.
ObjectSpec GoodObject(unsigned addressSize = 8) {
    ObjectSpec spec;
    InfoUnit cu = InfoUnit::Standard("main.s", "/proj", 0);
    cu.addressSize = static_cast<uint8_t>(addressSize);
    spec.info = cu.Info();
    spec.abbrev = cu.Abbrev();
    LineUnit u;
    u.directories = {"Inc"};
    u.files = {{"main.s", 0}, {"Defs.inc", 1}};
    size_t start = u.ProgramStart();
    spec.relocations.push_back({start + u.NextOperand(), false, 0x10});
    u.SetAddress(0, addressSize).AdvanceLine(9).Copy().Special(2, 1).SetFile(2).Special(3, 5);
    u.EndSequence();
    spec.relocations.push_back({start + u.NextOperand(), true, 4});
    u.SetAddress(0, addressSize).AdvanceLine(99).Copy().Special(8, 1).EndSequence();
    spec.line = u.Encode();
    return spec;
}

class RetrievalApi : public ::testing::Test {
protected:
    void TearDown() override { Dbg_finish(); }
    qtest::TempDir dir;
};

TEST_F(RetrievalApi, EveryFunctionAnswers37OutsideRetrievalMode) {
    for (uint32_t mode : {0u, 2u}) {
        SCOPED_TRACE(mode);
        Dbg_init(mode);
        uint32_t count = 0, size = 8;
        char buffer[8];
        char source[] = "a.s";
        DbgSourceHandle *sourceHandle = nullptr;
        DbgLineSectionHandle *sectionHandle = nullptr;
        DbgOffsetQuery byOffset{nullptr, 0};
        DbgInstInfo info{};
        DbgSourceQuery bySource{nullptr, 1, 1};
        DbgSourceResult result{};
        EXPECT_EQ(DbgLine_open_object_and_source_file("x.o", source, &sourceHandle), 37u);
        EXPECT_EQ(DbgLine_open_line_section(1, &sectionHandle), 37u);
        EXPECT_EQ(DbgLine_get_inst_info_by_offset(1, &byOffset, &info), 37u);
        EXPECT_EQ(DbgLine_get_inst_info_by_source(1, &bySource, &result), 37u);
        EXPECT_EQ(DbgLine_get_source_files_number(&count), 37u);
        EXPECT_EQ(DbgLine_get_source_file_name(0, buffer, &size), 37u);
        uint64_t rows = 1;
        DbgLineRow row{};
        EXPECT_EQ(DbgLine_get_row_count(sectionHandle, &rows), 37u);
        EXPECT_EQ(DbgLine_get_rows(sectionHandle, 0, &row, &rows), 37u);
        EXPECT_EQ(DbgLine_find_row(sectionHandle, 0, &row, nullptr), 37u);
        Dbg_finish();
    }
    // After Dbg_finish the reader is gone.
    uint32_t count = 0;
    EXPECT_EQ(DbgLine_get_source_files_number(&count), 37u);
}

TEST_F(RetrievalApi, BeforeAnyLoadThereAreNoFiles) {
    Dbg_init(1);
    Dbg_init(1); // keeps the one reader
    uint32_t count = 99, size = 64;
    char buffer[64];
    EXPECT_EQ(DbgLine_get_source_files_number(&count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(DbgLine_get_source_file_name(0, buffer, &size), 38u);
}

TEST_F(RetrievalApi, SequencesArePlacedByRelocationAddendAndSymbolOffset) {
    std::string path = WriteObject(dir, "good.o", GoodObject());
    Dbg_init(1);
    char source[] = "/PROJ/inc/defs.INC";
    DbgSourceHandle *defs = nullptr;
    ASSERT_EQ(DbgLine_open_object_and_source_file(path.c_str(), source, &defs), 0u);
    EXPECT_STREQ(source, "/PROJ/inc/defs.INC");
    EXPECT_EQ(defs->file_index, 1u);
    EXPECT_EQ(std::u16string(defs->name), u"/proj/Inc/Defs.inc");

    // The retrieval module is the library's root and current scope.
    DbgScope current = nullptr;
    EXPECT_EQ(Dbg_get_current_scope(&current), 0u);
    EXPECT_NE(current, nullptr);

    // The by-source query hands out the section's handle.
    DbgSourceQuery bySource{defs, 16, 1};
    DbgSourceResult found{};
    ASSERT_EQ(DbgLine_get_inst_info_by_source(0, &bySource, &found), 0u);
    EXPECT_EQ(found.address, 0x15u);
    ASSERT_NE(found.handle, nullptr);
    EXPECT_EQ(found.handle->section_number, 0u);

    struct {
        uint64_t offset;
        uint32_t line;
        uint32_t file;
    } rows[] = {{0x10, 10, 0}, {0x12, 11, 0}, {0x15, 16, 1}, {0x44, 100, 0}, {0x4c, 101, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.offset);
        DbgOffsetQuery query{found.handle, row.offset};
        DbgInstInfo info{};
        ASSERT_EQ(DbgLine_get_inst_info_by_offset(1, &query, &info), 0u);
        EXPECT_EQ(info.line, row.line);
        EXPECT_EQ(info.file_index, row.file);
    }
    uint32_t count = 0;
    EXPECT_EQ(DbgLine_get_source_files_number(&count), 0u);
    EXPECT_EQ(count, 2u);
    char name[64];
    uint32_t size = sizeof(name);
    EXPECT_EQ(DbgLine_get_source_file_name(1, name, &size), 0u);
    EXPECT_STREQ(name, "/proj/Inc/Defs.inc");

    // A second object, or any section of another object, is refused.
    char again[] = "/proj/main.s";
    EXPECT_EQ(DbgLine_open_object_and_source_file(path.c_str(), again, &defs), 22u);
    qtest::ModuleBuilder other(dir.File("other.o"), BRX_FORMAT_ELF64, false);
    BrxHandle otherText = other.AddSection(".text", true, 16);
    DbgLineSectionHandle *handle = nullptr;
    EXPECT_EQ(DbgLine_open_line_section(otherText, &handle), 22u);
}

TEST_F(RetrievalApi, LineSectionOfAnOpenObject) {
    for (int32_t format : {BRX_FORMAT_ELF32, BRX_FORMAT_ELF64}) {
        SCOPED_TRACE(format);
        ObjectSpec spec = GoodObject(format == BRX_FORMAT_ELF32 ? 4 : 8);
        spec.format = format;
        std::string path = WriteObject(dir, "good" + std::to_string(format) + ".o", spec);
        uint32_t mode = 7;
        BrxHandle file = 0;
        ASSERT_EQ(_brx_open_file(path.c_str(), &mode, &file, 0), BRX_OK);
        BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, ".text"};
        BrxHandle text = 0, abbrev = 0;
        ASSERT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &find, &text, 0), BRX_OK);
        find.value = ".debug_abbrev";
        ASSERT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &find, &abbrev, 0), BRX_OK);

        Dbg_init(1);
        DbgLineSectionHandle *first = nullptr, *second = nullptr;
        ASSERT_EQ(DbgLine_open_line_section(text, &first), 0u);
        // A section without rows gets the next number; its queries find nothing.
        ASSERT_EQ(DbgLine_open_line_section(abbrev, &second), 0u);
        EXPECT_EQ(first->section_number, 0u);
        EXPECT_EQ(second->section_number, 1u);
        DbgOffsetQuery query{first, 0x12};
        DbgInstInfo info{};
        ASSERT_EQ(DbgLine_get_inst_info_by_offset(0, &query, &info), 0u);
        EXPECT_EQ(info.line, 10u);
        EXPECT_EQ(query.offset, 0x10u);
        query = DbgOffsetQuery{second, 0x12};
        EXPECT_EQ(DbgLine_get_inst_info_by_offset(1, &query, &info), 29u);
        Dbg_finish();
        _brx_close_file(file);
    }
}

// Line-section and source handles are looked up among those the reader handed out, never read
// first: a handle released by Dbg_finish, a copy of a live one, 1 (the registry's mark for an
// erased slot), an unmapped address.
TEST_F(RetrievalApi, HandlesTheReaderDidNotHandOutAreRefused) {
    std::string path = WriteObject(dir, "good.o", GoodObject());
    char name[] = "/proj/main.s";
    DbgSourceHandle *releasedSource = nullptr;
    Dbg_init(1);
    ASSERT_EQ(DbgLine_open_object_and_source_file(path.c_str(), name, &releasedSource), 0u);
    DbgSourceQuery bySource{releasedSource, 10, 1};
    DbgSourceResult found{};
    ASSERT_EQ(DbgLine_get_inst_info_by_source(0, &bySource, &found), 0u);
    DbgLineSectionHandle *releasedSection = found.handle;
    Dbg_finish();

    Dbg_init(1);
    DbgInstInfo info{};
    DbgOffsetQuery byOffset{releasedSection, 0x10};
    EXPECT_EQ(DbgLine_get_inst_info_by_offset(1, &byOffset, &info), 26u);
    bySource.handle = releasedSource;
    EXPECT_EQ(DbgLine_get_inst_info_by_source(0, &bySource, &found), 33u);

    DbgSourceHandle *source = nullptr;
    ASSERT_EQ(DbgLine_open_object_and_source_file(path.c_str(), name, &source), 0u);
    bySource.handle = source;
    ASSERT_EQ(DbgLine_get_inst_info_by_source(0, &bySource, &found), 0u);
    DbgLineSectionHandle *section = found.handle;
    DbgLineSectionHandle sectionCopy = *section;
    DbgSourceHandle sourceCopy = *source;
    const struct {
        const char *name;
        DbgLineSectionHandle *section;
        DbgSourceHandle *source;
    } cases[] = {
        {"CopyOfALiveHandle", &sectionCopy, &sourceCopy},
        {"One", reinterpret_cast<DbgLineSectionHandle *>(uintptr_t(1)),
         reinterpret_cast<DbgSourceHandle *>(uintptr_t(1))},
        {"UnmappedAddress", reinterpret_cast<DbgLineSectionHandle *>(uintptr_t(0x40)),
         reinterpret_cast<DbgSourceHandle *>(uintptr_t(0x40))},
        {"Null", nullptr, nullptr},
    };
    DbgLineRow row{};
    uint64_t count = 1;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        byOffset = DbgOffsetQuery{c.section, 0x10};
        EXPECT_EQ(DbgLine_get_inst_info_by_offset(1, &byOffset, &info), 26u);
        bySource.handle = c.source;
        EXPECT_EQ(DbgLine_get_inst_info_by_source(0, &bySource, &found), 33u);
        EXPECT_EQ(DbgLine_get_row_count(c.section, &count), 26u);
        EXPECT_EQ(DbgLine_get_rows(c.section, 0, &row, &count), 26u);
        EXPECT_EQ(DbgLine_find_row(c.section, 0x10, &row, nullptr), 26u);
    }
    EXPECT_EQ(DbgLine_get_row_count(section, &count), 0u);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(DbgLine_find_row(section, 0x11, &row, nullptr), 0u);
    EXPECT_EQ(row.line, 10u);
    byOffset = DbgOffsetQuery{section, 0x10};
    EXPECT_EQ(DbgLine_get_inst_info_by_offset(1, &byOffset, &info), 0u);
    bySource.handle = source;
    EXPECT_EQ(DbgLine_get_inst_info_by_source(0, &bySource, &found), 0u);
}

// A process that ends with a retrieval run still open: the library's state outlives brix's, so
// its teardown must not ask brix to close a file that brix has already released.
TEST_F(RetrievalApi, RunLeftOpenAtExitEndsCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Dbg_init(1); // the library's state is made before brix's, so it is destroyed after it
    std::string path = WriteObject(dir, "good.o", GoodObject());
    EXPECT_EXIT(
        {
            char name[] = "/proj/main.s";
            DbgSourceHandle *source = nullptr;
            if (DbgLine_open_object_and_source_file(path.c_str(), name, &source) != 0)
                std::exit(2);
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(RetrievalApi, BadObjectsGiveTheirStatus) {
    const struct {
        const char *name;
        void (*damage)(ObjectSpec &);
        uint32_t status;
    } cases[] = {
        {"LineSectionShorterThan32Bytes", [](ObjectSpec &s) { s.line.resize(31); }, 31},
        {"NoInfoSection", [](ObjectSpec &s) { s.withInfo = false; }, 26},
        {"SequenceWithoutRelocation", [](ObjectSpec &s) { s.relocations.pop_back(); }, 14},
        // The first declaration is not the compilation unit's.
        {"NotACompilationUnit", [](ObjectSpec &s) { s.abbrev[1] = 0x2e; }, 14},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ObjectSpec spec = GoodObject();
        c.damage(spec);
        std::string path = WriteObject(dir, std::string(c.name) + ".o", spec);
        Dbg_init(1);
        char source[] = "/proj/main.s";
        DbgSourceHandle *handle = nullptr;
        EXPECT_EQ(DbgLine_open_object_and_source_file(path.c_str(), source, &handle), c.status);
        Dbg_finish();
    }

    Dbg_init(1);
    char source[] = "/proj/main.s";
    DbgSourceHandle *handle = nullptr;
    EXPECT_EQ(DbgLine_open_object_and_source_file(dir.File("missing.o").c_str(), source, &handle),
              32u);
    EXPECT_TRUE(qtest::WriteTextFile(dir.File("text.o"), "not an object file at all"));
    EXPECT_EQ(DbgLine_open_object_and_source_file(dir.File("text.o").c_str(), source, &handle),
              32u);
    std::string good = WriteObject(dir, "good.o", GoodObject());
    char elsewhere[] = "/elsewhere/main.s";
    EXPECT_EQ(DbgLine_open_object_and_source_file(good.c_str(), elsewhere, &handle), 33u);
}

} // namespace
