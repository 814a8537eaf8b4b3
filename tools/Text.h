// Small text helpers shared by qdbg's commands: number parsing and the conversions between the
// UTF-8 that qdbg reads and prints and the UTF-16 strings of the C API.
#ifndef QDBG_TEXT_H
#define QDBG_TEXT_H

#include <cstdint>
#include <optional>
#include <string>

namespace qdbg {

// Decimal or 0x-prefixed hexadecimal, unsigned, at most 64 bits. Nothing else may follow.
std::optional<uint64_t> ParseUnsigned(const std::string &text);
// As ParseUnsigned, with an optional leading '-'; the result must fit a signed 64-bit value.
std::optional<int64_t> ParseSigned(const std::string &text);

// UTF-8 to UTF-16; an invalid byte sequence becomes U+FFFD.
std::u16string ToUtf16(const std::string &text);
// UTF-16 to UTF-8, up to a NUL or max_units units; unpaired surrogates become U+FFFD.
std::string ToUtf8(const char16_t *text, size_t max_units = SIZE_MAX);

// "0x1f"
std::string Hex(uint64_t value);

} // namespace qdbg

#endif
