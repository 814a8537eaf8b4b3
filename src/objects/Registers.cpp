#include "objects/Registers.h"

#include "frame/LibraryState.h"
#include "frame/Target.h"

#include <iterator>

namespace {

// ---- The default target -----------------------------------------------------------------------

// One row per range of the assembler's register numbers: CodeView and DWARF numbers are the
// register number plus a fixed offset within a range.
struct RegisterRange {
    uint32_t first, last;
    int32_t toCodeView, toDwarf;
};

constexpr RegisterRange kRegisterRanges[] = {
    {0, 0, 0, 0},
    {1, 128, 1023, -1},
    {129, 256, 1919, -1},
    {257, 384, 2815, 71},
    {385, 392, 127, -65},
    {393, 393, 768 - 393, 768 - 393},
    {394, 521, 3702, 62},
    {522, 522, 1019 - 522, 1019 - 522},
    {523, 523, 1017 - 523, 1017 - 523},
    {524, 524, 1016 - 524, 584 - 524},
};

const RegisterRange *RangeOf(uint32_t reg) {
    for (const RegisterRange &range : kRegisterRanges)
        if (reg >= range.first && reg <= range.last)
            return &range;
    return nullptr;
}

// ---- Other targets: DWARF register numbers to CodeView register numbers ----------------------

// DWARF registers first..last are CodeView registers codeView, codeView + 1, ...
struct DwarfToCodeView {
    uint16_t first, last;
    uint16_t codeView;
};

// DWARF numbers of the x86-64 psABI.
constexpr DwarfToCodeView kX86_64[] = {
    {0, 0, 328},     // rax
    {1, 1, 331},     // rdx
    {2, 2, 330},     // rcx
    {3, 3, 329},     // rbx
    {4, 5, 332},     // rsi, rdi
    {6, 6, 334},     // rbp
    {7, 7, 335},     // rsp
    {8, 15, 336},    // r8-r15
    {16, 16, 33},    // the return address: rip
    {17, 24, 154},   // xmm0-xmm7
    {25, 32, 252},   // xmm8-xmm15
    {33, 40, 128},   // st0-st7
    {41, 48, 146},   // mm0-mm7
    {49, 49, 34},    // rflags
    {50, 55, 25},    // es, cs, ss, ds, fs, gs
    {64, 64, 211},   // mxcsr
    {67, 82, 694},   // xmm16-xmm31
    {118, 125, 758}, // k0-k7
};

// DWARF numbers of the i386 psABI.
constexpr DwarfToCodeView kI386[] = {
    {0, 7, 17},    // eax, ecx, edx, ebx, esp, ebp, esi, edi
    {8, 8, 33},    // the return address: eip
    {9, 9, 34},    // eflags
    {11, 18, 128}, // st0-st7
    {21, 28, 154}, // xmm0-xmm7
    {29, 36, 146}, // mm0-mm7
    {39, 39, 211}, // mxcsr
    {40, 45, 25},  // es, cs, ss, ds, fs, gs
    {48, 48, 115}, // tr
    {49, 49, 114}, // ldtr
};

// DWARF numbers of the AArch64 ABI.
constexpr DwarfToCodeView kAArch64[] = {
    {0, 31, 50},   // x0-x28, fp, lr, sp
    {64, 95, 180}, // v0-v31 (CodeView q0-q31)
};

struct CodeViewTable {
    const DwarfToCodeView *rows;
    size_t count;
};

CodeViewTable CodeViewTableOf(TargetId id) {
    switch (id) {
    case TargetId::X86_64:
        return {kX86_64, std::size(kX86_64)};
    case TargetId::I386:
        return {kI386, std::size(kI386)};
    case TargetId::AArch64:
        return {kAArch64, std::size(kAArch64)};
    default:
        return {nullptr, 0};
    }
}

bool FindCodeView(TargetId id, uint32_t reg, uint16_t &codeView) {
    CodeViewTable table = CodeViewTableOf(id);
    for (size_t i = 0; i < table.count; ++i) {
        const DwarfToCodeView &row = table.rows[i];
        if (reg >= row.first && reg <= row.last) {
            codeView = uint16_t(row.codeView + (reg - row.first));
            return true;
        }
    }
    return false;
}

// DWARF register numbers are kept in 16 bits, as the default target's translations give them.
constexpr uint32_t kMaxDwarfRegister = 0xFFFF;

} // namespace

uint16_t ToCodeViewRegister(uint32_t reg) {
    const RegisterRange *range = RangeOf(reg);
    return range ? uint16_t(int32_t(reg) + range->toCodeView) : 0;
}

uint16_t ToDwarfRegister(uint32_t reg) {
    const RegisterRange *range = RangeOf(reg);
    return range ? uint16_t(int32_t(reg) + range->toDwarf) : 0;
}

bool AcceptsRegister(uint32_t reg, RegisterUse use) {
    const CTarget &target = BoundTarget();
    if (target.IsDefault())
        return reg <= kMaxRegister;
    if (use == RegisterUse::Symbol && State().binding.format == FORMAT_COFF) {
        uint16_t codeView = 0;
        return FindCodeView(target.id, reg, codeView);
    }
    return reg <= kMaxDwarfRegister;
}

uint16_t DwarfRegisterOf(uint32_t reg) {
    return BoundTarget().IsDefault() ? ToDwarfRegister(reg) : uint16_t(reg);
}

CError CodeViewRegisterOf(uint32_t reg, uint16_t &codeView) {
    const CTarget &target = BoundTarget();
    if (target.IsDefault()) {
        codeView = ToCodeViewRegister(reg);
        return kOk;
    }
    return FindCodeView(target.id, reg, codeView) ? kOk : kFailed;
}
