// The reader of .debug_line: one unit header at a time, then the unit's line-number program run
// through the state machine into plain rows. The decoder works on bytes in memory; where a
// sequence lies in the object (which section, at what offset) is asked of a CSequencePlacer, so
// the same loop serves relocatable objects, linked ones and tests without an object file.
#pragma once

#include "dwarf/DwarfSection.h"
#include "dwarf/Forms.h"
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

// The operand of a DW_LNE_set_address: where it stands in .debug_line, the address it gives
// (its relocation's value in a relocatable object) and the section that relocation names (0 when
// it has none).
struct CAddressOperand {
    uint64_t m_nOffset;
    uint64_t m_nAddress;
    BrxHandle m_Section;
};

// Places a sequence in the object: from its DW_LNE_set_address operand, names the section and the
// amount to add to every address of the sequence to make it an offset in that section. A sequence
// that lies in no section of a linked object (code a linker dropped) is skipped, rows and all.
class CSequencePlacer {
public:
    enum class Result { Placed, Skipped, Failed };
    virtual ~CSequencePlacer() = default;
    virtual Result Place(const CAddressOperand &operand, BrxHandle &section, int64_t &bias) = 0;
};

// What the unit's entry in .debug_info tells the line reader.
struct CLineUnitContext {
    std::string_view m_CompilationDirectory;
    uint64_t m_nStrOffsetsBase = 0; // for indexed strings in a version 5 header
};

// The constants of the header being decoded.
struct CLineHeader {
    uint64_t m_nUnitStart = 0;
    uint64_t m_nUnitEnd = 0;
    uint64_t m_nProgramStart = 0;
    uint16_t m_nVersion = 2;
    uint8_t m_nOffsetSize = 4;
    uint8_t m_nAddressSize = 8; // given from version 5; earlier ones take it from each operand
    uint8_t m_nMinimumInstructionLength = 1;
    uint8_t m_bDefaultIsStmt = 1;
    int8_t m_nLineBase = 0;
    uint8_t m_nLineRange = 15;
    uint8_t m_nOpcodeBase = 10;
    uint32_t m_nFirstFile = 1; // the number of the file table's first entry: 0 from version 5
    std::array<uint8_t, 256> m_StandardOpcodeLengths{};
};

class CLineSection {
public:
    // The sections stay owned by the caller and must outlive the reader; .debug_line_str,
    // .debug_str and .debug_str_offsets serve the strings of version 5 headers.
    explicit CLineSection(const CDwarfSections &sections)
        : m_Sections(sections), m_Strings(sections) {}

    // Reads the header of the unit at `offset` (versions 2 to 5, 32- or 64-bit): its constants,
    // directories and files. Directory 0 is the compilation directory: the unit's, or the one a
    // version 5 table names first. Fails on another version, a header length that disagrees with
    // the tables, an entry format that cannot be read, a unit running past the section, or more
    // than one operation per instruction (VLIW programs are not read).
    CError ReadHeader(uint64_t offset, const CLineUnitContext &unit, CFileTable &files);

    // Runs the current unit's program, appending every row except end-of-sequence rows, and one
    // span per run of rows placed in one section. Fails on a truncated operand, a sequence without
    // DW_LNE_set_address, an address operand longer than 8 bytes, a file number without a file
    // record, or a sequence that the placer cannot place. Unknown extended opcodes are skipped by
    // their length, unknown standard ones by the operand counts the header gives. Rows appended
    // before a failure stay.
    CError DecodeUnit(CSequencePlacer &placer, CFileTable &files, CRowTable &rows,
                      std::vector<CSequenceSpan> &spans);

    const CLineHeader &Header() const { return m_Header; }
    uint64_t Size() const { return m_Sections.line.m_nSize; }
    // Where the input went wrong, as an offset in the section (valid after a failure).
    uint64_t ErrorOffset() const { return m_nErrorOffset; }

private:
    CError Fail(uint64_t offset);
    CError ReadVersion2Tables(CDataCursor &c, const CLineUnitContext &unit, CFileTable &files);
    CError ReadVersion5Tables(CDataCursor &c, const CLineUnitContext &unit, CFileTable &files);
    CError ReadFileEntry(CDataCursor &c, CFileTable &files);

    const CDwarfSections &m_Sections;
    CStringTables m_Strings;
    CLineHeader m_Header;
    uint64_t m_nErrorOffset = 0;
};

} // namespace quillet
