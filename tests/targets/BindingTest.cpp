// The object file's machine chooses the target at binding: a machine the library does not write
// for is refused, and register numbers are taken in the target's own DWARF numbering (the linked
// programs show them as the machine's registers in every consumer).
#include "support/ModuleBuilder.h"

#include <gtest/gtest.h>

namespace {

using qtest::CheckCounter;
using qtest::ModuleBuilder;
using qtest::TempDir;

// Machines outside the table, and machines in a format their target does not use.
TEST(UnsupportedMachine, IsRefusedAtBindingWithACheckReport) {
    const struct {
        const char *name;
        int32_t format;
        uint32_t machine;
    } cases[] = {
        {"elf64_sparc", BRX_FORMAT_ELF64, 43},
        {"elf32_i386_as_elf64", BRX_FORMAT_ELF64, BRX_MACHINE_ELF_I386},
        {"elf32_x86_64", BRX_FORMAT_ELF32, BRX_MACHINE_ELF_X86_64},
        {"coff_riscv", BRX_FORMAT_COFF, BRX_MACHINE_ELF_RISCV},
        {"coff_elf_number", BRX_FORMAT_COFF, BRX_MACHINE_ELF_X86_64},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        ModuleBuilder m(dir.File("x.o"), c.format);
        ASSERT_TRUE(m.SetMachine(c.machine));
        CheckCounter checks;
        EXPECT_EQ(m.OpenModule(), DBG_ERR_UNSUPPORTED_FORMAT);
        EXPECT_EQ(checks.Count(), 1);
        // Nothing was bound: there is no module to describe and nothing to emit.
        EXPECT_EQ(m.OpenSection(m.AddSection(".text", true, 4)), DBG_ERR_SCOPE_NOT_OPENED);
        EXPECT_EQ(m.Emit(), DBG_ERR_NO_OBJECT_FORMAT);
    }
}

// Numbers that the target's numbering lacks are refused as property values, both as a register
// symbol's register and as a procedure's return-address register.
TEST(TargetRegisterLimits, NumbersWithoutARegisterAreRefused) {
    struct Case {
        int32_t format;
        uint32_t machine; // 0: the default target
        uint32_t reg;
        DbgStatus symbol, returnAddress;
    } cases[] = {
        {BRX_FORMAT_ELF64, 0, 524, DBG_ERR_NONE, DBG_ERR_NONE},
        {BRX_FORMAT_ELF64, 0, 525, DBG_ERR_BAD_PROPERTY_VALUE, DBG_ERR_BAD_PROPERTY_VALUE},
        // DWARF takes any number of the target's numbering.
        {BRX_FORMAT_ELF64, BRX_MACHINE_ELF_RISCV, 4096 + 0x300, DBG_ERR_NONE, DBG_ERR_NONE},
        {BRX_FORMAT_ELF64, BRX_MACHINE_ELF_X86_64, 0x10000, DBG_ERR_BAD_PROPERTY_VALUE,
         DBG_ERR_BAD_PROPERTY_VALUE},
        // CodeView has no register for x86-64's fs.base (58): a register symbol cannot be
        // written, a return address (not written in CodeView) can.
        {BRX_FORMAT_COFF, BRX_MACHINE_COFF_X86_64, 58, DBG_ERR_BAD_PROPERTY_VALUE, DBG_ERR_NONE},
        {BRX_FORMAT_COFF, BRX_MACHINE_COFF_ARM64, 40, DBG_ERR_BAD_PROPERTY_VALUE, DBG_ERR_NONE},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.reg);
        TempDir dir;
        ModuleBuilder m(dir.File("x.o"), c.format);
        if (c.machine != 0) {
            ASSERT_TRUE(m.SetMachine(c.machine));
        }
        ASSERT_EQ(m.OpenModule(), DBG_ERR_NONE);
        EXPECT_EQ(m.Register("r", 5, c.reg), c.symbol);
        BrxHandle text = m.AddSection(".text", true, 4);
        ASSERT_EQ(m.OpenSection(text), DBG_ERR_NONE);
        DbgObject proc = nullptr;
        ASSERT_EQ(m.OpenProcedure({m.AddSymbol("p", text, 0)}, 0, 4, nullptr, &proc), DBG_ERR_NONE);
        DbgObjectProp prop{DBG_PROP_RETURN_REGISTER, &c.reg};
        EXPECT_EQ(Dbg_add_object_prop(proc, &prop, 1), c.returnAddress);
    }
}

} // namespace
