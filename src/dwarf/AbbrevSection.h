// The reader of .debug_abbrev for retrieval: it reads the compilation unit's abbreviation, the
// first declaration at a unit's abbreviation offset, and keeps its attribute specifications.
#pragma once

#include "platform/CError.h"

#include <cstdint>
#include <vector>

namespace quillet {

enum : uint16_t {
    DW_TAG_compile_unit = 0x11,
};

struct CAttributeSpec {
    uint16_t m_nAttribute;
    uint16_t m_nForm;
};

class CAbbrevSection {
public:
    // The section's bytes stay owned by the caller.
    CAbbrevSection(const uint8_t *data, uint64_t size) : m_pData(data), m_nSize(size) {}

    uint64_t Size() const { return m_nSize; }

    // Reads the declaration at `offset`: it must be code 1, DW_TAG_compile_unit, with children.
    // Never reads past the declaration's terminating pair or the section's end.
    CError ParseFirstAbbrev(uint64_t offset);

    const std::vector<CAttributeSpec> &Attributes() const { return m_Attributes; }

private:
    const uint8_t *m_pData;
    uint64_t m_nSize;
    std::vector<CAttributeSpec> m_Attributes;
};

} // namespace quillet
