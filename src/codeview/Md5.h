// MD5 message digest (RFC 1321). The file-checksum table names each source file by the MD5 of its
// bytes, so that a debugger can tell whether the file it shows is the one that was assembled.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace quillet {

using Md5Digest = std::array<uint8_t, 16>;

// Incremental digest: Update any number of times, then Final once.
class CMd5 {
public:
    CMd5();
    void Update(const void *data, size_t length);
    // Pads the message, appends its bit length and returns the digest. The object is spent after.
    Md5Digest Final();

    static Md5Digest Of(const void *data, size_t length);

private:
    void Transform(const uint8_t *block);

    uint32_t m_State[4];
    uint64_t m_nBytes = 0; // message length so far
    uint8_t m_Block[64];   // the incomplete block
};

} // namespace quillet
