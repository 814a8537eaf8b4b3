// Helpers shared by the brix tests: building objects through the keyed interface, walking what
// a file offers, and the sample objects the tests share.
#pragma once

#include "brix/brix.h"
#include "support/ReadobjTree.h"
#include "support/Support.h"

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace brixtest {

using qtest::CommandResult;
using qtest::ConsumerComplaints;
using qtest::ReadFileBytes;
using qtest::RunCommand;
using qtest::TempDir;

inline void WriteBytes(const std::string &path, const std::vector<uint8_t> &bytes) {
    qtest::WriteTextFile(path, std::string(bytes.begin(), bytes.end()));
}

// Thin wrappers over the keyed interface; a refused call is a test failure.
BrxHandle AddSection(BrxHandle file, const char *name, uint16_t flags, uint32_t alignment = 4,
                     uint32_t kind = 0);
BrxHandle AddSymbol(BrxHandle file, const char *name, uint32_t binding, uint32_t type,
                    BrxHandle section, uint64_t offset);
BrxHandle AddRelocation(BrxHandle section, uint32_t type, BrxHandle target, uint64_t offset,
                        int64_t addend = 0);
void AppendBytes(BrxHandle section, const std::vector<uint8_t> &bytes);

BrxHandle SymbolTable(BrxHandle file);
BrxHandle FindSection(BrxHandle file, const char *name);
std::string SectionName(BrxHandle section);
std::string SymbolName(BrxHandle symbol);
std::vector<uint8_t> SectionBytes(BrxHandle section);
std::vector<BrxHandle> Sections(BrxHandle file);
std::vector<BrxHandle> Symbols(BrxHandle file);
std::vector<BrxHandle> Relocations(BrxHandle section);
// The source-file symbols, in the order the table offers them.
std::vector<std::string> SourceFiles(BrxHandle file);
uint32_t U32(BrxHandle object, uint32_t key);
uint64_t U64(BrxHandle object, uint32_t key);

// One row of a file's line information as brix offers it: section (its name, or its position
// among the file's sections where names repeat), source file, section offset, line, column.
using LineRow = std::tuple<std::string, std::string, uint64_t, uint32_t, uint32_t>;
// Every row, block by block; checks that each block's count matches the items it offers.
std::vector<LineRow> LineRows(BrxHandle file, bool sectionsByPosition = false);

// A COFF object as Quillet lays one out: .text, a COMDAT .text$inline_fn, the main .debug$S
// (string table "unit.asm", "inc.inc"; checksums; lines of .text: unit.asm lines 10, 11, 12 at
// 0, 4, 8 and inc.inc line 3 at 16) and the COMDAT section's own associated .debug$S (lines 20
// and 21 of inc.inc with columns 5 and 7, 2 bytes into inline_fn, which is at offset 4). Its
// own checksum table differs from the main one when `ownTableDiffers`, else repeats it.
void WriteCodeViewSample(const std::string &path, bool ownTableDiffers);

} // namespace brixtest
