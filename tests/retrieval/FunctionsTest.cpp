// The function that holds an offset, from the DWARF subprograms of objects that today's compilers
// write at test time, against the subprograms llvm-dwarfdump prints: every function's name and
// range, at its first byte, its middle and its last.
#include "lines/Retrieve.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

namespace {

struct Function {
    std::string name;
    uint64_t low = 0, high = 0;
};

// The quoted text of an attribute line such as `DW_AT_name ("main")` or
// `DW_AT_specification (0x0000004f "_ZNK2ns1S3getEv")`, or empty.
std::string Quoted(const std::string &text) {
    size_t open = text.find('"');
    size_t close = text.rfind('"');
    return open == close ? std::string() : text.substr(open + 1, close - open - 1);
}

// The subprograms with a code range that llvm-dwarfdump prints, named as a symbolizer names
// them: the linkage name, else what the declaration it completes is called (the dumper quotes
// it beside the reference), else the plain name.
std::vector<Function> DumpedFunctions(const std::string &object) {
    qtest::CommandResult dump = qtest::RunCommand("llvm-dwarfdump-14 --debug-info " + object);
    EXPECT_EQ(dump.exitCode, 0) << dump.output;
    std::vector<Function> functions;
    bool inSubprogram = false, hasLow = false, hasHigh = false;
    std::string linkage, referenced, plain;
    Function current;
    auto finish = [&]() {
        if (inSubprogram && hasLow && hasHigh && current.high > current.low) {
            current.name = !linkage.empty() ? linkage : !referenced.empty() ? referenced : plain;
            functions.push_back(current);
        }
        inSubprogram = hasLow = hasHigh = false;
        linkage.clear(), referenced.clear(), plain.clear();
    };
    for (const std::string &text : qtest::SplitLines(dump.output)) {
        unsigned long long value = 0;
        if (text.find("DW_TAG_") != std::string::npos || text.empty()) {
            finish();
            inSubprogram = text.find("DW_TAG_subprogram") != std::string::npos;
            current = Function{};
        } else if (!inSubprogram) {
            continue;
        } else if (text.find("DW_AT_linkage_name") != std::string::npos) {
            linkage = Quoted(text);
        } else if (text.find("DW_AT_specification") != std::string::npos ||
                   text.find("DW_AT_abstract_origin") != std::string::npos) {
            referenced = Quoted(text);
        } else if (text.find("DW_AT_name") != std::string::npos) {
            plain = Quoted(text);
        } else if (std::sscanf(text.c_str(), " DW_AT_low_pc (0x%llx)", &value) == 1) {
            current.low = value, hasLow = true;
        } else if (std::sscanf(text.c_str(), " DW_AT_high_pc (0x%llx)", &value) == 1) {
            current.high = value, hasHigh = true;
        }
    }
    finish();
    return functions;
}

BrxHandle FindSection(BrxHandle file, const std::string &name) {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name.c_str()};
    BrxHandle section = 0;
    EXPECT_EQ(_brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0), BRX_OK) << name;
    return section;
}

const char *const kC = "static int helper(int x) { return x * 3; }\n"
                       "int first(int a) { return helper(a) + 1; }\n"
                       "int second(int b) { return b - 2; }\n"
                       "int main(void) { return first(2) + second(3); }\n";
const char *const kCxx = "namespace ns {\nstruct S {\n  int v;\n  int get() const;\n"
                         "  static int twice(int);\n};\nint S::get() const { return v; }\n"
                         "int S::twice(int x) { return 2 * x; }\n}\n"
                         "int use(ns::S s) { return s.get() + ns::S::twice(3); }\n"
                         "int main() { return use(ns::S{1}); }\n";

struct FunctionCase {
    const char *name;
    const char *build; // run in a directory holding f.c and k.cc; makes out
    // Where the functions' code is: ".text", or "" for a section of its own per function
    // (.text.NAME); in a linked program the dumper's addresses are .text's plus the offset.
    const char *section;
};

const FunctionCase kCases[] = {
    {"GccRelocatable", "gcc -g -c f.c -o out", ".text"},
    {"GccDwarf2", "gcc -g -gdwarf-2 -O1 -c f.c -o out", ".text"},
    {"ClangDwarf5FunctionSections", "clang-14 -g -gdwarf-5 -ffunction-sections -c f.c -o out", ""},
    {"GccFunctionSections", "gcc -g -ffunction-sections -c f.c -o out", ""},
    {"GxxMembersNamedByTheirDeclarations", "g++ -g -c k.cc -o out", ".text"},
    {"ClangxxLinkedProgram", "clang++-14 -g -O0 k.cc -o out", ".text"},
    {"GccLinkedProgram", "gcc -g -O1 f.c -o out", ".text"},
};

