#include "Relocations.h"

#include "ElfFormat.h"

#include <algorithm>

namespace brix {

namespace {

using namespace elf;

// How a relocation type combines S + A (the symbol's offset plus the addend) with its field.
enum class Operation { Absolute, Add, Subtract, Set };

struct CRelocationKind {
    Operation m_Operation;
    unsigned m_nSize;
};

// The kinds a reader of debugging sections meets, per machine; false for any other type.
bool KindOf(uint32_t machine, uint32_t type, CRelocationKind &kind) {
    auto is = [&](Operation operation, unsigned size) {
        kind = CRelocationKind{operation, size};
        return true;
    };
    switch (machine) {
    case EM_DEFAULT_TARGET:
        if (type == R_DEFAULT_TARGET_32)
            return is(Operation::Absolute, 4);
        if (type == R_DEFAULT_TARGET_64)
            return is(Operation::Absolute, 8);
        return false;
    case EM_X86_64:
        if (type == R_X86_64_64)
            return is(Operation::Absolute, 8);
        if (type == R_X86_64_32 || type == R_X86_64_32S)
            return is(Operation::Absolute, 4);
        return false;
    case EM_386:
        return type == R_386_32 && is(Operation::Absolute, 4);
    case EM_AARCH64:
        if (type == R_AARCH64_ABS64)
            return is(Operation::Absolute, 8);
        if (type == R_AARCH64_ABS32)
            return is(Operation::Absolute, 4);
        return false;
    case EM_RISCV:
        switch (type) {
        case R_RISCV_32:
            return is(Operation::Absolute, 4);
        case R_RISCV_64:
            return is(Operation::Absolute, 8);
        case R_RISCV_ADD8:
            return is(Operation::Add, 1);
        case R_RISCV_ADD16:
            return is(Operation::Add, 2);
        case R_RISCV_ADD32:
            return is(Operation::Add, 4);
        case R_RISCV_ADD64:
            return is(Operation::Add, 8);
        case R_RISCV_SUB8:
            return is(Operation::Subtract, 1);
        case R_RISCV_SUB16:
            return is(Operation::Subtract, 2);
        case R_RISCV_SUB32:
            return is(Operation::Subtract, 4);
        case R_RISCV_SUB64:
            return is(Operation::Subtract, 8);
        case R_RISCV_SET8:
            return is(Operation::Set, 1);
        case R_RISCV_SET16:
            return is(Operation::Set, 2);
        case R_RISCV_SET32:
            return is(Operation::Set, 4);
        default:
            return false;
        }
    default:
        return false;
    }
}

uint64_t Truncate(uint64_t value, unsigned size) {
    return size >= 8 ? value : value & ((uint64_t(1) << (8 * size)) - 1);
}

// The field's bytes in the file's byte order.
uint64_t InPlace(const CBrxFile &file, const CSection &section, uint64_t offset, unsigned size) {
    uint8_t bytes[8] = {};
    section.Read(offset, size, bytes);
    uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i) {
        unsigned shift = file.m_bBigEndian ? 8 * (size - 1 - i) : 8 * i;
        value |= uint64_t(bytes[i]) << shift;
    }
    return value;
}

} // namespace

int32_t ResolveRelocations(const CBrxFile &file, CSection &section) {
    if (section.m_bResolved)
        return BRX_OK;
    int32_t inflated = section.Inflate();
    if (inflated != BRX_OK)
        return inflated;
    std::vector<uint32_t> order = section.m_Relocations;
    // Stable: the relocations that combine at one field keep their order (set before subtract).
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        return file.m_Relocations[a].m_nOffset < file.m_Relocations[b].m_nOffset;
    });
    std::vector<BrxResolvedRelocation> resolved;
    resolved.reserve(order.size());
    for (uint32_t index : order) {
        const CRelocation &r = file.m_Relocations[index];
        CRelocationKind kind;
        if (!KindOf(file.m_nMachine, r.m_nType, kind))
            continue;
        // A field that does not lie inside the section patches nothing.
        if (r.m_nOffset > section.Size() || kind.m_nSize > section.Size() - r.m_nOffset)
            continue;
        uint64_t symbolOffset = 0;
        BrxHandle target = 0;
        if (const CHandleEntry *symbol = LookupKind(r.m_Target, Kind::Symbol)) {
            const CSymbol &s = file.m_Symbols[symbol->m_nIndex];
            symbolOffset = s.m_nOffset;
            target = s.m_Section;
        } else if (LookupKind(r.m_Target, Kind::Section)) {
            target = r.m_Target; // made through the keyed interface against a section
        }
        uint64_t inPlace = InPlace(file, section, r.m_nOffset, kind.m_nSize);
        uint64_t addend = r.m_bAddendInPlace ? inPlace : uint64_t(r.m_nAddend);
        uint64_t value = symbolOffset + addend;
        if (kind.m_Operation == Operation::Absolute) {
            resolved.push_back({r.m_nOffset, Truncate(value, kind.m_nSize), target, kind.m_nSize});
            continue;
        }
        // Paired relocations: the first at a field starts from the value in place; the
        // result is a difference, an offset in no section.
        if (resolved.empty() || resolved.back().offset != r.m_nOffset ||
            resolved.back().size != kind.m_nSize)
            resolved.push_back({r.m_nOffset, inPlace, 0, kind.m_nSize});
        BrxResolvedRelocation &field = resolved.back();
        field.section = 0;
        if (kind.m_Operation == Operation::Add)
            field.value += value;
        else if (kind.m_Operation == Operation::Subtract)
            field.value -= value;
        else
            field.value = value;
        field.value = Truncate(field.value, kind.m_nSize);
    }
    section.m_Resolved.swap(resolved);
    section.m_bResolved = true;
    return BRX_OK;
}

} // namespace brix
