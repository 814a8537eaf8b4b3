// `qdbg build --target` writes the object for that machine: the consumers read it as one of that
// machine, with nothing to complain about.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

using namespace qdbgtest;

struct TargetCase {
    const char *target;
    const char *format;
    const char *machine; // what llvm-readobj says of the file
};

const TargetCase kTargets[] = {
    {"x86-64", "elf64", "EM_X86_64"},
    {"i386", "elf32", "EM_386"},
    {"aarch64", "coff", "IMAGE_FILE_MACHINE_ARM64"},
    {"riscv64", "elf64", "EM_RISCV"},
};

TEST(TargetOption, TheObjectIsTheTargetsAndConsumersAcceptIt) {
    const std::string examples = std::string(QUILLET_SOURCE_DIR) + "/examples";
    for (const TargetCase &c : kTargets) {
        SCOPED_TRACE(c.target);
        qtest::TempDir dir;
        std::string object = dir.File("hello.o");
        CommandResult built =
            RunCommand(std::string(QDBG_PATH) + " build hello.qd -o " + Quote(object) +
                           " --format " + c.format + " --target " + c.target,
                       examples);
        ASSERT_EQ(built.exitCode, 0) << built.err;
        bool coff = std::string(c.format) == "coff";
        CommandResult dump = RunCommand(std::string("llvm-readobj-14 --file-headers ") +
                                        (coff ? "--codeview " : "") + Quote(object));
        ASSERT_EQ(dump.exitCode, 0) << dump.err;
        EXPECT_TRUE(std::regex_search(dump.out, std::regex(std::string("Machine: ") + c.machine)))
            << dump.out;
        EXPECT_TRUE(qtest::ConsumerComplaints(dump.out + dump.err).empty()) << dump.err;
        if (!coff) {
            // The verifier's whole answer: every check passed, nothing said on the side.
            CommandResult verify = RunCommand("llvm-dwarfdump-14 --verify --all " + Quote(object));
            EXPECT_EQ(verify.exitCode, 0);
            EXPECT_EQ(verify.err, "");
            std::regex verdict(R"(\nNo errors\.\n$)");
            EXPECT_TRUE(std::regex_search(verify.out, verdict)) << verify.out;
            EXPECT_TRUE(
                qtest::ConsumerComplaints(std::regex_replace(verify.out, verdict, "\n")).empty())
                << verify.out;
        }
    }
}

} // namespace
