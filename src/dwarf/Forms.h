// Attribute values of every form of DWARF 2 to 5 (and the GNU forms compilers still write): read
// from .debug_info entries and from version 5 line-table entries, and strings and indexed
// addresses resolved through the sections they point into.
#pragma once

#include "dwarf/AbbrevSection.h"
#include "dwarf/DwarfSection.h"
#include "platform/CError.h"

#include <cstdint>
#include <string_view>

namespace quillet {

// What the width of a form depends on: the version, address size and offset size of the unit
// (or line table) it is read in.
struct CFormContext {
    uint16_t m_nVersion = 2;
    uint8_t m_nAddressSize = 8;
    uint8_t m_nOffsetSize = 4;
};

// One attribute's value as read: a number (also an offset, an index or a reference), text read in
// place, or nothing for the blocks it skips. m_Section is the section an address or offset
// field's relocation names.
struct CAttributeValue {
    uint16_t m_nForm = 0;
    uint64_t m_nValue = 0;
    BrxHandle m_Section = 0;
    std::string_view m_Text; // DW_FORM_string
};

// Reads the value of `spec` at the cursor (DW_FORM_indirect followed); fails on a form it does
// not know, since the rest of the entry could not be found.
CError ReadAttribute(CDataCursor &cursor, const CAttributeSpec &spec, const CFormContext &context,
                     CAttributeValue &value);

bool IsStringForm(uint16_t form);
bool IsAddressForm(uint16_t form);

// The string and address tables that forms point into.
class CStringTables {
public:
    explicit CStringTables(const CDwarfSections &sections) : m_Sections(sections) {}

    // The text of a string value: in place, in .debug_str, in .debug_line_str, or by index
    // through .debug_str_offsets from `strOffsetsBase`. Fails for any other form, and for
    // strings of a supplementary file, which this reader does not have.
    CError String(const CAttributeValue &value, const CFormContext &context,
                  uint64_t strOffsetsBase, std::string_view &out) const;
    // The address of an address value: in place, or by index through .debug_addr from
    // `addrBase`; `section` receives the section its relocation names.
    CError Address(const CAttributeValue &value, const CFormContext &context, uint64_t addrBase,
                   uint64_t &address, BrxHandle &section) const;

private:
    const CDwarfSections &m_Sections;
};

} // namespace quillet
