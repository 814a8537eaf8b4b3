// Constants of the ELF object format, named as the format names them.
#pragma once

#include <cstdint>

namespace brix::elf {

constexpr uint8_t ELFMAG[4] = {0x7f, 'E', 'L', 'F'};
constexpr uint8_t ELFCLASS32 = 1;
constexpr uint8_t ELFCLASS64 = 2;
constexpr uint8_t ELFDATA2LSB = 1;
constexpr uint8_t ELFDATA2MSB = 2;
constexpr uint8_t EV_CURRENT = 1;
constexpr unsigned EI_NIDENT = 16;

constexpr uint16_t ET_REL = 1;
constexpr uint16_t ET_EXEC = 2;
constexpr uint16_t ET_DYN = 3;

constexpr uint16_t EM_386 = 3;
constexpr uint16_t EM_X86_64 = 62;
constexpr uint16_t EM_AARCH64 = 183;
constexpr uint16_t EM_RISCV = 243;

constexpr uint32_t SHT_NULL = 0;
constexpr uint32_t SHT_PROGBITS = 1;
constexpr uint32_t SHT_SYMTAB = 2;
constexpr uint32_t SHT_STRTAB = 3;
constexpr uint32_t SHT_RELA = 4;
constexpr uint32_t SHT_NOBITS = 8;
constexpr uint32_t SHT_REL = 9;
constexpr uint32_t SHT_DYNSYM = 11;
constexpr uint32_t SHT_GROUP = 17;
constexpr uint32_t SHT_SYMTAB_SHNDX = 18;

constexpr uint64_t SHF_WRITE = 0x1;
constexpr uint64_t SHF_ALLOC = 0x2;
constexpr uint64_t SHF_EXECINSTR = 0x4;
constexpr uint64_t SHF_INFO_LINK = 0x40;
constexpr uint64_t SHF_GROUP = 0x200;
constexpr uint64_t SHF_COMPRESSED = 0x800;

// The compression header at the start of an SHF_COMPRESSED section's contents.
constexpr uint32_t ELFCOMPRESS_ZLIB = 1;
constexpr unsigned kChdrSize32 = 12, kChdrSize64 = 24;

constexpr uint32_t GRP_COMDAT = 1;

constexpr uint16_t SHN_UNDEF = 0;
constexpr uint16_t SHN_LORESERVE = 0xff00;
constexpr uint16_t SHN_ABS = 0xfff1;
constexpr uint16_t SHN_COMMON = 0xfff2;
constexpr uint16_t SHN_XINDEX = 0xffff;

constexpr uint8_t STB_LOCAL = 0;
constexpr uint8_t STB_GLOBAL = 1;
constexpr uint8_t STB_WEAK = 2;

constexpr uint8_t STT_NOTYPE = 0;
constexpr uint8_t STT_OBJECT = 1;
constexpr uint8_t STT_FUNC = 2;
constexpr uint8_t STT_SECTION = 3;
constexpr uint8_t STT_FILE = 4;

// Relocation types of EM_386 whose field holds the addend in place.
constexpr uint32_t R_386_32 = 1;
constexpr uint32_t R_386_PC32 = 2;
constexpr uint32_t R_386_16 = 20;
constexpr uint32_t R_386_PC16 = 21;
constexpr uint32_t R_386_8 = 22;
constexpr uint32_t R_386_PC8 = 23;

// Machines whose ABI uses REL relocations: the addend lives in the relocated field.
constexpr bool UsesRel(uint32_t machine) {
    return machine == EM_386;
}

// The width in bytes of the field that a REL relocation of `type` patches; 0 for a type whose
// field this library does not know.
constexpr unsigned RelFieldWidth(uint32_t machine, uint32_t type) {
    if (machine != EM_386)
        return 0;
    switch (type) {
    case R_386_32:
    case R_386_PC32:
        return 4;
    case R_386_16:
    case R_386_PC16:
        return 2;
    case R_386_8:
    case R_386_PC8:
        return 1;
    default:
        return 0;
    }
}

// Relocation types whose field holds a plain offset or address (S + A), per machine, and the
// add, subtract and set types of RISC-V's paired relocations.
constexpr uint32_t EM_DEFAULT_TARGET = 50;
constexpr uint32_t R_DEFAULT_TARGET_32 = 37, R_DEFAULT_TARGET_64 = 39;
constexpr uint32_t R_X86_64_64 = 1, R_X86_64_32 = 10, R_X86_64_32S = 11;
constexpr uint32_t R_AARCH64_ABS64 = 257, R_AARCH64_ABS32 = 258;
constexpr uint32_t R_RISCV_32 = 1, R_RISCV_64 = 2;
constexpr uint32_t R_RISCV_ADD8 = 33, R_RISCV_ADD16 = 34, R_RISCV_ADD32 = 35, R_RISCV_ADD64 = 36;
constexpr uint32_t R_RISCV_SUB8 = 37, R_RISCV_SUB16 = 38, R_RISCV_SUB32 = 39, R_RISCV_SUB64 = 40;
constexpr uint32_t R_RISCV_SET8 = 54, R_RISCV_SET16 = 55, R_RISCV_SET32 = 56;

// Record sizes per class.
constexpr unsigned kEhdrSize32 = 52, kEhdrSize64 = 64;
constexpr unsigned kShdrSize32 = 40, kShdrSize64 = 64;
constexpr unsigned kSymSize32 = 16, kSymSize64 = 24;
constexpr unsigned kRelaSize32 = 12, kRelaSize64 = 24;
constexpr unsigned kRelSize32 = 8, kRelSize64 = 16;

} // namespace brix::elf
