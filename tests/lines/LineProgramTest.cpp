#include "lines/LineProgram.h"
#include "frame/LibraryState.h"
#include "frame/Target.h"
#include "lines/SourceFile.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

class LineRows : public ::testing::Test {
protected:
    LineRows() {
        State().Reset();
        files.Create(u"a.asm");
        files.Create(u"b.asm");
        files.ConvertToDwarf();
    }
    ~LineRows() override { State().Reset(); }

    CLineEntry Entry(size_t file, uint32_t line, uint64_t address) {
        CLineEntry e;
        e.line = line;
        e.base = address;
        e.source = files.Cell(file);
        return e;
    }

    CSourceFileList files;
    CLineState state;
};

// Each row after the first of a sequence: the bytes for a line, file and address advance.
TEST_F(LineRows, SpecialOpcodeOrLongForm) {
    struct Case {
        const char *what;
        size_t file;
        uint32_t line;
        uint64_t address;
        Bytes bytes;
    } cases[] = {
        {"one line, 16 bytes", 0, 11, 0x10, {251}},
        {"fourteen lines, 16 bytes: beyond 255", 0, 25, 0x20, {0x02, 0x10, 0x03, 0x0e, 0x01}},
        {"no address advance", 0, 30, 0x20, {10 + 5}},
        {"a line back", 0, 29, 0x24, {0x02, 0x04, 0x03, 0x7f, 0x01}},
        {"fifteen lines, no advance", 0, 44, 0x24, {0x03, 0x0f, 0x01}},
        {"same line: no row", 0, 44, 0x30, {}},
        {"largest special", 0, 45, 0x24 + 16, {uint8_t(10 + 1 + 15 * 16)}},
        {"same line in another file", 1, 45, 0x38, {0x04, 0x02, uint8_t(10 + 15 * 4)}},
        {"same line, another file, far", 0, 45, 0x138, {0x04, 0x01, 0x02, 0x80, 0x02, 0x01}},
    };
    CLineRowWriter writer(state, 8);
    ASSERT_TRUE(writer.AddRow(7, Entry(0, 10, 0)).Ok());
    size_t before = writer.Bytes().size();
    for (const Case &c : cases) {
        ASSERT_TRUE(writer.AddRow(7, Entry(c.file, c.line, c.address)).Ok());
        Bytes row(writer.Bytes().begin() + before, writer.Bytes().end());
        EXPECT_EQ(row, c.bytes) << c.what;
        before = writer.Bytes().size();
    }
}

// The first entry of a sequence always gives a row, on line 1 too; it sets the sequence's
// address, relocated against the section; the operand is as wide as the unit's addresses.
TEST_F(LineRows, SequenceStartsWithARelocatedAddress) {
    struct Case {
        unsigned width;
        size_t file;
        uint32_t line;
        uint64_t address;
        Bytes bytes;
        uint64_t relocationOffset;
    } cases[] = {
        {8, 0, 2, 1, {0x00, 0x09, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0x1a}, 3},
        {4, 0, 2, 1, {0x00, 0x05, 0x02, 0, 0, 0, 0, 0x1a}, 3},
        {8, 1, 2, 1, {0x04, 0x02, 0x00, 0x09, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0x1a}, 5},
        {4, 0, 1, 0x10, {0x00, 0x05, 0x02, 0, 0, 0, 0, uint8_t(10 + 15 * 16)}, 3},
        {4, 0, 1, 0x1000, {0x00, 0x05, 0x02, 0, 0, 0, 0, 0x02, 0x80, 0x20, 0x01}, 3},
    };
    for (const Case &c : cases) {
        CLineState fresh;
        CLineRowWriter writer(fresh, c.width);
        ASSERT_TRUE(writer.AddRow(42, Entry(c.file, c.line, c.address)).Ok());
        EXPECT_EQ(writer.Bytes(), c.bytes);
        ASSERT_EQ(writer.Relocations().size(), 1u);
        EXPECT_EQ(writer.Relocations()[0].offset, c.relocationOffset);
        EXPECT_EQ(writer.Relocations()[0].section, 42u);
    }
}

