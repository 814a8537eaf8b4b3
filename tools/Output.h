// Standard output for the query commands, written in large blocks: a symbolizer answers
// millions of addresses, and one write per answer would cost more than the answers.
#ifndef QDBG_OUTPUT_H
#define QDBG_OUTPUT_H

#include <cstdint>
#include <string>
#include <string_view>

namespace qdbg {

class Output {
public:
    explicit Output(int fd = 1) : m_nFd(fd) { m_Buffer.reserve(kBlock + 1024); }
    ~Output() { Flush(); }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    Output &Put(std::string_view text) {
        m_Buffer.append(text.data(), text.size());
        return FlushIfFull();
    }
    Output &Put(char c) {
        m_Buffer.push_back(c);
        return FlushIfFull();
    }
    Output &PutDecimal(uint64_t value);
    Output &PutHex(uint64_t value); // "0x1f"
    // A JSON string: quoted, with quotes, backslashes and control characters escaped (the text
    // is UTF-8 and passes through otherwise).
    Output &PutJsonString(std::string_view text);

    // Writes what is gathered. False once a write has failed (standard output closed).
    bool Flush();
    bool Failed() const { return m_bFailed; }

private:
    static constexpr size_t kBlock = 64 * 1024;
    Output &FlushIfFull() {
        if (m_Buffer.size() >= kBlock)
            Flush();
        return *this;
    }

    int m_nFd;
    bool m_bFailed = false;
    std::string m_Buffer;
};

} // namespace qdbg

#endif
