// Text conversions and host paths. Wide strings are UTF-16; the 8-bit form is UTF-8, and every
// length computed from a string is computed on those bytes. Lowercasing is ASCII only.
#pragma once

#include <string>
#include <string_view>

namespace quillet {

// UTF-16 to UTF-8: a surrogate pair becomes one 4-byte sequence; a lone surrogate half three
// bytes of its own.
std::string ToUtf8(std::u16string_view text);
// UTF-8 to UTF-16: a 4-byte sequence becomes a surrogate pair; bytes that do not form a sequence
// are taken one by one.
std::u16string FromUtf8(std::string_view text);
// Shortens UTF-8 text to at most `limit` bytes without splitting a character.
void CutUtf8(std::string &text, size_t limit);
// Copies a NUL-terminated wide string; null gives the empty string.
std::u16string WideCopy(const char16_t *text);
void LowerAscii(std::string &text);
// The process's working directory in UTF-16 (empty when it cannot be read).
std::u16string WorkingDirectory();
// True for "/x", "\x" and "c:...".
bool IsAbsolutePath(std::u16string_view path);
// Directory and name joined: no separator when the directory already ends with one; '/' for a
// directory that starts with '/', '\' otherwise.
std::u16string JoinPath(std::u16string_view directory, std::u16string_view name);

} // namespace quillet
