#include "FileImage.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

CFileImage::~CFileImage() {
    if (m_bMapped)
        munmap(const_cast<uint8_t *>(m_pData), m_nSize);
}

bool CFileImage::Load(int fd, size_t size) {
    if (size == 0)
        return true;
    void *mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapped != MAP_FAILED) {
        m_pData = static_cast<const uint8_t *>(mapped);
        m_nSize = size;
        m_bMapped = true;
        return true;
    }
    m_Copy.resize(size);
    for (size_t done = 0; done < size;) {
        ssize_t n = pread(fd, m_Copy.data() + done, size - done, static_cast<off_t>(done));
        if (n <= 0) {
            // A short read without a system error: the file shrank while it was read.
            if (n == 0)
                errno = EIO;
            m_Copy.clear();
            return false;
        }
        done += static_cast<size_t>(n);
    }
    m_pData = m_Copy.data();
    m_nSize = size;
    return true;
}
