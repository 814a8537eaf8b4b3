// qdbg end to end: the example descriptions build in every object format, the consumers read
// the objects without a complaint, and the query commands give back what was described.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>
#include <tuple>

namespace {

using namespace qdbgtest;

const std::string kExamples = std::string(QUILLET_SOURCE_DIR) + "/examples";
const std::string kQdbg = QDBG_PATH;

std::string BaseName(const std::string &path) {
    size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "SECTION OFFSET LINE FILE" (the file's base name), sorted.
std::string RowText(const std::string &section, uint64_t offset, uint32_t line,
                    const std::string &file) {
    return section + " " + std::to_string(offset) + " " + std::to_string(line) + " " +
           BaseName(file);
}

// The line entries a description states, read independently of qdbg's parser: only the
// `source`, `section`, `line` and `lines` statements matter here.
std::vector<std::string> DescribedRows(const std::string &text) {
    std::map<std::string, std::string> sources;
    std::vector<std::string> rows;
    std::string section;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string keyword, name, number, offset;
        words >> keyword >> name;
        auto add = [&](const std::string &n, const std::string &o) {
            rows.push_back(RowText(section, std::stoull(o, nullptr, 0),
                                   uint32_t(std::stoul(n, nullptr, 0)), sources[name]));
        };
        if (keyword == "source")
            words >> sources[name];
        else if (keyword == "section")
            section = name;
        else if (keyword == "line" && words >> number >> offset)
            add(number, offset);
        for (std::string pair; keyword == "lines" && words >> pair;)
            add(pair.substr(0, pair.find(':')), pair.substr(pair.find(':') + 1));
    }
    std::sort(rows.begin(), rows.end());
    return rows;
}

// `qdbg lines` output: SECTION OFFSET LINE COLUMN FILE.
std::vector<std::string> ListedRows(const std::string &output) {
    std::vector<std::string> rows;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string section, offset, number, column, file;
        words >> section >> offset >> number >> column;
        std::getline(words >> std::ws, file);
        rows.push_back(
            RowText(section, std::stoull(offset, nullptr, 0), uint32_t(std::stoul(number)), file));
    }
    std::sort(rows.begin(), rows.end());
    return rows;
}

void ExpectNoComplaints(const CommandResult &result, const std::string &what) {
    EXPECT_EQ(result.exitCode, 0) << what << "\n" << result.err;
    for (const std::string &line : Complaints(result.out + result.err))
        ADD_FAILURE() << what << ": " << line;
}

// Builds examples/NAME.qd in FORMAT into DIR (run from examples/, where its sources are).
std::string Build(const qtest::TempDir &dir, const std::string &name, const std::string &format,
                  const std::string &options = "") {
    std::string object = dir.File(name + "-" + format + ".o");
    CommandResult built = RunCommand(kQdbg + " build " + name + ".qd -o " + Quote(object) +
                                         " --format " + format + " " + options,
                                     kExamples);
    EXPECT_EQ(built.exitCode, 0) << built.err;
    EXPECT_EQ(built.err, "");
    return object;
}

void CheckConsumers(const std::string &object, const std::string &format) {
    if (format == "coff") {
        // No LLVM tool opens machine 0x0200; the copy with the machine zeroed is read in full.
        std::string copy = object + ".machine0";
        std::string bytes = ReadFile(object);
        ASSERT_GT(bytes.size(), 2u);
        bytes[0] = bytes[1] = '\0';
        WriteFile(copy, bytes);
        CommandResult dump = RunCommand("llvm-readobj-14 --codeview " + Quote(copy));
        ExpectNoComplaints(dump, "llvm-readobj-14 --codeview");
        EXPECT_NE(dump.out.find("CodeViewDebugInfo"), std::string::npos);
        return;
    }
    ExpectNoComplaints(
        RunCommand("readelf --debug-dump=info,abbrev,line,decodedline -W " + Quote(object)),
        "readelf");
    CommandResult verify = RunCommand("llvm-dwarfdump-14 --verify --all " + Quote(object));
    ExpectNoComplaints(verify, "llvm-dwarfdump-14 --verify --all");
    EXPECT_NE(verify.out.find("No errors."), std::string::npos) << verify.out;
}

class ExampleDescriptions
    : public ::testing::TestWithParam<std::tuple<const char *, const char *>> {};

TEST_P(ExampleDescriptions, BuildReadCleanlyAndListTheDescribedRows) {
    const std::string name = std::get<0>(GetParam()), format = std::get<1>(GetParam());
    qtest::TempDir dir;
    std::string object = Build(dir, name, format);
    CheckConsumers(object, format);
    CommandResult listed = RunCommand(kQdbg + " lines " + Quote(object));
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    std::vector<std::string> expected = DescribedRows(ReadFile(kExamples + "/" + name + ".qd"));
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(ListedRows(listed.out), expected) << listed.out;
}

INSTANTIATE_TEST_SUITE_P(AllFormats, ExampleDescriptions,
                         ::testing::Combine(::testing::Values("hello", "tour"),
                                            ::testing::Values("elf64", "elf32", "coff")),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param)) + "_" +
                                    std::get<1>(info.param);
                         });

