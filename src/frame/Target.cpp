#include "frame/Target.h"

#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"

#include "brix/brix.h"

namespace {

// The relocation types, named as each machine's ABI names them.
constexpr uint32_t R_DEFAULT_DIRECT32 = 37, R_DEFAULT_DIRECT64 = 39;
constexpr uint32_t R_X86_64_64 = 1, R_X86_64_32 = 10;
constexpr uint32_t R_386_32 = 1;
constexpr uint32_t R_AARCH64_ABS64 = 257, R_AARCH64_ABS32 = 258;
constexpr uint32_t R_RISCV_32 = 1, R_RISCV_64 = 2;

constexpr uint32_t DEFAULT_SECREL = 14, DEFAULT_SECTION = 11;
constexpr uint32_t IMAGE_REL_AMD64_SECTION = 0x0a, IMAGE_REL_AMD64_SECREL = 0x0b;
constexpr uint32_t IMAGE_REL_I386_SECTION = 0x0a, IMAGE_REL_I386_SECREL = 0x0b;
constexpr uint32_t IMAGE_REL_ARM64_SECREL = 0x08, IMAGE_REL_ARM64_SECTION = 0x0d;

// CodeView processor numbers.
constexpr uint16_t CV_CPU_DEFAULT_TARGET = 0x80, CV_CFL_80386 = 0x03, CV_CFL_X64 = 0xd0,
                   CV_CFL_ARM64 = 0xf6;

// i386 has no 64-bit absolute relocation: its objects are ELF32 only, whose addresses are 4 bytes.
constexpr CTarget kTargets[] = {
    {TargetId::Default, "default", BRX_MACHINE_ELF_DEFAULT, 0, R_DEFAULT_DIRECT32,
     R_DEFAULT_DIRECT64, BRX_MACHINE_COFF_DEFAULT, DEFAULT_SECREL, DEFAULT_SECTION,
     CV_CPU_DEFAULT_TARGET},
    {TargetId::X86_64, "x86-64", BRX_MACHINE_ELF_X86_64, FORMAT_ELF64, R_X86_64_32, R_X86_64_64,
     BRX_MACHINE_COFF_X86_64, IMAGE_REL_AMD64_SECREL, IMAGE_REL_AMD64_SECTION, CV_CFL_X64},
    {TargetId::I386, "i386", BRX_MACHINE_ELF_I386, FORMAT_ELF32, R_386_32, 0, BRX_MACHINE_COFF_I386,
     IMAGE_REL_I386_SECREL, IMAGE_REL_I386_SECTION, CV_CFL_80386},
    {TargetId::AArch64, "aarch64", BRX_MACHINE_ELF_AARCH64, FORMAT_ELF64, R_AARCH64_ABS32,
     R_AARCH64_ABS64, BRX_MACHINE_COFF_ARM64, IMAGE_REL_ARM64_SECREL, IMAGE_REL_ARM64_SECTION,
     CV_CFL_ARM64},
    {TargetId::RiscV64, "riscv64", BRX_MACHINE_ELF_RISCV, FORMAT_ELF64, R_RISCV_32, R_RISCV_64, 0,
     0, 0, 0},
};

} // namespace

const CTarget *FindTarget(int32_t format, uint32_t machine) {
    for (const CTarget &target : kTargets) {
        if (format == FORMAT_COFF) {
            if (target.coffMachine != 0 && target.coffMachine == machine)
                return &target;
        } else if (format == FORMAT_ELF32 || format == FORMAT_ELF64) {
            if (target.elfMachine == machine &&
                (target.elfFormat == 0 || target.elfFormat == format))
                return &target;
        }
    }
    return nullptr;
}

const CTarget &DefaultTarget() {
    return kTargets[0];
}

const CTarget &BoundTarget() {
    const CTarget *target = State().binding.target;
    return target ? *target : DefaultTarget();
}
