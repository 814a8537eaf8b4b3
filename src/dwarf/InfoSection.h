// The reader of .debug_info for retrieval: unit by unit, it reads the header and the
// compilation-unit entry, and keeps what the line decoder needs of it (the line program's offset
// and the compilation directory) and the names that make the retrieval module.
#pragma once

#include "dwarf/AbbrevSection.h"
#include "platform/CError.h"

#include <cstdint>
#include <string_view>

namespace quillet {

enum : uint16_t {
    DW_AT_name = 0x03,
    DW_AT_stmt_list = 0x10,
    DW_AT_low_pc = 0x11,
    DW_AT_high_pc = 0x12,
    DW_AT_comp_dir = 0x1b,
    DW_AT_producer = 0x25,
};

enum : uint16_t {
    DW_FORM_addr = 0x01,
    DW_FORM_block2 = 0x03,
    DW_FORM_block4 = 0x04,
    DW_FORM_data2 = 0x05,
    DW_FORM_data4 = 0x06,
    DW_FORM_data8 = 0x07,
    DW_FORM_string = 0x08,
    DW_FORM_block = 0x09,
    DW_FORM_block1 = 0x0a,
    DW_FORM_data1 = 0x0b,
    DW_FORM_flag = 0x0c,
    DW_FORM_sdata = 0x0d,
    DW_FORM_strp = 0x0e,
    DW_FORM_udata = 0x0f,
    DW_FORM_ref_addr = 0x10,
    DW_FORM_ref1 = 0x11,
    DW_FORM_ref2 = 0x12,
    DW_FORM_ref4 = 0x13,
    DW_FORM_ref8 = 0x14,
    DW_FORM_ref_udata = 0x15,
    DW_FORM_indirect = 0x16,
    DW_FORM_sec_offset = 0x17,
    DW_FORM_exprloc = 0x18,
    DW_FORM_flag_present = 0x19,
    DW_FORM_ref_sig8 = 0x20,
};

class CInfoSection {
public:
    // The section's bytes stay owned by the caller. `strings` (.debug_str) may be empty; then a
    // name in DW_FORM_strp cannot be read.
    CInfoSection(const uint8_t *data, uint64_t size, CAbbrevSection &abbrev,
                 const uint8_t *strings = nullptr, uint64_t stringsSize = 0)
        : m_pData(data), m_nSize(size), m_Abbrev(abbrev), m_pStrings(strings),
          m_nStringsSize(stringsSize) {}

    // Reads the unit at the next-unit offset and moves that offset past it. Fails on a version
    // other than 2, an abbreviation offset outside .debug_abbrev, a first declaration that is not
    // the compilation unit's, an entry code other than 1, a form it cannot read, or a missing name,
    // directory or producer. Attributes it has no use for are skipped by their form.
    CError ParseUnit();

    bool IsLastUnit() const { return m_bLastUnit; }
    uint64_t NextUnitOffset() const { return m_nNextUnit; }
    uint8_t AddressSize() const { return m_nAddressSize; }
    std::string_view Name() const { return m_Name; }
    std::string_view CompilationDirectory() const { return m_Directory; }
    std::string_view Producer() const { return m_Producer; }
    uint64_t StatementList() const { return m_nStatementList; }
    uint64_t LowAddress() const { return m_nLowAddress; }
    uint64_t HighAddress() const { return m_nHighAddress; }

private:
    CError ReadString(const uint8_t *&p, const uint8_t *end, uint16_t form, unsigned offsetSize,
                      std::string_view &out);

    const uint8_t *m_pData;
    uint64_t m_nSize;
    CAbbrevSection &m_Abbrev;
    const uint8_t *m_pStrings;
    uint64_t m_nStringsSize;

    uint64_t m_nNextUnit = 0;
    bool m_bLastUnit = false;
    uint8_t m_nAddressSize = 0;
    std::string_view m_Name, m_Directory, m_Producer;
    uint64_t m_nStatementList = 0;
    uint64_t m_nLowAddress = 0;
    uint64_t m_nHighAddress = 0;
};

} // namespace quillet
