#include "dwarf/DwarfSection.h"

#include "dwarf/Leb128.h"

#include <algorithm>
#include <cstring>

namespace quillet {

namespace {

uint64_t ReadLittleEndian(const uint8_t *p, unsigned size) {
    uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i)
        value |= static_cast<uint64_t>(p[i]) << (8 * i);
    return value;
}

} // namespace

CRelocationMap::CRelocationMap(std::vector<CFieldRelocation> fields) : m_Fields(std::move(fields)) {
    auto byOffset = [](const CFieldRelocation &a, const CFieldRelocation &b) {
        return a.m_nOffset < b.m_nOffset;
    };
    if (!std::is_sorted(m_Fields.begin(), m_Fields.end(), byOffset))
        std::stable_sort(m_Fields.begin(), m_Fields.end(), byOffset);
}

const CFieldRelocation *CRelocationMap::Find(uint64_t offset) const {
    auto it = std::lower_bound(
        m_Fields.begin(), m_Fields.end(), offset,
        [](const CFieldRelocation &field, uint64_t value) { return field.m_nOffset < value; });
    return it != m_Fields.end() && it->m_nOffset == offset ? &*it : nullptr;
}

uint64_t CDwarfSection::Field(uint64_t offset, unsigned size, BrxHandle *section) const {
    if (section)
        *section = 0;
    if (m_pRelocations) {
        const CFieldRelocation *relocation = m_pRelocations->Find(offset);
        if (relocation && relocation->m_nSize == size) {
            if (section)
                *section = relocation->m_Section;
            return relocation->m_nValue;
        }
    }
    return ReadLittleEndian(m_pData + offset, size);
}

bool CDwarfSection::String(uint64_t offset, std::string_view &out) const {
    if (offset >= m_nSize)
        return false;
    const uint8_t *start = m_pData + offset;
    const void *nul = std::memchr(start, 0, static_cast<size_t>(m_nSize - offset));
    if (!nul)
        return false;
    out = std::string_view(reinterpret_cast<const char *>(start),
                           static_cast<size_t>(static_cast<const uint8_t *>(nul) - start));
    return true;
}

void CDataCursor::Fail() {
    if (m_bOk)
        m_nErrorOffset = m_nPosition;
    m_bOk = false;
}

bool CDataCursor::Take(uint64_t count) {
    if (!m_bOk || count > m_nEnd - m_nPosition) {
        Fail();
        return false;
    }
    return true;
}

uint64_t CDataCursor::Fixed(unsigned size) {
    if (!Take(size))
        return 0;
    uint64_t value = ReadLittleEndian(m_pSection->m_pData + m_nPosition, size);
    m_nPosition += size;
    return value;
}

uint64_t CDataCursor::Field(unsigned size, BrxHandle *section) {
    if (section)
        *section = 0;
    if (!Take(size))
        return 0;
    uint64_t value = m_pSection->Field(m_nPosition, size, section);
    m_nPosition += size;
    return value;
}

uint64_t CDataCursor::ULEB() {
    if (!m_bOk)
        return 0;
    const uint8_t *start = m_pSection->m_pData + m_nPosition;
    const uint8_t *p = start;
    bool ok = true;
    uint64_t value = ReadULEB128(p, m_pSection->m_pData + m_nEnd, ok);
    if (!ok) {
        Fail();
        return 0;
    }
    m_nPosition += static_cast<uint64_t>(p - start);
    return value;
}

int64_t CDataCursor::SLEB() {
    if (!m_bOk)
        return 0;
    const uint8_t *start = m_pSection->m_pData + m_nPosition;
    const uint8_t *p = start;
    bool ok = true;
    int64_t value = ReadSLEB128(p, m_pSection->m_pData + m_nEnd, ok);
    if (!ok) {
        Fail();
        return 0;
    }
    m_nPosition += static_cast<uint64_t>(p - start);
    return value;
}

std::string_view CDataCursor::CString() {
    if (!m_bOk)
        return {};
    const uint8_t *start = m_pSection->m_pData + m_nPosition;
    const void *nul = std::memchr(start, 0, static_cast<size_t>(m_nEnd - m_nPosition));
    if (!nul) {
        Fail();
        return {};
    }
    size_t length = static_cast<size_t>(static_cast<const uint8_t *>(nul) - start);
    m_nPosition += length + 1;
    return std::string_view(reinterpret_cast<const char *>(start), length);
}

void CDataCursor::Skip(uint64_t count) {
    if (Take(count))
        m_nPosition += count;
}

} // namespace quillet
