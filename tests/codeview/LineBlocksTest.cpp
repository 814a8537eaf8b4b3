// Line entries become lines subsections: the code of each procedure and each stretch of code
// between procedures, cut where the file changes, never overlapping; inside each, file blocks
// with repeated lines dropped, 24-bit line words with the statement bit, offsets from the start.
// The common shapes are read back by llvm-readobj in the consumer tests; these are the edges.
#include "codeview/LineBlocks.h"
#include "codeview/CodeViewReading.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using quillet::CvCodeRange;
using quillet::CvLinePoint;
using quillet::CvLineSubsection;
using namespace cvtest; // Bytes, LineHeader, Block

constexpr uint32_t A = 0, B = 24; // checksum offsets of two files

TEST(LineBlocks, PointsBecomeBlocksPerRun) {
    const struct {
        const char *what;
        uint64_t start;
        std::vector<CvLinePoint> points;
        Bytes blocks;
    } cases[] = {
        {"runs cut on file change, repeated line dropped",
         0,
         {{0x10, 5, A}, {0x12, 5, A}, {0x14, 6, A}, {0x18, 7, B}, {0x20, 8, A}},
         Concat({Block(A, {{0x10, 5}, {0x14, 6}}), Block(B, {{0x18, 7}}), Block(A, {{0x20, 8}})})},
        {"a line number is cut to 24 bits",
         0,
         {{0, 0x1234567, B}, {4, 0xFFFFFFFF, B}, {8, 0, B}},
         Block(B, {{0, 0x234567}, {4, 0xFFFFFF}, {8, 0}})},
        {"offsets count from the start of the range",
         0x100000010ull,
         {{0x100000012ull, 1, A}, {0x100000020ull, 2, A}},
         Block(A, {{2, 1}, {0x10, 2}})},
        {"a file change forgets the previous line",
         0,
         {{0, 9, A}, {2, 9, B}, {4, 9, B}},
         Concat({Block(A, {{0, 9}}), Block(B, {{2, 9}})})},
        {"a line that comes back later is written again",
         0,
         {{0, 1, A}, {2, 2, A}, {4, 1, A}},
         Block(A, {{0, 1}, {2, 2}, {4, 1}})},
    };
    for (const auto &c : cases) {
        const CvLineSubsection subsection{c.start, 0x40, 0, c.points.size()};
        EXPECT_EQ(quillet::EncodeLineSubsection(c.points, subsection, 0x1234),
                  Concat({LineHeader(0x1234, 0x40), c.blocks}))
            << c.what;
    }
}

constexpr size_t None = quillet::kNoProcedure;

// A subsection as the plan gives it: its range, the addresses of its points and the procedure
// whose code it begins.
struct Planned {
    uint64_t start;
    uint32_t codeSize;
    std::vector<uint64_t> addresses;
    size_t opens;
};

std::string Describe(const std::vector<Planned> &plan) {
    std::string out;
    for (const Planned &p : plan) {
        out += "[" + std::to_string(p.start) + "+" + std::to_string(p.codeSize) + ":";
        for (uint64_t a : p.addresses)
            out += " " + std::to_string(a);
        out += p.opens == None ? "] " : " opens " + std::to_string(p.opens) + "] ";
    }
    return out;
}

TEST(LineSubsections, RangesFollowProceduresAndFilesAndNeverOverlap) {
    // Points of file A unless a case says otherwise; each point's line is its address.
    const struct {
        const char *what;
        std::vector<std::pair<uint64_t, uint32_t>> points; // address, file, in recording order
        std::vector<CvCodeRange> procedures;
        uint64_t sectionSize;
        std::vector<Planned> expected;
    } cases[] = {
        {"entries outside procedures: each stretch up to the next procedure or the end",
         {{0, A}, {4, A}, {0x14, A}, {0x24, A}, {0x2C, A}, {0x44, A}},
         {{0x10, 0x20, 0}, {0x30, 0x40, 1}},
         0x50,
         {{0, 0x10, {0, 4}, None},
          {0x10, 0x10, {0x14}, 0},
          {0x24, 0x0C, {0x24, 0x2C}, None},
          {0x44, 0x0C, {0x44}, None}}},
        {"a file change cuts a stretch too",
         {{4, B}, {8, A}},
         {{0x10, 0x20, 0}},
         0x20,
         {{4, 4, {4}, None}, {8, 8, {8}, None}}},
        {"a procedure without entries gets no subsection",
         {{0x24, A}},
         {{0, 0x10, 0}, {0x10, 0x20, 1}, {0x20, 0x30, 2}},
         0x30,
         {{0x20, 0x10, {0x24}, 2}}},
        {"procedures given out of order",
         {{0x18, A}, {2, A}},
         {{0x10, 0x20, 0}, {0, 0x10, 1}},
         0x20,
         {{0, 0x10, {2}, 1}, {0x10, 0x10, {0x18}, 0}}},
        {"overlapping procedures: the earlier one ends where the later begins",
         {{4, A}, {0x14, A}, {0x24, A}},
         {{0, 0x20, 0}, {0x10, 0x30, 1}},
         0x30,
         {{0, 0x10, {4}, 0}, {0x10, 0x20, {0x14, 0x24}, 1}}},
        {"a procedure of no length claims nothing",
         {{0x10, A}},
         {{0x10, 0x10, 0}, {0x20, 0x18, 1}},
         0x30,
         {{0x10, 0x20, {0x10}, None}}},
        {"an entry past the section's end still lies inside its range",
         {{4, A}, {0x18, A}},
         {{0, 8, 0}},
         0x10,
         {{0, 8, {4}, 0}, {0x18, 1, {0x18}, None}}},
        {"nothing to write", {}, {{0, 0x10, 0}}, 0x10, {}},
    };
    for (const auto &c : cases) {
        std::vector<CvLinePoint> points;
        for (auto [address, file] : c.points)
            points.push_back({address, uint32_t(address), file});
        std::vector<Planned> plan;
        for (const CvLineSubsection &s :
             quillet::PlanLineSubsections(points, c.procedures, c.sectionSize)) {
            Planned p{s.start, s.codeSize, {}, s.opensProcedure};
            for (size_t i = s.first; i < s.first + s.count; ++i)
                p.addresses.push_back(points[i].address);
            plan.push_back(p);
        }
        EXPECT_EQ(Describe(plan), Describe(c.expected)) << c.what;
    }
}

} // namespace
