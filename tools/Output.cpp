#include "Output.h"

#include <unistd.h>

#include <cerrno>

namespace qdbg {

Output &Output::PutDecimal(uint64_t value) {
    char digits[20];
    size_t count = 0;
    do {
        digits[count++] = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count > 0)
        m_Buffer.push_back(digits[--count]);
    return FlushIfFull();
}

Output &Output::PutHex(uint64_t value) {
    static const char kDigits[] = "0123456789abcdef";
    char digits[16];
    size_t count = 0;
    do {
        digits[count++] = kDigits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    m_Buffer.append("0x");
    while (count > 0)
        m_Buffer.push_back(digits[--count]);
    return FlushIfFull();
}

Output &Output::PutJsonString(std::string_view text) {
    static const char kDigits[] = "0123456789abcdef";
    m_Buffer.push_back('"');
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            m_Buffer.push_back('\\');
            m_Buffer.push_back(c);
        } else if (byte < 0x20) {
            m_Buffer.append("\\u00");
            m_Buffer.push_back(kDigits[byte >> 4]);
            m_Buffer.push_back(kDigits[byte & 0xF]);
        } else {
            m_Buffer.push_back(c);
        }
    }
    m_Buffer.push_back('"');
    return FlushIfFull();
}

bool Output::Flush() {
    size_t done = 0;
    while (!m_bFailed && done < m_Buffer.size()) {
        ssize_t written = write(m_nFd, m_Buffer.data() + done, m_Buffer.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            m_bFailed = true;
        else
            done += size_t(written);
    }
    m_Buffer.clear();
    return !m_bFailed;
}

} // namespace qdbg
