// The content of CodeView lines subsections, built from plain values. A consumer looks an
// address up in the first lines subsection whose range holds it, and takes each file block as
// covering its subsection's whole range; so the ranges of one section's subsections never
// overlap, and each holds one run of one file: a procedure's code is covered by its runs from
// its start to its end, and a stretch of code between procedures that holds entries of its own
// from its lowest entry to the next procedure or the section's end. The driver adds each
// header's two relocations and appends the bytes to the symbol section.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quillet {

// One line entry as the encoder sees it.
struct CvLinePoint {
    uint64_t address; // base + offset of the instruction in its section
    uint32_t line;
    uint32_t checksumOffset; // of its file's record in the checksum table
};

// A procedure's code in its section: [start, end), and the caller's number for the procedure.
struct CvCodeRange {
    uint64_t start;
    uint64_t end;
    size_t procedure = 0;
};

constexpr size_t kNoProcedure = SIZE_MAX;

// One lines subsection: the code it covers and its points, a slice of the sorted points.
struct CvLineSubsection {
    uint64_t start;
    uint32_t codeSize;
    size_t first;
    size_t count;
    // The number of the procedure whose code this subsection begins, or kNoProcedure for one
    // that begins elsewhere (a later file's run, or a stretch between procedures).
    size_t opensProcedure = kNoProcedure;
};

// Sorts `points` by address (equal addresses keep their order) and places them in subsections,
// in ascending address order. A point inside a procedure belongs to that procedure's code; the
// points of a stretch between procedures to a range from the lowest of them to the next
// procedure's start, or to the section's end (and past it, for points beyond). Each range is cut
// where the file changes: its first run starts where the range does, each run ends where the next
// begins. Where procedures overlap, the earlier one ends where the later one begins. A procedure
// or stretch without points gets no subsection.
std::vector<CvLineSubsection> PlanLineSubsections(std::vector<CvLinePoint> &points,
                                                  std::vector<CvCodeRange> procedures,
                                                  uint64_t sectionSize);

// The content of one lines subsection: the 12-byte header (`offsetField` in the offset field,
// which the caller relocates so that it reaches the subsection's start; segment 0, also
// relocated; flags 0; the code size), then the file blocks of its points with offsets counted from
// the start. A block is a run of points naming one file; within a run a point with the line of the
// point before it adds no pair; the line word is the line cut to 24 bits with the statement bit
// set.
std::vector<uint8_t> EncodeLineSubsection(const std::vector<CvLinePoint> &points,
                                          const CvLineSubsection &subsection, uint32_t offsetField);

} // namespace quillet
