// The parts of qdbg's query commands that decide answers without the library: the range index
// behind function and section lookups, how a typed source name picks files, how addresses are
// read, and how answers are written.
#include "ObjectLines.h"
#include "Output.h"
#include "Query.h"
#include "RangeIndex.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <optional>
#include <tuple>

namespace {

using qdbg::RangeIndex;

struct RangeCase {
    const char *name;
    std::vector<std::tuple<uint64_t, uint64_t, int>> ranges; // start, end, value, in adding order
    std::vector<std::pair<uint64_t, int>> probes;            // point, value (-1: none)
};

const RangeCase kRangeCases[] = {
    {"Disjoint", {{10, 20, 1}, {20, 30, 2}}, {{9, -1}, {10, 1}, {19, 1}, {20, 2}, {30, -1}}},
    {"NestedInside", {{0, 100, 1}, {10, 20, 2}}, {{5, 1}, {10, 2}, {19, 2}, {20, 1}, {99, 1}}},
    {"NestedAtSameStart", {{0, 10, 2}, {0, 100, 1}}, {{0, 2}, {9, 2}, {10, 1}}},
    {"PartialOverlapLaterStartWins",
     {{0, 50, 1}, {30, 80, 2}},
     {{29, 1}, {30, 2}, {79, 2}, {80, -1}}},
    {"EqualRangesLastAddedWins", {{4, 8, 1}, {4, 8, 2}}, {{4, 2}, {7, 2}}},
    {"TwoLevelsClosingTogether",
     {{0, 100, 1}, {10, 50, 2}, {20, 50, 3}},
     {{15, 2}, {20, 3}, {50, 1}}},
    {"EmptyRangeIgnored", {{5, 5, 1}}, {{5, -1}}},
    {"TopOfTheAddressSpace",
     {{UINT64_MAX - 4, UINT64_MAX, 1}},
     {{UINT64_MAX - 1, 1}, {UINT64_MAX, -1}}},
};

class RangeIndexCases : public ::testing::TestWithParam<RangeCase> {};

TEST_P(RangeIndexCases, AnswerTheInnermostRange) {
    RangeIndex<int> index;
    for (const auto &[start, end, value] : GetParam().ranges)
        index.Add(start, end, value);
    index.Build();
    for (const auto &[point, expected] : GetParam().probes) {
        const int *found = index.Find(point);
        EXPECT_EQ(found ? *found : -1, expected) << "at " << point;
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, RangeIndexCases, ::testing::ValuesIn(kRangeCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(QueryParts, TypedSourceNamesAFileByATrailingPathPart) {
    const struct {
        const char *path, *typed;
        bool names;
    } kCases[] = {
        {"/work/src/a.c", "a.c", true},
        {"/work/src/a.c", "src/a.c", true},
        {"/work/src/a.c", "rc/a.c", false}, // not at a directory boundary
        {"/work/src/ba.c", "a.c", false},
        {"/work/src/a.c", "b/src/a.c", false},
        {"C:\\Work\\Src\\A.C", "src/a.c", true}, // either separator, any letter case
        {"a.c", "a.c", true},
        {"/work/src/a.c", "", false},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(qdbg::NamesSource(c.path, c.typed), c.names) << c.path << " / " << c.typed;
}

TEST(QueryParts, AddressesAreDecimalOrHexadecimal) {
    const struct {
        const char *text;
        std::optional<uint64_t> value;
    } kCases[] = {
        {"4198416", 4198416},
        {"0X40AbCd", 0x40abcd},
        {"  0x10\t\r", 0x10},
        {"18446744073709551615", UINT64_MAX},
        {"0xffffffffffffffff", UINT64_MAX},
        {"18446744073709551616", std::nullopt}, // more than 64 bits
        {"0x", std::nullopt},
        {"12ab", std::nullopt}, // hexadecimal digits need the prefix
        {"", std::nullopt},
        {"0x10 0x20", std::nullopt},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(qdbg::ParseAddress(c.text), c.value) << "'" << c.text << "'";
}

TEST(QueryParts, OutputWritesNumbersAndEscapedJsonStrings) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        qdbg::Output out(ends[1]);
        out.PutDecimal(0).Put(' ').PutDecimal(UINT64_MAX).Put(' ').PutHex(0).Put(' ');
        out.PutHex(0xdeadbeef).Put(' ').PutJsonString("a\"b\\c\n\x01/\xc3\xa9");
        ASSERT_TRUE(out.Flush());
    }
    close(ends[1]);
    std::string written;
    char buffer[256];
    for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
        written.append(buffer, size_t(got));
    close(ends[0]);
    EXPECT_EQ(written,
              "0 18446744073709551615 0x0 0xdeadbeef \"a\\\"b\\\\c\\u000a\\u0001/\xc3\xa9\"");
}

} // namespace
