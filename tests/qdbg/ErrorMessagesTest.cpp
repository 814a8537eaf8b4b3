// What qdbg tells a person when a file or the library refuses: the file's name, the reason in
// words (the system's own where the system refused), the limit that was broken; exit code 1 and
// nothing on standard output.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace qdbgtest;

const std::string kQdbg = QDBG_PATH;

// A description whose line entries name a.s, which does not exist.
const char kMissingSource[] = "module source=a.s\n"
                              "source a a.s\n"
                              "section .text code size=16\n"
                              "line a 3 0\n";

// Register r is 525 (above the default target's numbering), 70000 (above DWARF's) or 9999
// (a DWARF number without a CodeView register on x86-64).
std::string RegisterDescription(const char *number) {
    return std::string("module source=a.s\nsection .text code size=16\nregister r data4 ") +
           number + "\n";
}

struct ErrorCase {
    const char *name;
    const char *arguments; // run in a directory that holds the files made by SetUp
    std::vector<std::string> words;
};

const ErrorCase kErrorCases[] = {
    {"MissingObject", "lines missing.o", {"qdbg: missing.o: No such file or directory"}},
    {"Directory", "files folder", {"qdbg: folder: is a directory"}},
    {"TextFile", "lines notes.txt", {"notes.txt: not an ELF or COFF object file"}},
    {"Truncated",
     "lines truncated.o",
     {"truncated.o: truncated: section headers end past the end of the file"}},
    {"UnsupportedElfClass", "lines class3.o", {"class3.o: a kind of object file that is not read"}},
    {"NoDebuggingInformation",
     "lines plain.o",
     {"plain.o: no line information (no .debug_line section)"}},
    {"NoDebuggingInformationForASourceQuery",
     "line plain.o a.s 1",
     {"plain.o: no line information (no .debug_line section)"}},
    {"MissingDescription",
     "build missing.qd -o out.o",
     {"qdbg: missing.qd: No such file or directory"}},
    {"RegisterAboveTheLimit",
     "build register.qd -o out.o",
     {"register.qd:3: register symbol 'r' refused: status 11 (bad property value: register "
      "numbers are 0 to 524)"}},
    {"RegisterAboveDwarfNumbers",
     "build register70000.qd -o out.o --target x86-64",
     {"register70000.qd:3: register symbol 'r' refused: status 11 (bad property value: DWARF "
      "register "
      "numbers are 0 to 65535)"}},
    {"RegisterWithoutACodeViewNumber",
     "build register9999.qd -o out.o --target x86-64 --format coff",
     {"register symbol 'r' refused: status 11 (bad property value: the register has no "
      "CodeView number on this target)"}},
    {"OutputInAMissingDirectory",
     "build whole.qd -o nowhere/out.o",
     {"cannot write nowhere/out.o: No such file or directory"}},
    {"CoffSourceThatCannotBeRead",
     "build source.qd -o out.o --format coff",
     {"source.qd: emitting the debugging information refused: status 18",
      "source file 'a.s' (line 2) cannot be read for its checksum: No such file or directory"}},
};

class ErrorMessages : public ::testing::TestWithParam<ErrorCase> {
protected:
    void SetUp() override {
        RunCommand("mkdir folder", m_Dir.Path());
        WriteFile(m_Dir.File("notes.txt"), "plain text, not an object file\n");
        WriteFile(m_Dir.File("register.qd"), RegisterDescription("525"));
        WriteFile(m_Dir.File("register70000.qd"), RegisterDescription("70000"));
        WriteFile(m_Dir.File("register9999.qd"), RegisterDescription("9999"));
        WriteFile(m_Dir.File("source.qd"), kMissingSource);
        // An ELF identification of class 3, padded to a whole header.
        std::string class3 = {'\x7f', 'E', 'L', 'F', 3, 1, 1};
        class3.resize(64, '\0');
        WriteFile(m_Dir.File("class3.o"), class3);
        CommandResult plain = RunCommand("echo nop | llvm-mc-14 -filetype=obj "
                                         "-triple x86_64-linux-gnu -o plain.o",
                                         m_Dir.Path());
        ASSERT_EQ(plain.exitCode, 0) << plain.err;
        // An object of qdbg's own, cut in half: its section headers are at the end.
        WriteFile(m_Dir.File("whole.qd"), "module source=a.s\nsource a a.s\nsection .text code "
                                          "size=16\nline a 3 0\n");
        CommandResult whole = RunCommand(kQdbg + " build whole.qd -o whole.o", m_Dir.Path());
        ASSERT_EQ(whole.exitCode, 0) << whole.err;
        std::string bytes = ReadFile(m_Dir.File("whole.o"));
        WriteFile(m_Dir.File("truncated.o"), bytes.substr(0, bytes.size() / 2));
    }

    qtest::TempDir m_Dir;
};

TEST_P(ErrorMessages, SayWhatAndWhy) {
    const ErrorCase &c = GetParam();
    CommandResult result = RunCommand(kQdbg + " " + c.arguments, m_Dir.Path());
    EXPECT_EQ(result.exitCode, 1) << result.err;
    for (const std::string &words : c.words)
        EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(FileExists(m_Dir.File("out.o")));
}

INSTANTIATE_TEST_SUITE_P(Table, ErrorMessages, ::testing::ValuesIn(kErrorCases),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
