// The reader of .debug_abbrev: the declarations of one abbreviation table, by code. One table is
// kept at a time (units that share a table, as most of one producer's units do, parse it once), so
// however many units name tables a hostile section holds, memory stays that of one table.
#pragma once

#include "platform/CError.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace quillet {

struct CAttributeSpec {
    uint16_t m_nAttribute;
    uint16_t m_nForm;
    int64_t m_nImplicitConst; // the value of a DW_FORM_implicit_const attribute
};

// One declaration: the entry's tag, whether children follow it, and its attributes in order.
struct CAbbrev {
    uint64_t m_nTag = 0;
    bool m_bChildren = false;
    std::vector<CAttributeSpec> m_Attributes;
};

class CAbbrevSection {
public:
    // The section's bytes stay owned by the caller.
    CAbbrevSection(const uint8_t *data, uint64_t size) : m_pData(data), m_nSize(size) {}

    uint64_t Size() const { return m_nSize; }

    // Makes the table at `offset` current, reading its declarations up to the terminating code
    // 0. Fails when it runs past the section, a declaration is cut short, or a code repeats.
    CError UseTable(uint64_t offset);
    // The declaration of `code` in the current table, or null.
    const CAbbrev *Find(uint64_t code) const;

private:
    const uint8_t *m_pData;
    uint64_t m_nSize;
    bool m_bHaveTable = false;
    uint64_t m_nTableOffset = 0;
    // Producers number declarations from 1: those codes index a vector, any others a map.
    std::vector<CAbbrev> m_Dense;
    std::unordered_map<uint64_t, CAbbrev> m_Sparse;
};

} // namespace quillet
