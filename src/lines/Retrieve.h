// The retrieval engine: reads the line information of an object file back (DWARF line programs of
// ELF objects, CodeView line blocks of COFF objects through the object-file library) and answers
// queries by instruction offset and by source position.
//
// Rows are kept in one table of plain 24-byte values, grouped by section; inside a section they
// stay in table order (sequence by sequence, each in the order its program emits them), and each
// sequence remembers where its code ends. Lookups by address go through the section's address
// order: the table itself when its addresses never decrease (what compilers and assemblers
// write), else a 4-byte index per row. A bucket table over the address range (about one bucket per
// 16 rows) lets an offset lookup read one bucket and a few neighbouring rows instead of bisecting
// millions. The source index holds 12-byte records grouped by file and sorted by (line, column).
#pragma once

#include "lines/FileTable.h"
#include "lines/FunctionIndex.h"
#include "lines/LineSection.h"
#include "platform/PointerSet.h"

#include <brix/brix.h>
#include <quillet/quillet.h>

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

class CModuleScope;
class CSectionScope;

namespace quillet {

// One sequence of a section: a range of the row table and the offset where its code ends.
struct CSequence {
    uint32_t m_nBegin;
    uint32_t m_nEnd;
    uint64_t m_nEndAddress;
};

// The rows of one section: a range of the row table in table order, its sequences (a range of
// the sequence list), its address order, and its buckets: bucket b holds the positions in address
// order whose address minus m_nLowAddress, shifted right by m_nBucketShift, is b.
struct CSectionRows {
    BrxHandle m_Section = 0;
    uint32_t m_nBegin = 0;
    uint32_t m_nEnd = 0;
    uint32_t m_nSequenceBegin = 0;
    uint32_t m_nSequenceEnd = 0;
    // Position p in address order is row m_nBegin + p when the table is in address order, else
    // row m_AddressOrder[m_nOrderBegin + p].
    bool m_bAddressOrdered = true;
    uint32_t m_nOrderBegin = 0;
    uint64_t m_nLowAddress = 0;
    uint32_t m_nBucketShift = 0;
    uint32_t m_nBucketBegin = 0; // where the section's bucket starts are in the bucket table
    uint32_t m_nBucketCount = 0;
    int32_t m_nNumber = -1; // handed out when the section is first opened or met by a query
    DbgLineSectionHandle *m_pHandle = nullptr;
    CSectionScope *m_pScope = nullptr;

    uint32_t Count() const { return m_nEnd - m_nBegin; }
};

// One record of the source index. Records are grouped by file (the file is known from the group
// a record stands in), and sorted by line and column inside a group.
struct CSourceIndexRecord {
    uint32_t m_nLine;
    uint32_t m_nColumn;
    uint32_t m_nRow;
};

// The debugging sections of an ELF object read into memory (decompressed), with what the
// relocations of a relocatable object put into their fields; m_View points into them.
struct CReadSections {
    static constexpr size_t kCount = 9;
    CReadSections() = default;
    CReadSections(const CReadSections &) = delete;
    CReadSections &operator=(const CReadSections &) = delete;

    std::vector<uint8_t> m_Bytes[kCount];
    CRelocationMap m_Relocations[kCount];
    CDwarfSections m_View;
};

} // namespace quillet

class CBaseRetrieve {
public:
    CBaseRetrieve();
    virtual ~CBaseRetrieve();
    CBaseRetrieve(const CBaseRetrieve &) = delete;
    CBaseRetrieve &operator=(const CBaseRetrieve &) = delete;

    // The six retrieval operations; each returns a DBG_ERR_* status. The caller has checked the
    // mode already.
    uint32_t OpenObjectAndSourceFile(const char *objectName, const char *sourceName,
                                     DbgSourceHandle **outHandle);
    uint32_t OpenLineSection(BrxHandle section, DbgLineSectionHandle **outHandle);
    uint32_t InstInfoByOffset(uint32_t flag, DbgOffsetQuery *query, DbgInstInfo *info);
    uint32_t InstInfoBySource(uint32_t flag, const DbgSourceQuery *query, DbgSourceResult *result);
    uint32_t SourceFileCount(uint32_t *count) const;
    uint32_t SourceFileName(int32_t index, char *buffer, uint32_t *size) const;

