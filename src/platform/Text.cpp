#include "platform/Text.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

namespace quillet {

namespace {
constexpr char16_t kHighSurrogateFirst = 0xD800, kLowSurrogateFirst = 0xDC00;
constexpr char16_t kLowSurrogateLast = 0xDFFF;
constexpr uint32_t kFirstSupplementary = 0x10000;

bool IsHighSurrogate(char16_t c) {
    return c >= kHighSurrogateFirst && c < kLowSurrogateFirst;
}
bool IsLowSurrogate(char16_t c) {
    return c >= kLowSurrogateFirst && c <= kLowSurrogateLast;
}
bool IsContinuation(uint8_t c) {
    return (c & 0xc0) == 0x80;
}
} // namespace

std::string ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c < 0x80) {
            out.push_back(char(c));
        } else if (c < 0x800) {
            out.push_back(char(0xc0 | (c >> 6)));
            out.push_back(char(0x80 | (c & 0x3f)));
        } else if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
            // A surrogate pair is one character outside the Basic Multilingual Plane.
            const uint32_t cp = kFirstSupplementary + ((uint32_t(c - kHighSurrogateFirst) << 10) |
                                                       uint32_t(text[++i] - kLowSurrogateFirst));
            out.push_back(char(0xf0 | (cp >> 18)));
            out.push_back(char(0x80 | ((cp >> 12) & 0x3f)));
            out.push_back(char(0x80 | ((cp >> 6) & 0x3f)));
            out.push_back(char(0x80 | (cp & 0x3f)));
        } else {
            // Lone surrogate halves too, so that no unit is lost.
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
        return k < text.size() && IsContinuation(uint8_t(text[k]));
    };
    auto bits = [&](size_t k) { return uint32_t(uint8_t(text[k]) & 0x3f); };
    while (i < text.size()) {
        uint8_t c = uint8_t(text[i]);
        if (c >= 0xf0 && c < 0xf5 && continuation(i + 1) && continuation(i + 2) &&
            continuation(i + 3)) {
            const uint32_t cp =
                ((c & 0x07u) << 18) | (bits(i + 1) << 12) | (bits(i + 2) << 6) | bits(i + 3);
            if (cp >= kFirstSupplementary && cp <= 0x10ffff) {
                out.push_back(char16_t(kHighSurrogateFirst + ((cp - kFirstSupplementary) >> 10)));
                out.push_back(char16_t(kLowSurrogateFirst + ((cp - kFirstSupplementary) & 0x3ff)));
                i += 4;
                continue;
            }
        }
        if (c >= 0xe0 && c < 0xf0 && continuation(i + 1) && continuation(i + 2)) {
            out.push_back(char16_t(((c & 0x0f) << 12) | (bits(i + 1) << 6) | bits(i + 2)));
            i += 3;
        } else if (c >= 0xc0 && c < 0xe0 && continuation(i + 1)) {
            out.push_back(char16_t(((c & 0x1f) << 6) | bits(i + 1)));
            i += 2;
        } else {
            out.push_back(char16_t(c));
            ++i;
        }
    }
    return out;
}

void CutUtf8(std::string &text, size_t limit) {
    if (text.size() <= limit)
        return;
    size_t end = limit;
    while (end > 0 && IsContinuation(uint8_t(text[end])))
        --end;
    text.resize(end);
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
    // A directory may be longer than any fixed buffer: grow until it fits.
    std::vector<char> buffer(4096);
    while (!getcwd(buffer.data(), buffer.size())) {
        if (errno != ERANGE)
            return std::u16string();
        buffer.resize(buffer.size() * 2);
    }
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
