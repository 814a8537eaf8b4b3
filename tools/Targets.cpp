#include "Targets.h"

#include <brix/brix.h>

namespace qdbg {

namespace {

struct TargetRow {
    const char *name;
    uint32_t elf32, elf64, coff; // machine numbers; 0 where the target has no such objects
    const char *formats;         // the formats it takes, as the command line names them
};

const TargetRow kTargets[] = {
    {"default", BRX_MACHINE_ELF_DEFAULT, BRX_MACHINE_ELF_DEFAULT, BRX_MACHINE_COFF_DEFAULT,
     "elf64, elf32 or coff"},
    {"x86-64", 0, BRX_MACHINE_ELF_X86_64, BRX_MACHINE_COFF_X86_64, "elf64 or coff"},
    {"i386", BRX_MACHINE_ELF_I386, 0, BRX_MACHINE_COFF_I386, "elf32 or coff"},
    {"aarch64", 0, BRX_MACHINE_ELF_AARCH64, BRX_MACHINE_COFF_ARM64, "elf64 or coff"},
    {"riscv64", 0, BRX_MACHINE_ELF_RISCV, 0, "elf64"},
};

const char *FormatName(int format) {
    return format == BRX_FORMAT_ELF32 ? "elf32" : format == BRX_FORMAT_ELF64 ? "elf64" : "coff";
}

} // namespace

bool MachineFor(const std::string &target, int format, uint32_t &machine, std::string &error) {
    for (const TargetRow &row : kTargets) {
        if (target != row.name)
            continue;
        machine = format == BRX_FORMAT_ELF32   ? row.elf32
                  : format == BRX_FORMAT_ELF64 ? row.elf64
                                               : row.coff;
        if (machine != 0)
            return true;
        error = "target '" + target + "' has no " + FormatName(format) + " objects (use --format " +
                row.formats + ")";
        return false;
    }
    error = "unknown target '" + target + "' (default, x86-64, i386, aarch64 or riscv64)";
    return false;
}

} // namespace qdbg
