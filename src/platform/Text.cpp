#include "platform/Text.h"

#include <unistd.h>

#include <vector>

namespace quillet {

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char16_t c : text) {
        if (c < 0x80) {
            out.push_back(char(c));
        } else if (c < 0x800) {
            out.push_back(char(0xc0 | (c >> 6)));
            out.push_back(char(0x80 | (c & 0x3f)));
        } else {
            out.push_back(char(0xe0 | (c >> 12)));
            out.push_back(char(0x80 | ((c >> 6) & 0x3f)));
            out.push_back(char(0x80 | (c & 0x3f)));
        }
    }
    return out;
}

std::u16string FromUtf8(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    size_t i = 0;
    auto continuation = [&](size_t k) {
        return k < text.size() && (uint8_t(text[k]) & 0xc0) == 0x80;
    };
    while (i < text.size()) {
        uint8_t c = uint8_t(text[i]);
        if (c >= 0xe0 && c < 0xf0 && continuation(i + 1) && continuation(i + 2)) {
            out.push_back(char16_t(((c & 0x0f) << 12) | ((uint8_t(text[i + 1]) & 0x3f) << 6) |
                                   (uint8_t(text[i + 2]) & 0x3f)));
            i += 3;
        } else if (c >= 0xc0 && c < 0xe0 && continuation(i + 1)) {
            out.push_back(char16_t(((c & 0x1f) << 6) | (uint8_t(text[i + 1]) & 0x3f)));
            i += 2;
        } else {
            out.push_back(char16_t(c));
            ++i;
        }
    }
    return out;
}

std::u16string WideCopy(const char16_t *text) {
    return text ? std::u16string(text) : std::u16string();
}

void LowerAscii(std::string &text) {
    for (char &c : text)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
}

std::u16string WorkingDirectory() {
    std::vector<char> buffer(4096);
    if (!getcwd(buffer.data(), buffer.size()))
        return std::u16string();
    return FromUtf8(buffer.data());
}

bool IsAbsolutePath(std::u16string_view path) {
    if (path.empty())
        return false;
    return path[0] == u'/' || path[0] == u'\\' || (path.size() > 1 && path[1] == u':');
}

std::u16string JoinPath(std::u16string_view directory, std::u16string_view name) {
    std::u16string out(directory);
    if (!out.empty() && out.back() != u'/' && out.back() != u'\\')
        out.push_back(out[0] == u'/' ? u'/' : u'\\');
    out.append(name);
    return out;
}

} // namespace quillet
