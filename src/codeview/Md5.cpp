#include "codeview/Md5.h"

#include <cstring>

namespace quillet {
namespace {

// floor(abs(sin(i + 1)) * 2^32) for i = 0..63.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts, four per round.
constexpr unsigned kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

inline uint32_t RotateLeft(uint32_t x, unsigned n) {
    return (x << n) | (x >> (32 - n));
}

inline uint32_t LoadLE32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

} // namespace

CMd5::CMd5() : m_State{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476} {}

void CMd5::Transform(const uint8_t *block) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i)
        x[i] = LoadLE32(block + 4 * i);

    uint32_t a = m_State[0], b = m_State[1], c = m_State[2], d = m_State[3];
    for (unsigned i = 0; i < 64; ++i) {
        const unsigned round = i / 16;
        uint32_t f;
        unsigned g;
        switch (round) {
        case 0:
            f = (b & c) | (~b & d);
            g = i;
            break;
        case 1:
            f = (b & d) | (c & ~d);
            g = (5 * i + 1) % 16;
            break;
        case 2:
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
            break;
        default:
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
            break;
        }
        const uint32_t rotated = RotateLeft(a + f + x[g] + kSine[i], kShift[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b = b + rotated;
    }
    m_State[0] += a;
    m_State[1] += b;
    m_State[2] += c;
    m_State[3] += d;
}

void CMd5::Update(const void *data, size_t length) {
    const uint8_t *p = static_cast<const uint8_t *>(data);
    size_t used = size_t(m_nBytes % 64);
    m_nBytes += length;
    if (used) {
        const size_t take = length < 64 - used ? length : 64 - used;
        std::memcpy(m_Block + used, p, take);
        p += take;
        length -= take;
        used += take;
        if (used < 64)
            return;
        Transform(m_Block);
    }
    for (; length >= 64; p += 64, length -= 64)
        Transform(p);
    if (length)
        std::memcpy(m_Block, p, length);
}

Md5Digest CMd5::Final() {
    // One 0x80 byte, zeros up to 56 bytes modulo 64, then the message length in bits.
    const uint64_t bits = m_nBytes * 8;
    uint8_t padding[72] = {0x80};
    const size_t used = size_t(m_nBytes % 64);
    const size_t padLength = used < 56 ? 56 - used : 120 - used;
    for (int i = 0; i < 8; ++i)
        padding[padLength + i] = uint8_t(bits >> (8 * i));
    Update(padding, padLength + 8);

    Md5Digest digest;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            digest[4 * i + j] = uint8_t(m_State[i] >> (8 * j));
    return digest;
}

Md5Digest CMd5::Of(const void *data, size_t length) {
    CMd5 md5;
    md5.Update(data, length);
    return md5.Final();
}

} // namespace quillet
