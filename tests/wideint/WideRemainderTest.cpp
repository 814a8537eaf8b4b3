#include "wideint/WideInt.h"

#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

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

TEST(WideRemainder, ZeroDivisorFailsAndGivesTheDividend) {
    WideUInt128 result;
    u128 dividend = (u128(7) << 70) | 9;
    EXPECT_TRUE(WideRemainder(result, Wide(dividend), Wide(0)).Failed());
    EXPECT_TRUE(Native(result) == dividend);
}

// Operands at the edges (a dividend below the divisor, all ones, a divisor wider than a word),
// then random operands of every width, checked against the compiler's 128-bit arithmetic.
TEST(WideRemainder, AgreesWithNativeArithmetic) {
    std::vector<std::pair<u128, u128>> cases = {
        {13, 4},
        {0, 4},
        {3, 4},
        {(u128(1) << 64) + 3, 4},
        {~u128(0), 4},
        {~u128(0), ~u128(0)},
        {(u128(1) << 127) | 5, (u128(1) << 96) + 7},
    };
    std::mt19937_64 random(12345);
    for (int i = 0; i < 20000; ++i) {
        u128 dividend = (u128(random()) << 64) | random();
        u128 divisor = (u128(random()) << 64) | random();
        dividend >>= random() % 128;
        divisor >>= random() % 128;
        cases.push_back({dividend, divisor == 0 ? 1 + random() % 16 : divisor});
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        const auto [dividend, divisor] = cases[i];
        WideUInt128 result;
        ASSERT_TRUE(WideRemainder(result, Wide(dividend), Wide(divisor)).Ok()) << "case " << i;
        ASSERT_TRUE(Native(result) == dividend % divisor) << "case " << i;
    }
}

} // namespace
