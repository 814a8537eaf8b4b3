// What qdbg tells a person when it refuses: a faulty description as "FILE:LINE: what is wrong",
// a file or library refusal with the file's name and the reason in words (the system's own where
// the system refused), exit code 1; a faulty command line, exit code 2; nothing on standard
// output and no output file.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

namespace {

using namespace qdbgtest;

const std::string kQdbg = QDBG_PATH;

// The lines every case starts from; a case's text follows them, so its first line is line 4.
// Their source a.s does not exist.
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
    {"line a 1 0 colour=3\n", "4: 'line' has no option 'colour'"},
    {"!source a a.s\n", "1: the first statement must be 'module'"},
    {"!# only a comment\n", " the description has no 'module' line"},
    {"module source=b.s\n", "4: a second 'module' line (the first is on line 1)"},
    {"!module directory=/x\n", "1: 'module' needs source=NAME"},
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
    {"!module source=a.s\nsymbol s 0\n", "2: a symbol outside a section needs section=NAME"},
    // Objects and their values
    {"constant c data1 256\n", "4: value 256 does not fit data1"},
    {"constant c data4 -1\n", "4: value '-1' is not a number of an unsigned type"},
    {"constant c real8 1.5x\n", "4: value '1.5x' is not a number"},
    {"proctype p\nconstant c p 1\n", "5: 'p' is a procedure type; a constant needs a basic type"},
    // Procedures
    {"symbol f 0\nprocedure f end=8\n", "5: procedure has no 'end'"},
    {"end\n", "4: 'end' without an open procedure"},
    {"symbol f 0\nprocedure f end=8\nprocedure f end=8\n",
     "6: a procedure inside a procedure (opened on line 5)"},
    {"symbol f 8\nprocedure f end=4\nend\n", "5: end 0x4 lies before start 0x8"},
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
    CommandResult result = RunCommand(kQdbg + " build desc.qd -o out.o", dir.Path());
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "desc.qd:" + std::string(c.expected) + "\n") << text;
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(FileExists(dir.File("out.o")));
}

INSTANTIATE_TEST_SUITE_P(Table, DescriptionErrors, ::testing::ValuesIn(kErrorCases),
                         [](const auto &info) {
                             return qtest::CaseName(info.param.expected, info.index);
                         });

struct MessageCase {
    const char *arguments; // run in a directory that holds the files made by SetUp
    int exitCode;          // 1: refused; 2: a faulty command line (words: the first line)
    std::vector<std::string> words;
};

const MessageCase kMessageCases[] = {
    {"lines missing.o", 1, {"qdbg: missing.o: No such file or directory"}},
    {"files folder", 1, {"qdbg: folder: is a directory"}},
    {"lines notes.txt", 1, {"notes.txt: not an ELF or COFF object file"}},
    {"lines truncated.o",
     1,
     {"truncated.o: truncated: section headers end past the end of the file"}},
    {"lines class3.o", 1, {"class3.o: a kind of object file that is not read"}},
    {"lines plain.o", 1, {"plain.o: no line information (no .debug_line section)"}},
    {"line plain.o a.s 1", 1, {"plain.o: no line information (no .debug_line section)"}},
    {"build missing.qd -o out.o", 1, {"qdbg: missing.qd: No such file or directory"}},
    {"build register525.qd -o out.o",
     1,
     {"register525.qd:3: register symbol 'r' refused: status 11 (bad property value: register "
      "numbers are 0 to 524)"}},
    {"build register70000.qd -o out.o --target x86-64",
     1,
     {"register70000.qd:3: register symbol 'r' refused: status 11 (bad property value: DWARF "
      "register numbers are 0 to 65535)"}},
    {"build register9999.qd -o out.o --target x86-64 --format coff",
     1,
     {"register symbol 'r' refused: status 11 (bad property value: the register has no "
      "CodeView number on this target)"}},
    {"build whole.qd -o nowhere/out.o",
     1,
     {"cannot write nowhere/out.o: No such file or directory"}},
    {"build whole.qd -o out.o --format coff",
     1,
     {"whole.qd: emitting the debugging information refused: status 18",
      "source file 'a.s' (line 2) cannot be read for its checksum: No such file or directory"}},
    // Faulty command lines
    {"", 2, {"qdbg: no command"}},
    {"frob", 2, {"qdbg: unknown command 'frob'"}},
    {"build", 2, {"qdbg: no description file"}},
    {"build d.qd", 2, {"qdbg: no output file (-o OUTPUT)"}},
    {"build d.qd -o x.o --format pe", 2, {"qdbg: unknown format 'pe' (elf64, elf32 or coff)"}},
    {"build d.qd -o x.o --target riscv64 --format coff",
     2,
     {"qdbg: target 'riscv64' has no coff objects (use --format elf64)"}},
    {"build d.qd -o x.o --target i386",
     2, // elf64 by default
     {"qdbg: target 'i386' has no elf64 objects (use --format elf32 or coff)"}},
    {"build d.qd -o x.o -t arm",
     2,
     {"qdbg: unknown target 'arm' (default, x86-64, i386, aarch64 or riscv64)"}},
    {"lines", 2, {"qdbg: lines takes one object file"}},
    {"addr x.o --section", 2, {"qdbg: --section needs a section name"}},
    {"addr -e x.o 12", 2, {"qdbg: unknown option '-e'"}},
    {"line x.o a.s", 2, {"qdbg: usage: qdbg line OBJECT SOURCE LINE [COLUMN]"}},
    {"line x.o a.s 3 5000000000", 2, {"qdbg: column '5000000000' is not a column number"}},
};

