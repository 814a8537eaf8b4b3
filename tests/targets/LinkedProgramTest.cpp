// A small program described through the C API for each target of the table, as an assembler for
// that machine would describe it, then read by the tools people debug with: the object passes the
// consumer's checks without a word, the machine's linker links it without a warning,
// llvm-symbolizer finds every line row in the linked program with its procedure, and gdb stops at
// a source line where the machine can run here.
//
// The code bytes and the oracle come from llvm-mc: it assembles the same source with -g, and
// every address it gives a line must come back with that line from Quillet's description.
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>

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
    // How symbolizers name `_start`: i386 COFF names of C functions carry a leading underscore,
    // which they take off.
    const char *startShown = "_start";
};

const char kLldLink[] = "lld-link /debug /subsystem:console /nodefaultlib /out:prog.exe prog.o ";

const TargetCase kTargets[] = {
    {"elf_x86_64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_X86_64, &kX86_64, "ld prog.o -o prog", true},
    {"elf_i386", BRX_FORMAT_ELF32, BRX_MACHINE_ELF_I386, &kI386, "ld -m elf_i386 prog.o -o prog",
     true},
    {"elf_aarch64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_AARCH64, &kAArch64,
     "ld.lld -m aarch64linux prog.o -o prog", false},
    {"elf_riscv64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_RISCV, &kRiscV64,
     "ld.lld -m elf64lriscv prog.o -o prog", false},
    {"coff_x86_64", BRX_FORMAT_COFF, BRX_MACHINE_COFF_X86_64, &kX86_64,
     "/machine:x64 /entry:_start", false},
    // The entry is named without the leading underscore that i386 COFF symbols carry.
    {"coff_i386", BRX_FORMAT_COFF, BRX_MACHINE_COFF_I386, &kI386,
     "/machine:x86 /safeseh:no /entry:start", false, "start"},
    {"coff_arm64", BRX_FORMAT_COFF, BRX_MACHINE_COFF_ARM64, &kAArch64,
     "/machine:arm64 /entry:_start", false},
};

void PrintTo(const TargetCase &c, std::ostream *out) {
    *out << c.name;
}

struct Row {
    uint64_t address;
    uint32_t line;
    bool end; // the end of a sequence
    bool operator==(const Row &o) const {
        return address == o.address && line == o.line && end == o.end;
    }
};

std::ostream &operator<<(std::ostream &out, const Row &r) {
    return out << "0x" << std::hex << r.address << std::dec << (r.end ? " end" : " line ")
               << (r.end ? 0 : r.line);
}

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

// What llvm-symbolizer answers for each address: the procedure and the line.
std::vector<std::pair<std::string, uint32_t>> Symbolize(const std::string &program,
                                                        const std::vector<uint64_t> &addresses) {
    std::ostringstream command;
    command << "llvm-symbolizer-14 --obj='" << program << "'" << std::hex;
    for (uint64_t a : addresses)
        command << " 0x" << a;
    CommandResult r = RunCommand(command.str());
    EXPECT_EQ(r.exitCode, 0) << r.output;
    std::vector<std::pair<std::string, uint32_t>> answers;
    std::vector<std::string> lines = qtest::SplitLines(r.output);
    std::regex location(R"(prog\.s:(\d+):\d+$)");
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        std::smatch m;
        if (lines[i].empty() || !std::regex_search(lines[i + 1], m, location))
            continue;
        answers.emplace_back(lines[i], uint32_t(std::stoul(m[1].str())));
        ++i;
    }
    return answers;
}

class LinkedProgram : public ::testing::TestWithParam<TargetCase> {};

TEST_P(LinkedProgram, ToolsOfTheMachineReadItsDebuggingInformation) {
    const TargetCase &c = GetParam();
    const Program &p = *c.program;
    const bool coff = c.format == BRX_FORMAT_COFF;
    TempDir dir;
    const std::string in = "cd '" + dir.Path() + "' && ";
    if (p.demo) {
        ASSERT_EQ(
            RunCommand(in + "cp '" + QUILLET_SOURCE_DIR + "/examples/src/" + p.source + "' prog.s")
                .exitCode,
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
    ASSERT_TRUE(reference.back().end);
    ASSERT_EQ(reference.back().address, code.size());

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
            } else {
                ASSERT_EQ(m.OpenProcedure({start}, 0, square, nullptr, nullptr, nullptr,
                                          p.returnAddressRegister),
                          DBG_ERR_NONE);
            }
            for (const Row &r : reference) {
                if (!r.end && (r.address >= square) == inSquare) {
                    ASSERT_EQ(m.Line(source, r.line, r.address), DBG_ERR_NONE);
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

    // The consumer's checks, with nothing said on the side.
    if (coff) {
        CommandResult dump = RunCommand("llvm-readobj-14 --codeview '" + object + "' 2>&1");
        EXPECT_EQ(dump.exitCode, 0);
        EXPECT_TRUE(qtest::ConsumerComplaints(dump.output).empty()) << dump.output;
    } else {
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
    std::vector<Row> rows(reference.begin(), reference.end() - 1);
    EXPECT_EQ(readBack, rows) << listed.output;

    CommandResult linked = RunCommand(in + (coff ? kLldLink : "") + c.link + " 2>&1");
    ASSERT_EQ(linked.exitCode, 0) << linked.output;
    EXPECT_EQ(linked.output, "") << "the linker has something to say";
    const std::string program = dir.File(coff ? "prog.exe" : "prog");

    // Every row's address in the linked program gives back its procedure and line.
    const uint64_t base = coff ? PeTextAddress(program) : SymbolValue(program, "_start");
    std::vector<uint64_t> addresses;
    std::vector<std::pair<std::string, uint32_t>> expected;
    for (const Row &r : reference) {
        if (r.end)
            continue;
        addresses.push_back(base + r.address);
        expected.emplace_back(r.address < square ? c.startShown : "square", r.line);
    }
    EXPECT_EQ(Symbolize(program, addresses), expected);

    if (!c.debugged)
        return;
    // The third line of `square`: past the two instructions that set up its frame, where gdb
    // stops as asked rather than after the prologue. (The demo's test shows the caller, the
    // returned value and a data label's type on the x86-64 program.)
    auto inSquare = std::find_if(reference.begin(), reference.end(),
                                 [&](const Row &r) { return r.address >= square; });
    ASSERT_LT(inSquare + 2, reference.end());
    const std::string line = std::to_string((inSquare + 2)->line);
    CommandResult gdb =
        RunCommand(in + "gdb -nx -batch -ex 'break prog.s:" + line + "' -ex run ./prog 2>&1");
    EXPECT_TRUE(std::regex_search(
        gdb.output, std::regex(R"(Breakpoint 1, square \(\) at prog\.s:)" + line + "\n")))
        << gdb.output;
}

INSTANTIATE_TEST_SUITE_P(Targets, LinkedProgram, ::testing::ValuesIn(kTargets),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
