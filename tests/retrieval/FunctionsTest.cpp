// The function that holds an offset, from the DWARF subprograms of objects that today's compilers
// write at test time, against the subprograms llvm-dwarfdump prints: every function's name and
// range, at its first byte, its middle and its last; functions split into a hot and a cold part
// against llvm-symbolizer; and range lists written byte by byte, well formed and damaged.
#include "DwarfBytes.h"
#include "lines/FunctionIndex.h"
#include "lines/Retrieve.h"
#include "support/Support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

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

// A loop whose rare branch calls a cold function: gcc -O2 moves that branch out of the loop's
// function into .text.unlikely as total.cold, and describes `total` by a range list.
const char *const kSplit =
    "#include <stdio.h>\n"
    "__attribute__((cold, noinline)) void report(int v) { fprintf(stderr, \"bad %d\\n\", v); }\n"
    "int total(const int *v, int n) {\n  int s = 0;\n  for (int i = 0; i < n; ++i) {\n"
    "    if (v[i] < 0) { report(v[i]); s -= v[i] * 7; continue; }\n    s += v[i] * v[i];\n"
    "  }\n  return s;\n}\n"
    "int main(int argc, char **argv) {\n  int v[3] = {argc, 2, 3};\n  (void)argv;\n"
    "  return total(v, 3);\n}\n";

struct Symbol {
    std::string name, section;
    uint64_t value = 0, size = 0;
};

// The function symbols readelf prints, each with the name of its section.
std::vector<Symbol> FunctionSymbols(const std::string &object) {
    qtest::CommandResult sections = qtest::RunCommand("readelf -SW " + object);
    qtest::CommandResult symbols = qtest::RunCommand("readelf -sW " + object);
    EXPECT_EQ(sections.exitCode | symbols.exitCode, 0) << sections.output << symbols.output;
    std::map<std::string, std::string> names; // by index
    for (const std::string &text : qtest::SplitLines(sections.output)) {
        unsigned index = 0;
        char name[128];
        if (std::sscanf(text.c_str(), " [%u] %127s", &index, name) == 2)
            names[std::to_string(index)] = name;
    }
    std::vector<Symbol> found;
    for (const std::string &text : qtest::SplitLines(symbols.output)) {
        std::istringstream fields(text);
        std::string number, value, size, type, bind, visibility, index, name;
        if (fields >> number >> value >> size >> type >> bind >> visibility >> index >> name &&
            type == "FUNC" && names.count(index))
            found.push_back(
                Symbol{name, names[index], std::stoull(value, nullptr, 16), std::stoull(size)});
    }
    return found;
}

struct SplitCase {
    const char *name;
    const char *compiler; // with its flags
    const char *source;   // the file kSplit is written to
};

const SplitCase kSplitCases[] = {
    {"GccDwarf4", "gcc -g -O2 -gdwarf-4", "s.c"},
    {"GccDwarf5", "gcc -g -O2 -gdwarf-5", "s.c"},
    {"GxxDwarf5", "g++ -g -O2 -gdwarf-5", "s.cc"},
};

class SplitFunctions : public ::testing::TestWithParam<SplitCase> {};

