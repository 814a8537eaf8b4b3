// Reading a source file's whole contents as raw bytes, by its UTF-16 name.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace quillet {

// Opens the file by its name converted to UTF-8 and reads it whole. False when it cannot be
// opened or read; `bytes` is then unspecified.
bool ReadWholeFile(std::u16string_view name, std::vector<uint8_t> &bytes);

} // namespace quillet
