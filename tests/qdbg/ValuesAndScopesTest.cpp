// What qdbg itself decides when it builds: the bytes of constant values, and a section scope
// opened again after another section (an assembler returning to .text).
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>

namespace {

using namespace qdbgtest;

struct ValueCase {
    const char *type;
    const char *value;
    const char *bytes; // as llvm-dwarfdump prints a block: "<0xNN> bb bb ..."
};

const ValueCase kValues[] = {
    {"data1", "255", "<0x01> ff"},
    {"sdata1", "-128", "<0x01> 80"},
    {"data2", "0xbeef", "<0x02> ef be"},
    {"sdata2", "-2", "<0x02> fe ff"},
    {"data4", "4294967295", "<0x04> ff ff ff ff"},
    {"sdata4", "-100", "<0x04> 9c ff ff ff"},
    {"data8", "0x0102030405060708", "<0x08> 08 07 06 05 04 03 02 01"},
    {"sdata8", "-9223372036854775808", "<0x08> 00 00 00 00 00 00 00 80"},
    {"real4", "0.5", "<0x04> 00 00 00 3f"},
    {"real4", "-2", "<0x04> 00 00 00 c0"},
    {"real8", "2.5", "<0x08> 00 00 00 00 00 00 04 40"},
    {"real10", "1.25", "<0x0a> 00 00 00 00 00 00 00 a0 ff 3f"},
};

TEST(QdbgValues, ConstantsCarryTheirValueInTheTypesWidthLittleEndian) {
    qtest::TempDir dir;
    std::string text = "module source=v.s\nsection .data size=8\n";
    for (size_t k = 0; k < std::size(kValues); ++k)
        text += "constant c" + std::to_string(k) + " " + kValues[k].type + " " + kValues[k].value +
                "\n";
    WriteFile(dir.File("values.qd"), text);
    CommandResult built =
        RunCommand(std::string(QDBG_PATH) + " build values.qd -o values.o", dir.Path());
    ASSERT_EQ(built.exitCode, 0) << built.err;
    CommandResult dump = RunCommand("llvm-dwarfdump-14 --debug-info values.o", dir.Path());
    ASSERT_EQ(dump.exitCode, 0);
    std::map<std::string, std::string> found;
    std::regex entry(
        R"re(DW_AT_name\s+\("(c\d+)"\)\s+DW_AT_const_value\s+\((<0x[0-9a-f]+>[0-9a-f ]*?)\s*\))re");
    for (std::sregex_iterator it(dump.out.begin(), dump.out.end(), entry), end; it != end; ++it)
        found[(*it)[1]] = (*it)[2];
    for (size_t k = 0; k < std::size(kValues); ++k)
        EXPECT_EQ(found["c" + std::to_string(k)], kValues[k].bytes)
            << kValues[k].type << " " << kValues[k].value;
}

TEST(QdbgScopes, ASectionOpenedAgainKeepsTheRowsOfBothScopes) {
    qtest::TempDir dir;
    WriteFile(dir.File("again.qd"), "module source=r.s\n"
                                    "source r r.s\n"
                                    "section .text code size=16\n"
                                    "  symbol f 0 global function\n"
                                    "  procedure f end=8\n"
                                    "    lines r 2:0 3:4\n"
                                    "  end\n"
                                    "section .data size=4\n"
                                    "section .text\n"
                                    "  symbol g 8 global function\n"
                                    "  procedure g end=16\n"
                                    "    lines r 5:8 6:12\n"
                                    "  end\n");
    for (const char *format : {"elf64", "elf32"}) {
        CommandResult built = RunCommand(
            std::string(QDBG_PATH) + " build again.qd -o again.o --format " + format, dir.Path());
        ASSERT_EQ(built.exitCode, 0) << built.err;
        CommandResult verify = RunCommand("llvm-dwarfdump-14 --verify --all again.o", dir.Path());
        EXPECT_EQ(verify.exitCode, 0) << verify.out;
        EXPECT_TRUE(Complaints(verify.out + verify.err).empty()) << verify.out;
        CommandResult listed = RunCommand(std::string(QDBG_PATH) + " lines again.o", dir.Path());
        ASSERT_EQ(listed.exitCode, 0) << listed.err;
        std::regex row(R"(^\.text (0x[0-9a-f]+) (\d+) \d+ \S*r\.s$)");
        std::vector<std::string> rows;
        std::istringstream lines(listed.out);
        for (std::string line; std::getline(lines, line);) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, row)) << line;
            rows.push_back(m[1].str() + ":" + m[2].str());
        }
        EXPECT_EQ(rows, (std::vector<std::string>{"0x0:2", "0x4:3", "0x8:5", "0xc:6"})) << format;
    }
}

TEST(QdbgScopes, ALineWithCodeInTwoPlacesListsBoth) {
    qtest::TempDir dir;
    WriteFile(dir.File("a.s"), "; lines 5 to 7\n");
    WriteFile(dir.File("twice.qd"), "module source=a.s\n"
                                    "source a a.s\n"
                                    "section .text code size=16\n"
                                    "lines a 5:0 6:4 5:8 7:12\n");
    for (const char *format : {"elf64", "coff"}) {
        CommandResult built = RunCommand(
            std::string(QDBG_PATH) + " build twice.qd -o twice.o -f " + format, dir.Path());
        ASSERT_EQ(built.exitCode, 0) << built.err;
        CommandResult places = RunCommand(
            std::string(QDBG_PATH) + " line twice.o " + Quote(dir.File("a.s")) + " 5", dir.Path());
        EXPECT_EQ(places.exitCode, 0) << places.err;
        EXPECT_EQ(places.out, ".text 0x0\n.text 0x8\n") << format;
    }
}

} // namespace