    // The row functions of a symbolizer; each returns a DBG_ERR_* status (26 for a handle the
    // reader did not hand out).
    uint32_t RowCount(const DbgLineSectionHandle *handle, uint64_t *count) const;
    uint32_t GetRows(const DbgLineSectionHandle *handle, uint64_t first, DbgLineRow *rows,
                     uint64_t *count) const;
    uint32_t FindRow(const DbgLineSectionHandle *handle, uint64_t offset, DbgLineRow *row,
                     uint64_t *index) const;
    // The function whose code holds `offset` in the handle's section, from the DWARF
    // subprograms, indexed on the first call: 0, 26, 29 (none, or not an ELF object) or 38 (the
    // buffer is too small; *size receives the length needed).
    uint32_t FindFunction(const DbgLineSectionHandle *handle, uint64_t offset, char *buffer,
                          uint32_t *size, uint64_t *start, uint64_t *end);
    // Indexes the functions of DWARF sections held in memory, as FindFunction does for the
    // loaded object on its first call. Used by tests and by the fuzzer.
    void IndexFunctions(const quillet::CDwarfSections &sections, quillet::CSequencePlacer &placer);

    // Decodes DWARF line information held in memory, as the ELF loader does once it has read
    // the sections; `placer` says where each sequence lies. Returns 0, 14 or 31. The bytes need
    // to live only through the call. Used by the loader, by tests and by the fuzzer.
    uint32_t LoadDwarf(const quillet::CDwarfSections &sections, quillet::CSequencePlacer &placer);

    // The handle of a section of the loaded object, numbered on first use (a section without rows
    // gets one too; its queries answer 29).
    DbgLineSectionHandle *SectionHandle(BrxHandle section);
    // Finds a source file of the loaded object by name, without regard to ASCII case; 0 or 33.
    uint32_t FindSource(const char *sourceName, DbgSourceHandle **outHandle);

    // At process exit brix may already have released everything: the object is left to it.
    void LeaveObjectToBrix() { m_bOwnsObject = false; }

    // Read access for tests and tools.
    BrxHandle Object() const { return m_hObject; }
    const quillet::CFileTable &Files() const { return m_Files; }
    const quillet::CRowTable &Rows() const { return m_Rows; }
    const std::vector<quillet::CSectionRows> &Sections() const { return m_SectionList; }
    // The rows of `section` in table order (empty when it has none).
    std::pair<const quillet::CLineRow *, const quillet::CLineRow *> RowsOf(BrxHandle section) const;
    // Builds the source index now (it is built on demand otherwise).
    void BuildSourceIndex();

private:
    uint32_t BindObject(BrxHandle section);
    // Reads the DWARF sections of the bound ELF object: .debug_line when `withLines` (the open),
    // else the range lists (the function index); 0 or 26 when a section that must be there is
    // not.
    uint32_t ReadDwarfSections(bool withLines, quillet::CReadSections &out) const;
    uint32_t LoadElfLines();
    void IndexObjectFunctions();
    uint32_t LoadCoffLines();
    uint32_t LoadByFormat();
    // Groups the rows by section (their sequences in table order), gives each section its
    // address order and builds the buckets.
    void FinishRows();
    // Records the rows from `begin` to the end of the table as one span of `section` whose code
    // ends at `endAddress`.
    void AddSpan(BrxHandle section, size_t begin, uint64_t endAddress);
    quillet::CSectionRows &SlotOf(BrxHandle section);
    DbgLineSectionHandle *NumberedHandle(quillet::CSectionRows &rows);
    bool IsLibraryReader() const;
    // The retrieval module scope: made from the first unit (or empty for COFF) and made the
    // library's module root and current scope; section scopes under it for sections with rows.
    void AttachModule(const std::u16string &producer, const std::u16string &directory,
                      const std::u16string &name);
    void AttachSectionScope(quillet::CSectionRows &rows);
    void BuildBuckets(quillet::CSectionRows &rows);
    // The row table index of position `position` of the section's address order.
    uint32_t RowAtPosition(const quillet::CSectionRows &rows, uint32_t position) const {
        return rows.m_bAddressOrdered ? rows.m_nBegin + position
                                      : m_AddressOrder[rows.m_nOrderBegin + position];
    }
    // The first position in address order whose row is at `offset`, or -1.
    int64_t FindRowAtOffset(const quillet::CSectionRows &rows, uint64_t offset) const;
    // The first position in address order whose row lies above `offset`.
    uint32_t PositionAbove(const quillet::CSectionRows &rows, uint64_t offset) const;
    // The section of a live handle, or null.
    const quillet::CSectionRows *LiveSection(const DbgLineSectionHandle *handle) const;
    // The sequence that holds row `row` of the section.
    const quillet::CSequence &SequenceOf(const quillet::CSectionRows &rows, uint32_t row) const;
    // Row `row` as a DbgLineRow: its range ends at the next greater address of its sequence.
    DbgLineRow MakeRow(const quillet::CSequence &sequence, uint32_t row) const;
    // The file whose group holds source-index record `record`.
    int32_t FileOfRecord(int64_t record) const;
    // -1, 0 or 1 as record `record` sorts below, at or above the position.
    int CompareRecord(int64_t record, int32_t file, uint32_t line, uint32_t column) const;
    const quillet::CSectionRows *SectionOfRow(uint32_t row) const;
    // File `fileIndex`'s path cut to 257 units and padded with zeros (all zeros for no file).
    const char16_t *PaddedName(int32_t fileIndex);

