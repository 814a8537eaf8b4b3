// `qdbg build` refuses faulty descriptions with "FILE:LINE: what is wrong" on standard error,
// exit code 1 and no output file; bad command lines get exit code 2.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace {

using namespace qdbgtest;

// The lines every case starts from; a case's text follows them, so its first line is line 4.
const char kPrologue[] = "module source=a.s\n"
                         "source a a.s\n"
                         "section .text code size=16\n";

struct ErrorCase {
    const char *body;     // appended to kPrologue, unless it starts with '!' (then used alone)
    const char *expected; // the whole message after "desc.qd:"
};

const ErrorCase kErrorCases[] = {
    // Words and statements
    {"data x data3\nsymbol x 0\n", "4: unknown type 'data3'"},
    {"frobnicate 1\n", "4: unknown keyword 'frobnicate'"},
    {"symbol s 0 global\nlabel \"s\n", "5: unterminated string"},
    {"symbol s 0 section=.text section=.text\n", "4: option 'section' given twice"},
    {"label s extra\n", "4: usage: label SYMBOL"},
    {"line a 1 0 colour=3\n", "4: 'line' has no option 'colour'"},
    {"!source a a.s\n", "1: the first statement must be 'module'"},
    {"!# only a comment\n", " the description has no 'module' line"},
    {"module source=b.s\n", "4: a second 'module' line (the first is on line 1)"},
    {"!module directory=/x\n", "1: 'module' needs source=NAME"},
    {"!module source=a.s front-end=1.2\n", "1: version '1.2' is not MAJOR.MINOR.BUILD"},
    // Names, resolved after the whole text is read
    {"label nowhere\n", "4: unknown symbol 'nowhere'"},
    {"symbol s 0\nsymbol s 4\n", "5: symbol 's' is already defined on line 4"},
    {"symbol s 0 section=.bss\n", "4: unknown section '.bss'"},
    {"symbol s 17\n", "4: offset 17 lies beyond the 16 bytes of section '.text'"},
    // Sections
    {"section .text align=4\n", "4: section '.text' is already defined on line 3; a repeated "
                                "'section' line takes no attributes"},
    {"section .x code comdat=associative\n",
     "4: comdat=associative and associate=SECTION go together"},
    {"section .x align=3\n", "4: alignment 3 is not a power of two"},
    {"section .x bytes=abc\n", "4: bytes= needs an even number of hexadecimal digits"},
    {"section .x bytes=0102 size=1\n", "4: size 1 is below the 2 bytes given"},
    {"section .x writable\n", "4: unknown section attribute 'writable'"},
    {"!module source=a.s\nsymbol s 0\n", "2: a symbol outside a section needs section=NAME"},
    // Objects and their values
    {"constant c data1 256\n", "4: value 256 does not fit data1"},
    {"constant c data4 -1\n", "4: value '-1' is not a number of an unsigned type"},
    {"constant c real8 1.5x\n", "4: value '1.5x' is not a number"},
    {"constant c void 0\n", "4: a constant cannot have the type void"},
    {"proctype p\nconstant c p 1\n", "5: 'p' is a procedure type; a constant needs a basic type"},
    {"register r data4 99999999999\n", "4: register 99999999999 is above 4294967295"},
    // Procedures
    {"symbol f 0\nprocedure f end=8\n", "5: procedure has no 'end'"},
    {"end\n", "4: 'end' without an open procedure"},
    {"symbol f 0\nprocedure f end=8\nprocedure f end=8\n",
     "6: a procedure inside a procedure (opened on line 5)"},
    {"symbol f 8\nprocedure f end=4\nend\n", "5: end 0x4 lies before start 0x8"},
    {"symbol f 0\nprocedure f,,g end=4\nend\n", "5: empty name in the entry list 'f,,g'"},
    {"symbol f 0\nprocedure f end=4 type=data4\nend\n",
     "5: 'data4' is a basic type; a procedure needs a procedure type"},
    {"!module source=a.s\nsymbol f 0 section=.t\nsection .t code\n", "2: unknown section '.t'"},
    {"lines a 1:0 2-4\n", "4: '2-4' is not LINE:OFFSET"},
};

class DescriptionErrors : public ::testing::TestWithParam<ErrorCase> {};

