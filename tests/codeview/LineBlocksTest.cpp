// Line entries become file blocks: runs cut where the file changes, repeated lines dropped,
// 24-bit line words with the statement bit, 32-bit offsets.
#include "codeview/LineBlocks.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using quillet::CvFileInfo;
using quillet::CvLinePoint;
using Bytes = std::vector<uint8_t>;

void PutU32(Bytes &out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(v >> (8 * i)));
}

// The expected block, written out field by field.
Bytes Block(uint32_t file, std::vector<std::pair<uint32_t, uint32_t>> pairs) {
    Bytes out;
    PutU32(out, file);
    PutU32(out, uint32_t(pairs.size()));
    PutU32(out, uint32_t(12 + 8 * pairs.size()));
    for (auto [offset, word] : pairs) {
        PutU32(out, offset);
        PutU32(out, word);
    }
    return out;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Three source-file records: a and a2 carry the same name, b another.
const char A = 0, A2 = 0, B = 0;
const std::map<const void *, CvFileInfo> kFiles = {
    {&A, {u"src/a.asm", 0}}, {&A2, {u"src/a.asm", 48}}, {&B, {u"b.asm", 24}}};

struct BlockCase {
    const char *what;
    std::vector<CvLinePoint> points;
    Bytes expected;
};

TEST(LineBlocks, EntriesBecomeBlocksPerRun) {
    const BlockCase cases[] = {
        {"nothing gives no block", {}, {}},
        {"runs cut on file change, repeated line dropped",
         {{0x10, 5, &A}, {0x12, 5, &A}, {0x14, 6, &A}, {0x18, 7, &B}, {0x20, 8, &A}},
         Concat({Block(0, {{0x10, 0x80000005}, {0x14, 0x80000006}}),
                 Block(24, {{0x18, 0x80000007}}), Block(0, {{0x20, 0x80000008}})})},
        {"a line number is cut to 24 bits",
         {{0, 0x1234567, &B}, {4, 0xFFFFFFFF, &B}, {8, 0, &B}},
         Block(24, {{0, 0x80234567}, {4, 0x80FFFFFF}, {8, 0x80000000}})},
        {"an offset keeps the low 32 bits of base + offset",
         {{0x100000012ull, 1, &A}},
         Block(0, {{0x12, 0x80000001}})},
        {"a file change forgets the previous line",
         {{0, 9, &A}, {2, 9, &B}, {4, 9, &B}},
         Concat({Block(0, {{0, 0x80000009}}), Block(24, {{2, 0x80000009}})})},
        {"a line that comes back later is written again",
         {{0, 1, &A}, {2, 2, &A}, {4, 1, &A}},
         Block(0, {{0, 0x80000001}, {2, 0x80000002}, {4, 0x80000001}})},
        {"records with equal names share a run and its first record's table offset",
         {{0, 1, &A}, {2, 2, &A2}, {4, 3, &A}},
         Block(0, {{0, 0x80000001}, {2, 0x80000002}, {4, 0x80000003}})},
    };
    for (const BlockCase &c : cases) {
        Bytes out;
        quillet::EncodeFileBlocks(
            c.points, [](const void *file) { return kFiles.at(file); }, out);
        EXPECT_EQ(out, c.expected) << c.what;
    }
}

TEST(LineBlocks, AppendsAfterWhatIsThere) {
    Bytes out = {0xAA};
    quillet::EncodeFileBlocks(
        {{4, 3, &B}}, [](const void *file) { return kFiles.at(file); }, out);
    EXPECT_EQ(out, Concat({{0xAA}, Block(24, {{4, 0x80000003}})}));
}

TEST(LineBlocks, LooksUpAFileOnlyWhenTheRecordChanges) {
    std::vector<CvLinePoint> points;
    for (uint32_t i = 0; i < 1000; ++i)
        points.push_back({i * 4, i, i < 500 ? &A : &B});
    int lookups = 0;
    Bytes out;
    quillet::EncodeFileBlocks(
        points,
        [&](const void *file) {
            ++lookups;
            return kFiles.at(file);
        },
        out);
    EXPECT_EQ(lookups, 2);
    EXPECT_EQ(out.size(), 2 * 12 + 1000 * 8u);
}

TEST(LineBlocks, HeaderCarriesTheCodeSize) {
    EXPECT_EQ(quillet::EncodeLineHeader(0x12345678),
              (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12}));
}

} // namespace
