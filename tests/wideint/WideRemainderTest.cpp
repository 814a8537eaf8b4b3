#include "wideint/WideInt.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using u128 = unsigned __int128;

WideUInt128 Wide(u128 v) {
    WideUInt128 w;
    for (int i = 0; i < 4; ++i)
        w.word[i] = uint32_t(v >> (32 * i));
    return w;
}

u128 Native(const WideUInt128 &w) {
    u128 v = 0;
    for (int i = 3; i >= 0; --i)
        v = (v << 32) | w.word[i];
    return v;
}

TEST(WideRemainder, MatchesTheWorkedCases) {
    struct Case {
        u128 dividend, divisor, remainder;
    } cases[] = {
        {13, 4, 1},
        {12, 4, 0},
        {0, 4, 0},
        {(u128(1) << 64) + 3, 4, 3},
        {3, 4, 3}, // below the divisor: unchanged
        {~u128(0), 4, 3},
        {~u128(0), ~u128(0), 0},
        {(u128(1) << 127) | 5, (u128(1) << 96) + 7, 0}, // filled in below
    };
    cases[7].remainder = cases[7].dividend % cases[7].divisor;
    for (const Case &c : cases) {
        WideUInt128 result;
        EXPECT_TRUE(WideRemainder(result, Wide(c.dividend), Wide(c.divisor)).Ok());
        EXPECT_TRUE(Native(result) == c.remainder)
            << uint64_t(c.dividend) << " mod " << uint64_t(c.divisor);
    }
}

TEST(WideRemainder, ZeroDivisorFailsAndGivesTheDividend) {
    WideUInt128 result;
    u128 dividend = (u128(7) << 70) | 9;
    EXPECT_TRUE(WideRemainder(result, Wide(dividend), Wide(0)).Failed());
    EXPECT_TRUE(Native(result) == dividend);
}

// Random operands of every width, checked against the compiler's 128-bit arithmetic.
TEST(WideRemainder, AgreesWithNativeArithmetic) {
    std::mt19937_64 random(12345);
    for (int i = 0; i < 20000; ++i) {
        u128 dividend = (u128(random()) << 64) | random();
        u128 divisor = (u128(random()) << 64) | random();
        dividend >>= random() % 128;
        divisor >>= random() % 128;
        if (divisor == 0)
            divisor = 1 + random() % 16;
        WideUInt128 result;
        ASSERT_TRUE(WideRemainder(result, Wide(dividend), Wide(divisor)).Ok());
        ASSERT_TRUE(Native(result) == dividend % divisor) << "case " << i;
    }
}

} // namespace