TEST_P(DescriptionErrors, NameFileLineAndFault) {
    const ErrorCase &c = GetParam();
    qtest::TempDir dir;
    std::string text = c.body[0] == '!' ? std::string(c.body + 1) : kPrologue + std::string(c.body);
    WriteFile(dir.File("desc.qd"), text);
    CommandResult result =
        RunCommand(std::string(QDBG_PATH) + " build desc.qd -o out.o", dir.Path());
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "desc.qd:" + std::string(c.expected) + "\n") << text;
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(FileExists(dir.File("out.o")));
}

INSTANTIATE_TEST_SUITE_P(Table, DescriptionErrors, ::testing::ValuesIn(kErrorCases),
                         [](const auto &info) {
                             return qtest::CaseName(info.param.expected, info.index);
                         });

struct UsageCase {
    const char *arguments;
    const char *message; // the first line on standard error
};

const UsageCase kUsageCases[] = {
    {"", "qdbg: no command"},
    {"frob", "qdbg: unknown command 'frob'"},
    {"build", "qdbg: no description file"},
    {"build d.qd", "qdbg: no output file (-o OUTPUT)"},
    {"build d.qd -o x.o --format pe", "qdbg: unknown format 'pe' (elf64, elf32 or coff)"},
    {"build d.qd -o x.o --target riscv64 --format coff",
     "qdbg: target 'riscv64' has no coff objects (use --format elf64)"},
    {"build d.qd -o x.o --target i386", // elf64 by default
     "qdbg: target 'i386' has no elf64 objects (use --format elf32 or coff)"},
    {"build d.qd -o x.o -t arm",
     "qdbg: unknown target 'arm' (default, x86-64, i386, aarch64 or riscv64)"},
    {"build d.qd -o x.o -v", "qdbg: unknown option '-v'"},
    {"lines", "qdbg: lines takes one object file"},
    {"addr x.o --section", "qdbg: --section needs a section name"},
    {"addr -e x.o 12", "qdbg: unknown option '-e'"},
    {"line x.o a.s", "qdbg: usage: qdbg line OBJECT SOURCE LINE [COLUMN]"},
    {"line x.o a.s 3 5000000000", "qdbg: column '5000000000' is not a column number"},
};

class UsageErrors : public ::testing::TestWithParam<UsageCase> {};

TEST_P(UsageErrors, ExitTwoWithAMessage) {
    qtest::TempDir dir;
    CommandResult result =
        RunCommand(std::string(QDBG_PATH) + " " + GetParam().arguments, dir.Path());
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err.substr(0, result.err.find('\n')), GetParam().message);
    EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(Table, UsageErrors, ::testing::ValuesIn(kUsageCases),
                         [](const auto &info) {
                             return qtest::CaseName(info.param.message, info.index);
                         });

TEST(QdbgHelp, EveryCommandHasAPageWithTheExitCodes) {
    for (const char *command : {"build", "lines", "addr", "line", "files"}) {
        CommandResult viaOption = RunCommand(std::string(QDBG_PATH) + " " + command + " --help");
        EXPECT_EQ(viaOption.exitCode, 0) << command;
        EXPECT_NE(viaOption.out.find(std::string("    ") + command + " "), std::string::npos)
            << command;
        EXPECT_NE(viaOption.out.find("EXIT STATUS"), std::string::npos) << command;
        CommandResult viaHelp = RunCommand(std::string(QDBG_PATH) + " --help " + command);
        EXPECT_EQ(viaHelp.out, viaOption.out) << command;
    }
}

TEST(QdbgHelp, TheManualsExampleBuildsInEveryFormat) {
    CommandResult manual = RunCommand(std::string(QDBG_PATH) + " --help");
    size_t begin = manual.out.find("\nEXAMPLE\n");
    ASSERT_NE(begin, std::string::npos);
    std::istringstream lines(manual.out.substr(begin + 9));
    std::string description;
    for (std::string line; std::getline(lines, line) && !line.empty();)
        description += line.substr(std::min<size_t>(4, line.size())) + "\n";
    qtest::TempDir dir;
    WriteFile(dir.File("hello.desc"), description);
    WriteFile(dir.File("hello.s"), "; the source the example's lines point into\n");
    for (const char *format : {"elf64", "elf32", "coff"}) {
        CommandResult built = RunCommand(
            std::string(QDBG_PATH) + " build hello.desc -o hello.o -f " + format, dir.Path());
        EXPECT_EQ(built.exitCode, 0) << format << "\n" << description << built.err;
        CommandResult listed = RunCommand(std::string(QDBG_PATH) + " lines hello.o", dir.Path());
        EXPECT_NE(listed.out.find(".text 0xc 7 0 "), std::string::npos) << format << listed.out;
    }
}

} // namespace
