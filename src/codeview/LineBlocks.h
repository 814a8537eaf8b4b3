// The content of a CodeView lines subsection, built from plain values: the 12-byte header of a
// section and the file blocks of one scope's line entries. The driver adds the header's two
// relocations and appends the bytes to the symbol section.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace quillet {

// One line entry as the block encoder sees it.
struct CvLinePoint {
    uint64_t address; // base + offset of the instruction in its section
    uint32_t line;
    const void *file; // the source-file record the entry names
};

// What the encoder needs to know about a source-file record.
struct CvFileInfo {
    std::u16string_view name; // runs are cut where the name changes (compared by content)
    uint32_t checksumOffset;  // offset of the file's record in its checksum table
};

// The section header: code offset 0 and segment 0 (both relocated by the caller), flags 0 and
// the code size.
std::vector<uint8_t> EncodeLineHeader(uint32_t codeSize);

// File blocks for points already sorted by address. A run ends where the file name changes;
// within a run an entry with the line of the entry before it adds no pair. `lookup` is asked
// only when the file record differs from the previous point's. Appends to `out`.
void EncodeFileBlocks(const std::vector<CvLinePoint> &sorted,
                      const std::function<CvFileInfo(const void *file)> &lookup,
                      std::vector<uint8_t> &out);

// The line word of a pair: the line cut to 24 bits, with the statement bit set.
constexpr uint32_t LineWord(uint32_t line) {
    return (line & 0x00FFFFFF) | 0x80000000;
}

} // namespace quillet
