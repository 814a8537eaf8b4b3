// The demo's programs: their descriptions carry the code bytes and line rows that llvm-mc gives
// their sources, and `make demo` links and debugs them as it says.
#include "support/Support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

namespace {

using qtest::CommandResult;
using qtest::RunCommand;

const std::string kExamples = std::string(QUILLET_SOURCE_DIR) + "/examples";

struct DemoProgram {
    const char *name; // examples/NAME.qd describes examples/src/NAME.s
    const char *triple;
};

const DemoProgram kPrograms[] = {
    {"square-x86-64", "x86_64-linux-gnu"},
    {"square-aarch64", "aarch64-linux-gnu"},
};

// "bytes=HEX" of the description's .text and its (offset, line) pairs, in the order written.
void ReadDescription(const std::string &text, std::string &bytes,
                     std::vector<std::pair<uint64_t, uint32_t>> &rows) {
    std::smatch m;
    std::regex hex(R"(section \.text .*bytes=([0-9a-f]+))");
    if (std::regex_search(text, m, hex))
        bytes = m[1].str();
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string keyword, source, pair;
        if (!(words >> keyword >> source) || keyword != "lines")
            continue;
        while (words >> pair) {
            size_t colon = pair.find(':');
            rows.emplace_back(std::stoull(pair.substr(colon + 1), nullptr, 0),
                              uint32_t(std::stoul(pair.substr(0, colon))));
        }
    }
}

TEST(DemoPrograms, DescriptionsCarryTheAssemblersBytesAndRows) {
    for (const DemoProgram &p : kPrograms) {
        SCOPED_TRACE(p.name);
        qtest::TempDir dir;
        const std::string source = kExamples + "/src/" + p.name + ".s";
        CommandResult assembled =
            RunCommand("cd '" + dir.Path() + "' && llvm-mc-14 -g -filetype=obj -triple " +
                       p.triple + " '" + source +
                       "' -o ref.o && llvm-objcopy-14 -O binary --only-section=.text ref.o "
                       "code.bin && llvm-dwarfdump-14 --debug-line ref.o");
        ASSERT_EQ(assembled.exitCode, 0) << assembled.output;
        std::string code, bytes;
        for (uint8_t b : qtest::ReadFileBytes(dir.File("code.bin"))) {
            const char digits[] = "0123456789abcdef";
            code += digits[b >> 4];
            code += digits[b & 15];
        }
        std::vector<std::pair<uint64_t, uint32_t>> reference, described;
        std::regex row(R"(^0x([0-9a-f]{16})\s+(\d+)\s.*$)");
        for (const std::string &line : qtest::SplitLines(assembled.output)) {
            std::smatch m;
            if (std::regex_match(line, m, row) && line.find("end_sequence") == std::string::npos)
                reference.emplace_back(std::stoull(m[1].str(), nullptr, 16),
                                       uint32_t(std::stoul(m[2].str())));
        }
        std::ifstream in(kExamples + "/" + p.name + ".qd");
        std::stringstream text;
        text << in.rdbuf();
        ReadDescription(text.str(), bytes, described);
        EXPECT_EQ(bytes, code);
        EXPECT_EQ(described, reference);
    }
}

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
