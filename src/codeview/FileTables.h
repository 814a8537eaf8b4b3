// The two tables of a symbol section that no language object owns: the string table of
// source-file paths and the file-checksum table. Plain-value encoders; the driver's passes
// decide which files go where.
#pragma once

#include "codeview/Md5.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace quillet {

// The path under which a source file is named in the string table: the path it is read from for
// its checksum. An absolute name stays as given; a relative one is joined to the working
// directory ('/' after a directory that starts with '/', '\' otherwise, none after a directory
// that already ends with either).
std::u16string ComposeSourcePath(std::u16string_view directory, std::u16string_view fileName);

// One 24-byte checksum record: string-table offset of the name, digest size 16, kind MD5, the
// digest and two bytes of fill.
std::array<uint8_t, 24> EncodeChecksumRecord(uint32_t stringOffset, const Md5Digest &digest);

} // namespace quillet
