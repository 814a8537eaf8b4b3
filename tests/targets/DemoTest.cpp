// `make demo` links and debugs the demo's programs as it says. (That their descriptions carry the
// code bytes and line rows that llvm-mc gives their sources is checked with the linked programs.)
#include "support/Support.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

using qtest::CommandResult;
using qtest::RunCommand;

const std::string kExamples = std::string(QUILLET_SOURCE_DIR) + "/examples";

// `make demo` runs: the x86-64 program exits with 25, gdb stops in it, shows the caller and the
// typed return value; llvm-symbolizer names the AArch64 and the COFF program's procedures; and
// no path of this machine is shown.
TEST(DemoPrograms, MakeDemoLinksDebugsAndSymbolizes) {
    CommandResult demo = RunCommand("'" + kExamples + "/demo.sh' '" + QUILLET_BINARY_DIR + "'");
    ASSERT_EQ(demo.exitCode, 0) << demo.output;
    const std::string &out = demo.output;
    for (const char *shown : {
             R"(exit status 25\n)",
             R"(Breakpoint 1, square \(\) at src/square-x86-64\.s:16\n)",
             R"(#1 .* in _start \(\) at src/square-x86-64\.s:6\n)",
             R"(Value returned is \$1 = 25\n)",
             R"(type = data8\n)",
             R"(\nsquare\n<project>/examples/src/square-aarch64\.s:13:0\n)",
             R"(\nsquare\n<project>/examples/src/square-x86-64\.s:16:0\n)",
             R"(\nhelper\n<project>/examples/src/tour\.s:11\nhelper\n)",
             R"(\nhelper\n<project>/examples/src/tour\.inc:2\n)",
         })
        EXPECT_TRUE(std::regex_search(out, std::regex(shown))) << shown;
    EXPECT_EQ(out.find(QUILLET_SOURCE_DIR), std::string::npos);
    EXPECT_TRUE(
        qtest::ConsumerComplaints(std::regex_replace(out, std::regex("No errors\\."), "")).empty())
        << out;
}

} // namespace
