// Names inside CodeView symbol records. A record carries its length in 16 bits (the bytes after
// the length field), and a linker that copies it into a program database pads it to a multiple
// of 4 bytes first; a record whose names would not fit has them shortened instead of letting the
// length wrap and corrupt every record after it.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>

namespace quillet::cv {

// The largest record, its length field included, whose length still fits in 16 bits once the
// record is padded to a multiple of 4 bytes.
constexpr size_t kMaxRecordSize = 0x10000;

// Shortens the UTF-8 `names` of a record whose other fields take `otherBytes` (its length field
// included) until the record fits: the longest name is cut first, at a character boundary. A cut
// is reported through the consistency check. True when nothing was cut.
bool FitNamesInRecord(size_t otherBytes, std::initializer_list<std::string *> names);

} // namespace quillet::cv
