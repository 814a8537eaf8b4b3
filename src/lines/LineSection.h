// The reader of .debug_line: one unit header at a time, then the unit's line-number program run
// through the state machine into plain rows. The decoder works on bytes in memory; where a
// sequence lies in the object (which section, at what offset) is asked of a CSequencePlacer, so
// the same loop serves relocatable objects, linked ones and tests without an object file.
#pragma once

#include "lines/FileTable.h"
#include "platform/CError.h"

#include <brix/brix.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <type_traits>
#include <vector>

namespace quillet {

// Opcodes of DWARF 2 line-number programs.
enum : uint8_t {
    DW_LNS_extended_op = 0,
    DW_LNS_copy = 1,
    DW_LNS_advance_pc = 2,
    DW_LNS_advance_line = 3,
    DW_LNS_set_file = 4,
    DW_LNS_set_column = 5,
    DW_LNS_negate_stmt = 6,
    DW_LNS_set_basic_block = 7,
    DW_LNS_const_add_pc = 8,
    DW_LNS_fixed_advance_pc = 9,
    DW_LNE_end_sequence = 1,
    DW_LNE_set_address = 2,
    DW_LNE_define_file = 3,
};

// Bits of CLineRow::m_nFlags.
constexpr uint32_t kRowIsStmt = 1; // the is_stmt register was set: a recommended breakpoint

// One decoded row: a plain 24-byte value, so millions of them are one allocation. Its section is
// that of the sequence it belongs to.
struct CLineRow {
    uint64_t m_nAddress; // offset in its section
    uint32_t m_nLine;
    uint32_t m_nColumn;   // the column register + 1, so 1 when a program sets no column
    int32_t m_nFileIndex; // position in the file table
    uint32_t m_nFlags;    // kRow* bits
};
static_assert(sizeof(CLineRow) == 24, "rows are kept by the million: keep them small");
static_assert(std::is_trivially_copyable<CLineRow>::value, "rows are moved with memcpy");

// Memory for the large per-row tables: blocks of 4 MiB and more are aligned to 2 MiB and asked to
// be backed by huge pages, so random lookups into them do not miss the TLB on every access.
void *AllocateLarge(size_t bytes);

template <class T> struct CLargeAllocator {
    using value_type = T;
    CLargeAllocator() = default;
    template <class U> CLargeAllocator(const CLargeAllocator<U> &) {}
    T *allocate(size_t n) { return static_cast<T *>(AllocateLarge(n * sizeof(T))); }
    void deallocate(T *p, size_t) { std::free(p); }
    template <class U> bool operator==(const CLargeAllocator<U> &) const { return true; }
    template <class U> bool operator!=(const CLargeAllocator<U> &) const { return false; }
};

// A run of consecutive rows that one sequence placed in one section, and where the code it
// describes ends (the address of its end-of-sequence row, placed like its rows). A sequence whose
// DW_LNE_set_address moves it on mid-way is two spans; the first ends where the address register
// stood when it moved.
struct CSequenceSpan {
    BrxHandle m_Section;
    uint32_t m_nBegin;
    uint32_t m_nEnd;
    bool m_bSorted; // addresses never decrease inside the span
    uint64_t m_nEndAddress;
};

// The growable array that holds every row of an object. Memory is never zero-filled, so pages
// are touched only when rows are written, and a large table asks for huge pages: decoding
// millions of rows is then bounded by the decoder, not by page faults.
class CRowTable {
public:
    CRowTable() = default;
    ~CRowTable();
    CRowTable(const CRowTable &) = delete;
    CRowTable &operator=(const CRowTable &) = delete;

    void Reserve(size_t capacity);
    void PushBack(const CLineRow &row) {
        if (m_nSize == m_nCapacity)
            Grow();
        m_pRows[m_nSize++] = row;
    }
    // Makes room for at least one more row; the rows may move.
    void Grow();
    void SetSize(size_t size) { m_nSize = size; }
    void Swap(CRowTable &other);

    size_t size() const { return m_nSize; }
    size_t Capacity() const { return m_nCapacity; }
    bool empty() const { return m_nSize == 0; }
    CLineRow *data() { return m_pRows; }
    const CLineRow *data() const { return m_pRows; }
    CLineRow &operator[](size_t i) { return m_pRows[i]; }
    const CLineRow &operator[](size_t i) const { return m_pRows[i]; }
    const CLineRow *begin() const { return m_pRows; }
    const CLineRow *end() const { return m_pRows + m_nSize; }

private:
    CLineRow *m_pRows = nullptr;
    size_t m_nSize = 0;
    size_t m_nCapacity = 0;
};

// Places a sequence in the object: given where its DW_LNE_set_address operand stands in
// .debug_line and the address of its first row, names the section and the amount to add to every
// address of the sequence to make it an offset in that section.
class CSequencePlacer {
public:
    virtual ~CSequencePlacer() = default;
    virtual CError Place(uint64_t operandOffset, uint64_t rowAddress, BrxHandle &section,
                         int64_t &bias) = 0;
};

// The constants of the header being decoded.
struct CLineHeader {
    uint64_t m_nUnitStart = 0;
    uint64_t m_nUnitEnd = 0;
    uint64_t m_nProgramStart = 0;
    uint8_t m_nMinimumInstructionLength = 1;
    uint8_t m_bDefaultIsStmt = 1;
    int8_t m_nLineBase = 0;
    uint8_t m_nLineRange = 15;
    uint8_t m_nOpcodeBase = 10;
    std::array<uint8_t, 256> m_StandardOpcodeLengths{};
};

class CLineSection {
public:
    // The section's bytes stay owned by the caller and must outlive the reader.
    CLineSection(const uint8_t *data, uint64_t size) : m_pData(data), m_nSize(size) {}

    // Reads the header of the unit at `offset`; `compilationDirectory` becomes the unit's
    // directory 0. Fails on anything but version 2, a header length that disagrees with the
    // tables, or a unit running past the section.
    CError ReadHeader(uint64_t offset, std::string_view compilationDirectory, CFileTable &files);

    // Runs the current unit's program, appending every row except end-of-sequence rows, and one
    // span per run of rows placed in one section. Fails on
    // an unknown opcode, a truncated operand, a sequence without DW_LNE_set_address, an address
    // operand longer than 8 bytes, a file number without a file record, or a sequence that the
    // placer cannot place. Rows appended before the failure stay.
    CError DecodeUnit(CSequencePlacer &placer, CFileTable &files, CRowTable &rows,
                      std::vector<CSequenceSpan> &spans);

    const CLineHeader &Header() const { return m_Header; }
    uint64_t Size() const { return m_nSize; }
    // Where the input went wrong, as an offset in the section (valid after a failure).
    uint64_t ErrorOffset() const { return m_nErrorOffset; }

private:
    CError Fail(const uint8_t *at);
    CError ReadFileEntry(const uint8_t *&p, const uint8_t *end, CFileTable &files);

    const uint8_t *m_pData;
    uint64_t m_nSize;
    CLineHeader m_Header;
    uint64_t m_nErrorOffset = 0;
};

} // namespace quillet
