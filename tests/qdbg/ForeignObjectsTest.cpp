// The query commands on objects that other tools made: an ELF object from llvm-mc with a section
// as large as an address space, and a COFF object with CodeView line blocks from clang (the
// corpus test compares compilers' ELF objects).
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>

namespace {

using namespace qdbgtest;

const std::string kQdbg = QDBG_PATH;

// "SECTION OFFSET LINE" of every row that `qdbg lines` prints.
std::vector<std::string> ListedRows(const std::string &object) {
    CommandResult listed = RunCommand("timeout 60 " + kQdbg + " lines " + Quote(object));
    EXPECT_EQ(listed.exitCode, 0) << listed.err;
    std::vector<std::string> rows;
    std::istringstream lines(listed.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string section, offset, number;
        words >> section >> offset >> number;
        rows.push_back(section + " " + offset + " " + number);
    }
    return rows;
}

std::string Hex(uint64_t value) {
    std::ostringstream out;
    out << "0x" << std::hex << value;
    return out.str();
}

// A section as large as an address space (uninitialised data costs nothing in the file) is not
// walked byte by byte: listing rows and answering an address at its far end take no time.
TEST(ForeignObjects, HugeSectionsAreNotWalked) {
    qtest::TempDir dir;
    WriteFile(dir.File("huge.s"), "        .text\n        nop\n        nop\n"
                                  "        .bss\n        .zero 281474976710656\n");
    CommandResult assembled = RunCommand("llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu -g "
                                         "-dwarf-version=2 huge.s -o huge.o",
                                         dir.Path());
    ASSERT_EQ(assembled.exitCode, 0) << assembled.err;
    EXPECT_EQ(ListedRows(dir.File("huge.o")),
              (std::vector<std::string>{".text 0x0 2", ".text 0x1 3"}));
    CommandResult addr = RunCommand(
        "timeout 60 " + kQdbg + " addr --section .bss huge.o 0xffffffffffff 1", dir.Path());
    EXPECT_EQ(addr.exitCode, 3) << addr.err;
    EXPECT_EQ(addr.out, "??:0\n??:0\n");
}

TEST(ForeignObjects, CoffLineBlocksFromClang) {
    qtest::TempDir dir;
    std::string source;
    for (int k = 0; k < 6; ++k)
        source += "int f" + std::to_string(k) + "(int x)\n{\n    int y = x * " +
                  std::to_string(k + 2) + ";\n    return y + " + std::to_string(k) + ";\n}\n\n";
    WriteFile(dir.File("six.c"), source);
    CommandResult compiled =
        RunCommand("clang-14 --target=x86_64-pc-windows-msvc -g -gcodeview -O0 -c six.c -o six.obj",
                   dir.Path());
    ASSERT_EQ(compiled.exitCode, 0) << compiled.err;

    // What LLVM reads: each function's line table (offsets from the function's start) and the
    // function symbols' offsets in .text.
    CommandResult symbols = RunCommand("llvm-readobj-14 --symbols six.obj", dir.Path());
    std::map<std::string, uint64_t> start;
    std::regex symbol(R"(Name: (f\d)\n\s+Value: (\d+)\n\s+Section: \.text)");
    for (std::sregex_iterator it(symbols.out.begin(), symbols.out.end(), symbol), end; it != end;
         ++it)
        start[(*it)[1]] = std::stoull((*it)[2]);
    ASSERT_EQ(start.size(), 6u) << symbols.out;
    CommandResult codeview = RunCommand("llvm-readobj-14 --codeview six.obj", dir.Path());
    std::vector<std::pair<uint64_t, std::string>> rows;
    std::regex item(R"(LinkageName: (f\d)|\+(0x[0-9A-F]+) \[\n\s+LineNumberStart: (\d+))");
    std::string function;
    for (std::sregex_iterator it(codeview.out.begin(), codeview.out.end(), item), end; it != end;
         ++it) {
        if ((*it)[1].matched) {
            function = (*it)[1];
            continue;
        }
        uint64_t offset = start[function] + std::stoull((*it)[2], nullptr, 16);
        rows.emplace_back(offset, ".text " + Hex(offset) + " " + (*it)[3].str());
    }
    ASSERT_GE(rows.size(), 18u) << codeview.out;
    std::sort(rows.begin(), rows.end());
    std::vector<std::string> expected;
    for (const auto &row : rows)
        expected.push_back(row.second);
    EXPECT_EQ(ListedRows(dir.File("six.obj")), expected);
    CommandResult files = RunCommand(kQdbg + " files six.obj", dir.Path());
    EXPECT_EQ(files.exitCode, 0);
    EXPECT_NE(files.out.find("six.c\n"), std::string::npos) << files.out;
}

} // namespace