class Functions : public ::testing::TestWithParam<FunctionCase> {};

TEST_P(Functions, EveryFunctionAnswersItsNameAndRange) {
    const FunctionCase &c = GetParam();
    qtest::TempDir dir;
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("f.c"), kC));
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("k.cc"), kCxx));
    qtest::CommandResult made = qtest::RunCommand("cd " + dir.Path() + " && " + c.build);
    ASSERT_EQ(made.exitCode, 0) << made.output;
    std::string object = dir.File("out");
    std::vector<Function> theirs = DumpedFunctions(object);
    ASSERT_GE(theirs.size(), 3u);

    CBaseRetrieve engine;
    ASSERT_EQ(engine.OpenObjectAndSourceFile(object.c_str(), "no such file", nullptr),
              DBG_ERR_SOURCE_NOT_FOUND); // loaded; only the name is unknown
    for (const Function &f : theirs) {
        SCOPED_TRACE(f.name);
        std::string sectionName = *c.section ? c.section : ".text." + f.name;
        BrxHandle section = FindSection(engine.Object(), sectionName);
        uint64_t base = 0;
        ASSERT_EQ(_brx_get_keyed(section, BRX_KEY_SECTION_ADDRESS, nullptr, &base, 0), BRX_OK);
        DbgLineSectionHandle *handle = engine.SectionHandle(section);
        for (uint64_t address : {f.low, (f.low + f.high) / 2, f.high - 1}) {
            char name[256];
            uint32_t size = sizeof(name);
            uint64_t start = 0, end = 0;
            ASSERT_EQ(engine.FindFunction(handle, address - base, name, &size, &start, &end),
                      DBG_ERR_NONE)
                << std::hex << address;
            EXPECT_EQ(name, f.name);
            EXPECT_EQ(size, f.name.size() + 1);
            EXPECT_EQ(start + base, f.low);
            EXPECT_EQ(end + base, f.high);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Producers, Functions, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<FunctionCase> &info) {
                             return std::string(info.param.name);
                         });

// What is not a function's code, a buffer too small, a handle never given, and COFF objects.
TEST(FunctionRefusals, AnswerWithoutAFunction) {
    qtest::TempDir dir;
    ASSERT_TRUE(qtest::WriteTextFile(dir.File("f.c"), kC));
    qtest::CommandResult made = qtest::RunCommand(
        "cd " + dir.Path() +
        " && gcc -g -c f.c -o elf.o && clang-14 --target=x86_64-pc-windows-msvc -g -gcodeview "
        "-c f.c -o coff.o");
    ASSERT_EQ(made.exitCode, 0) << made.output;

    CBaseRetrieve elf;
    ASSERT_EQ(elf.OpenObjectAndSourceFile(dir.File("elf.o").c_str(), "none", nullptr),
              DBG_ERR_SOURCE_NOT_FOUND);
    BrxHandle text = FindSection(elf.Object(), ".text");
    uint64_t textSize = 0;
    ASSERT_EQ(_brx_get_keyed(text, BRX_KEY_SECTION_SIZE, nullptr, &textSize, 0), BRX_OK);
    DbgLineSectionHandle *handle = elf.SectionHandle(text);
    char name[16];
    uint32_t size = 2;
    EXPECT_EQ(elf.FindFunction(handle, 0, name, &size, nullptr, nullptr), DBG_ERR_BAD_SOURCE_INDEX);
    EXPECT_EQ(size, sizeof("helper")); // the length it needs
    size = sizeof(name);
    EXPECT_EQ(elf.FindFunction(handle, 0, name, &size, nullptr, nullptr), DBG_ERR_NONE);
    EXPECT_STREQ(name, "helper");
    EXPECT_EQ(elf.FindFunction(handle, textSize, name, &size, nullptr, nullptr),
              DBG_ERR_NO_LINE_AT_OFFSET);
    DbgLineSectionHandle madeUp{text, 0};
    EXPECT_EQ(elf.FindFunction(&madeUp, 0, name, &size, nullptr, nullptr), DBG_ERR_OBJECT_FILE);
    EXPECT_EQ(elf.FindFunction(handle, 0, name, nullptr, nullptr, nullptr), DBG_ERR_OBJECT_FILE);

    CBaseRetrieve coff;
    ASSERT_EQ(coff.OpenObjectAndSourceFile(dir.File("coff.o").c_str(), "none", nullptr),
              DBG_ERR_SOURCE_NOT_FOUND);
    size = sizeof(name);
    EXPECT_EQ(coff.FindFunction(coff.SectionHandle(FindSection(coff.Object(), ".text")), 0, name,
                                &size, nullptr, nullptr),
              DBG_ERR_NO_LINE_AT_OFFSET);
}

} // namespace
