// Little-endian output buffer for the writers: appends fields at the end and patches fields that
// are known only later (offsets of data that follows the headers).
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace brix {

class CByteBuffer {
public:
    explicit CByteBuffer(std::vector<uint8_t> &out) : m_Out(out) {}

    size_t Size() const { return m_Out.size(); }
    void Reserve(size_t n) { m_Out.reserve(n); }

    void U8(uint8_t v) { m_Out.push_back(v); }
    void U16(uint16_t v) { Put(v, 2); }
    void U32(uint32_t v) { Put(v, 4); }
    void U64(uint64_t v) { Put(v, 8); }
    // A word of the file's class: 4 bytes for ELF32, 8 for ELF64.
    void Word(uint64_t v, unsigned width) { Put(v, width); }
    void Bytes(const void *data, size_t n) {
        const uint8_t *p = static_cast<const uint8_t *>(data);
        m_Out.insert(m_Out.end(), p, p + n);
    }
    void Zeros(size_t n) { m_Out.resize(m_Out.size() + n, 0); }
    void AlignTo(uint64_t alignment) {
        if (alignment > 1 && m_Out.size() % alignment != 0)
            Zeros(alignment - m_Out.size() % alignment);
    }
    // A name field of fixed width, zero padded (the caller makes sure the name fits).
    void FixedString(std::string_view s, size_t width) {
        Bytes(s.data(), s.size() < width ? s.size() : width);
        if (s.size() < width)
            Zeros(width - s.size());
    }

    void PatchU16(size_t at, uint16_t v) { Patch(at, v, 2); }
    void PatchU32(size_t at, uint32_t v) { Patch(at, v, 4); }
    void PatchWord(size_t at, uint64_t v, unsigned width) { Patch(at, v, width); }

private:
    void Put(uint64_t v, unsigned width) {
        for (unsigned i = 0; i < width; ++i)
            m_Out.push_back(uint8_t(v >> (8 * i)));
    }
    void Patch(size_t at, uint64_t v, unsigned width) {
        for (unsigned i = 0; i < width; ++i)
            m_Out[at + i] = uint8_t(v >> (8 * i));
    }

    std::vector<uint8_t> &m_Out;
};

} // namespace brix
