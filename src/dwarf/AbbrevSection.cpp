#include "dwarf/AbbrevSection.h"

#include "dwarf/Leb128.h"

namespace quillet {

namespace {
constexpr uint64_t kCompileUnitCode = 1;
constexpr uint8_t kHasChildren = 1;
} // namespace

CError CAbbrevSection::ParseFirstAbbrev(uint64_t offset) {
    m_Attributes.clear();
    if (offset >= m_nSize)
        return kFailed;
    const uint8_t *p = m_pData + offset;
    const uint8_t *end = m_pData + m_nSize;
    bool ok = true;
    uint64_t code = ReadULEB128(p, end, ok);
    uint64_t tag = ReadULEB128(p, end, ok);
    if (!ok || code != kCompileUnitCode || tag != DW_TAG_compile_unit || p >= end ||
        *p++ != kHasChildren)
        return kFailed;
    for (;;) {
        if (end - p < 2)
            return kFailed;
        if (p[0] == 0 && p[1] == 0)
            return kOk;
        uint64_t attribute = ReadULEB128(p, end, ok);
        uint64_t form = ReadULEB128(p, end, ok);
        if (!ok)
            return kFailed;
        m_Attributes.push_back(
            CAttributeSpec{static_cast<uint16_t>(attribute), static_cast<uint16_t>(form)});
    }
}

} // namespace quillet