// A sequence ends on the next multiple of 16 on the default target and at the end of the
// section's code on the others; the next sequence sets its address again.
TEST_F(LineRows, SequenceEndsOnTheNextMultipleOf16OrAtTheEndOfTheCode) {
    const CTarget *x86_64 = FindTarget(FORMAT_ELF64, BRX_MACHINE_ELF_X86_64);
    struct Case {
        const CTarget *target; // null: nothing bound, the default target
        uint64_t last, size;
        uint8_t advance;
    } cases[] = {
        {nullptr, 0x20, 0x40, 16},
        {nullptr, 0x2e, 0x40, 2},
        {nullptr, 0x21, 0x22, 15}, // the section's size does not matter here
        {x86_64, 0x20, 0x23, 3},
        {x86_64, 0x20, 0x40, 0x20},
        // A last row at or past the code's end (the check has reported it) covers one byte.
        {x86_64, 0x2e, 0x2e, 1},
        {x86_64, 0x30, 0x20, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.last);
        State().binding.target = c.target;
        CLineState fresh;
        CLineRowWriter writer(fresh, 8);
        ASSERT_TRUE(writer.AddRow(5, Entry(0, 3, c.last)).Ok());
        size_t before = writer.Bytes().size();
        writer.EndSequence(c.size);
        Bytes end(writer.Bytes().begin() + before, writer.Bytes().end());
        EXPECT_EQ(end, (Bytes{0x02, c.advance, 0x00, 0x01, 0x01}));
        EXPECT_EQ(fresh.section, 0u);
        EXPECT_EQ(fresh.line, 1u);
        ASSERT_TRUE(writer.AddRow(5, Entry(0, 3, 0)).Ok());
        EXPECT_EQ(writer.Relocations().size(), 2u) << "the same section is set again";
    }
}

TEST_F(LineRows, WritingIsRefusedWhileDecoding) {
    State().lineProgramUse = kLineProgramDecoding;
    CLineRowWriter writer(state, 8);
    EXPECT_TRUE(writer.AddRow(5, Entry(0, 4, 0)).Failed());
    EXPECT_TRUE(writer.Bytes().empty());
}

// The header's directory table holds each directory once (compared lowercased; the compilation
// directory is index 0 and not written); names lose their directory, unless that would leave an
// empty name or an empty directory, which end their tables.
TEST(LineHeader, DirectoriesAndFiles) {
    State().Reset();
    CSourceFileList files;
    CSourceCell *a = files.Create(u"C:\\Src\\A.s");
    files.Create(u"c:\\src\\b.s");
    files.Create(u"C:\\Work\\c.s");
    files.Create(u"plain.s");
    files.Create(u"c:\\inc\\");
    files.Create(u"c:\\src\\b.s");
    files.Create(u"\\root.s");
    files.Create(u"");
    files.ConvertToDwarf();
    Bytes header = BuildLineProgramHeader(u"c:\\work", files);
    Bytes expected = {0, 0, 0, 0,  2,  0, 0, 0, 0, 0, // lengths patched below
                      1, 1, 0, 15, 10, 0, 1, 1, 1, 1, 0, 0, 0, 1};
    for (const char *dir : {"c:\\src"})
        expected.insert(expected.end(), dir, dir + strlen(dir) + 1);
    expected.push_back(0);
    struct File {
        const char *name;
        uint8_t dir;
    } fileRows[] = {{"A.s", 1},       {"b.s", 1}, {"c.s", 0},      {"plain.s", 0},
                    {"c:\\inc\\", 0}, {"b.s", 1}, {"\\root.s", 0}, {"<unnamed>", 0}};
    for (const File &f : fileRows) {
        expected.insert(expected.end(), f.name, f.name + strlen(f.name) + 1);
        expected.insert(expected.end(), {f.dir, 0, 0});
    }
    expected.push_back(0);
    uint32_t headerLength = uint32_t(expected.size() - 10);
    for (int i = 0; i < 4; ++i)
        expected[6 + i] = uint8_t(headerLength >> (8 * i));
    EXPECT_EQ(header, expected);
    // The handle reaches the file's new form: its base name, still at position 0.
    ASSERT_EQ((*a)->kind(), 2u);
    EXPECT_EQ((*a)->Name(), u"A.s");
    EXPECT_EQ(static_cast<CDwarfSourceFile *>(*a)->index, 0u);
}

} // namespace