// `build --target` writes the object for that machine, which the consumers read as one of that
// machine without a complaint.
TEST(TargetOption, TheObjectIsTheTargetsAndConsumersAcceptIt) {
    const struct {
        const char *target, *format, *machine; // the machine as llvm-readobj names it
    } kTargets[] = {{"x86-64", "elf64", "EM_X86_64"},
                    {"i386", "elf32", "EM_386"},
                    {"aarch64", "coff", "IMAGE_FILE_MACHINE_ARM64"},
                    {"riscv64", "elf64", "EM_RISCV"}};
    for (const auto &c : kTargets) {
        SCOPED_TRACE(c.target);
        qtest::TempDir dir;
        std::string object = Build(dir, "hello", c.format, std::string("--target ") + c.target);
        CommandResult header = RunCommand("llvm-readobj-14 --file-headers " + Quote(object));
        EXPECT_NE(header.out.find(std::string("Machine: ") + c.machine + " "), std::string::npos)
            << header.out;
        CheckConsumers(object, c.format);
    }
}

// A section opened again after another (an assembler returning to .text) keeps the rows of both
// scopes, and a line with code in two places is found at both.
TEST(QdbgScopes, ASectionOpenedAgainKeepsTheRowsOfBothScopes) {
    const char kText[] = "module source=r.s\nsource r r.s\nsection .text code size=16\n"
                         "  symbol f 0 global function\n  procedure f end=8\n"
                         "    lines r 2:0 3:4\n  end\nsection .data size=4\nsection .text\n"
                         "  symbol g 8 global function\n  procedure g end=16\n"
                         "    lines r 5:8 2:12\n  end\n";
    qtest::TempDir dir;
    WriteFile(dir.File("again.qd"), kText);
    WriteFile(dir.File("r.s"), "; lines 2 to 5\n");
    for (const char *format : {"elf64", "elf32", "coff"}) {
        SCOPED_TRACE(format);
        CommandResult built = RunCommand(
            kQdbg + " build again.qd -o again.o --format " + std::string(format), dir.Path());
        ASSERT_EQ(built.exitCode, 0) << built.err;
        CheckConsumers(dir.File("again.o"), format);
        CommandResult listed = RunCommand(kQdbg + " lines again.o", dir.Path());
        EXPECT_EQ(ListedRows(listed.out), DescribedRows(kText));
        CommandResult places = RunCommand(kQdbg + " line again.o r.s 2", dir.Path());
        EXPECT_EQ(places.out, ".text 0x0\n.text 0xc\n") << places.err;
    }
}

