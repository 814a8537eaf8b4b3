// Bounds-checked reading of a file image. Every read names its offset; a read past the end
// answers 0 and marks the reader failed, so a parser can read a whole record and check once.
#pragma once

#include <cstdint>
#include <string_view>

namespace brix {

class CByteReader {
public:
    CByteReader(const uint8_t *data, uint64_t size, bool bigEndian = false)
        : m_pData(data), m_nSize(size), m_bBigEndian(bigEndian) {}

    uint64_t Size() const { return m_nSize; }
    const uint8_t *Data() const { return m_pData; }
    bool Failed() const { return m_bFailed; }
    void Fail() { m_bFailed = true; }

    // True when [offset, offset + length) lies inside the image.
    bool Contains(uint64_t offset, uint64_t length) const {
        return offset <= m_nSize && length <= m_nSize - offset;
    }

    uint8_t U8(uint64_t at) { return uint8_t(Get(at, 1)); }
    uint16_t U16(uint64_t at) { return uint16_t(Get(at, 2)); }
    uint32_t U32(uint64_t at) { return uint32_t(Get(at, 4)); }
    uint64_t U64(uint64_t at) { return Get(at, 8); }
    // A 4- or 8-byte word.
    uint64_t Word(uint64_t at, unsigned width) { return Get(at, width); }

    // The NUL-terminated string at `at`, which must end before `limit` (an offset of the image).
    bool CString(uint64_t at, uint64_t limit, std::string_view &out) {
        if (limit > m_nSize || at >= limit) {
            m_bFailed = true;
            return false;
        }
        for (uint64_t i = at; i < limit; ++i) {
            if (m_pData[i] == 0) {
                out = std::string_view(reinterpret_cast<const char *>(m_pData + at), i - at);
                return true;
            }
        }
        m_bFailed = true;
        return false;
    }

private:
    uint64_t Get(uint64_t at, unsigned width) {
        if (!Contains(at, width)) {
            m_bFailed = true;
            return 0;
        }
        uint64_t v = 0;
        for (unsigned i = 0; i < width; ++i) {
            unsigned shift = m_bBigEndian ? 8 * (width - 1 - i) : 8 * i;
            v |= uint64_t(m_pData[at + i]) << shift;
        }
        return v;
    }

    const uint8_t *m_pData;
    uint64_t m_nSize;
    bool m_bBigEndian;
    bool m_bFailed = false;
};

} // namespace brix
