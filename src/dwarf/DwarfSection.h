// A debugging section as the DWARF readers see it: its bytes and, in a relocatable object, what its
// relocations put into the fields they patch. Relocations are applied at the moment a field is
// read (CDataCursor::Field), keyed by the field's offset, so the parsers above never see one and
// know nothing of machines.
#pragma once

#include <brix/brix.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace quillet {

// One relocated field: the value it holds once every section is at address 0, and the section
// that value is an offset in (0 for none).
struct CFieldRelocation {
    uint64_t m_nOffset;
    uint64_t m_nValue;
    BrxHandle m_Section;
    uint32_t m_nSize;
};

// The relocated fields of one section, by offset.
class CRelocationMap {
public:
    CRelocationMap() = default;
    explicit CRelocationMap(std::vector<CFieldRelocation> fields);

    // The relocation of the field at `offset`, or null.
    const CFieldRelocation *Find(uint64_t offset) const;
    bool Empty() const { return m_Fields.empty(); }

private:
    std::vector<CFieldRelocation> m_Fields;
};

struct CDwarfSection {
    const uint8_t *m_pData = nullptr;
    uint64_t m_nSize = 0;
    const CRelocationMap *m_pRelocations = nullptr; // null: nothing in it is relocated

    // The `size`-byte little-endian field at `offset`, which lies inside the section: the value
    // its relocation gives it when one patches exactly this field, else the bytes in place.
    // `section` (when not null) receives the section the value is an offset in, 0 for none.
    uint64_t Field(uint64_t offset, unsigned size, BrxHandle *section = nullptr) const;
    // The NUL-terminated string at `offset`; false when it starts outside or is unterminated.
    bool String(uint64_t offset, std::string_view &out) const;
};

// The sections the retrieval reads of an ELF object (any of them may be empty). The range lists
// are read only for the function index.
struct CDwarfSections {
    CDwarfSection info, abbrev, line, str, lineStr, strOffsets, addr, ranges, rnglists;
};

// A bounded reader over [begin, end) of a section. A read that would pass the end fails the
// cursor: from then on every read answers 0 and Ok() is false, and ErrorOffset() says where the
// input went wrong.
class CDataCursor {
public:
    CDataCursor(const CDwarfSection &section, uint64_t begin, uint64_t end)
        : m_pSection(&section), m_nPosition(begin), m_nEnd(end) {}

    uint64_t Position() const { return m_nPosition; }
    uint64_t End() const { return m_nEnd; }
    uint64_t Remaining() const { return m_nEnd - m_nPosition; }
    bool AtEnd() const { return m_nPosition >= m_nEnd; }
    bool Ok() const { return m_bOk; }
    uint64_t ErrorOffset() const { return m_nErrorOffset; }
    // Marks the input wrong at the current position.
    void Fail();

    uint8_t U8() { return static_cast<uint8_t>(Fixed(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Fixed(2)); }
    uint32_t U32() { return static_cast<uint32_t>(Fixed(4)); }
    uint64_t U64() { return Fixed(8); }
    // `size` bytes in place (1 to 8), never relocated: lengths, counts, version numbers.
    uint64_t Fixed(unsigned size);
    // `size` bytes that may carry a relocation: an address, or an offset into another section.
    uint64_t Field(unsigned size, BrxHandle *section = nullptr);
    uint64_t ULEB();
    int64_t SLEB();
    std::string_view CString();
    void Skip(uint64_t count);

private:
    bool Take(uint64_t count);

    const CDwarfSection *m_pSection;
    uint64_t m_nPosition;
    uint64_t m_nEnd;
    bool m_bOk = true;
    uint64_t m_nErrorOffset = 0;
};

} // namespace quillet
