// Objects that today's compilers write, built at test time: `qdbg lines` lists exactly the rows
// llvm-dwarfdump decodes (end-of-sequence rows aside), and `qdbg addr -f` answers sampled
// addresses as llvm-symbolizer does. A missing compiler or tool fails its entry.
#include "qdbg/Process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>

namespace {

using namespace qdbgtest;

const std::string kQdbg = QDBG_PATH;

// Freestanding code (no C library: 32-bit programs link without one) in two files and a header
// of another directory, with a loop, a switch and inline functions for the optimiser.
const char *const kSources[][2] = {
    {"inc/util.h", "static inline int clamp(int v, int lo, int hi) {\n"
                   "    return v < lo ? lo : v > hi ? hi : v;\n}\nint mix(int a, int b);\n"},
    {"main.c", "#include \"inc/util.h\"\nstatic int weigh(int x) {\n    int total = 0;\n"
               "    for (int i = 0; i < x; ++i)\n        total += i ^ (total >> 3);\n"
               "    return total;\n}\nint classify(int v) {\n    switch (v & 3) {\n"
               "    case 0: return weigh(v);\n    case 1: return clamp(v, 10, 20);\n"
               "    default: return mix(v, 5);\n    }\n}\nvoid start(void) {\n"
               "    volatile int sum = 0;\n    for (int i = 0; i < 100; ++i)\n"
               "        sum += classify(i);\n    for (;;) {\n    }\n}\n"},
    {"util.c", "#include \"inc/util.h\"\nint mix(int a, int b) {\n"
               "    int r = clamp(a * 31 + b, -1000, 1000);\n    return r ^ (r >> 5);\n}\n"},
};

struct CorpusEntry {
    const char *name;
    const char *build; // shell commands, run among the sources, that write `out`
};

#define GCC "gcc -g -c -O2 "
#define CLANG "clang-14 -g -c -O2 "
#define TWO_OBJECTS(cc, flags) cc flags " main.c -o m.o && " cc flags " util.c -o u.o && "
const CorpusEntry kCorpus[] = {
    {"GccDwarf2", GCC "-gdwarf-2 -O0 main.c -o out"},
    {"GccDwarf3", GCC "-gdwarf-3 main.c -o out"},
    {"GccDwarf4", GCC "-gdwarf-4 main.c -o out"},
    {"GccDwarf5", GCC "-gdwarf-5 main.c -o out"},
    {"GccDwarf64", GCC "-gdwarf64 main.c -o out"},
    {"GccCompressed", GCC "-gz main.c -o out"},
    {"GccFunctionSections", GCC "-ffunction-sections main.c -o out"},
    {"GccLdR", TWO_OBJECTS(GCC, "") "ld -r m.o u.o -o out"},
    {"GccExecutable", TWO_OBJECTS(GCC, "-ffunction-sections") "ld -e start m.o u.o -o out"},
    {"GccShared", "gcc -g -O2 -fPIC -shared -nostdlib main.c util.c -o out"},
    {"Gcc32", GCC "-m32 main.c -o out"},
    {"Gcc32Executable", TWO_OBJECTS(GCC, "-m32") "ld -m elf_i386 -e start m.o u.o -o out"},
    {"ClangDwarf2", CLANG "-gdwarf-2 main.c -o out"},
    {"ClangDwarf4", CLANG "-gdwarf-4 main.c -o out"},
    {"ClangDwarf5", CLANG "-gdwarf-5 main.c -o out"},
    {"ClangDwarf64", CLANG "-gdwarf64 main.c -o out"},
    {"ClangCompressedFunctionSections", CLANG "-gz -ffunction-sections main.c -o out"},
    {"ClangLdR", TWO_OBJECTS(CLANG, "-gdwarf-4") "ld -r m.o u.o -o out"},
    {"ClangExecutable", TWO_OBJECTS(CLANG, "") "ld -e start m.o u.o -o out"},
    {"Clang32", CLANG "-m32 main.c -o out"},
    // Functions the symbol table lacks are named by the DWARF subprograms. The symbolizer would
    // name inlined code's function, not its holder's: its answers on `unstripped` are the measure.
    {"GccLocalFunctionSymbolsStripped",
     GCC "-O0 main.c -o m.o && objcopy --strip-symbol=weigh --strip-symbol=clamp m.o out"},
    {"ClangFunctionSymbolsStripped",
     TWO_OBJECTS(CLANG, "-gdwarf-5") "ld -e start m.o u.o -o unstripped && objcopy "
                                     "--strip-symbol=classify --strip-symbol=mix "
                                     "--strip-symbol=start unstripped out"},
};

// What llvm-dwarfdump decodes: rows as "SECTION ADDRESS FILE:LINE:COLUMN" (the section, only in
// relocatable objects, is what the sequence's DW_LNE_set_address is relocated against), and by
// section the addresses to ask about: each row's start and the byte after it, each sequence's
// end and a few bytes past it.
struct Decoded {
    std::vector<std::string> rows;
    std::map<std::string, std::set<uint64_t>> samples;
};

std::string Hex(uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

std::string RowText(const std::string &section, uint64_t address, const std::string &file,
                    const std::string &line, const std::string &column) {
    return section + " " + Hex(address) + " " + file + ":" + line + ":" + column;
}

// A path joined to a directory it is relative to, with "." components dropped: tools differ
// in whether they keep them ("/src/./inc/a.h" and "/src/inc/a.h" name one file).
std::string Joined(const std::string &directory, const std::string &name) {
    std::string path = name[0] == '/' || directory.empty() ? name : directory + "/" + name;
    for (size_t at; (at = path.find("/./")) != std::string::npos;)
        path.erase(at, 2);
    return path.rfind("./", 0) == 0 ? path.substr(2) : path;
}

Decoded Decode(const std::string &object, bool relocatable) {
    // The relocations of .debug_line by offset ("0x44 R_X86_64_64 .text.classify 0x0").
    std::map<uint64_t, std::string> targets;
    CommandResult relocations = RunCommand("llvm-readobj-14 --relocations " + Quote(object));
    EXPECT_EQ(relocations.exitCode, 0) << relocations.err;
    std::regex relocation(R"(^\s*(0x\S+) \S+ (\S+))");
    bool inLine = false;
    std::istringstream in(relocations.out);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (line.find("Section (") != std::string::npos)
            inLine = std::regex_search(line, std::regex(R"(\.rela?\.debug_line \{)"));
        else if (inLine && std::regex_search(line, m, relocation))
            targets[std::stoull(m[1], nullptr, 16)] = m[2];
    }
    CommandResult dump = RunCommand("llvm-dwarfdump-14 --debug-info --recurse-depth=0 "
                                    "--debug-line --verbose " +
                                    Quote(object));
    EXPECT_EQ(dump.exitCode, 0) << dump.err;
    std::regex compDir(R"re(DW_AT_comp_dir.*"([^"]*)"\)$)re"),
        stmtList(R"(DW_AT_stmt_list.*\((0x\w+)\)$)"), table(R"(^debug_line\[(0x\w+)\])"),
        version(R"(^\s+version: (\d+))"),
        directory(R"re(^include_directories\[\s*(\d+)\] = .*"([^"]*)"$)re"),
        file(R"(^file_names\[\s*(\d+)\]:)"), fileName(R"re(^\s+name: .*"([^"]*)"$)re"),
        fileDirectory(R"(^\s+dir_index: (\d+))"), setAddress(R"(^(0x\w+): 00 DW_LNE_set_address)"),
        row(R"(^\s+0x(\w{16})\s+(\d+)\s+(\d+)\s+(\d+)\s+\d+\s+\d+\s*(.*)$)");
    std::map<uint64_t, std::string> compDirs; // by the unit's line-table offset
    std::optional<uint64_t> unitTable;        // a unit names both, in either order
    std::string unitDir, rowSection;
    std::map<uint64_t, std::string> directories;
    std::map<uint64_t, std::pair<std::string, uint64_t>> files; // name, directory
    uint64_t current = 0, tableVersion = 0;
    std::string tableDir;
    Decoded decoded;
    std::istringstream lines(dump.out);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (unitTable)
            compDirs[*unitTable] = unitDir;
        if (line.find("DW_TAG_compile_unit") != std::string::npos) {
            unitTable.reset();
            unitDir.clear();
        } else if (std::regex_search(line, m, compDir)) {
            unitDir = m[1];
        } else if (std::regex_search(line, m, stmtList)) {
            unitTable = std::stoull(m[1], nullptr, 16);
        } else if (std::regex_search(line, m, table)) {
            tableDir = compDirs[std::stoull(m[1], nullptr, 16)];
            directories.clear();
            files.clear();
        } else if (std::regex_search(line, m, version)) {
            tableVersion = std::stoull(m[1]);
        } else if (std::regex_search(line, m, directory)) {
            directories[std::stoull(m[1])] = m[2];
        } else if (std::regex_search(line, m, file)) {
            current = std::stoull(m[1]);
        } else if (std::regex_search(line, m, fileName)) {
            files[current].first = m[1];
        } else if (std::regex_search(line, m, fileDirectory)) {
            files[current].second = std::stoull(m[1]);
        } else if (std::regex_search(line, m, setAddress)) {
            // The operand follows the opcode, its length and the sub-opcode.
            rowSection = relocatable ? targets[std::stoull(m[1], nullptr, 16) + 3] : "";
            EXPECT_TRUE(!relocatable || !rowSection.empty()) << "no relocation at " << m[1];
        } else if (std::regex_search(line, m, row)) {
            // Directory 0 is the compilation directory (named by the table from version 5 on);
            // relative directories lie in it.
            const auto &[name, index] = files[std::stoull(m[4])];
            std::string dir = tableVersion < 5 && index == 0 ? tableDir : directories[index];
            uint64_t address = std::stoull(m[1], nullptr, 16);
            bool end = m[5].str().find("end_sequence") != std::string::npos;
            decoded.samples[rowSection].insert({address, address + (end ? 3 : 1)});
            if (!end)
                decoded.rows.push_back(
                    RowText(rowSection, address, Joined(tableDir, Joined(dir, name)), m[2], m[3]));
        }
    }
    return decoded;
}

// The rows of `qdbg lines --json`, as Decode writes them.
std::vector<std::string> ListedRows(const std::string &object, bool relocatable) {
    CommandResult listed = RunCommand(kQdbg + " lines --json " + Quote(object));
    EXPECT_EQ(listed.exitCode, 0) << listed.err;
    std::regex row(R"re(^\{"section": "([^"]*)", "offset": (\d+), "address": (\d+), )re"
                   R"re("line": (\d+), "column": (\d+), "file": (null|"[^"]*")\}$)re");
    std::vector<std::string> rows;
    std::istringstream in(listed.out);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        EXPECT_TRUE(std::regex_match(line, m, row)) << line;
        if (m.empty())
            continue;
        std::string file =
            m[6] == "null" ? "??" : Joined("", m[6].str().substr(1, m[6].length() - 2));
        rows.push_back(RowText(relocatable ? m[1].str() : "", std::stoull(m[3]), file, m[4], m[5]));
    }
    return rows;
}

// Each answer: "FUNCTION FILE:LINE" of JSON objects (qdbg's or, for a peer, llvm-symbolizer's
// field names), else "FILE:LINE" of addr2line's lines.
std::vector<std::string> Answers(const std::string &output, bool json, bool peer) {
    const char *function = peer ? "FunctionName" : "function", *file = peer ? "FileName" : "file",
               *line = peer ? "Line" : "line";
    auto field = [](const std::string &text, const std::string &name) {
        std::smatch m;
        std::regex value("\"" + name + "\": ?(null|\"[^\"]*\"|\\d+)");
        if (!std::regex_search(text, m, value))
            return std::string("<missing>");
        std::string v = m[1].str()[0] == '"' ? m[1].str().substr(1, m[1].length() - 2) : m[1];
        return v == "null" || v.empty() ? std::string("??") : v;
    };
    std::regex place(R"(^(.*):(\d+|\?)(?: \(discriminator \d+\))?$)");
    std::vector<std::string> answers;
    std::istringstream in(output);
    for (std::string text; std::getline(in, text);) {
        std::smatch m;
        if (json)
            answers.push_back(field(text, function) + " " + Joined("", field(text, file)) + ":" +
                              field(text, line));
        else
            answers.push_back(std::regex_match(text, m, place) ? Joined("", m[1]) + ":" + m[2].str()
                                                               : "<not an answer> " + text);
    }
    return answers;
}

// Reports, a few of each, what one side has and the other lacks.
void ExpectSame(std::vector<std::string> qdbg, std::vector<std::string> peer, const char *tool) {
    std::sort(qdbg.begin(), qdbg.end());
    std::sort(peer.begin(), peer.end());
    std::vector<std::string> missing, extra;
    std::set_difference(peer.begin(), peer.end(), qdbg.begin(), qdbg.end(),
                        std::back_inserter(missing));
    std::set_difference(qdbg.begin(), qdbg.end(), peer.begin(), peer.end(),
                        std::back_inserter(extra));
    for (size_t k = 0; k < missing.size() && k < 5; ++k)
        ADD_FAILURE() << tool << " has, qdbg lacks: " << missing[k];
    for (size_t k = 0; k < extra.size() && k < 5; ++k)
        ADD_FAILURE() << "qdbg has, " << tool << " lacks: " << extra[k];
    EXPECT_EQ(qdbg.size(), peer.size()) << tool;
}

class Corpus : public ::testing::TestWithParam<CorpusEntry> {};

TEST_P(Corpus, QdbgReadsWhatTheDumperAndTheSymbolizerRead) {
    qtest::TempDir dir;
    ASSERT_EQ(RunCommand("mkdir inc", dir.Path()).exitCode, 0);
    for (const auto &[name, text] : kSources)
        WriteFile(dir.File(name), text);
    CommandResult built = RunCommand(GetParam().build, dir.Path());
    ASSERT_EQ(built.exitCode, 0) << GetParam().build << "\n" << built.err;
    const std::string object = dir.File("out");
    CommandResult header = RunCommand("llvm-readobj-14 --file-headers " + Quote(object));
    ASSERT_EQ(header.exitCode, 0) << header.err;
    bool relocatable = header.out.find("Type: Relocatable") != std::string::npos;

    Decoded decoded = Decode(object, relocatable);
    ASSERT_GE(decoded.rows.size(), 10u);
    ExpectSame(ListedRows(object, relocatable), decoded.rows, "llvm-dwarfdump");

    // llvm-symbolizer cannot tell a relocatable object's sections apart (all start at 0): in
    // others than .text addr2line answers, for lines (it names inlined code's function).
    const std::string peerObject = FileExists(dir.File("unstripped")) ? "unstripped" : "out";
    for (const auto &[section, sampled] : decoded.samples) {
        std::string addresses;
        for (uint64_t address : sampled)
            addresses += Hex(address) + "\n";
        WriteFile(dir.File("addresses"), addresses);
        bool symbolizer = section.empty() || section == ".text";
        CommandResult ours =
            RunCommand(kQdbg + " addr " + (symbolizer ? "-f --json" : "--section " + section) +
                           " out < addresses",
                       dir.Path());
        EXPECT_TRUE(ours.exitCode == 0 || ours.exitCode == 3) << ours.err;
        CommandResult theirs = RunCommand(
            symbolizer ? "llvm-symbolizer-14 --no-inlines --output-style=JSON --obj=" + peerObject +
                             " < addresses"
                       : "addr2line -e out -j " + section + " < addresses",
            dir.Path());
        ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
        std::vector<std::string> q = Answers(ours.out, symbolizer, false),
                                 p = Answers(theirs.out, symbolizer, true);
        ASSERT_EQ(p.size(), sampled.size()) << section;
        auto k = sampled.begin();
        for (size_t i = 0; i < q.size() && i < p.size(); ++i, ++k) {
            q[i] = section + " " + Hex(*k) + " " + q[i];
            p[i] = section + " " + Hex(*k) + " " + p[i];
        }
        ExpectSame(q, p, symbolizer ? "llvm-symbolizer" : "addr2line");
    }
}

INSTANTIATE_TEST_SUITE_P(CompilersAndLayouts, Corpus, ::testing::ValuesIn(kCorpus),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
