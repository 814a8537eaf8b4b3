// Constants of the COFF object format and of the CodeView line information, named as the formats
// name them.
#pragma once

#include <cstdint>

namespace brix::coff {

constexpr unsigned kFileHeaderSize = 20;
constexpr unsigned kSectionHeaderSize = 40;
constexpr unsigned kRelocationSize = 10;
constexpr unsigned kSymbolSize = 18;
constexpr unsigned kShortNameSize = 8;
// A function-definition auxiliary record: tag index (4 bytes), then the function's total size.
constexpr unsigned kFunctionDefinitionSizeOffset = 4;

constexpr uint16_t IMAGE_FILE_MACHINE_UNKNOWN = 0;
constexpr uint16_t IMAGE_FILE_MACHINE_I386 = 0x014c;
// The default target's machine number, which only this library's own tools know.
constexpr uint16_t MACHINE_DEFAULT_TARGET = 0x0200;
constexpr uint16_t IMAGE_FILE_MACHINE_AMD64 = 0x8664;
constexpr uint16_t IMAGE_FILE_MACHINE_ARM = 0x01c0;
constexpr uint16_t IMAGE_FILE_MACHINE_ARMNT = 0x01c4;
constexpr uint16_t IMAGE_FILE_MACHINE_ARM64 = 0xaa64;

constexpr uint32_t IMAGE_SCN_CNT_CODE = 0x00000020;
constexpr uint32_t IMAGE_SCN_CNT_INITIALIZED_DATA = 0x00000040;
constexpr uint32_t IMAGE_SCN_CNT_UNINITIALIZED_DATA = 0x00000080;
constexpr uint32_t IMAGE_SCN_LNK_COMDAT = 0x00001000;
constexpr uint32_t IMAGE_SCN_ALIGN_SHIFT = 20;
constexpr uint32_t IMAGE_SCN_ALIGN_MASK = 0x00f00000;
constexpr uint32_t IMAGE_SCN_LNK_NRELOC_OVFL = 0x01000000;
constexpr uint32_t IMAGE_SCN_MEM_DISCARDABLE = 0x02000000;
constexpr uint32_t IMAGE_SCN_MEM_EXECUTE = 0x20000000;
constexpr uint32_t IMAGE_SCN_MEM_READ = 0x40000000;
constexpr uint32_t IMAGE_SCN_MEM_WRITE = 0x80000000;

constexpr int16_t IMAGE_SYM_UNDEFINED = 0;
constexpr int16_t IMAGE_SYM_ABSOLUTE = -1;
constexpr int16_t IMAGE_SYM_DEBUG = -2;

constexpr uint16_t IMAGE_SYM_DTYPE_FUNCTION_TYPE = 0x20; // complex type "function" in bits 4-5

constexpr uint8_t IMAGE_SYM_CLASS_EXTERNAL = 2;
constexpr uint8_t IMAGE_SYM_CLASS_STATIC = 3;
constexpr uint8_t IMAGE_SYM_CLASS_FILE = 103;

constexpr uint8_t IMAGE_COMDAT_SELECT_ASSOCIATIVE = 5;

// Relocation types that name a section and a section-relative offset, per machine.
constexpr uint16_t DEFAULT_TARGET_SECTION = 11;
constexpr uint16_t DEFAULT_TARGET_SECREL = 14;
constexpr uint16_t AMD64_SECTION = 0x000a;
constexpr uint16_t AMD64_SECREL = 0x000b;
constexpr uint16_t I386_SECTION = 0x000a;
constexpr uint16_t I386_SECREL = 0x000b;
constexpr uint16_t ARM64_SECREL = 0x0008;
constexpr uint16_t ARM64_SECTION = 0x000d;

// Whether a relocation of `type` in an object of `machine` holds a section-relative offset. The
// numbers mean different things on different machines (14 is a PC-relative type on x86-64).
constexpr bool IsSectionRelative(uint16_t machine, uint32_t type) {
    switch (machine) {
    case MACHINE_DEFAULT_TARGET:
        return type == DEFAULT_TARGET_SECREL;
    case IMAGE_FILE_MACHINE_AMD64:
        return type == AMD64_SECREL;
    case IMAGE_FILE_MACHINE_I386:
        return type == I386_SECREL;
    case IMAGE_FILE_MACHINE_ARM64:
        return type == ARM64_SECREL;
    default:
        // Objects whose machine field was cleared: either common meaning.
        return type == DEFAULT_TARGET_SECREL || type == AMD64_SECREL;
    }
}

} // namespace brix::coff

namespace brix::codeview {

constexpr uint32_t CV_SIGNATURE_C13 = 4;
constexpr uint32_t DEBUG_S_SYMBOLS = 0xf1;
constexpr uint32_t DEBUG_S_LINES = 0xf2;
constexpr uint32_t DEBUG_S_STRINGTABLE = 0xf3;
constexpr uint32_t DEBUG_S_FILECHKSMS = 0xf4;
// A subsection kind with this bit set is to be ignored by readers.
constexpr uint32_t DEBUG_S_IGNORE = 0x80000000;

constexpr uint16_t CV_LINES_HAVE_COLUMNS = 0x0001;
constexpr uint32_t kLineNumberMask = 0x00ffffff;

constexpr unsigned kLinesHeaderSize = 12;
constexpr unsigned kFileBlockHeaderSize = 12;
constexpr unsigned kLinePairSize = 8;
constexpr unsigned kColumnPairSize = 4;

} // namespace brix::codeview
