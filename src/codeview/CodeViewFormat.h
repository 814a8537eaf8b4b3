// Numbers of the CodeView format that Quillet writes into .debug$S and .debug$T, named as the
// format names them. Record layouts live with the classes that own the records.
#pragma once

#include <cstdint>

namespace quillet::cv {

// Subsection kinds and the section signature are defined with the section buffer that writes
// them (frame/BinarySection.h); LF_ARGLIST, LF_PROCEDURE and the first type index with the types.
constexpr uint32_t kSubsectionHeaderSize = 8;
constexpr uint32_t kSubsectionAlignment = 4;

// Symbol record kinds.
constexpr uint16_t S_END = 0x0006;
constexpr uint16_t S_OBJNAME = 0x1101;
constexpr uint16_t S_LABEL32 = 0x1105;
constexpr uint16_t S_REGISTER = 0x1106;
constexpr uint16_t S_CONSTANT = 0x1107;
constexpr uint16_t S_LDATA32 = 0x110C;
constexpr uint16_t S_GDATA32 = 0x110D;
constexpr uint16_t S_LPROC32 = 0x110F;
constexpr uint16_t S_GPROC32 = 0x1110;
constexpr uint16_t S_COMPILE3 = 0x113C;
constexpr uint16_t S_ENVBLOCK = 0x113D;

// Numeric leaves.
constexpr uint16_t LF_CHAR = 0x8000;
constexpr uint16_t LF_SHORT = 0x8001;
constexpr uint16_t LF_USHORT = 0x8002;
constexpr uint16_t LF_LONG = 0x8003;
constexpr uint16_t LF_ULONG = 0x8004;
constexpr uint16_t LF_REAL32 = 0x8005;
constexpr uint16_t LF_REAL64 = 0x8006;
constexpr uint16_t LF_REAL80 = 0x8007;
constexpr uint16_t LF_QUADWORD = 0x8009;
constexpr uint16_t LF_UQUADWORD = 0x800A;

// File-checksum records: {string offset u32, size u8, kind u8, digest, 2 bytes of fill}.
constexpr uint8_t CHKSUM_TYPE_MD5 = 1;
constexpr uint32_t kChecksumRecordSize = 24;

// Lines subsection: a 12-byte header per section, then file blocks {file, count, length} of
// (offset, line word) pairs. The line word holds a 24-bit line and the statement bit.
constexpr uint32_t kLineHeaderSize = 12;
constexpr uint32_t kFileBlockHeaderSize = 12;
constexpr uint32_t kLinePairSize = 8;
constexpr uint32_t kLineNumberMask = 0x00FFFFFF;
constexpr uint32_t kLineIsStatement = 0x80000000;

} // namespace quillet::cv
