// An x86-64 COFF object with two COMDAT functions and three source files, linked by lld-link into
// a program with a PDB: the linker must not complain, llvm-pdbutil must name every line's file,
// and llvm-symbolizer must answer every row's line from the linked program.
#include "codeview/CodeViewReading.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

namespace {

using namespace cvtest;

struct Row {
    std::string file; // base name
    uint32_t line;
    uint64_t offset; // in its section
};

struct Procedure {
    std::string name;
    bool global;
    uint64_t start, end;
    std::vector<Row> rows;
};

struct CodeSection {
    std::string name;
    bool comdat;
    uint32_t size;
    std::vector<Procedure> procedures;
    std::vector<Row> rows; // held by the section scope, outside its procedures
};

// The default image base of an x86-64 program.
constexpr uint64_t kImageBase = 0x140000000;

struct PdbLine {
    std::string file; // base name
    uint32_t line;
};

// What llvm-pdbutil prints about the program's lines and procedures, in segment 1 offsets.
struct PdbLines {
    std::map<uint64_t, PdbLine> rows;
    std::vector<std::pair<uint64_t, uint64_t>> ranges; // of every lines block
    std::map<std::string, uint64_t> functions;         // procedure name -> offset
    uint64_t segmentOneRva = 0;
};

std::string BaseName(const std::string &path) {
    const size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

PdbLines ParsePdbDump(const std::string &output) {
    static const std::regex file(R"(^(\S.*) \(MD5: [0-9A-F]+\)$)");
    static const std::regex range(R"(^\s+0001:([0-9A-F]{8})-([0-9A-F]{8}), line/addr entries)");
    static const std::regex pair(R"((\d+) ([0-9A-F]{8}))");
    static const std::regex procedure(R"(S_[GL]PROC32 \[size = \d+\] `([^`]+)`)");
    static const std::regex address(R"(addr = 0001:(\d+))");
    static const std::regex section(R"(S_SECTION \[size = \d+\] `\.text`)");
    static const std::regex rva(R"(rva = (\d+), section # = 1)");
    PdbLines out;
    std::string currentFile, pendingProcedure;
    bool inLines = false, pendingSection = false;
    std::smatch m;
    for (const std::string &line : qtest::SplitLines(output)) {
        if (line.find("Lines") != std::string::npos && line.find('|') == std::string::npos)
            inLines = true;
        if (line.find("Symbols") != std::string::npos && line.find('|') == std::string::npos)
            inLines = false;
        if (inLines && std::regex_search(line, m, file)) {
            currentFile = BaseName(m[1]);
        } else if (inLines && std::regex_search(line, m, range)) {
            out.ranges.emplace_back(std::stoull(m[1], nullptr, 16), std::stoull(m[2], nullptr, 16));
        } else if (inLines && !currentFile.empty()) {
            for (auto it = std::sregex_iterator(line.begin(), line.end(), pair);
                 it != std::sregex_iterator(); ++it)
                out.rows[std::stoull((*it)[2], nullptr, 16)] = {currentFile,
                                                                uint32_t(std::stoul((*it)[1]))};
        }
        if (std::regex_search(line, m, procedure))
            pendingProcedure = m[1];
        else if (!pendingProcedure.empty() && std::regex_search(line, m, address)) {
            out.functions[pendingProcedure] = std::stoull(m[1]);
            pendingProcedure.clear();
        }
        if (std::regex_search(line, m, section))
            pendingSection = true;
        else if (pendingSection && std::regex_search(line, m, rva)) {
            out.segmentOneRva = std::stoull(m[1]);
            pendingSection = false;
        }
    }
    return out;
}

// llvm-symbolizer's answers as "function file:line", one per address: it prints the function,
// then "path:line:column".
std::vector<std::string> SymbolizerAnswers(const std::string &output) {
    std::vector<std::string> answers, lines;
    for (const std::string &line : qtest::SplitLines(output))
        if (!line.empty())
            lines.push_back(line);
    for (size_t i = 0; i + 1 < lines.size(); i += 2) {
        const std::string place = BaseName(lines[i + 1]);
        answers.push_back(lines[i] + " " + place.substr(0, place.rfind(':')));
    }
    return answers;
}

TEST(LinkedProgram, LinkerPdbAndSymbolizerAgreeOnEveryRow) {
    qtest::TempDir dir;
    const std::map<std::string, std::string> sources = {{"a.s", "start:\n  nop\n  ret\n"},
                                                        {"b.s", "f1:\n  nop\n  nop\n  ret\n"},
                                                        {"c.s", "f2:\n  nop\n  ret\n"}};
    for (const auto &[name, content] : sources)
        ASSERT_TRUE(qtest::WriteTextFile(dir.File(name), content));

    // Two COMDAT functions whose code comes from two files each, and a section of its own with
    // two procedures and rows outside them.
    const std::vector<CodeSection> sections = {
        {".text",
         false,
         0x30,
         {{"start", true, 0, 0x10, {{"a.s", 1, 0}, {"a.s", 2, 4}, {"a.s", 3, 8}}},
          {"helper", false, 0x10, 0x20, {{"b.s", 5, 0x10}, {"b.s", 6, 0x18}}}},
         {{"a.s", 50, 0x20}, {"c.s", 51, 0x28}}},
        {".text$f1",
         true,
         0x10,
         {{"f1", true, 0, 0x10, {{"b.s", 10, 0}, {"c.s", 20, 4}, {"b.s", 11, 8}}}},
         {}},
        {".text$f2",
         true,
         0x10,
         {{"f2", true, 0, 0x10, {{"c.s", 30, 0}, {"a.s", 40, 6}, {"c.s", 31, 0xC}}}},
         {}},
    };
    const std::string object = dir.File("prog.obj");
    {
        CoffModule m(object);
        ASSERT_TRUE(m.Builder().SetMachine(BRX_MACHINE_COFF_X86_64));
        DbgScope module = m.OpenModule();
        std::map<std::string, DbgSource> files;
        for (const auto &source : sources)
            files[source.first] = m.Source(dir.File(source.first));
        for (const CodeSection &s : sections) {
            const BrxHandle section = m.Section(s.name, s.size, true, s.comdat);
            DbgScope scope = m.OpenSection(section);
            for (const Row &row : s.rows)
                m.Line(scope, files.at(row.file), row.line, row.offset);
            for (const Procedure &p : s.procedures) {
                const BrxHandle symbol = m.Symbol(p.name, section, p.start, p.global);
                DbgScope procedure = m.OpenProcedure(symbol, p.start, p.end);
                for (const Row &row : p.rows)
                    m.Line(procedure, files.at(row.file), row.line, row.offset);
                m.Close();
            }
            m.Reenter(module);
        }
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        ASSERT_TRUE(m.Builder().Write());
    }
    const std::string program = dir.File("prog.exe"), pdb = dir.File("prog.pdb");
    const auto link = qtest::RunCommand("lld-link /debug /subsystem:console /nodefaultlib "
                                        "/entry:start /machine:x64 /out:'" +
                                        program + "' '" + object + "'");
    EXPECT_EQ(link.exitCode, 0) << link.output;
    EXPECT_EQ(link.output, "") << "the linker complains";

    // Where each section landed: the procedure records give their offsets in segment 1, whose
    // section record gives its address relative to the image base.
    const auto dump = qtest::RunCommand("llvm-pdbutil-14 dump -l -symbols '" + pdb + "'");
    ASSERT_EQ(dump.exitCode, 0) << dump.output;
    const PdbLines pdbLines = ParsePdbDump(dump.output);
    ASSERT_NE(pdbLines.segmentOneRva, 0u) << dump.output;

    std::vector<std::string> addresses, expected;
    auto expectRow = [&](uint64_t base, const std::string &function, const Row &row) {
        const uint64_t offset = base + row.offset;
        const auto found = pdbLines.rows.find(offset);
        ASSERT_NE(found, pdbLines.rows.end()) << function << " row at " << row.offset;
        EXPECT_EQ(found->second.file, row.file) << function << " row at " << row.offset;
        EXPECT_EQ(found->second.line, row.line) << function << " row at " << row.offset;
        std::ostringstream address;
        address << "0x" << std::hex << kImageBase + pdbLines.segmentOneRva + offset;
        addresses.push_back(address.str());
        expected.push_back(function + " " + row.file + ":" + std::to_string(row.line));
    };
    for (const CodeSection &s : sections) {
        const Procedure &first = s.procedures.front();
        ASSERT_EQ(pdbLines.functions.count(first.name), 1u) << first.name << "\n" << dump.output;
        const uint64_t base = pdbLines.functions.at(first.name) - first.start;
        for (const Procedure &p : s.procedures)
            for (const Row &row : p.rows)
                expectRow(base, p.name, row);
        // No procedure holds these: whatever function the symbolizer guesses is not checked.
        for (const Row &row : s.rows)
            expectRow(base, "", row);
    }
    // Every lines subsection covers its own range: two ranges are equal or apart.
    for (size_t i = 0; i < pdbLines.ranges.size(); ++i)
        for (size_t j = 0; j < pdbLines.ranges.size(); ++j) {
            const auto &a = pdbLines.ranges[i], &b = pdbLines.ranges[j];
            EXPECT_TRUE(a == b || a.second <= b.first || b.second <= a.first)
                << std::hex << a.first << "-" << a.second << " overlaps " << b.first << "-"
                << b.second;
        }

    std::string command = "llvm-symbolizer-14 --obj='" + program + "'";
    for (const std::string &address : addresses)
        command += " " + address;
    const auto symbolized = qtest::RunCommand(command);
    ASSERT_EQ(symbolized.exitCode, 0) << symbolized.output;
    std::vector<std::string> answers = SymbolizerAnswers(symbolized.output);
    ASSERT_EQ(answers.size(), expected.size()) << symbolized.output;
    for (size_t i = 0; i < answers.size(); ++i)
        if (expected[i].front() == ' ')
            answers[i].erase(0, answers[i].find(' '));
    EXPECT_EQ(answers, expected) << symbolized.output;
}

} // namespace
