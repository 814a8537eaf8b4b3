// The one little-endian writer through which every record is built. It writes into a buffer of
// the record's computed length; Finish() checks that exactly that many bytes were produced.
#pragma once

#include "dwarf/Leb128.h"
#include "platform/Check.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace quillet {

class ByteWriter {
public:
    // Writes into a buffer of exactly `length` bytes, owned by the writer. Records that fit the
    // writer's inline storage (most of them) cost no heap allocation.
    explicit ByteWriter(size_t length) : m_Length(length), m_Size(0) {
        if (length > sizeof(m_Inline)) {
            m_Heap.resize(length);
            m_Data = m_Heap.data();
        }
    }
    ByteWriter(const ByteWriter &) = delete;
    ByteWriter &operator=(const ByteWriter &) = delete;

    void U8(uint8_t v) { Put(&v, 1); }
    void U16(uint16_t v) {
        uint8_t b[2] = {uint8_t(v), uint8_t(v >> 8)};
        Put(b, 2);
    }
    void U32(uint32_t v) {
        uint8_t b[4];
        for (int i = 0; i < 4; ++i)
            b[i] = uint8_t(v >> (8 * i));
        Put(b, 4);
    }
    void U64(uint64_t v) {
        uint8_t b[8];
        for (int i = 0; i < 8; ++i)
            b[i] = uint8_t(v >> (8 * i));
        Put(b, 8);
    }
    // An address-sized field: 4 or 8 bytes of the value.
    void Address(uint64_t v, unsigned width) { width == 4 ? U32(uint32_t(v)) : U64(v); }
    void Zeros(size_t n) {
        for (size_t i = 0; i < n; ++i)
            U8(0);
    }
    void ULEB(uint64_t v) {
        uint8_t b[10];
        Put(b, WriteULEB128(b, v) - b);
    }
    void SLEB(int64_t v) {
        uint8_t b[10];
        Put(b, WriteSLEB128(b, v) - b);
    }
    // The bytes of the string followed by one NUL.
    void CString(std::string_view s) {
        Put(reinterpret_cast<const uint8_t *>(s.data()), s.size());
        U8(0);
    }
    void Bytes(const void *data, size_t n) { Put(static_cast<const uint8_t *>(data), n); }

    size_t Size() const { return m_Size; }
    const uint8_t *Data() const { return m_Data; }
    // True when the bytes produced are exactly the computed length (reported otherwise).
    bool Finish() const { return QCHECK(m_Size == m_Length) && !m_Overflow; }

private:
    void Put(const uint8_t *p, size_t n) {
        if (m_Size + n > m_Length) {
            m_Overflow = true;
            QCHECK(m_Size + n <= m_Length);
            return;
        }
        if (n)
            std::memcpy(m_Data + m_Size, p, n);
        m_Size += n;
    }

    uint8_t m_Inline[256];
    std::vector<uint8_t> m_Heap;
    uint8_t *m_Data = m_Inline;
    size_t m_Length;
    size_t m_Size;
    bool m_Overflow = false;
};

} // namespace quillet
