// Objects that today's compilers and assemblers write, made at test time, read back to exactly
// the rows, statement flags and sequence ends an independent dumper prints: relocations of other
// machines, relaxed code, sections compressed after the fact, units of two compilers merged by a
// linker, code sections entered in turns. (The versions, 64-bit units, compression and linked
// programs of the x86 compilers are compared row by row through qdbg's corpus.)
#include "lines/Retrieve.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

namespace {

// One row as compared, "ADDRESS FILE:LINE:COLUMN [stmt]" (the file's base name), and a sequence
// as its rows and then "end ADDRESS", where its code ends.
using Sequence = std::vector<std::string>;

std::string Hex(uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

std::string RowText(uint64_t address, const std::string &file, uint32_t line, uint32_t column,
                    bool stmt) {
    return Hex(address) + " " + file + ":" + std::to_string(line) + ":" + std::to_string(column) +
           (stmt ? " stmt" : "");
}

std::string BaseName(const std::string &path) {
    size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The sequences that llvm-dwarfdump prints, unit by unit, with each row's file named through the
// unit's own file table.
std::vector<Sequence> DumpedSequences(const std::string &object) {
    qtest::CommandResult dump = qtest::RunCommand("llvm-dwarfdump-14 --debug-line " + object);
    EXPECT_EQ(dump.exitCode, 0) << dump.output;
    std::vector<Sequence> sequences;
    std::map<unsigned, std::string> files;
    Sequence current;
    int fileEntry = -1;
    for (const std::string &text : qtest::SplitLines(dump.output)) {
        unsigned long long address;
        unsigned line, column, file;
        char name[1024];
        if (text.rfind("debug_line[", 0) == 0) {
            files.clear();
        } else if (std::sscanf(text.c_str(), "file_names[ %d]:", &fileEntry) == 1) {
        } else if (fileEntry >= 0 &&
                   std::sscanf(text.c_str(), " name: \"%1023[^\"]\"", name) == 1) {
            files[unsigned(fileEntry)] = BaseName(name);
            fileEntry = -1;
        } else if (std::sscanf(text.c_str(), "0x%llx %u %u %u", &address, &line, &column, &file) ==
                   4) {
            if (text.find("end_sequence") != std::string::npos) {
                if (!current.empty()) {
                    current.push_back("end " + Hex(address));
                    sequences.push_back(current);
                }
                current.clear();
                continue;
            }
            current.push_back(RowText(address, files[file], line, column,
                                      text.find("is_stmt") != std::string::npos));
        }
    }
    return sequences;
}

// The sequences the reader gives, section by section through the row functions; in a linked
// object, offsets are made addresses again by the section's address.
std::vector<Sequence> OurSequences(CBaseRetrieve &engine) {
    std::vector<Sequence> sequences;
    std::vector<quillet::CSectionRows> sections(engine.Sections().begin(), engine.Sections().end());
    for (const quillet::CSectionRows &section : sections) {
        DbgLineSectionHandle *handle = engine.SectionHandle(section.m_Section);
        uint64_t count = 0;
        EXPECT_EQ(engine.RowCount(handle, &count), 0u);
        std::vector<DbgLineRow> rows(count);
        EXPECT_EQ(engine.GetRows(handle, 0, rows.data(), &count), 0u);
        uint64_t base = 0;
        EXPECT_EQ(_brx_get_keyed(section.m_Section, BRX_KEY_SECTION_ADDRESS, nullptr, &base, 0), 0);
        for (size_t i = 0; i < rows.size(); ++i) {
            const DbgLineRow &r = rows[i];
            if (r.flags & DBG_ROW_SEQUENCE_START)
                sequences.emplace_back();
            sequences.back().push_back(RowText(r.offset + base,
                                               BaseName(engine.Files().Path(r.file_index)), r.line,
                                               r.column, (r.flags & DBG_ROW_IS_STMT) != 0));
            if (i + 1 == rows.size() || (rows[i + 1].flags & DBG_ROW_SEQUENCE_START))
                sequences.back().push_back("end " + Hex(r.end + base));
        }
    }
    return sequences;
}

// Every row is found again from both ends of its range, by its offset (the first row there, and
// the row before it), and by its source position.
void ExpectEveryRowFound(CBaseRetrieve &engine) {
    std::vector<quillet::CSectionRows> sections(engine.Sections().begin(), engine.Sections().end());
    for (const quillet::CSectionRows &section : sections) {
        DbgLineSectionHandle *handle = engine.SectionHandle(section.m_Section);
        uint64_t count = section.Count();
        std::vector<DbgLineRow> rows(count);
        ASSERT_EQ(engine.GetRows(handle, 0, rows.data(), &count), 0u);
        for (size_t i = 0; i < rows.size(); ++i) {
            const DbgLineRow &r = rows[i];
            if (r.end == r.offset)
                continue; // another row follows at its address and answers for it
            DbgLineRow found{};
            uint64_t index = 0;
            ASSERT_EQ(engine.FindRow(handle, r.offset, &found, &index), 0u) << i;
            EXPECT_EQ(index, i);
            ASSERT_EQ(engine.FindRow(handle, r.end - 1, &found, &index), 0u) << i;
            EXPECT_EQ(index, i);
            DbgOffsetQuery query{handle, r.offset};
            DbgInstInfo info{};
            ASSERT_EQ(engine.InstInfoByOffset(1, &query, &info), 0u) << i;
            EXPECT_EQ(query.offset, r.offset);
            DbgOffsetQuery inside{handle, r.offset + 1};
            if (r.end > r.offset + 1 &&
                (i + 1 == rows.size() || rows[i + 1].offset != r.offset + 1)) {
                EXPECT_EQ(engine.InstInfoByOffset(1, &inside, &info), DBG_ERR_NO_LINE_AT_OFFSET);
            }
            if (i > 0 && !(r.flags & DBG_ROW_SEQUENCE_START) && rows[i - 1].offset < r.offset) {
                ASSERT_EQ(engine.InstInfoByOffset(0, &query, &info), 0u) << i;
                EXPECT_EQ(query.offset, rows[i - 1].offset);
            }
            DbgSourceHandle *source = nullptr;
            std::string path = engine.Files().Path(r.file_index);
            if (engine.FindSource(path.c_str(), &source) != 0 || source->file_index != r.file_index)
                continue; // a second entry with the same path
            DbgSourceQuery position{source, r.line, static_cast<uint16_t>(r.column + 1)};
            DbgSourceResult result{};
            EXPECT_EQ(engine.InstInfoBySource(0, &position, &result), 0u) << i;
            // Past the file's last line: the nearest position below it.
            position.line = UINT32_MAX;
            EXPECT_EQ(engine.InstInfoBySource(0, &position, &result), DBG_ERR_INEXACT_POSITION);
        }
    }
}

const char *const kHeader = "static inline int twice(int v) {\n  return v * 2;\n}\n";
const char *const kFirst = "#include \"h.h\"\nint g1(int x) {\n  int y = x * 3;\n"
                           "  return twice(y) + 1;\n}\nint g2(int a, int b) {\n  if (a > b)\n"
                           "    return a - b;\n  return twice(b);\n}\n";
const char *const kSecond = "#include \"h.h\"\nint g1(int);\nint main(void) {\n"
                            "  int r = g1(2);\n  return twice(r);\n}\n";
// Assembly with three code sections entered in turns, three files (one under an absolute include
// directory, one named through a parent step), a compilation unit written by hand, and code
// before the first located instruction of each section, so sequences start inside them.
std::string SectionsInTurns() {
    const char *const sections[] = {".text", ".hotcode", ".coldcode"};
    const char *const instructions[] = {"nop", "xorl %eax, %eax", "movl $1, %eax",
                                        "movabsq $0x1122334455667788, %rax"};
    std::ostringstream s;
    s << ".file 1 \"main.s\"\n.file 2 \"/abs/inc\" \"defs.inc\"\n.file 3 \"../rel/./more.s\"\n";
    for (const char *section : sections)
        s << ".section " << section << ",\"ax\",@progbits\n  nop\n  nop\n  nop\n";
    for (int i = 0; i < 6000; ++i) {
        if (i % 50 == 0)
            s << ".section " << sections[(i / 50) % 3] << ",\"ax\",@progbits\n";
        s << ".loc " << 1 + (i / 7) % 3 << " " << 10 + 3 * i << " " << i % 11 << "\n  "
          << instructions[i % 4] << "\n";
    }
    s << ".section .debug_abbrev,\"\",@progbits\n.byte 1, 0x11, 1\n"
      << ".byte 0x13, 0x05, 0x10, 0x06, 0x03, 0x08, 0x1b, 0x08, 0x25, 0x08, 0x11, 0x01, 0, 0, 0\n"
      << ".section .debug_info,\"\",@progbits\n.long .Lend - .Lstart\n.Lstart:\n"
      << ".short 2\n.long 0\n.byte 8\n.uleb128 1\n.short 0x8001\n.long 0\n"
      << ".asciz \"main.s\"\n.asciz \"/build/gen\"\n.asciz \"generator\"\n.quad 0\n.byte "
         "0\n.Lend:\n";
    return s.str();
}

const char *const kAssembly = ".text\n.globl f\nf:\n nop\n nop\n ret\n.section .text.other,\"ax\"\n"
                              "g:\n nop\n ret\n";

struct ToolchainCase {
    const char *name;
    const char *build; // run in a directory holding a.c, b.c, h.h, s.s and g.s; makes out
};

#define kSectionsInTurns "llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu -g -dwarf-version=2 g.s"
const ToolchainCase kCases[] = {
    {"GccI386", "gcc -m32 -g -c a.c -o out"},
    {"GccCompressedByObjcopy",
     "gcc -g -c a.c -o plain.o && objcopy --compress-debug-sections plain.o out"},
    {"ClangAArch64", "clang-14 --target=aarch64-linux-gnu -g -c a.c -o out"},
    {"ClangRiscV64Relaxed", "clang-14 --target=riscv64-linux-gnu -g -O1 -c a.c -o out"},
    {"AssemblerDwarf5", "llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu -g -dwarf-version=5 "
                        "s.s -o out"},
    {"MergedUnits", "gcc -g -c a.c -o a.o && clang-14 -g -gdwarf-4 -c b.c -o b.o && "
                    "ld -r a.o b.o -o out"},
    {"SectionsInTurns", kSectionsInTurns " -o out"},
    {"SectionsInTurnsLinked", kSectionsInTurns " -o g.o && ld -e 0 -o out g.o"},
    {"SectionsInTurnsShared", kSectionsInTurns " -o g.o && ld -shared -o out g.o"},
};

class ToolchainObjects : public ::testing::TestWithParam<ToolchainCase> {};

TEST_P(ToolchainObjects, RowsEqualTheDumpersSequenceBySequence) {
    qtest::TempDir dir;
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("h.h"), kHeader));
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("a.c"), kFirst));
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("b.c"), kSecond));
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("s.s"), kAssembly));
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("g.s"), SectionsInTurns()));
    qtest::CommandResult made = qtest::RunCommand("cd " + dir.Path() + " && " + GetParam().build);
    ASSERT_EQ(made.exitCode, 0) << made.output;
    std::string object = dir.File("out");

    std::vector<Sequence> theirs = DumpedSequences(object);
    ASSERT_FALSE(theirs.empty());
    CBaseRetrieve engine;
    ASSERT_EQ(engine.OpenObjectAndSourceFile(object.c_str(), "no such file", nullptr),
              DBG_ERR_SOURCE_NOT_FOUND); // loaded; only the name is unknown
    std::vector<Sequence> ours = OurSequences(engine);
    // Sequences of different sections may come in another order; inside one they may not.
    std::sort(ours.begin(), ours.end());
    std::sort(theirs.begin(), theirs.end());
    EXPECT_EQ(ours, theirs);
    ExpectEveryRowFound(engine);
}

INSTANTIATE_TEST_SUITE_P(Producers, ToolchainObjects, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<ToolchainCase> &info) {
                             return std::string(info.param.name);
                         });

} // namespace
