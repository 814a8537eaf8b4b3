// The retrieval engine: reads the line information of an object file back (DWARF line programs of
// ELF objects, CodeView line blocks of COFF objects through the object-file library) and answers
// queries by instruction offset and by source position.
//
// Rows are kept in one table of plain 24-byte values, grouped by section and sorted by address.
// Each section also has a bucket table over its address range (about one bucket per 16 rows) so
// an offset lookup reads one bucket and a few neighbouring rows instead of bisecting millions.
// The source index holds 12-byte records grouped by file and sorted by (line, column).
#pragma once

#include "lines/FileTable.h"
#include "lines/LineSection.h"
#include "platform/PointerSet.h"

#include <brix/brix.h>
#include <quillet/quillet.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

class CModuleScope;
class CSectionScope;

namespace quillet {

// The three debugging sections of an ELF object, as bytes in memory (.debug_str may be empty).
struct CDwarfSections {
    const uint8_t *info = nullptr;
    uint64_t infoSize = 0;
    const uint8_t *abbrev = nullptr;
    uint64_t abbrevSize = 0;
    const uint8_t *line = nullptr;
    uint64_t lineSize = 0;
    const uint8_t *str = nullptr;
    uint64_t strSize = 0;
};

// The rows of one section: a range of the row table, and its buckets: bucket b holds the rows
// whose address minus m_nLowAddress, shifted right by m_nBucketShift, is b.
struct CSectionRows {
    BrxHandle m_Section = 0;
    uint32_t m_nBegin = 0;
    uint32_t m_nEnd = 0;
    uint64_t m_nLowAddress = 0;
    uint32_t m_nBucketShift = 0;
    uint32_t m_nBucketBegin = 0; // where the section's bucket starts are in the bucket table
    uint32_t m_nBucketCount = 0;
    int32_t m_nNumber = -1; // handed out when the section is first opened or met by a query
    DbgLineSectionHandle *m_pHandle = nullptr;
    CSectionScope *m_pScope = nullptr;
};

// One record of the source index. Records are grouped by file (the file is known from the group
// a record stands in), and sorted by line and column inside a group.
struct CSourceIndexRecord {
    uint32_t m_nLine;
    uint32_t m_nColumn;
    uint32_t m_nRow;
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
    // The rows of `section`, sorted by address (empty when it has none).
    std::pair<const quillet::CLineRow *, const quillet::CLineRow *> RowsOf(BrxHandle section) const;
    // Builds the source index now (it is built on demand otherwise).
    void BuildSourceIndex();

private:
    uint32_t BindObject(BrxHandle section);
    uint32_t LoadElfLines();
    uint32_t LoadCoffLines();
    uint32_t LoadByFormat();
    // Groups the rows by section, sorts each section by address and builds the fences.
    void FinishRows();
    // Records the rows from `begin` to the end of the table as one span of `section`.
    void AddSpan(BrxHandle section, size_t begin);
    quillet::CSectionRows &SlotOf(BrxHandle section);
    DbgLineSectionHandle *NumberedHandle(quillet::CSectionRows &rows);
    bool IsLibraryReader() const;
    // The retrieval module scope: made from the first unit (or empty for COFF) and made the
    // library's module root and current scope; section scopes under it for sections with rows.
    void AttachModule(const std::u16string &producer, const std::u16string &directory,
                      const std::u16string &name);
    void AttachSectionScope(quillet::CSectionRows &rows);
    void BuildBuckets(quillet::CSectionRows &rows);
    int64_t FindRowAtOffset(const quillet::CSectionRows &rows, uint64_t offset) const;
    // The file whose group holds source-index record `record`.
    int32_t FileOfRecord(int64_t record) const;
    // -1, 0 or 1 as record `record` sorts below, at or above the position.
    int CompareRecord(int64_t record, int32_t file, uint32_t line, uint32_t column) const;
    const quillet::CSectionRows *SectionOfRow(uint32_t row) const;

    BrxHandle m_hObject = 0;
    bool m_bOwnsObject = false; // opened by name here, so closed here
    bool m_bLoaded = false;
    int32_t m_nFormat = 0;
    uint32_t m_nMachine = 0;
    uint32_t m_nObjectKind = 7; // the mode word handed to the object-file library's open
    int32_t m_NextSectionNumber = 0;

    quillet::CFileTable m_Files;
    std::vector<uint8_t> m_InfoBytes, m_AbbrevBytes, m_LineBytes, m_StrBytes;
    quillet::CRowTable m_Rows;
    std::vector<quillet::CSequenceSpan> m_Spans;
    std::vector<quillet::CSectionRows> m_SectionList;
    std::unordered_map<BrxHandle, uint32_t> m_SectionSlot;
    // Per section, m_nBucketCount + 1 row indices: bucket b's rows run from entry b to entry b + 1.
    std::vector<uint32_t, quillet::CLargeAllocator<uint32_t>> m_Buckets;
    std::vector<quillet::CSourceIndexRecord, quillet::CLargeAllocator<quillet::CSourceIndexRecord>>
        m_SourceIndex;
    std::vector<uint32_t> m_FileStarts; // where each file's group begins; one more at the end
    bool m_bSourceIndexBuilt = false;
    int64_t m_nLastSourceHit = -1;
    BrxHandle m_LastQueriedSection = 0;
    size_t m_nLastQueriedSlot = SIZE_MAX;

    // The handles given out, and the registries that tell them from any other address: a
    // caller's handle is looked up before it is read.
    std::deque<DbgLineSectionHandle> m_SectionHandles;
    std::deque<DbgSourceHandle> m_SourceHandles;
    quillet::PointerSet m_LiveSectionHandles;
    quillet::PointerSet m_LiveSourceHandles;
    CModuleScope *m_pModule = nullptr;
};

// A new retrieval engine, or null when it cannot be allocated.
std::unique_ptr<CBaseRetrieve> CreateRetrieve();