// Both parts of the split function, in the relocatable object and in the linked program stripped
// of its symbol table, answer the name llvm-symbolizer gives the stripped program there (as
// `qdbg addr -f` does), and the part's own range, as its symbol gives it.
TEST_P(SplitFunctions, BothPartsAnswerTheFunctionsName) {
    const SplitCase &c = GetParam();
    qtest::TempDir dir;
    ASSERT_TRUE(qtest::WriteTextFile(dir.File(c.source), kSplit));
    std::string compiler = c.compiler;
    qtest::CommandResult made = qtest::RunCommand(
        "cd " + dir.Path() + " && " + compiler + " -c " + c.source + " -o out.o && " + compiler +
        " out.o -o prog && objcopy --strip-all --keep-section='.debug_*' prog stripped");
    ASSERT_EQ(made.exitCode, 0) << made.output;

    struct Part {
        Symbol inObject, inProgram;
    };
    std::vector<Part> parts;
    std::vector<Symbol> linked = FunctionSymbols(dir.File("prog"));
    for (const Symbol &symbol : FunctionSymbols(dir.File("out.o")))
        for (const Symbol &inProgram : linked)
            if (symbol.name.find("total") != std::string::npos && inProgram.name == symbol.name)
                parts.push_back(Part{symbol, inProgram});
    ASSERT_EQ(parts.size(), 2u);
    for (const Part &part : parts)
        EXPECT_EQ(part.inObject.section == ".text.unlikely",
                  part.inObject.name.find(".cold") != std::string::npos)
            << part.inObject.name << " in " << part.inObject.section;

    for (const Part &part : parts) {
        SCOPED_TRACE(part.inObject.name);
        std::ostringstream address;
        address << "0x" << std::hex << part.inProgram.value;
        qtest::CommandResult theirs =
            qtest::RunCommand("llvm-symbolizer-14 --no-inlines --no-demangle -e " +
                              dir.File("stripped") + " " + address.str());
        ASSERT_EQ(theirs.exitCode, 0) << theirs.output;
        std::string expected = qtest::SplitLines(theirs.output).at(0);
        ASSERT_NE(expected, "??");
        // qdbg, finding no symbol table, names the part from the subprograms too.
        qtest::CommandResult ours = qtest::RunCommand(std::string(QDBG_PATH) + " addr -f " +
                                                      dir.File("stripped") + " " + address.str());
        EXPECT_EQ(qtest::SplitLines(ours.output).at(0), expected) << ours.output;

        for (const char *object : {"out.o", "stripped"}) {
            SCOPED_TRACE(object);
            const Symbol &symbol =
                std::string(object) == "stripped" ? part.inProgram : part.inObject;
            CBaseRetrieve engine;
            ASSERT_EQ(engine.OpenObjectAndSourceFile(dir.File(object).c_str(), "none", nullptr),
                      DBG_ERR_SOURCE_NOT_FOUND);
            BrxHandle section = FindSection(engine.Object(), symbol.section);
            uint64_t base = 0;
            ASSERT_EQ(_brx_get_keyed(section, BRX_KEY_SECTION_ADDRESS, nullptr, &base, 0), BRX_OK);
            for (uint64_t at : {symbol.value, symbol.value + symbol.size - 1}) {
                char name[256];
                uint32_t size = sizeof(name);
                uint64_t start = 0, end = 0;
                ASSERT_EQ(engine.FindFunction(engine.SectionHandle(section), at - base, name, &size,
                                              &start, &end),
                          DBG_ERR_NONE)
                    << std::hex << at;
                EXPECT_EQ(name, expected);
                EXPECT_EQ(start + base, symbol.value);
                EXPECT_EQ(end + base, symbol.value + symbol.size);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Producers, SplitFunctions, ::testing::ValuesIn(kSplitCases),
                         [](const ::testing::TestParamInfo<SplitCase> &info) {
                             return std::string(info.param.name);
                         });

// Range lists written byte by byte: one unit (version 4 or 5, 8-byte addresses, low address
// 0x1000) whose subprograms point at lists, every range read in one section.
using retrievaltest::Bytes;
using retrievaltest::PutU;
using retrievaltest::PutULEB;

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const Bytes &part : parts)
        b.insert(b.end(), part.begin(), part.end());
    return b;
}
// Each value in `width` bytes, or as a ULEB128 where `width` is 0.
Bytes Values(unsigned width, std::initializer_list<uint64_t> values) {
    Bytes b;
    for (uint64_t v : values)
        width ? PutU(b, v, width) : PutULEB(b, v);
    return b;
}
Bytes Addresses(std::initializer_list<uint64_t> values) {
    return Values(8, values);
}
Bytes Uleb(std::initializer_list<uint64_t> values) {
    return Values(0, values);
}

struct Subprogram {
    std::string name;
    bool indexed; // DW_FORM_rnglistx with this index, else DW_FORM_sec_offset
    uint64_t list;
};

struct Range {
    std::string name;
    uint64_t start, end;
};

// The index built from a unit of `version` whose subprograms point into `lists`: .debug_ranges,
// or in version 5 what follows .debug_rnglists' 12-byte header (where the unit's list base
// points, so offsets are counted from there too). .debug_addr holds 0x2000, 0x3000, 0x3010 and
// 0x4000.
CError BuildIndex(uint16_t version, const Bytes &lists, const std::vector<Subprogram> &subprograms,
                  quillet::CFunctionIndex &index) {
    constexpr uint64_t kListBase = 12;
    retrievaltest::SectionBytes bytes;
    // compile_unit with children: name, low_pc, addr_base, rnglists_base; two subprograms: name
    // and ranges as a section offset or as an index.
    bytes.abbrev = {1, 0x11, 1, 0x03, 0x08, 0x11, 0x01, 0x73, 0x17, 0x74, 0x17,
                    0, 0,    2, 0x2e, 0,    0x03, 0x08, 0x55, 0x17, 0,    0,
                    3, 0x2e, 0, 0x03, 0x08, 0x55, 0x23, 0,    0,    0};
    Bytes body;
    PutU(body, version, 2);
    if (version >= 5)
        body.insert(body.end(), {1, 8, 0, 0, 0, 0}); // compile unit, address size, abbrev offset
    else
        body.insert(body.end(), {0, 0, 0, 0, 8});
    body.insert(body.end(), {1, 'u', 0});
    PutU(body, 0x1000, 8);
    PutU(body, 8, 4);
    PutU(body, kListBase, 4);
    for (const Subprogram &s : subprograms) {
        body.push_back(s.indexed ? 3 : 2);
        retrievaltest::PutString(body, s.name);
        if (s.indexed)
            PutULEB(body, s.list);
        else
            PutU(body, s.list + (version >= 5 ? kListBase : 0), 4);
    }
    body.push_back(0);
    PutU(bytes.info, body.size(), 4);
    bytes.info.insert(bytes.info.end(), body.begin(), body.end());
    bytes.addr = Join({{36, 0, 0, 0, 5, 0, 8, 0}, Addresses({0x2000, 0x3000, 0x3010, 0x4000})});
    if (version >= 5) {
        PutU(bytes.rnglists, 8 + lists.size(), 4);
        bytes.rnglists.insert(bytes.rnglists.end(), {5, 0, 8, 0, 1, 0, 0, 0});
        bytes.rnglists.insert(bytes.rnglists.end(), lists.begin(), lists.end());
    } else {
        bytes.ranges = lists;
    }
    retrievaltest::TestPlacer placer;
    placer.fallback = 1;
    return index.Build(bytes.View(), placer);
}

// A version 5 list of every entry kind, at 8 past the list base.
const Bytes kEveryKind = Join({
    {1},
    Uleb({0}), // base_addressx: 0x2000
    {4},
    Uleb({0x10, 0x18}), // offset_pair
    {2},
    Uleb({1, 2}), // startx_endx
    {3},
    Uleb({3, 0x10}), // startx_length
    {5},
    Addresses({0x6000}), // base_address
    {4},
    Uleb({0, 4}), // offset_pair
    {6},
    Addresses({0x7000, 0x7008}), // start_end
    {7},
    Addresses({0x8000}),
    Uleb({0x20}), // start_length
    {0},
});

struct RangeListCase {
    const char *name;
    uint16_t version;
    Bytes lists;
    std::vector<Subprogram> subprograms;
    std::vector<Range> expected; // every function the index holds
    bool wellFormed;
};

const RangeListCase kRangeListCases[] = {
    {"RangesFromTheUnitsBaseThenASelectedOne",
     4,
     Addresses({0x10, 0x20, ~0ull, 0x5000, 4, 8, 0, 0}),
     {{"f", false, 0}},
     {{"f", 0x1010, 0x1020}, {"f", 0x5004, 0x5008}},
     true},
    // The offset array's one entry (4) leads to g's list; f's follows it.
    {"RnglistsEveryEntryKindByOffsetAndByIndex",
     5,
     Join({{4, 0, 0, 0, 4, 0x20, 0x30, 0}, kEveryKind}),
     {{"g", true, 0}, {"f", false, 8}},
     {{"g", 0x1020, 0x1030},
      {"f", 0x2010, 0x2018},
      {"f", 0x3000, 0x3010},
      {"f", 0x4000, 0x4010},
      {"f", 0x6000, 0x6004},
      {"f", 0x7000, 0x7008},
      {"f", 0x8000, 0x8020}},
     true},
    {"RangesListRunningOffTheSection",
     4,
     Addresses({0x10, 0x20, 0x30}),
     {{"f", false, 0}},
     {{"f", 0x1010, 0x1020}},
     false},
    {"RangesOffsetPastTheSection",
     4,
     Addresses({0x10, 0x20, 0, 0}),
     {{"f", false, 0x1000}, {"g", false, 0}},
     {{"g", 0x1010, 0x1020}},
     false},
    {"RnglistsUnknownEntryKind",
     5,
     {4, 0, 0, 0, 4, 0, 4, 9, 0},
     {{"f", false, 4}},
     {{"f", 0x1000, 0x1004}},
     false},
    {"RnglistsIndexPastTheOffsetsAndAddressPastDebugAddr",
     5,
     {4, 0, 0, 0, 3, 0x40, 8, 0, 4, 0, 0x10, 0},
     {{"g", true, 0x7fffffff}, {"f", false, 4}, {"h", false, 8}},
     {{"h", 0x1000, 0x1010}},
     false},
};

class RangeLists : public ::testing::TestWithParam<RangeListCase> {};

TEST_P(RangeLists, EveryRangeAnswersItsFunction) {
    const RangeListCase &c = GetParam();
    quillet::CFunctionIndex index;
    EXPECT_EQ(BuildIndex(c.version, c.lists, c.subprograms, index).Ok(), c.wellFormed);
    EXPECT_EQ(index.Count(), c.expected.size());
    for (const Range &range : c.expected) {
        for (uint64_t at : {range.start, range.end - 1}) {
            const quillet::CFunction *found = index.Find(1, at);
            ASSERT_NE(found, nullptr) << std::hex << at;
            EXPECT_EQ(index.Name(*found), range.name);
            EXPECT_EQ(found->m_nStart, range.start);
            EXPECT_EQ(found->m_nEnd, range.end);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Lists, RangeLists, ::testing::ValuesIn(kRangeListCases),
                         [](const ::testing::TestParamInfo<RangeListCase> &info) {
                             return std::string(info.param.name);
                         });

// Many subprograms sharing one list cannot make the index outgrow its input: reading stops at a
// budget, keeping what it found.
TEST(RangeListBudget, SharedListsAreReadWithinABound) {
    std::vector<Subprogram> many(20000, Subprogram{"f", false, 0});
    quillet::CFunctionIndex index;
    EXPECT_TRUE(BuildIndex(4, Addresses({0x10, 0x20, 0, 0}), many, index).Failed());
    EXPECT_GT(index.Count(), 0u);
    EXPECT_LT(index.Count(), 10000u);
}

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
