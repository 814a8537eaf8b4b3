// LEB128 encodings of 64-bit values, as DWARF defines them. Writers advance a byte cursor;
// readers advance a cursor and never read at or past `end`.
#pragma once

#include <cstdint>

namespace quillet {

inline unsigned SizeULEB128(uint64_t value) {
    if (value == 0)
        return 1;
    return static_cast<unsigned>((70 - __builtin_clzll(value)) / 7);
}

inline unsigned SizeSLEB128(int64_t value) {
    unsigned size = 0;
    for (;;) {
        uint8_t byte = value & 0x7f;
        value >>= 7;
        ++size;
        if ((value == 0 && !(byte & 0x40)) || (value == -1 && (byte & 0x40)))
            return size;
    }
}

inline uint8_t *WriteULEB128(uint8_t *cursor, uint64_t value) {
    do {
        uint8_t byte = value & 0x7f;
        value >>= 7;
        if (value != 0)
            byte |= 0x80;
        *cursor++ = byte;
    } while (value != 0);
    return cursor;
}

inline uint8_t *WriteSLEB128(uint8_t *cursor, int64_t value) {
    for (;;) {
        uint8_t byte = value & 0x7f;
        value >>= 7; // arithmetic shift on every compiler this builds with
        bool done = (value == 0 && !(byte & 0x40)) || (value == -1 && (byte & 0x40));
        if (!done)
            byte |= 0x80;
        *cursor++ = byte;
        if (done)
            return cursor;
    }
}

// Reads an unsigned LEB128 value; bits beyond 64 are dropped. Stops at `end`: `ok` is cleared
// when the encoding runs past it.
inline uint64_t ReadULEB128(const uint8_t *&cursor, const uint8_t *end, bool &ok) {
    uint64_t result = 0;
    unsigned shift = 0;
    while (cursor < end) {
        uint8_t byte = *cursor++;
        if (shift < 64)
            result |= static_cast<uint64_t>(byte & 0x7f) << shift;
        shift += 7;
        if (!(byte & 0x80))
            return result;
    }
    ok = false;
    return result;
}

inline int64_t ReadSLEB128(const uint8_t *&cursor, const uint8_t *end, bool &ok) {
    uint64_t result = 0;
    unsigned shift = 0;
    uint8_t byte = 0;
    while (cursor < end) {
        byte = *cursor++;
        if (shift < 64)
            result |= static_cast<uint64_t>(byte & 0x7f) << shift;
        shift += 7;
        if (!(byte & 0x80)) {
            if (shift < 64 && (byte & 0x40))
                result |= ~uint64_t(0) << shift;
            return static_cast<int64_t>(result);
        }
    }
    ok = false;
    return static_cast<int64_t>(result);
}

} // namespace quillet
