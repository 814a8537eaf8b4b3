// One line entry: the source position of one instruction. Kept by value in the scopes' lists
// (millions of them), so it is a plain 32-byte record without a virtual table.
#pragma once

#include <cstdint>
#include <type_traits>

struct CLineEntry {
    uint32_t line = 0;
    uint32_t column = 0;
    uint64_t base = 0;      // base offset of the instruction in its section
    uint32_t offset = 0;    // added to the base
    int32_t fileIndex = -1; // -1 when recorded by the assembler; retrieval fills it in
    // Production: the source handle, a CSourceFile ** cell (lines/SourceFile.h). Retrieval may
    // keep its own file record here.
    void *source = nullptr;

    // The instruction's address: base plus offset, 64-bit with carry.
    uint64_t Address() const { return base + offset; }
};

static_assert(sizeof(CLineEntry) <= 32, "line entries are stored by the million");
static_assert(std::is_trivially_copyable<CLineEntry>::value, "line entries are plain values");

// Orders line entries by ascending address (the order of entries at equal addresses is kept).
void SortLineEntries(CLineEntry *first, CLineEntry *last);
