// The DWARF line-number program writer: the unit header with its directory and file tables, and
// the rows of each section's sequence, produced by the line-number state machine.
#pragma once

#include "lines/LineEntry.h"
#include "platform/CError.h"

#include "brix/brix.h"

#include <cstdint>
#include <string>
#include <vector>

class CBinarySection;
class CSourceFileList;

// Header constants of every unit written.
constexpr uint8_t kLineMinimumInstructionLength = 1;
constexpr uint8_t kLineDefaultIsStmt = 1;
constexpr int8_t kLineBase = 0;
constexpr uint8_t kLineRange = 15;
constexpr uint8_t kLineOpcodeBase = 10;
constexpr uint8_t kStandardOpcodeLengths[9] = {0, 1, 1, 1, 1, 0, 0, 0, 1};
// The interlock that keeps one process from both writing and decoding line programs.
constexpr uint32_t kLineProgramWriting = 1;
constexpr uint32_t kLineProgramDecoding = 2;

// The writer's registers. The section register names the section whose sequence is open.
struct CLineState {
    uint64_t address = 0;
    uint32_t file = 1;
    uint32_t line = 1;
    uint32_t column = 0;
    uint8_t isStmt = kLineDefaultIsStmt;
    uint8_t basicBlock = 0;
    BrxHandle section = 0;

    // Sets every register back to its initial value, the section register included, so that the
    // next sequence carries its own DW_LNE_set_address.
    void ResetForSequence();
};

// Where a sequence whose last row stands at `lastRowAddress`, in a section of `sectionSize`
// bytes, ends: on the default target the next multiple of 16 above the last row; on the others
// the end of the section's code, which their linkers and symbolizers take as the end of the
// last row's instruction (one byte past a last row that lies beyond the code).
uint64_t SequenceEndAddress(uint64_t lastRowAddress, uint64_t sectionSize);

// A relocation that the rows need: at `offset` (relative to the start of the rows' bytes)
// against `section`.
struct LineRelocation {
    uint64_t offset;
    BrxHandle section;
};

// Builds rows into a local buffer, so that a section's rows reach .debug_line in one append.
class CLineRowWriter {
public:
    CLineRowWriter(CLineState &state, unsigned addressWidth)
        : m_State(state), m_nAddressWidth(addressWidth) {}

    // One row for `entry`: always for the first entry of a sequence, otherwise when its line or
    // file differs from the row before. Fails when the process decodes line programs.
    CError AddRow(BrxHandle section, const CLineEntry &entry);
    // DW_LNS_advance_pc to SequenceEndAddress and DW_LNE_end_sequence; resets the state.
    void EndSequence(uint64_t sectionSize);
    // Appends what was built and adds its relocations; the buffer is emptied.
    CError Flush(CBinarySection &line);

    const std::vector<uint8_t> &Bytes() const { return m_Bytes; }
    const std::vector<LineRelocation> &Relocations() const { return m_Relocations; }

private:
    CLineState &m_State;
    unsigned m_nAddressWidth;
    std::vector<uint8_t> m_Bytes;
    std::vector<LineRelocation> m_Relocations;
};

// The unit header, unit length 0, with tables built from the compilation directory and the
// registered files; names with a directory are replaced by their base names in their cells.
std::vector<uint8_t> BuildLineProgramHeader(const std::u16string &compilationDirectory,
                                            CSourceFileList &files);
