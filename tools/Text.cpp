#include "Text.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace qdbg {

std::optional<uint64_t> ParseUnsigned(const std::string &text) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return std::nullopt;
    int base = 10;
    size_t start = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        start = 2;
    }
    // strtoull accepts leading blanks and signs; they were refused above, and a second "0x"
    // after the prefix is refused here.
    if (base == 16 && !std::isxdigit(static_cast<unsigned char>(text[start])))
        return std::nullopt;
    errno = 0;
    char *end = nullptr;
    unsigned long long value = std::strtoull(text.c_str() + start, &end, base);
    if (errno != 0 || end != text.c_str() + text.size())
        return std::nullopt;
    return static_cast<uint64_t>(value);
}

std::optional<int64_t> ParseSigned(const std::string &text) {
    bool negative = !text.empty() && text[0] == '-';
    std::optional<uint64_t> magnitude = ParseUnsigned(negative ? text.substr(1) : text);
    if (!magnitude)
        return std::nullopt;
    if (negative) {
        if (*magnitude > uint64_t(INT64_MAX) + 1)
            return std::nullopt;
        return static_cast<int64_t>(0 - *magnitude);
    }
    if (*magnitude > uint64_t(INT64_MAX))
        return std::nullopt;
    return static_cast<int64_t>(*magnitude);
}

std::u16string ToUtf16(const std::string &text) {
    std::u16string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        uint32_t code = 0xFFFD;
        size_t length = 1;
        if (c < 0x80) {
            code = c;
        } else if ((c & 0xE0) == 0xC0) {
            length = 2;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4;
        }
        if (length > 1) {
            bool valid = i + length <= text.size();
            uint32_t value = c & (0xFF >> (length + 1));
            for (size_t k = 1; valid && k < length; ++k) {
                unsigned char next = static_cast<unsigned char>(text[i + k]);
                valid = (next & 0xC0) == 0x80;
                value = (value << 6) | (next & 0x3F);
            }
            if (valid) {
                code = value;
            } else {
                length = 1;
            }
        }
        if (code >= 0x10000) {
            code -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(code));
        }
        i += length;
    }
    return out;
}

std::string ToUtf8(const char16_t *text, size_t max_units) {
    std::string out;
    for (size_t i = 0; i < max_units && text[i] != 0; ++i) {
        uint32_t code = text[i];
        if (code >= 0xD800 && code < 0xDC00 && i + 1 < max_units && text[i + 1] >= 0xDC00 &&
            text[i + 1] < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (code >= 0xD800 && code < 0xE000) {
            code = 0xFFFD;
        }
        if (code < 0x80) {
            out.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (code >> 6)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (code >> 12)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (code >> 18)));
            out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    return out;
}

std::string Hex(uint64_t value) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    do {
        out.insert(out.begin(), digits[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    return "0x" + out;
}

} // namespace qdbg
