// A small program described through the C API for each target of the table, as an assembler for
// that machine would describe it, then read by the tools people debug with: the object passes the
// consumer's checks without a word, the machine's linker links it without a warning,
// llvm-symbolizer finds every line row in the linked program with its procedure, and gdb stops at
// a source line where the machine can run here. The demo's descriptions of the same programs must
// carry the same code bytes and rows, and `make demo` must link and debug them as it says.
//
// The code bytes and the oracle come from llvm-mc: it assembles the same source with -g, and
// every address it gives a line must come back with that line from Quillet's description.
//
// Then an x86-64 COFF program whose functions are COMDAT sections with lines from several files,
// read back from its PDB.
#include "codeview/CodeViewReading.h"
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <tuple>

namespace {

using qtest::CommandResult;
using qtest::ModuleBuilder;
using qtest::RunCommand;
using qtest::TempDir;

// `_start` calls the local procedure `square`, which returns 5 * 5, and then exits. Calls to a
// local label leave no relocation in the code bytes. The demo's programs serve where there is
// one for the machine.
struct Program {
    const char *triple;
    const char *options;            // further llvm-mc options
    uint32_t returnAddressRegister; // DWARF number
    const char *source;             // the text, or the name of a demo program in examples/src
    bool demo = false;
};

const Program kX86_64 = {"x86_64-linux-gnu", "", 16, "square-x86-64.s", true};

const Program kI386 = {"i386-linux-gnu", "", 8, R"(        .text
        .globl _start
_start:
        mov $5, %eax
        call square
        mov %eax, %ebx
        mov $1, %eax
        int $0x80
square:
        push %ebp
        mov %esp, %ebp
        imul %eax, %eax
        pop %ebp
        ret
)"};

const Program kAArch64 = {"aarch64-linux-gnu", "", 30, "square-aarch64.s", true};

// Without relaxation every jump would keep a relocation.
const Program kRiscV64 = {"riscv64-linux-gnu", "-mattr=+m,-relax", 1, R"(        .text
        .globl _start
_start:
        li a0, 5
        call square
        li a7, 93
        ecall
square:
        mul a0, a0, a0
        ret
)"};

struct TargetCase {
    const char *name;
    int32_t format;
    uint32_t machine;
    const Program *program;
    // ELF: the link command, run in the test's directory on prog.o, writing prog. COFF: what
    // lld-link needs beyond kLldLink for the machine.
    const char *link;
    bool debugged; // gdb runs the program: the machine can run here
    // A register symbol of `square` and what the consumer's dump must show of it: DWARF keeps the
    // target's numbers, which llvm-dwarfdump names as the machine's registers; CodeView takes the
    // machine's own numbers, which llvm-readobj shows after "Seg:".
    uint32_t reg;
    const char *regShown;
    // How symbolizers name `_start`: i386 COFF names of C functions carry a leading underscore,
    // which they take off.
    const char *startShown = "_start";
};

const std::string kExamples = std::string(QUILLET_SOURCE_DIR) + "/examples";

const char kLldLink[] = "lld-link /debug /subsystem:console /nodefaultlib /out:prog.exe prog.o ";

const TargetCase kTargets[] = {
    {"elf_x86_64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_X86_64, &kX86_64, "ld prog.o -o prog", true, 3,
     "DW_OP_regx RBX"},
    {"elf_i386", BRX_FORMAT_ELF32, BRX_MACHINE_ELF_I386, &kI386, "ld -m elf_i386 prog.o -o prog",
     true, 6, "DW_OP_regx ESI"},
    {"elf_aarch64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_AARCH64, &kAArch64,
     "ld.lld -m aarch64linux prog.o -o prog", false, 19, "DW_OP_regx W19"},
    {"elf_riscv64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_RISCV, &kRiscV64,
     "ld.lld -m elf64lriscv prog.o -o prog", false, 10, "DW_OP_regx X10"},
    {"coff_x86_64", BRX_FORMAT_COFF, BRX_MACHINE_COFF_X86_64, &kX86_64,
     "/machine:x64 /entry:_start", false, 12, R"(Seg: R12 \(0x154\))"},
    // The entry is named without the leading underscore that i386 COFF symbols carry.
    {"coff_i386", BRX_FORMAT_COFF, BRX_MACHINE_COFF_I386, &kI386,
     "/machine:x86 /safeseh:no /entry:start", false, 6, R"(Seg: ESI \(0x17\))", "start"},
    {"coff_arm64", BRX_FORMAT_COFF, BRX_MACHINE_COFF_ARM64, &kAArch64,
     "/machine:arm64 /entry:_start", false, 30, R"(Seg: ARM64_LR \(0x50\))"},
};

void PrintTo(const TargetCase &c, std::ostream *out) {
    *out << c.name;
}

// A line row: its address, its line, and whether it ends a sequence.
using Row = std::tuple<uint64_t, uint32_t, bool>;

// The rows of `llvm-dwarfdump --debug-line`.
std::vector<Row> DecodedRows(const std::string &object) {
    CommandResult r = RunCommand("llvm-dwarfdump-14 --debug-line '" + object + "'");
    EXPECT_EQ(r.exitCode, 0) << r.output;
    std::vector<Row> rows;
    std::regex row(R"(^0x([0-9a-f]{16})\s+(\d+)\s+\d+\s+\d+\s+\d+\s+\d+\s*(.*)$)");
    for (const std::string &line : qtest::SplitLines(r.output)) {
        std::smatch m;
        if (std::regex_match(line, m, row))
            rows.push_back({std::stoull(m[1].str(), nullptr, 16), uint32_t(std::stoul(m[2].str())),
                            m[3].str().find("end_sequence") != std::string::npos});
    }
    return rows;
}

// The value of a symbol as `nm` lists it.
uint64_t SymbolValue(const std::string &file, const std::string &name) {
    CommandResult r = RunCommand("nm '" + file + "'");
    std::smatch m;
    std::regex line("(?:^|\\n)([0-9a-f]+) \\w " + name + "\\n");
    EXPECT_TRUE(std::regex_search(r.output, m, line)) << r.output;
    return m.empty() ? 0 : std::stoull(m[1].str(), nullptr, 16);
}

// Where a PE image's code starts: its image base plus the address of .text.
uint64_t PeTextAddress(const std::string &image) {
    CommandResult r = RunCommand("llvm-readobj-14 --file-headers --sections '" + image + "'");
    std::smatch base, text;
    EXPECT_TRUE(std::regex_search(r.output, base, std::regex(R"(ImageBase: 0x([0-9A-F]+))")));
    EXPECT_TRUE(std::regex_search(
        r.output, text, std::regex(R"(Name: \.text[\s\S]*?VirtualAddress: 0x([0-9A-F]+))")));
    if (base.empty() || text.empty())
        return 0;
    return std::stoull(base[1].str(), nullptr, 16) + std::stoull(text[1].str(), nullptr, 16);
}

// llvm-symbolizer's answer for each address as "function file:line", the file by its base name:
// it prints the function, then "path:line:column".
std::vector<std::string> Symbolize(const std::string &program,
                                   const std::vector<uint64_t> &addresses) {
    std::ostringstream command;
    command << "llvm-symbolizer-14 --obj='" << program << "'" << std::hex;
    for (uint64_t a : addresses)
        command << " 0x" << a;
    CommandResult r = RunCommand(command.str());
    EXPECT_EQ(r.exitCode, 0) << r.output;
    std::vector<std::string> lines, answers;
    for (const std::string &line : qtest::SplitLines(r.output))
        if (!line.empty())
            lines.push_back(line);
    const std::regex place(R"(([^/\\]*:\d+):\d+$)");
    for (size_t i = 0; i + 1 < lines.size(); i += 2) {
        std::smatch m;
        std::regex_search(lines[i + 1], m, place);
        answers.push_back(lines[i] + " " + (m.empty() ? lines[i + 1] : m[1].str()));
    }
    return answers;
}

// The code bytes (in hex) and the (offset, line) rows of a demo's description, in the order
// written.
void ReadDescription(const std::string &path, std::string &bytes, std::vector<Row> &rows) {
    std::ifstream in(path);
    std::smatch m;
    const std::regex hex(R"(^section \.text .*bytes=([0-9a-f]+))");
    for (std::string line; std::getline(in, line);) {
        if (std::regex_search(line, m, hex))
            bytes = m[1].str();
        std::istringstream words(line.substr(0, line.find('#')));
        std::string keyword, source, pair;
        if (!(words >> keyword >> source) || keyword != "lines")
            continue;
        while (words >> pair) {
            const size_t colon = pair.find(':');
            rows.push_back({std::stoull(pair.substr(colon + 1), nullptr, 0),
                            uint32_t(std::stoul(pair.substr(0, colon))), false});
        }
    }
}

class LinkedProgram : public ::testing::TestWithParam<TargetCase> {};

TEST_P(LinkedProgram, ToolsOfTheMachineReadItsDebuggingInformation) {
    const TargetCase &c = GetParam();
    const Program &p = *c.program;
    const bool coff = c.format == BRX_FORMAT_COFF;
    TempDir dir;
    const std::string in = "cd '" + dir.Path() + "' && ";
    if (p.demo) {
        ASSERT_EQ(RunCommand(in + "cp '" + kExamples + "/src/" + p.source + "' prog.s").exitCode,
                  0);
    } else {
        ASSERT_TRUE(qtest::WriteTextFile(dir.File("prog.s"), p.source));
    }

    // The reference: llvm-mc's code bytes, its line rows and the offset of `square`.
    CommandResult assembled =
        RunCommand(in + "llvm-mc-14 -g -filetype=obj -triple " + p.triple + " " + p.options +
                   " prog.s -o ref.o && llvm-objcopy-14 -O binary --only-section=.text ref.o "
                   "code.bin");
    ASSERT_EQ(assembled.exitCode, 0) << assembled.output;
    const std::vector<uint8_t> code = qtest::ReadFileBytes(dir.File("code.bin"));
    const std::vector<Row> reference = DecodedRows(dir.File("ref.o"));
    const uint64_t square = SymbolValue(dir.File("ref.o"), "square");
    ASSERT_FALSE(code.empty());
    ASSERT_GE(reference.size(), 4u);
    ASSERT_TRUE(std::get<2>(reference.back()));
    ASSERT_EQ(std::get<0>(reference.back()), code.size());
    const std::vector<Row> rows(reference.begin(), reference.end() - 1);
    if (p.demo) {
        std::string code16, described16;
        for (uint8_t b : code)
            code16 += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
        std::vector<Row> described;
        const std::string name(p.source, std::strlen(p.source) - 2); // without ".s"
        ReadDescription(kExamples + "/" + name + ".qd", described16, described);
        EXPECT_EQ(described16, code16) << "the demo's code bytes";
        EXPECT_EQ(described, rows) << "the demo's line rows";
    }

    // The same program through brix and the C API.
    const std::string object = dir.File("prog.o");
    {
        ModuleBuilder m(object, c.format);
        ASSERT_TRUE(m.SetMachine(c.machine));
        const std::u16string directory(dir.Path().begin(), dir.Path().end());
        const std::string sourcePath = dir.File("prog.s");
        DbgScope module = nullptr;
        ASSERT_EQ(m.OpenModule(directory, u"prog.s", u"qasm 1.0", 0, &module), DBG_ERR_NONE);
        DbgSource source = m.Source(std::u16string(sourcePath.begin(), sourcePath.end()));
        BrxHandle text = m.AddSection(".text", true, code.size());
        BrxBytes bytes{code.size(), 0, const_cast<uint8_t *>(code.data())};
        ASSERT_EQ(_brx_set_value(text, BRX_KEY_SECTION_DATA, &bytes, 0), BRX_OK);
        BrxHandle data = m.AddSection(".data", false, 8);
        BrxHandle start = m.AddSymbol("_start", text, 0);
        BrxHandle squareSymbol = m.AddSymbol("square", text, square, false);
        BrxHandle total = m.AddSymbol("total", data, 0, true, BRX_SYMBOL_PLAIN);

        DbgType int4 = nullptr, squareType = nullptr;
        ASSERT_EQ(Dbg_base_type(6, &int4), DBG_ERR_NONE); // sdata4
        ASSERT_EQ(Dbg_procedure_type(int4, 1, &squareType), DBG_ERR_NONE);
        ASSERT_EQ(m.OpenSection(text), DBG_ERR_NONE);
        for (bool inSquare : {false, true}) {
            if (inSquare) {
                ASSERT_EQ(m.OpenProcedure({squareSymbol}, square, code.size(), nullptr, nullptr,
                                          squareType, p.returnAddressRegister),
                          DBG_ERR_NONE);
                ASSERT_EQ(m.Register("counter", 5, c.reg), DBG_ERR_NONE);
            } else {
                ASSERT_EQ(m.OpenProcedure({start}, 0, square, nullptr, nullptr, nullptr,
                                          p.returnAddressRegister),
                          DBG_ERR_NONE);
            }
            for (const auto &[address, line, end] : reference) {
                if (!end && (address >= square) == inSquare) {
                    ASSERT_EQ(m.Line(source, line, address), DBG_ERR_NONE);
                }
            }
            ASSERT_EQ(m.Close(), DBG_ERR_NONE);
        }
        ASSERT_EQ(Dbg_set_current_scope(module), DBG_ERR_NONE);
        ASSERT_EQ(m.OpenSection(data), DBG_ERR_NONE);
        ASSERT_EQ(m.DataLabel(total, 7), DBG_ERR_NONE); // data8
        ASSERT_EQ(m.Emit(), DBG_ERR_NONE);
        ASSERT_TRUE(m.Write());
    }

    // The consumer's checks, with nothing said on the side; the register symbol is the machine's.
    CommandResult dump =
        RunCommand((coff ? "llvm-readobj-14 --codeview '" : "llvm-dwarfdump-14 --debug-info '") +
                   object + "' 2>&1");
    EXPECT_EQ(dump.exitCode, 0);
    EXPECT_TRUE(qtest::ConsumerComplaints(dump.output).empty()) << dump.output;
    EXPECT_TRUE(std::regex_search(dump.output, std::regex(c.regShown))) << dump.output;
    if (!coff) {
        CommandResult verify = RunCommand("llvm-dwarfdump-14 --verify --all '" + object + "'");
        EXPECT_EQ(verify.exitCode, 0);
        std::regex verdict(R"(\nNo errors\.\n$)");
        EXPECT_TRUE(std::regex_search(verify.output, verdict)) << verify.output;
        EXPECT_TRUE(
            qtest::ConsumerComplaints(std::regex_replace(verify.output, verdict, "\n")).empty())
            << verify.output;
        // The line table is the reference's, its end at the end of the code included.
        EXPECT_EQ(DecodedRows(object), reference);
    }

    // Quillet reads its own object back: every row at its offset.
    CommandResult listed = RunCommand(std::string(QDBG_PATH) + " lines '" + object + "'");
    ASSERT_EQ(listed.exitCode, 0) << listed.output;
    std::vector<Row> readBack;
    std::regex listedRow(R"(^\.text 0x([0-9a-f]+) (\d+) \d+ .*prog\.s$)");
    for (const std::string &line : qtest::SplitLines(listed.output)) {
        std::smatch m;
        if (std::regex_match(line, m, listedRow))
            readBack.push_back(
                {std::stoull(m[1].str(), nullptr, 16), uint32_t(std::stoul(m[2].str())), false});
    }
    EXPECT_EQ(readBack, rows) << listed.output;

    CommandResult linked = RunCommand(in + (coff ? kLldLink : "") + c.link + " 2>&1");
    ASSERT_EQ(linked.exitCode, 0) << linked.output;
    EXPECT_EQ(linked.output, "") << "the linker has something to say";
    const std::string program = dir.File(coff ? "prog.exe" : "prog");

    // Every row's address in the linked program gives back its procedure and line.
    const uint64_t base = coff ? PeTextAddress(program) : SymbolValue(program, "_start");
    std::vector<uint64_t> addresses;
    std::vector<std::string> expected;
    for (const auto &[address, line, end] : rows) {
        addresses.push_back(base + address);
        expected.push_back(std::string(address < square ? c.startShown : "square") +
                           " prog.s:" + std::to_string(line));
    }
    EXPECT_EQ(Symbolize(program, addresses), expected);

    if (!c.debugged)
        return;
    // The third line of `square`: past the two instructions that set up its frame, where gdb
    // stops as asked rather than after the prologue. (The demo's test shows the caller, the
    // returned value and a data label's type on the x86-64 program.)
    auto inSquare = std::find_if(reference.begin(), reference.end(),
                                 [&](const Row &r) { return std::get<0>(r) >= square; });
    ASSERT_LT(inSquare + 2, reference.end());
    const std::string line = std::to_string(std::get<1>(inSquare[2]));
    CommandResult gdb =
        RunCommand(in + "gdb -nx -batch -ex 'break prog.s:" + line + "' -ex run ./prog 2>&1");
    EXPECT_TRUE(std::regex_search(
        gdb.output, std::regex(R"(Breakpoint 1, square \(\) at prog\.s:)" + line + "\n")))
        << gdb.output;
}

INSTANTIATE_TEST_SUITE_P(Targets, LinkedProgram, ::testing::ValuesIn(kTargets),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- The demo -----------------------------------------------------------------------------------

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

// ---- An x86-64 COFF program of COMDAT functions ------------------------------------------------

struct SourceRow {
    std::string file; // base name
    uint32_t line;
    uint64_t offset; // in its section
};

struct Procedure {
    std::string name;
    bool global;
    uint64_t start, end;
    std::vector<SourceRow> rows;
};

struct CodeSection {
    std::string name;
    bool comdat;
    uint32_t size;
    std::vector<Procedure> procedures;
    std::vector<SourceRow> rows; // held by the section scope, outside its procedures
};

// What llvm-pdbutil prints of the program's lines and procedures, in segment 1 (.text) offsets.
struct PdbDump {
    std::vector<std::pair<uint64_t, uint64_t>> ranges; // of every lines block
    std::map<std::string, uint64_t> functions;         // procedure name -> offset
};

PdbDump ParsePdbDump(const std::string &output) {
    static const std::regex range(R"(^\s+0001:([0-9A-F]{8})-([0-9A-F]{8}), line/addr entries)");
    static const std::regex procedure(R"(S_[GL]PROC32 \[size = \d+\] `([^`]+)`)");
    static const std::regex address(R"(addr = 0001:(\d+))");
    PdbDump out;
    std::string pendingProcedure;
    std::smatch m;
    for (const std::string &line : qtest::SplitLines(output)) {
        if (std::regex_search(line, m, range))
            out.ranges.emplace_back(std::stoull(m[1], nullptr, 16), std::stoull(m[2], nullptr, 16));
        if (std::regex_search(line, m, procedure)) {
            pendingProcedure = m[1];
        } else if (!pendingProcedure.empty() && std::regex_search(line, m, address)) {
            out.functions[pendingProcedure] = std::stoull(m[1]);
            pendingProcedure.clear();
        }
    }
    return out;
}

// Two COMDAT functions and three source files, linked by lld-link into a program with a PDB: the
// linker must not complain, the lines blocks must not overlap, and llvm-symbolizer must answer
// every row's procedure, file and line from the linked program.
TEST(LinkedComdatProgram, LinkerPdbAndSymbolizerAgreeOnEveryRow) {
    TempDir dir;
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
        cvtest::CoffModule m(object);
        ASSERT_TRUE(m.Builder().SetMachine(BRX_MACHINE_COFF_X86_64));
        DbgScope module = m.OpenModule();
        std::map<std::string, DbgSource> files;
        for (const auto &source : sources)
            files[source.first] = m.Source(dir.File(source.first));
        for (const CodeSection &s : sections) {
            const BrxHandle section = m.Section(s.name, s.size, true, s.comdat);
            DbgScope scope = m.OpenSection(section);
            for (const SourceRow &row : s.rows)
                m.Line(scope, files.at(row.file), row.line, row.offset);
            for (const Procedure &p : s.procedures) {
                const BrxHandle symbol = m.Symbol(p.name, section, p.start, p.global);
                DbgScope procedure = m.OpenProcedure(symbol, p.start, p.end);
                for (const SourceRow &row : p.rows)
                    m.Line(procedure, files.at(row.file), row.line, row.offset);
                m.Close();
            }
            m.Reenter(module);
        }
        ASSERT_EQ(Dbg_emit(), DBG_ERR_NONE);
        ASSERT_TRUE(m.Builder().Write());
    }
    const std::string program = dir.File("prog.exe"), pdb = dir.File("prog.pdb");
    const auto link = RunCommand("lld-link /debug /subsystem:console /nodefaultlib /entry:start "
                                 "/machine:x64 /out:'" +
                                 program + "' '" + object + "'");
    EXPECT_EQ(link.exitCode, 0) << link.output;
    EXPECT_EQ(link.output, "") << "the linker complains";

    // Where each section landed: the procedure records give their offsets in .text.
    const auto dump = RunCommand("llvm-pdbutil-14 dump -l -symbols '" + pdb + "'");
    ASSERT_EQ(dump.exitCode, 0) << dump.output;
    const PdbDump pdbDump = ParsePdbDump(dump.output);
    const uint64_t text = PeTextAddress(program);
    std::vector<uint64_t> addresses;
    std::vector<std::string> expected;
    for (const CodeSection &s : sections) {
        const Procedure &first = s.procedures.front();
        ASSERT_EQ(pdbDump.functions.count(first.name), 1u) << first.name << "\n" << dump.output;
        const uint64_t base = text + pdbDump.functions.at(first.name) - first.start;
        auto expect = [&](const std::string &function, const SourceRow &row) {
            addresses.push_back(base + row.offset);
            expected.push_back(function + " " + row.file + ":" + std::to_string(row.line));
        };
        for (const Procedure &p : s.procedures)
            for (const SourceRow &row : p.rows)
                expect(p.name, row);
        // No procedure holds these: whatever function the symbolizer guesses is not checked.
        for (const SourceRow &row : s.rows)
            expect("", row);
    }
    // Every lines subsection covers its own range: two ranges are equal or apart.
    ASSERT_FALSE(pdbDump.ranges.empty()) << dump.output;
    for (const auto &a : pdbDump.ranges)
        for (const auto &b : pdbDump.ranges)
            EXPECT_TRUE(a == b || a.second <= b.first || b.second <= a.first)
                << std::hex << a.first << "-" << a.second << " overlaps " << b.first << "-"
                << b.second;

    std::vector<std::string> answers = Symbolize(program, addresses);
    ASSERT_EQ(answers.size(), expected.size());
    for (size_t i = 0; i < answers.size(); ++i)
        if (expected[i].front() == ' ')
            answers[i].erase(0, answers[i].find(' '));
    EXPECT_EQ(answers, expected);
}

} // namespace
