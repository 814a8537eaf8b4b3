// Little-endian output for the writers: appends fields at the end and patches fields that are
// known only later (offsets of data that follows the headers).
//
// A sink made with a path streams the file: bytes gather in a small buffer that goes to the file
// whenever it fills, large blocks (section contents) go straight through, and patches of bytes
// already written are kept and applied once everything else is out. The file is opened only
// when the first bytes leave the buffer, so a writer that gives up early leaves no file behind.
// A sink made without a path keeps everything in memory (Data()).
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace brix {

class CByteBuffer {
public:
    CByteBuffer() = default;
    explicit CByteBuffer(std::string path) : m_Path(std::move(path)), m_bStreams(true) {}
    ~CByteBuffer() {
        if (m_pFile)
            std::fclose(m_pFile);
    }
    CByteBuffer(const CByteBuffer &) = delete;
    CByteBuffer &operator=(const CByteBuffer &) = delete;

    uint64_t Size() const { return m_nFlushed + m_Out.size(); }
    // The bytes of an in-memory sink.
    const std::vector<uint8_t> &Data() const { return m_Out; }

    void U8(uint8_t v) {
        m_Out.push_back(v);
        Spill();
    }
    void U16(uint16_t v) { Put(v, 2); }
    void U32(uint32_t v) { Put(v, 4); }
    void U64(uint64_t v) { Put(v, 8); }
    // A word of the file's class: 4 bytes for ELF32, 8 for ELF64.
    void Word(uint64_t v, unsigned width) { Put(v, width); }
    void Bytes(const void *data, size_t n) {
        const uint8_t *p = static_cast<const uint8_t *>(data);
        if (m_bStreams && n >= kDirect) {
            Flush();
            if (!m_bFailed && std::fwrite(p, 1, n, m_pFile) != n)
                Fail();
            m_nFlushed += n;
            return;
        }
        m_Out.insert(m_Out.end(), p, p + n);
        Spill();
    }
    void Zeros(uint64_t n) {
        while (n > 0) {
            size_t step = m_bStreams && n > kChunk ? kChunk : size_t(n);
            m_Out.resize(m_Out.size() + step, 0);
            Spill();
            n -= step;
        }
    }
    void AlignTo(uint64_t alignment) {
        if (alignment > 1 && Size() % alignment != 0)
            Zeros(alignment - Size() % alignment);
    }
    // A name field of fixed width, zero padded (the caller makes sure the name fits).
    void FixedString(std::string_view s, size_t width) {
        Bytes(s.data(), s.size() < width ? s.size() : width);
        if (s.size() < width)
            Zeros(width - s.size());
    }

    void PatchU16(uint64_t at, uint16_t v) { Patch(at, v, 2); }
    void PatchU32(uint64_t at, uint32_t v) { Patch(at, v, 4); }
    void PatchWord(uint64_t at, uint64_t v, unsigned width) { Patch(at, v, width); }
    // Replaces bytes written before (the whole range must have been written).
    void PatchBytes(uint64_t at, const uint8_t *data, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            if (at + i >= m_nFlushed) {
                m_Out[at + i - m_nFlushed] = data[i];
            } else if (m_Patches.empty() ||
                       m_Patches.back().m_nAt + m_Patches.back().m_Bytes.size() != at + i) {
                m_Patches.push_back({at + i, {data[i]}});
            } else {
                m_Patches.back().m_Bytes.push_back(data[i]);
            }
        }
    }

    // Streaming sinks: writes what is left and the patches, and closes the file. False when
    // anything could not be written.
    bool Finish() {
        if (!m_bStreams)
            return true;
        Flush();
        for (const CPatch &p : m_Patches) {
            if (m_bFailed)
                break;
            if (fseeko(m_pFile, off_t(p.m_nAt), SEEK_SET) != 0 ||
                std::fwrite(p.m_Bytes.data(), 1, p.m_Bytes.size(), m_pFile) != p.m_Bytes.size())
                Fail();
        }
        if (m_pFile && std::fclose(m_pFile) != 0)
            Fail();
        m_pFile = nullptr;
        return !m_bFailed;
    }
    // The system's reason (errno) for the first write that failed; 0 when none did.
    int Error() const { return m_nError; }
    // Streaming sinks: gives up, before or after Finish; a regular file already begun is
    // removed, so that no build takes a truncated object for a finished one. A device or a pipe
    // the path names is left alone.
    void Abandon() {
        if (!m_bStreams)
            return;
        if (m_pFile)
            std::fclose(m_pFile);
        m_pFile = nullptr;
        if (m_bRemovable)
            std::remove(m_Path.c_str());
        m_bRemovable = false;
        m_Out.clear();
        m_bFailed = true;
    }

private:
    static constexpr size_t kChunk = 64 * 1024;  // the buffer goes out when it holds this much
    static constexpr size_t kDirect = 16 * 1024; // blocks this large bypass the buffer

    struct CPatch {
        uint64_t m_nAt;
        std::vector<uint8_t> m_Bytes;
    };

    void Put(uint64_t v, unsigned width) {
        uint8_t bytes[8];
        for (unsigned i = 0; i < width; ++i)
            bytes[i] = uint8_t(v >> (8 * i));
        m_Out.insert(m_Out.end(), bytes, bytes + width);
        Spill();
    }
    void Patch(uint64_t at, uint64_t v, unsigned width) {
        uint8_t bytes[8];
        for (unsigned i = 0; i < width; ++i)
            bytes[i] = uint8_t(v >> (8 * i));
        PatchBytes(at, bytes, width);
    }
    void Spill() {
        if (m_bStreams && m_Out.size() >= kChunk)
            Flush();
    }
    void Open() {
        m_pFile = std::fopen(m_Path.c_str(), "wb");
        if (!m_pFile) {
            Fail();
            return;
        }
        struct stat info;
        m_bRemovable = fstat(fileno(m_pFile), &info) == 0 && S_ISREG(info.st_mode);
    }
    void Fail() {
        if (!m_bFailed)
            m_nError = errno != 0 ? errno : EIO;
        m_bFailed = true;
    }
    // After a failure the bytes are dropped, so the buffer stays small.
    void Flush() {
        if (!m_bStreams)
            return;
        if (!m_pFile && !m_bFailed)
            Open();
        if (!m_bFailed && !m_Out.empty() &&
            std::fwrite(m_Out.data(), 1, m_Out.size(), m_pFile) != m_Out.size())
            Fail();
        m_nFlushed += m_Out.size();
        m_Out.clear();
    }

    std::vector<uint8_t> m_Out;
    std::string m_Path;
    bool m_bStreams = false;
    bool m_bFailed = false;
    int m_nError = 0;
    std::FILE *m_pFile = nullptr;
    bool m_bRemovable = false; // the file this sink opened is a regular file
    uint64_t m_nFlushed = 0;   // bytes that left the buffer
    std::vector<CPatch> m_Patches;
};

} // namespace brix
