#include "wideint/WideInt.h"

namespace {

bool IsZero(const WideUInt128 &v) {
    return !(v.word[0] | v.word[1] | v.word[2] | v.word[3]);
}

// -1, 0 or 1 as a compares with b.
int Compare(const WideUInt128 &a, const WideUInt128 &b) {
    for (int i = 3; i >= 0; --i)
        if (a.word[i] != b.word[i])
            return a.word[i] < b.word[i] ? -1 : 1;
    return 0;
}

void Subtract(WideUInt128 &a, const WideUInt128 &b) {
    uint64_t borrow = 0;
    for (int i = 0; i < 4; ++i) {
        uint64_t d = uint64_t(a.word[i]) - b.word[i] - borrow;
        a.word[i] = uint32_t(d);
        borrow = (d >> 32) & 1;
    }
}

void ShiftLeft1(WideUInt128 &a) {
    for (int i = 3; i > 0; --i)
        a.word[i] = (a.word[i] << 1) | (a.word[i - 1] >> 31);
    a.word[0] <<= 1;
}

void ShiftRight1(WideUInt128 &a) {
    for (int i = 0; i < 3; ++i)
        a.word[i] = (a.word[i] >> 1) | (a.word[i + 1] << 31);
    a.word[3] >>= 1;
}

} // namespace

// Long division: the divisor is shifted up below the remainder's top bit, then subtracted
// wherever it fits on the way back down.
CError WideRemainder(WideUInt128 &result, const WideUInt128 &dividend, const WideUInt128 &divisor) {
    result = dividend;
    if (IsZero(divisor))
        return kFailed;
    WideUInt128 shifted = divisor;
    int shifts = 0;
    while (!(shifted.word[3] & 0x80000000u)) {
        WideUInt128 next = shifted;
        ShiftLeft1(next);
        if (Compare(next, result) > 0)
            break;
        shifted = next;
        ++shifts;
    }
    for (; shifts >= 0; --shifts) {
        if (Compare(result, shifted) >= 0)
            Subtract(result, shifted);
        ShiftRight1(shifted);
    }
    return kOk;
}
