// Expected bytes written out field by field, and little-endian fields read back, for the tests
// that compare output byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace qtest {

using Bytes = std::vector<uint8_t>;

inline void PutU16(Bytes &out, uint16_t v) {
    out.push_back(uint8_t(v));
    out.push_back(uint8_t(v >> 8));
}
inline void PutU32(Bytes &out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(v >> (8 * i)));
}
// The string and its terminating NUL.
inline void PutString(Bytes &out, const std::string &s) {
    out.insert(out.end(), s.begin(), s.end());
    out.push_back(0);
}
inline Bytes Text(const std::string &s) {
    Bytes out;
    PutString(out, s);
    return out;
}
inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline uint16_t U16(const Bytes &b, size_t at) {
    return uint16_t(b[at] | b[at + 1] << 8);
}
inline uint32_t U32(const Bytes &b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
           uint32_t(b[at + 3]) << 24;
}

} // namespace qtest
