// 128-bit unsigned arithmetic on four 32-bit words, least significant first. The CodeView framing
// uses the remainder to align subsection headers on a section size that is 64 bits wide.
#pragma once

#include "platform/CError.h"

#include <cstdint>

struct WideUInt128 {
    uint32_t word[4] = {0, 0, 0, 0};

    static WideUInt128 FromU64(uint64_t value) {
        WideUInt128 v;
        v.word[0] = uint32_t(value);
        v.word[1] = uint32_t(value >> 32);
        return v;
    }
    uint64_t Low64() const { return uint64_t(word[0]) | (uint64_t(word[1]) << 32); }
    uint64_t High64() const { return uint64_t(word[2]) | (uint64_t(word[3]) << 32); }
};

// result = dividend mod divisor. A zero divisor fails and gives the dividend.
CError WideRemainder(WideUInt128 &result, const WideUInt128 &dividend, const WideUInt128 &divisor);
