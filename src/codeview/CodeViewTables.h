// What one CodeView emission learns about source files as its passes run: the string-table
// offset of each source-file record, and the checksum index of each file in each checksum table.
// The driver owns it for the duration of the emission; the scope steps reach it through the
// library state.
#pragma once

#include "codeview/Md5.h"

#include <cstdint>
#include <unordered_map>

class CBinarySection;

struct CCodeViewTables {
    // The string table: source-file record (its handle cell) -> offset of its composed path.
    std::unordered_map<const void *, uint32_t> stringOffsets;
    uint32_t nextStringOffset = 0; // 0 until the empty string at offset 0 is written

    // One checksum table per symbol section that holds one: string offset -> checksum index.
    // A file has at most one record per table.
    std::unordered_map<const CBinarySection *, std::unordered_map<uint32_t, uint32_t>>
        checksumIndex;

    // Digests already computed, by source-file record, so a file named in several tables is read
    // once.
    std::unordered_map<const void *, quillet::Md5Digest> digests;
};

// The tables of the emission that is running, or null outside the CodeView driver.
CCodeViewTables *ActiveCodeViewTables();
