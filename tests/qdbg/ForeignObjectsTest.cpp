// A section as large as an address space (uninitialised data costs nothing in the file) is not
// walked byte by byte: listing rows and answering an address at its far end take no time. (The
// corpus test compares compilers' objects; the retrieval tests read other compilers' COFF.)
#include "qdbg/Process.h"

#include <gtest/gtest.h>

namespace {

using namespace qdbgtest;

TEST(ForeignObjects, HugeSectionsAreNotWalked) {
    qtest::TempDir dir;
    WriteFile(dir.File("huge.s"), "        .text\n        nop\n        nop\n"
                                  "        .bss\n        .zero 281474976710656\n");
    CommandResult assembled = RunCommand("llvm-mc-14 -filetype=obj -triple x86_64-linux-gnu -g "
                                         "-dwarf-version=2 huge.s -o huge.o",
                                         dir.Path());
    ASSERT_EQ(assembled.exitCode, 0) << assembled.err;
    const std::string qdbg = "timeout 60 " + std::string(QDBG_PATH);
    CommandResult listed = RunCommand(qdbg + " lines huge.o", dir.Path());
    EXPECT_EQ(listed.exitCode, 0) << listed.err;
    EXPECT_EQ(listed.out, ".text 0x0 2 0 " + dir.File("huge.s") + "\n.text 0x1 3 0 " +
                              dir.File("huge.s") + "\n");
    CommandResult addr =
        RunCommand(qdbg + " addr --section .bss huge.o 0xffffffffffff 1", dir.Path());
    EXPECT_EQ(addr.exitCode, 3) << addr.err;
    EXPECT_EQ(addr.out, "??:0\n??:0\n");
}

} // namespace
