#include "dwarf/AbbrevSection.h"

#include "dwarf/DwarfConstants.h"
#include "dwarf/Leb128.h"

namespace quillet {

CError CAbbrevSection::UseTable(uint64_t offset) {
    if (m_bHaveTable && m_nTableOffset == offset)
        return kOk;
    m_bHaveTable = false;
    m_Dense.clear();
    m_Sparse.clear();
    if (offset >= m_nSize)
        return kFailed;
    const uint8_t *p = m_pData + offset;
    const uint8_t *end = m_pData + m_nSize;
    bool ok = true;
    for (;;) {
        uint64_t code = ReadULEB128(p, end, ok);
        if (!ok)
            return kFailed;
        if (code == 0)
            break;
        CAbbrev abbrev;
        abbrev.m_nTag = ReadULEB128(p, end, ok);
        if (!ok || p >= end)
            return kFailed;
        abbrev.m_bChildren = *p++ == dwarf::DW_CHILDREN_yes;
        for (;;) {
            uint64_t attribute = ReadULEB128(p, end, ok);
            uint64_t form = ReadULEB128(p, end, ok);
            if (!ok)
                return kFailed;
            if (attribute == 0 && form == 0)
                break;
            int64_t implicitConst = 0;
            if (form == dwarf::DW_FORM_implicit_const) {
                implicitConst = ReadSLEB128(p, end, ok);
                if (!ok)
                    return kFailed;
            }
            abbrev.m_Attributes.push_back(CAttributeSpec{
                static_cast<uint16_t>(attribute), static_cast<uint16_t>(form), implicitConst});
        }
        if (code == m_Dense.size() + 1) {
            m_Dense.push_back(std::move(abbrev));
        } else if ((code <= m_Dense.size() && code != 0) ||
                   !m_Sparse.emplace(code, std::move(abbrev)).second) {
            return kFailed; // a code declared twice
        }
    }
    m_bHaveTable = true;
    m_nTableOffset = offset;
    return kOk;
}

const CAbbrev *CAbbrevSection::Find(uint64_t code) const {
    if (code >= 1 && code <= m_Dense.size())
        return &m_Dense[code - 1];
    auto it = m_Sparse.find(code);
    return it == m_Sparse.end() ? nullptr : &it->second;
}

} // namespace quillet