    BrxHandle m_hObject = 0;
    bool m_bOwnsObject = false; // opened by name here, so closed here
    bool m_bLoaded = false;
    int32_t m_nFormat = 0;
    uint32_t m_nMachine = 0;
    uint32_t m_nObjectKind = 7; // the mode word handed to the object-file library's open
    int32_t m_NextSectionNumber = 0;

    quillet::CFileTable m_Files;
    quillet::CRowTable m_Rows;
    std::vector<quillet::CSequenceSpan> m_Spans;
    std::vector<quillet::CSequence> m_Sequences; // grouped by section, in table order
    std::vector<quillet::CSectionRows> m_SectionList;
    std::unordered_map<BrxHandle, uint32_t> m_SectionSlot;
    // Per section, m_nBucketCount + 1 positions in address order: bucket b's rows run from entry
    // b to entry b + 1.
    std::vector<uint32_t, quillet::CLargeAllocator<uint32_t>> m_Buckets;
    // The address order of the sections whose table is not in address order.
    std::vector<uint32_t, quillet::CLargeAllocator<uint32_t>> m_AddressOrder;
    std::vector<quillet::CSourceIndexRecord, quillet::CLargeAllocator<quillet::CSourceIndexRecord>>
        m_SourceIndex;
    std::vector<uint32_t> m_FileStarts; // where each file's group begins; one more at the end
    bool m_bSourceIndexBuilt = false;
    int64_t m_nLastSourceHit = -1;
    quillet::CFunctionIndex m_Functions;
    bool m_bFunctionsIndexed = false;
    mutable size_t m_nLastLiveSlot = SIZE_MAX; // the slot of the last handle found live
    // The name of the last file an offset query answered, as the query's name field holds it.
    std::array<char16_t, sizeof(DbgInstInfo::name) / sizeof(char16_t)> m_PaddedName{};
    int32_t m_nPaddedNameFile = INT32_MIN;

    // The handles given out, and the registries that tell them from any other address: a
    // caller's handle is looked up before it is read.
    std::deque<DbgLineSectionHandle> m_SectionHandles;
    std::deque<DbgSourceHandle> m_SourceHandles;
    std::deque<std::u16string> m_SourceNames; // of handles to files whose paths are not kept
    quillet::PointerSet m_LiveSectionHandles;
    quillet::PointerSet m_LiveSourceHandles;
    CModuleScope *m_pModule = nullptr;
};

// A new retrieval engine, or null when it cannot be allocated.
std::unique_ptr<CBaseRetrieve> CreateRetrieve();
