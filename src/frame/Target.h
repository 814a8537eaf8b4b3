// The machines that the library writes debugging information for. The object file names its
// machine; at binding the library finds it here and takes from it every relocation type that the
// debugging sections need, so that linkers and debuggers of that machine read them.
#pragma once

#include <cstddef>
#include <cstdint>

enum class TargetId : uint8_t { Default, X86_64, I386, AArch64, RiscV64 };

struct CTarget {
    TargetId id;
    const char *name;
    // ELF: the machine number, the one object format the machine uses (0: both ELF32 and ELF64),
    // and the relocation types of a 32-bit and of a 64-bit absolute address.
    uint32_t elfMachine;
    int32_t elfFormat;
    uint32_t elfAbsolute32;
    uint32_t elfAbsolute64;
    // COFF: the machine number (0: the target has no COFF objects) and the relocation types of a
    // section-relative offset and of a section index.
    uint32_t coffMachine;
    uint32_t coffSectionRelative;
    uint32_t coffSectionIndex;
    // The processor that the CodeView compile record names (consumers pick register names by it).
    uint16_t codeViewCpu;

    bool IsDefault() const { return id == TargetId::Default; }
};

// The target of an object file of `format` whose machine number is `machine`; null when the
// library does not write for it.
const CTarget *FindTarget(int32_t format, uint32_t machine);

// The default target: what a file is bound to when nothing says otherwise.
const CTarget &DefaultTarget();

// The bound object file's target; the default target while nothing is bound (sections and
// objects made before binding write for it).
const CTarget &BoundTarget();
