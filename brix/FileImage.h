// The bytes of an object file that is read back. The file is mapped rather than copied: a reader
// that asks for a few debugging sections of a large program touches their pages and the
// headers, and the code it never reads takes no memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class CFileImage {
public:
    CFileImage() = default;
    ~CFileImage();
    CFileImage(const CFileImage &) = delete;
    CFileImage &operator=(const CFileImage &) = delete;

    // Maps the first `size` bytes of the open file `fd`; where the system cannot map it, reads
    // them. False (with errno set) when neither works or the file is shorter than `size`.
    bool Load(int fd, size_t size);

    const uint8_t *data() const { return m_pData; }
    size_t size() const { return m_nSize; }
    bool empty() const { return m_nSize == 0; }
    uint8_t operator[](size_t i) const { return m_pData[i]; }

private:
    const uint8_t *m_pData = nullptr;
    size_t m_nSize = 0;
    bool m_bMapped = false;
    std::vector<uint8_t> m_Copy;
};
