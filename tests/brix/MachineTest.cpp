// A file's machine reaches its header and chooses how its relocations are
// written: binutils and LLVM must read each machine's object as one of that
// machine, and brix must read it back.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <regex>

using namespace brixtest;

namespace {

struct MachineCase {
    struct {
        const char *name;
        int32_t format;
        uint32_t machine;
        uint32_t relocation; // an absolute relocation type of the machine
        uint32_t flags;      // ELF e_flags
    } file;
    std::vector<const char *> shown; // what the header and relocation listing must match
};

const MachineCase kMachines[] = {
    {{"x86_64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_X86_64, 1, 0},
     {R"(Class:\s+ELF64)", R"(Machine:\s+.*X86-64)", R"(Relocation section '\.rela\.debug_line')",
      R"(R_X86_64_64\s+0+\s+\.text \+ 4)"}},
    {{"i386", BRX_FORMAT_ELF32, BRX_MACHINE_ELF_I386, 1, 0},
     {R"(Class:\s+ELF32)", R"(Machine:\s+.*80386)", R"(Relocation section '\.rel\.debug_line')",
      R"(R_386_32\s+0+\s+\.text)"}},
    {{"aarch64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_AARCH64, 257, 0},
     {R"(Machine:\s+AArch64)", R"(Relocation section '\.rela\.debug_line')",
      R"(R_AARCH64_ABS64\s+0+\s+\.text \+ 4)"}},
    // A double-float ABI with compressed instructions, as RISC-V Linux objects say.
    {{"riscv64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_RISCV, 2, 0x5},
     {R"(Machine:\s+RISC-V)", R"(Flags:\s+0x5, RVC, double-float ABI)",
      R"(R_RISCV_64\s+0+\s+\.text \+ 4)"}},
    {{"coff_x86_64", BRX_FORMAT_COFF, BRX_MACHINE_COFF_X86_64, 0x0b, 0},
     {R"(Machine: IMAGE_FILE_MACHINE_AMD64 \(0x8664\))", R"(IMAGE_REL_AMD64_SECREL \.text)"}},
    {{"coff_i386", BRX_FORMAT_COFF, BRX_MACHINE_COFF_I386, 0x0b, 0},
     {R"(Machine: IMAGE_FILE_MACHINE_I386 \(0x14C\))", R"(IMAGE_REL_I386_SECREL \.text)"}},
    {{"coff_arm64", BRX_FORMAT_COFF, BRX_MACHINE_COFF_ARM64, 0x08, 0},
     {R"(Machine: IMAGE_FILE_MACHINE_ARM64 \(0xAA64\))", R"(IMAGE_REL_ARM64_SECREL \.text)"}},
};

class Machine : public ::testing::TestWithParam<MachineCase> {};

TEST_P(Machine, HeaderAndRelocationsAreTheMachines) {
    const auto &c = GetParam().file;
    TempDir dir;
    std::string path = dir.File(std::string(c.name) + ".o");
    bool elf = c.format != BRX_FORMAT_COFF;

    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), c.format, &file), 0);
    ASSERT_EQ(_brx_set_value(file, BRX_KEY_MACHINE, &c.machine, 0), 0);
    EXPECT_EQ(_brx_set_value(file, BRX_KEY_MACHINE_FLAGS, &c.flags, 0) == 0, elf);
    BrxHandle text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
    AppendBytes(text, std::vector<uint8_t>(16, 0x90));
    BrxHandle line = AddSection(file, ".debug_line", BRX_SECTION_DEBUG, 1, 1);
    // The bytes at the relocated field say nothing: the addend alone counts.
    AppendBytes(line, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
    AddRelocation(line, c.relocation, text, 0, 4);
    ASSERT_EQ(_brx_write_file(file), 0);
    ASSERT_EQ(_brx_close_file(file), 0);

    CommandResult r = RunCommand(
        std::string(elf ? "readelf -h -r -W" : "llvm-readobj-14 --file-headers --relocations") +
        " '" + path + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(ConsumerComplaints(r.output).empty()) << r.output;
    for (const char *pattern : GetParam().shown)
        EXPECT_TRUE(std::regex_search(r.output, std::regex(pattern))) << pattern << "\n"
                                                                      << r.output;

    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
    EXPECT_EQ(U32(read, BRX_KEY_MACHINE), c.machine);
    if (elf) {
        EXPECT_EQ(U32(read, BRX_KEY_MACHINE_FLAGS), c.flags);
    }
    // A file read back keeps the machine it has.
    uint32_t other = 1;
    EXPECT_NE(_brx_set_value(read, BRX_KEY_MACHINE, &other, 0), 0);
    EXPECT_EQ(U32(read, BRX_KEY_MACHINE), c.machine);
    EXPECT_EQ(_brx_close_file(read), 0);
}

INSTANTIATE_TEST_SUITE_P(Machines, Machine, ::testing::ValuesIn(kMachines),
                         [](const auto &info) { return std::string(info.param.file.name); });

// i386 relocations are REL: each addend goes into the field it relocates, so
// that a linker that adds the target's address to the field gets what a RELA
// addend would give.
TEST(MachineI386, AddendsAreWrittenIntoTheRelocatedFields) {
    TempDir dir;
    std::string path = dir.File("rel.o");
    BrxHandle file = 0;
    ASSERT_EQ(_brx_new_file(path.c_str(), BRX_FORMAT_ELF32, &file), 0);
    uint32_t machine = BRX_MACHINE_ELF_I386;
    ASSERT_EQ(_brx_set_value(file, BRX_KEY_MACHINE, &machine, 0), 0);
    BrxHandle text = AddSection(file, ".text", BRX_SECTION_CODE, 16);
    AppendBytes(text, std::vector<uint8_t>(32, 0x90));
    BrxHandle info = AddSection(file, ".debug_info", BRX_SECTION_DEBUG, 1, 1);
    AppendBytes(info, std::vector<uint8_t>(12, 0xaa));
    AddRelocation(info, 1, text, 0, 0x10);    // R_386_32
    AddRelocation(info, 1, text, 4, -4);      // R_386_32, negative
    AddRelocation(info, 20, text, 8, 0x1234); // R_386_16
    ASSERT_EQ(_brx_write_file(file), 0);

    CommandResult r = RunCommand("readelf -r -W '" + path + "'");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(ConsumerComplaints(r.output).empty()) << r.output;
    EXPECT_TRUE(std::regex_search(r.output, std::regex(R"(R_386_16\s+0+\s+\.text)"))) << r.output;
    BrxHandle read = 0;
    ASSERT_EQ(_brx_open_file(path.c_str(), nullptr, &read, 0), 0);
    const std::vector<uint8_t> expected = {0x10, 0,    0,    0,    0xfc, 0xff,
                                           0xff, 0xff, 0x34, 0x12, 0xaa, 0xaa};
    EXPECT_EQ(SectionBytes(FindSection(read, ".debug_info")), expected);
    _brx_close_file(read);

    // An addend that its field cannot hold, or a non-zero one for a type whose
    // field is not known, makes the file unwritable rather than wrong.
    AddRelocation(info, 22, text, 10, 0x100); // R_386_8
    EXPECT_NE(_brx_write_file(file), 0);
    _brx_close_file(file);
}

} // namespace