// The bytes of constant values, which qdbg itself works out from the description.
struct ValueCase {
    const char *type;
    const char *value;
    const char *bytes; // as llvm-dwarfdump prints a block: "<0xNN> bb bb ..."
};

const ValueCase kValues[] = {
    {"data1", "255", "<0x01> ff"},
    {"sdata1", "-128", "<0x01> 80"},
    {"data2", "0xbeef", "<0x02> ef be"},
    {"sdata4", "-100", "<0x04> 9c ff ff ff"},
    {"data8", "0x0102030405060708", "<0x08> 08 07 06 05 04 03 02 01"},
    {"sdata8", "-9223372036854775808", "<0x08> 00 00 00 00 00 00 00 80"},
    {"real4", "0.5", "<0x04> 00 00 00 3f"},
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
    CommandResult built = RunCommand(kQdbg + " build values.qd -o values.o", dir.Path());
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

struct Query {
    const char *arguments; // after the object
    int exitCode;
    const char *out;     // exact standard output, with "{tour}" standing for tour.s's full path
    const char *errPart; // a part of standard error ("" for none)
};

const Query kQueries[] = {
    {"files", 0, "{tour}\n{inc}\n", ""},
    {"addr 0x10", 0, "{tour}:10\n", ""},
    {"addr --section .text 19", 0, "{tour}:11\n", ""}, // inside the instruction at 17
    {"addr 0x10 0x15 0x21 0x30", 3, "{tour}:10\n{inc}:2\n{tour}:14\n??:0\n",
     ""}, // 0x30: past the end
    {"addr --section .text.inline 3", 0, "{tour}:19\n", ""},
    {"addr -f 0x11 12", 0, "helper\n{tour}:11\n.alt\n{tour}:7\n", ""}, // function symbols
    {"addr --json -f 0x15 0x40", 3,
     "{\"address\": 21, \"function\": \"helper\", \"file\": \"{inc}\", \"line\": 2, \"column\": "
     "0}\n"
     "{\"address\": 64, \"function\": null, \"file\": null, \"line\": 0, \"column\": 0}\n",
     ""},
    {"addr --section .data 4", 3, "??:0\n", ""},
    {"addr 0x10 nonsense", 1, "{tour}:10\n??:0\n", "'nonsense' is not an address"},
    {"addr --section .nothing 0", 1, "", "has no section .nothing"},
    {"line {tour} 10", 0, ".text 0x10\n", ""},
    {"line tour.s 10", 0, ".text 0x10\n", ""},       // a trailing part of the path
    {"line TOUR.S 18", 0, ".text.inline 0x0\n", ""}, // letter case does not matter
    {"line our.s 10", 3, "", "has no line information for our.s"},
    {"line {tour} 9", 3, "", "nearest earlier position is {tour}:8 at .text 0xe"},
    {"line {tour}.missing 3", 3, "", "has no line information for"},
};

class LineQueries : public ::testing::TestWithParam<std::tuple<Query, const char *>> {};

std::string Substitute(std::string text, const std::string &tour, const std::string &inc) {
    for (auto [key, value] : {std::pair<std::string, std::string>{"{tour}", tour}, {"{inc}", inc}})
        for (size_t at; (at = text.find(key)) != std::string::npos;)
            text.replace(at, key.size(), value);
    return text;
}

TEST_P(LineQueries, AnswerFromTheLineInformation) {
    const Query &q = std::get<0>(GetParam());
    const std::string format = std::get<1>(GetParam());
    qtest::TempDir dir;
    std::string object = Build(dir, "tour", format);
    // The example's sources, named relative to the directory it was built in.
    const std::string tour = kExamples + "/src/tour.s", inc = kExamples + "/src/tour.inc";
    std::string command = q.arguments;
    std::string verb = command.substr(0, command.find(' '));
    std::string rest =
        command.find(' ') == std::string::npos ? "" : command.substr(command.find(' ') + 1);
    CommandResult result = RunCommand(kQdbg + " " + verb + " " + Quote(object) + " " +
                                      Substitute(rest, Quote(tour), Quote(inc)));
    EXPECT_EQ(result.exitCode, q.exitCode) << command << "\n" << result.err;
    EXPECT_EQ(result.out, Substitute(q.out, tour, inc)) << command;
    if (*q.errPart != '\0') {
        EXPECT_NE(result.err.find(Substitute(q.errPart, tour, inc)), std::string::npos)
            << command << "\n"
            << result.err;
    }
}

INSTANTIATE_TEST_SUITE_P(ElfAndCoff, LineQueries,
                         ::testing::Combine(::testing::ValuesIn(kQueries),
                                            ::testing::Values("elf64", "coff")),
                         [](const auto &info) {
                             return std::to_string(info.index / 2) + "_" + std::get<1>(info.param);
                         });

// A program that keeps qdbg running and asks one address at a time gets each answer before it
// asks the next: answers are not held back until the input ends.
TEST(QdbgQueries, AddrAnswersEachLineOfStandardInputAsItArrives) {
    qtest::TempDir dir;
    std::string object = Build(dir, "tour", "elf64");
    int toQdbg[2], fromQdbg[2];
    ASSERT_EQ(pipe(toQdbg), 0);
    ASSERT_EQ(pipe(fromQdbg), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        dup2(toQdbg[0], 0);
        dup2(fromQdbg[1], 1);
        for (int fd : {toQdbg[0], toQdbg[1], fromQdbg[0], fromQdbg[1]})
            close(fd);
        execl(kQdbg.c_str(), kQdbg.c_str(), "addr", "-f", object.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    close(toQdbg[0]);
    close(fromQdbg[1]);
    for (const auto &[address, answer] :
         {std::pair<std::string, std::string>{"0x10\n", "helper\n"}, {"12\n", ".alt\n"}}) {
        ASSERT_EQ(write(toQdbg[1], address.data(), address.size()), ssize_t(address.size()));
        // The answer's two lines come in one write, which a generous wait sees.
        pollfd ready = {fromQdbg[0], POLLIN, 0};
        char buffer[256] = {0};
        ASSERT_EQ(poll(&ready, 1, 30000), 1) << "no answer to " << address;
        ASSERT_GT(read(fromQdbg[0], buffer, sizeof buffer - 1), 0);
        EXPECT_EQ(std::string(buffer).substr(0, answer.size()), answer) << buffer;
    }
    close(toQdbg[1]);
    close(fromQdbg[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
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
    const std::string qdbg = "timeout 60 " + kQdbg;
    CommandResult listed = RunCommand(qdbg + " lines huge.o", dir.Path());
    EXPECT_EQ(listed.exitCode, 0) << listed.err;
    EXPECT_EQ(ListedRows(listed.out),
              (std::vector<std::string>{".text 0 2 huge.s", ".text 1 3 huge.s"}));
    CommandResult addr =
        RunCommand(qdbg + " addr --section .bss huge.o 0xffffffffffff 1", dir.Path());
    EXPECT_EQ(addr.exitCode, 3) << addr.err;
    EXPECT_EQ(addr.out, "??:0\n??:0\n");
}

TEST(CExample, WritesAnElf64ObjectWithItsFiveRows) {
    qtest::TempDir dir;
    std::string object = dir.File("count.o");
    CommandResult run = RunCommand(Quote(std::string(QUILLET_BINARY_DIR) + "/examples/emit_elf64") +
                                   " " + Quote(object));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    CheckConsumers(object, "elf64");
    CommandResult listed = RunCommand(kQdbg + " lines " + Quote(object));
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    EXPECT_EQ(
        ListedRows(listed.out),
        (std::vector<std::string>{".text 0 4 count.s", ".text 11 9 count.s", ".text 2 5 count.s",
                                  ".text 7 7 count.s", ".text 9 8 count.s"}));
}

} // namespace
