// COFF objects compiled by another compiler at test time read back to exactly the line entries
// that an independent CodeView dumper prints.
#include "lines/Retrieve.h"
#include "support/ReadobjTree.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace {

struct Line {
    uint64_t offset;
    uint32_t line;
    std::string file;
    bool operator<(const Line &o) const {
        return std::tie(offset, line, file) < std::tie(o.offset, o.line, o.file);
    }
    bool operator==(const Line &o) const {
        return offset == o.offset && line == o.line && file == o.file;
    }
};
std::ostream &operator<<(std::ostream &os, const Line &l) {
    return os << "{+0x" << std::hex << l.offset << std::dec << " line " << l.line << " " << l.file
              << "}";
}
using Table = std::vector<Line>;
const char *const kEndMarker = "<end of code>";

// Functions in a source file and in a header it includes, each statement on its own line.
void WriteSources(const qtest::TempDir &dir, int functions) {
    std::ostringstream header, source;
    header << "static int helper_twice(int v) {\n  int w = v * 2;\n  w += 1;\n  return w;\n}\n";
    source << "#include \"gen.h\"\n";
    for (int f = 0; f < functions; ++f) {
        source << "int func" << f << "(int x) {\n";
        for (int s = 0; s < 3 + f % 5; ++s)
            source << "  x = x * " << (s + 2) << " + " << f << ";\n";
        source << "  if (x > " << f << ")\n    x -= helper_twice(x);\n  return x;\n}\n";
    }
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("gen.h"), header.str()));
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("gen.c"), source.str()));
}

// Each function's lines as the dumper prints them: offsets from the function's start, which is
// the start of its own section when every function has a section. The table ends with a marker
// line whose offset is where the function's code ends.
std::vector<Table> DumpedTables(const std::string &object) {
    qtest::CommandResult dump = qtest::RunCommand("llvm-readobj-14 --codeview " + object);
    EXPECT_EQ(dump.exitCode, 0) << dump.output;
    const readobj::Node root = readobj::Parse(dump.output);
    std::vector<Table> tables;
    for (const readobj::Node *function : root.Find("FunctionLineTable")) {
        Table table;
        for (const readobj::Node *segment : function->Children("FilenameSegment"))
            for (const readobj::Node *row : segment->Children())
                table.push_back(Line{readobj::Number(row->name.substr(1)),
                                     uint32_t(readobj::Number(row->Field("LineNumberStart"))),
                                     readobj::WithoutNumber(segment->Field("Filename"))});
        table.push_back(Line{readobj::Number(function->Field("CodeSize")), 0, kEndMarker});
        tables.push_back(table);
    }
    return tables;
}

TEST(ForeignCoff, LinesEqualTheDumpersFunctionByFunction) {
    qtest::TempDir dir;
    WriteSources(dir, 24);
    if (HasFatalFailure())
        return;
    std::string object = dir.File("gen.obj");
    qtest::CommandResult made =
        qtest::RunCommand("cd " + dir.Path() +
                          " && clang-14 --target=x86_64-pc-windows-msvc -g -gcodeview -O0 "
                          "-ffunction-sections -c gen.c -o gen.obj");
    ASSERT_EQ(made.exitCode, 0) << made.output;
    std::vector<Table> theirs = DumpedTables(object);
    ASSERT_EQ(theirs.size(), 25u); // 24 functions and the helper

    CBaseRetrieve engine;
    char source[] = "no such source";
    // The load succeeds; only the source name is unknown.
    ASSERT_EQ(engine.OpenObjectAndSourceFile(object.c_str(), source, nullptr), 33u);
    uint32_t files = 0;
    ASSERT_EQ(engine.SourceFileCount(&files), 0u);
    EXPECT_EQ(files, 2u);

    std::vector<Table> ours;
    for (const quillet::CSectionRows &section : engine.Sections()) {
        if (section.m_nBegin == section.m_nEnd)
            continue;
        Table table;
        DbgLineSectionHandle *handle = engine.SectionHandle(section.m_Section);
        std::vector<DbgLineRow> rows(section.m_nEnd - section.m_nBegin);
        uint64_t count = rows.size();
        ASSERT_EQ(engine.GetRows(handle, 0, rows.data(), &count), 0u);
        for (const DbgLineRow &row : rows) {
            EXPECT_EQ(row.column, 0u);
            table.push_back(Line{row.offset, row.line, engine.Files().Path(row.file_index)});
            DbgLineRow found{};
            if (row.end > row.offset) {
                EXPECT_EQ(engine.FindRow(handle, row.end - 1, &found, nullptr), 0u);
                EXPECT_EQ(found.offset, row.offset);
            }
        }
        table.push_back(Line{rows.back().end, 0, kEndMarker});
        DbgLineRow found{};
        EXPECT_EQ(engine.FindRow(handle, rows.back().end, &found, nullptr), 29u);
        ours.push_back(table);
    }
    std::sort(ours.begin(), ours.end());
    std::sort(theirs.begin(), theirs.end());
    EXPECT_EQ(ours, theirs);

    // Queries by source position find each function's first line in its own section.
    char name[512];
    std::snprintf(name, sizeof(name), "%s", theirs.front().front().file.c_str());
    DbgSourceHandle *handle = nullptr;
    ASSERT_EQ(engine.FindSource(name, &handle), 0u);
    for (const Table &table : theirs) {
        if (table.front().file != theirs.front().front().file)
            continue;
        DbgSourceQuery query{handle, table.front().line, 1};
        DbgSourceResult result{};
        EXPECT_EQ(engine.InstInfoBySource(0, &query, &result), 0u) << table.front();
        EXPECT_EQ(result.address, table.front().offset);
    }
}

} // namespace
