// The reader of .debug_info for retrieval: unit by unit, the header (versions 2 to 5, 32- and
// 64-bit DWARF) and the unit's own entry, of which it keeps what the line reader and the module
// need: the line program's offset, the compilation directory, name and producer, and the bases
// that indexed strings and addresses count from.
#pragma once

#include "dwarf/AbbrevSection.h"
#include "dwarf/DwarfSection.h"
#include "dwarf/Forms.h"
#include "platform/CError.h"

#include <cstdint>
#include <string_view>

namespace quillet {

struct CUnitHeader {
    uint64_t m_nOffset = 0;  // where the unit starts in the section
    uint64_t m_nEnd = 0;     // where the next one starts
    uint64_t m_nEntries = 0; // where its first entry starts
    uint8_t m_nUnitType = 0; // DW_UT_*; versions 2 to 4 have compilation units only
    uint64_t m_nAbbrevOffset = 0;
    CFormContext m_Form;
};

// What the unit's own entry (DW_TAG_compile_unit, partial_unit or skeleton_unit) says.
struct CUnitEntry {
    uint64_t m_nTag = 0;
    std::string_view m_Name, m_CompilationDirectory, m_Producer; // empty when absent
    bool m_bHasStatementList = false;
    uint64_t m_nStatementList = 0;
    uint64_t m_nLowAddress = 0;
    BrxHandle m_LowSection = 0; // the section a relocated low address is an offset in
    uint64_t m_nStrOffsetsBase = 0;
    uint64_t m_nAddrBase = 0;
    uint64_t m_nRnglistsBase = 0; // 0 when absent: a table's offsets never start at 0
};

class CInfoSection {
public:
    // The sections stay owned by the caller; .debug_str, .debug_line_str, .debug_str_offsets and
    // .debug_addr may be empty when nothing points into them.
    CInfoSection(const CDwarfSections &sections, CAbbrevSection &abbrev)
        : m_Sections(sections), m_Abbrev(abbrev), m_Strings(sections) {}

    // Reads the header of the unit at the next-unit offset and moves that offset past it. False
    // in `more` at the end of the section. Fails on a length past the section, a version other
    // than 2 to 5, an address size other than 1 to 8, or an abbreviation offset outside
    // .debug_abbrev.
    CError NextUnit(CUnitHeader &header, bool &more);
    // Reads the unit's own entry. Fails when it is not a compilation, partial or skeleton unit, its
    // declaration is missing, a form is unknown, or a string or address it holds cannot be
    // found. Attributes it has no use for are skipped by their form.
    CError ReadUnitEntry(const CUnitHeader &header, CUnitEntry &entry);

    const CStringTables &Strings() const { return m_Strings; }
    CAbbrevSection &Abbrev() { return m_Abbrev; }
    const CDwarfSection &Section() const { return m_Sections.info; }

private:
    const CDwarfSections &m_Sections;
    CAbbrevSection &m_Abbrev;
    CStringTables m_Strings;
    uint64_t m_nNextUnit = 0;
};

} // namespace quillet