class ErrorMessages : public ::testing::TestWithParam<MessageCase> {
protected:
    void SetUp() override {
        RunCommand("mkdir folder", m_Dir.Path());
        WriteFile(m_Dir.File("notes.txt"), "plain text, not an object file\n");
        // Register r is 525 (above the default target's numbering), 70000 (above DWARF's) or
        // 9999 (a DWARF number without a CodeView register on x86-64).
        for (std::string number : {"525", "70000", "9999"})
            WriteFile(m_Dir.File("register" + number + ".qd"),
                      "module source=a.s\nsection .text code size=16\nregister r data4 " + number +
                          "\n");
        // An ELF identification of class 3, padded to a whole header.
        std::string class3 = {'\x7f', 'E', 'L', 'F', 3, 1, 1};
        class3.resize(64, '\0');
        WriteFile(m_Dir.File("class3.o"), class3);
        CommandResult plain = RunCommand("echo nop | llvm-mc-14 -filetype=obj "
                                         "-triple x86_64-linux-gnu -o plain.o",
                                         m_Dir.Path());
        ASSERT_EQ(plain.exitCode, 0) << plain.err;
        // An object of qdbg's own, cut in half: its section headers are at the end. Its line names
        // a.s, which is missing, so COFF, which records the source's checksum, refuses it.
        WriteFile(m_Dir.File("whole.qd"), kPrologue + std::string("line a 3 0\n"));
        CommandResult whole = RunCommand(kQdbg + " build whole.qd -o whole.o", m_Dir.Path());
        ASSERT_EQ(whole.exitCode, 0) << whole.err;
        std::string bytes = ReadFile(m_Dir.File("whole.o"));
        WriteFile(m_Dir.File("truncated.o"), bytes.substr(0, bytes.size() / 2));
    }

    qtest::TempDir m_Dir;
};

TEST_P(ErrorMessages, SayWhatAndWhy) {
    const MessageCase &c = GetParam();
    CommandResult result = RunCommand(kQdbg + " " + c.arguments, m_Dir.Path());
    EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
    for (const std::string &words : c.words)
        EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(FileExists(m_Dir.File("out.o")));
}

INSTANTIATE_TEST_SUITE_P(Table, ErrorMessages, ::testing::ValuesIn(kMessageCases),
                         [](const auto &info) {
                             return qtest::CaseName(info.param.words[0], info.index);
                         });

TEST(QdbgHelp, EveryCommandHasAPageWithTheExitCodes) {
    for (const char *command : {"build", "lines", "addr", "line", "files"}) {
        CommandResult viaOption = RunCommand(kQdbg + " " + command + " --help");
        EXPECT_EQ(viaOption.exitCode, 0) << command;
        EXPECT_NE(viaOption.out.find(std::string("    ") + command + " "), std::string::npos)
            << command;
        EXPECT_NE(viaOption.out.find("EXIT STATUS"), std::string::npos) << command;
        CommandResult viaHelp = RunCommand(kQdbg + " --help " + command);
        EXPECT_EQ(viaHelp.out, viaOption.out) << command;
    }
}

TEST(QdbgHelp, TheManualsExampleBuildsInEveryFormat) {
    CommandResult manual = RunCommand(kQdbg + " --help");
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
        CommandResult built =
            RunCommand(kQdbg + " build hello.desc -o hello.o -f " + format, dir.Path());
        EXPECT_EQ(built.exitCode, 0) << format << "\n" << description << built.err;
        CommandResult listed = RunCommand(kQdbg + " lines hello.o", dir.Path());
        EXPECT_NE(listed.out.find(".text 0xc 7 0 "), std::string::npos) << format << listed.out;
    }
}

} // namespace
