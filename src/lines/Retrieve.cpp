#include "lines/Retrieve.h"

#include "dwarf/AbbrevSection.h"
#include "dwarf/DwarfConstants.h"
#include "dwarf/InfoSection.h"
#include "frame/LibraryState.h"
#include "objects/CompInfo.h"
#include "scopes/ModuleScope.h"
#include "scopes/SectionScope.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <unordered_set>

using namespace quillet;

namespace {

// Rows per bucket that the bucket table aims at (at most; dense code can put more in one). A
// table of one entry per 16 rows stays in cache; the rows of one bucket are a few cache lines.
constexpr uint64_t kRowsPerBucket = 16;
// The row table is reserved up front for as many rows as the program has bytes (no row takes
// less than one byte), so it never reallocates while decoding; pages that stay unused are never
// touched. Past this many rows it grows as usual.
constexpr uint64_t kMaxRowReservation = uint64_t(1) << 26;
constexpr uint64_t kMinLineSectionSize = 32;
constexpr uint64_t kFirstReadPiece = uint64_t(1) << 16;
constexpr uint64_t kMaxReadPiece = uint64_t(1) << 26;
constexpr uint32_t kFirstNameCapacity = 256;
constexpr uint32_t kRetrieveLanguage = 1;
constexpr uint32_t kRetrieveMachine = 1;

bool Query(BrxHandle object, uint32_t key, const void *input, void *output) {
    return _brx_get_keyed(object, key, input, output, 0) == BRX_OK;
}

// A name query (a symbol's name, a file's path): the buffer doubles while it is too small.
bool NameQuery(BrxHandle object, uint32_t key, std::string &name) {
    std::vector<char> buffer(kFirstNameCapacity);
    for (;;) {
        uint32_t capacity = static_cast<uint32_t>(buffer.size());
        int32_t result = _brx_get_keyed(object, key, &capacity, buffer.data(), 0);
        if (result == BRX_ERR_BUFFER_TOO_SMALL && buffer.size() < (1u << 24)) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (result != BRX_OK)
            return false;
        name.assign(buffer.data(), strnlen(buffer.data(), buffer.size()));
        return true;
    }
}

// The size of the object file on disk, or the largest value when it cannot be known.
uint64_t ObjectFileSize(BrxHandle file) {
    std::string path;
    if (!NameQuery(file, BRX_KEY_PATH, path))
        return UINT64_MAX;
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || status.st_size < 0)
        return UINT64_MAX;
    return static_cast<uint64_t>(status.st_size);
}

// zlib expands at most about 1032 times: no debugging section can be larger than the file times
// this, however its header lies.
constexpr uint64_t kMaxExpansion = 1032;

// Reads a named section whole (decompressed, when it is compressed); false when it is missing or
// cannot be read. A section larger than the object file could ever expand to is refused: its
// header is corrupted, and reading it would only cost memory.
bool ReadSection(BrxHandle file, const char *name, std::vector<uint8_t> &bytes,
                 BrxHandle *sectionOut = nullptr) {
    BrxFind find{BRX_FIRST, BRX_KIND_SECTION, BRX_KEY_NAME, name};
    BrxHandle section = 0;
    uint64_t size = 0;
    uint64_t fileSize = ObjectFileSize(file);
    if (!Query(file, BRX_KEY_FIND, &find, &section) ||
        !Query(section, BRX_KEY_SECTION_SIZE, nullptr, &size) ||
        (fileSize != UINT64_MAX && size / kMaxExpansion > fileSize))
        return false;
    bytes.clear();
    uint64_t piece = kFirstReadPiece;
    for (uint64_t offset = 0; offset < size;) {
        uint64_t count = std::min(piece, size - offset);
        bytes.resize(static_cast<size_t>(offset + count));
        BrxBytes request{count, offset, bytes.data() + offset};
        if (!Query(section, BRX_KEY_SECTION_DATA, &request, &request) || request.count != count)
            return false;
        offset += count;
        piece = std::min(piece * 2, kMaxReadPiece);
    }
    if (sectionOut)
        *sectionOut = section;
    return true;
}

// What the relocations of a section of a relocatable object put into its fields, as brix works
// it out for the object's machine.
bool ReadRelocations(BrxHandle section, CRelocationMap &map) {
    BrxResolvedList list{0, 0, nullptr};
    if (!Query(section, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list))
        return false;
    std::vector<BrxResolvedRelocation> entries(static_cast<size_t>(list.count));
    if (!entries.empty()) {
        list = BrxResolvedList{entries.size(), 0, entries.data()};
        if (!Query(section, BRX_KEY_RESOLVED_RELOCATIONS, nullptr, &list) ||
            list.count != entries.size())
            return false;
    }
    std::vector<CFieldRelocation> fields;
    fields.reserve(entries.size());
    for (const BrxResolvedRelocation &e : entries)
        fields.push_back(CFieldRelocation{e.offset, e.value, e.section, e.size});
    map = CRelocationMap(std::move(fields));
    return true;
}

char LowerAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Places the sequences of a relocatable object: the relocation of a sequence's DW_LNE_set_address
// operand names its section, and its value (read through the relocation) is already the offset
// in that section.
class CRelocationPlacer : public CSequencePlacer {
public:
    Result Place(const CAddressOperand &operand, BrxHandle &section, int64_t &bias) override {
        if (operand.m_Section == 0)
            return Result::Failed;
        section = operand.m_Section;
        bias = 0;
        return Result::Placed;
    }
};

// Places the sequences of a linked object by address: the section whose address range holds the
// sequence's start; addresses become offsets in that section.
class CAddressPlacer : public CSequencePlacer {
public:
    bool Build(BrxHandle file) {
        BrxHandle section = BRX_FIRST;
        for (;;) {
            BrxFind find{section, BRX_KIND_SECTION, BRX_ANY, nullptr};
            int32_t result = _brx_get_keyed(file, BRX_KEY_FIND, &find, &section, 0);
            if (result == BRX_ERR_NO_MORE)
                break;
            if (result != BRX_OK)
                return false;
            Range range{0, 0, section};
            if (!Query(section, BRX_KEY_SECTION_ADDRESS, nullptr, &range.m_nAddress) ||
                !Query(section, BRX_KEY_SECTION_SIZE, nullptr, &range.m_nSize))
                return false;
            // Sections that are not loaded have no address and hold no code.
            if (range.m_nAddress != 0 && range.m_nSize != 0)
                m_Ranges.push_back(range);
        }
        std::stable_sort(m_Ranges.begin(), m_Ranges.end(), [](const Range &a, const Range &b) {
            return a.m_nAddress < b.m_nAddress;
        });
        return true;
    }

    // A sequence in no loaded section is code the linker dropped (its address set to 0 or
    // another mark): skipped.
    Result Place(const CAddressOperand &operand, BrxHandle &section, int64_t &bias) override {
        uint64_t address = operand.m_nAddress;
        auto it = std::upper_bound(
            m_Ranges.begin(), m_Ranges.end(), address,
            [](uint64_t value, const Range &range) { return value < range.m_nAddress; });
        if (it == m_Ranges.begin())
            return Result::Skipped;
        --it;
        if (address - it->m_nAddress >= it->m_nSize)
            return Result::Skipped;
        section = it->m_Section;
        bias = static_cast<int64_t>(uint64_t(0) - it->m_nAddress);
        return Result::Placed;
    }

private:
    struct Range {
        uint64_t m_nAddress;
        uint64_t m_nSize;
        BrxHandle m_Section;
    };
    std::vector<Range> m_Ranges;
};

} // namespace

CBaseRetrieve::CBaseRetrieve() = default;

CBaseRetrieve::~CBaseRetrieve() {
    if (m_bOwnsObject && m_hObject != 0)
        _brx_close_file(m_hObject);
}

std::unique_ptr<CBaseRetrieve> CreateRetrieve() {
    return std::unique_ptr<CBaseRetrieve>(new (std::nothrow) CBaseRetrieve());
}

uint32_t CBaseRetrieve::BindObject(BrxHandle object) {
    int32_t format = 0;
    uint32_t kind = 0, machine = 0;
    if (object == 0 || !Query(object, BRX_KEY_FORMAT, nullptr, &format) ||
        !Query(object, BRX_KEY_OBJECT_KIND, nullptr, &kind) ||
        !Query(object, BRX_KEY_MACHINE, nullptr, &machine))
        return DBG_ERR_OBJECT_FILE;
    if (m_hObject != 0 && m_hObject != object)
        return DBG_ERR_ALREADY_OPEN;
    m_hObject = object;
    m_nFormat = format;
    m_nObjectKind = kind;
    m_nMachine = machine;
    return DBG_ERR_NONE;
}

uint32_t CBaseRetrieve::LoadByFormat() {
    // A failed load leaves the object bound and is not tried again.
    m_bLoaded = true;
    switch (m_nFormat) {
    case BRX_FORMAT_ELF32:
    case BRX_FORMAT_ELF64:
        return LoadElfLines();
    case BRX_FORMAT_COFF:
        return LoadCoffLines();
    default:
        return DBG_ERR_UNSUPPORTED_FORMAT;
    }
}

uint32_t CBaseRetrieve::ReadDwarfSections(bool withLines, CReadSections &out) const {
    // The sections the reader needs, and no others: the line programs (for the rows) or the range
    // lists (for the functions), the units that lead to them, and the strings and addresses their
    // entries point at.
    enum Use { kBoth, kLines, kFunctions };
    struct Wanted {
        const char *name;
        bool required;
        bool relocated; // holds offsets or addresses that relocations patch
        Use use;
        CDwarfSection CDwarfSections::*member;
    };
    static const Wanted wanted[CReadSections::kCount] = {
        {".debug_abbrev", true, false, kBoth, &CDwarfSections::abbrev},
        {".debug_info", true, true, kBoth, &CDwarfSections::info},
        {".debug_line", true, true, kLines, &CDwarfSections::line},
        {".debug_str", false, false, kBoth, &CDwarfSections::str},
        {".debug_line_str", false, false, kBoth, &CDwarfSections::lineStr},
        {".debug_str_offsets", false, true, kBoth, &CDwarfSections::strOffsets},
        {".debug_addr", false, true, kBoth, &CDwarfSections::addr},
        {".debug_ranges", false, true, kFunctions, &CDwarfSections::ranges},
        {".debug_rnglists", false, true, kFunctions, &CDwarfSections::rnglists},
    };
    for (size_t i = 0; i < CReadSections::kCount; ++i) {
        if (wanted[i].use == (withLines ? kFunctions : kLines))
            continue;
        BrxHandle section = 0;
        if (!ReadSection(m_hObject, wanted[i].name, out.m_Bytes[i], &section)) {
            if (wanted[i].required)
                return DBG_ERR_OBJECT_FILE;
            out.m_Bytes[i].clear();
            continue;
        }
        // In a relocatable object the fields hold their values only once relocated.
        if (m_nObjectKind == 0 && wanted[i].relocated &&
            !ReadRelocations(section, out.m_Relocations[i]))
            return DBG_ERR_OBJECT_FILE;
        CDwarfSection &view = out.m_View.*wanted[i].member;
        view.m_pData = out.m_Bytes[i].data();
        view.m_nSize = out.m_Bytes[i].size();
        view.m_pRelocations = out.m_Relocations[i].Empty() ? nullptr : &out.m_Relocations[i];
    }
    return DBG_ERR_NONE;
}

uint32_t CBaseRetrieve::LoadElfLines() {
    CReadSections read;
    uint32_t status = ReadDwarfSections(true, read);
    if (status != DBG_ERR_NONE)
        return status;
    const CDwarfSections &sections = read.m_View;
    if (sections.line.m_nSize < kMinLineSectionSize)
        return DBG_ERR_LINE_SECTION_TOO_SHORT;

    // The rows and the file table hold copies of all they need from the sections.
    if (m_nObjectKind == 0) {
        CRelocationPlacer placer;
        return LoadDwarf(sections, placer);
    }
    if (m_nObjectKind <= 3) {
        CAddressPlacer placer;
        return placer.Build(m_hObject) ? LoadDwarf(sections, placer) : DBG_ERR_OBJECT_FILE;
    }
    return DBG_ERR_READ_FAILED;
}

void CBaseRetrieve::IndexFunctions(const CDwarfSections &sections, CSequencePlacer &placer) {
    m_bFunctionsIndexed = true;
    // A malformed unit ends the walk; the functions found before it still answer.
    (void)m_Functions.Build(sections, placer);
}

void CBaseRetrieve::IndexObjectFunctions() {
    // The sections are read again rather than kept from the load: most runs never ask for a
    // function, and the open stays as small as its rows.
    m_bFunctionsIndexed = true;
    if (m_hObject == 0 || (m_nFormat != BRX_FORMAT_ELF32 && m_nFormat != BRX_FORMAT_ELF64))
        return;
    CReadSections read;
    if (ReadDwarfSections(false, read) != DBG_ERR_NONE)
        return;
    if (m_nObjectKind == 0) {
        CRelocationPlacer placer;
        IndexFunctions(read.m_View, placer);
    } else if (m_nObjectKind <= 3) {
        CAddressPlacer placer;
        if (placer.Build(m_hObject))
            IndexFunctions(read.m_View, placer);
    }
}

uint32_t CBaseRetrieve::FindFunction(const DbgLineSectionHandle *handle, uint64_t offset,
                                     char *buffer, uint32_t *size, uint64_t *start, uint64_t *end) {
    const CSectionRows *rows = LiveSection(handle);
    if (!rows || !size)
        return DBG_ERR_OBJECT_FILE;
    BrxHandle section = rows->m_Section;
    if (!m_bFunctionsIndexed)
        IndexObjectFunctions();
    const CFunction *function = m_Functions.Find(section, offset);
    if (!function)
        return DBG_ERR_NO_LINE_AT_OFFSET;
    std::string_view name = m_Functions.Name(*function);
    uint32_t capacity = *size;
    *size = static_cast<uint32_t>(name.size() + 1);
    if (!buffer || capacity < name.size() + 1)
        return DBG_ERR_BAD_SOURCE_INDEX;
    std::memcpy(buffer, name.data(), name.size());
    buffer[name.size()] = '\0';
    if (start)
        *start = function->m_nStart;
    if (end)
        *end = function->m_nEnd;
    return DBG_ERR_NONE;
}

uint32_t CBaseRetrieve::LoadDwarf(const CDwarfSections &sections, CSequencePlacer &placer) {
    if (sections.line.m_nSize < kMinLineSectionSize)
        return DBG_ERR_LINE_SECTION_TOO_SHORT;
    // A process that has written a line program does not decode one: the writer and the decoder
    // share the state machine's header constants. The library's reader claims the interlock.
    if (IsLibraryReader()) {
        uint32_t &use = State().lineProgramUse;
        if (use == kLineProgramWriting)
            return DBG_ERR_READ_FAILED;
        use = kLineProgramDecoding;
    }
    CAbbrevSection abbrev(sections.abbrev.m_pData, sections.abbrev.m_nSize);
    CInfoSection info(sections, abbrev);
    CLineSection line(sections);
    m_Rows.Reserve(static_cast<size_t>(std::min(sections.line.m_nSize, kMaxRowReservation)));

    // Every compilation unit leads to its own line program; units without one are skipped, and a
    // program that several units name is read once.
    uint32_t status = DBG_ERR_NONE;
    bool first = true;
    std::unordered_set<uint64_t> programsRead;
    for (;;) {
        CUnitHeader header;
        bool more = false;
        if (info.NextUnit(header, more).Failed()) {
            status = DBG_ERR_READ_FAILED;
            break;
        }
        if (!more)
            break;
        if (header.m_nUnitType == dwarf::DW_UT_type ||
            header.m_nUnitType == dwarf::DW_UT_split_type)
            continue;
        CUnitEntry entry;
        if (info.ReadUnitEntry(header, entry).Failed()) {
            status = DBG_ERR_READ_FAILED;
            break;
        }
        if (first) {
            AttachModule(Utf8ToUtf16(entry.m_Producer), Utf8ToUtf16(entry.m_CompilationDirectory),
                         Utf8ToUtf16(entry.m_Name));
            first = false;
        }
        if (!entry.m_bHasStatementList || !programsRead.insert(entry.m_nStatementList).second)
            continue;
        CLineUnitContext context{entry.m_CompilationDirectory, entry.m_nStrOffsetsBase};
        if (line.ReadHeader(entry.m_nStatementList, context, m_Files).Failed() ||
            line.DecodeUnit(placer, m_Files, m_Rows, m_Spans).Failed()) {
            status = DBG_ERR_READ_FAILED;
            break;
        }
    }
    // Rows placed before a failure stay.
    FinishRows();
    return status;
}

uint32_t CBaseRetrieve::LoadCoffLines() {
    AttachModule(std::u16string(), std::u16string(), std::u16string());
    uint32_t status = DBG_ERR_NONE;
    std::unordered_map<BrxHandle, int32_t> fileOfSymbol;

    BrxFind findTable{BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, nullptr};
    BrxHandle table = 0;
    if (!Query(m_hObject, BRX_KEY_FIND, &findTable, &table))
        status = DBG_ERR_READ_FAILED;
    const uint32_t sourceFileType = BRX_SYMBOL_SOURCE_FILE;
    for (BrxHandle symbol = BRX_FIRST; status == DBG_ERR_NONE;) {
        BrxFindSymbol find{symbol, BRX_KEY_SYMBOL_TYPE, &sourceFileType};
        int32_t result = _brx_get_keyed(table, BRX_KEY_FIND_SYMBOL, &find, &symbol, 0);
        if (result == BRX_ERR_NO_MORE)
            break;
        std::string name;
        if (result != BRX_OK || !NameQuery(symbol, BRX_KEY_SYMBOL_NAME, name)) {
            status = DBG_ERR_READ_FAILED;
            break;
        }
        fileOfSymbol.emplace(symbol, static_cast<int32_t>(m_Files.FileCount()));
        m_Files.AddNamedFile(name, symbol);
    }

    for (BrxHandle section = BRX_FIRST; status == DBG_ERR_NONE;) {
        BrxFind find{section, BRX_KIND_SECTION, BRX_ANY, nullptr};
        int32_t result = _brx_get_keyed(m_hObject, BRX_KEY_FIND, &find, &section, 0);
        if (result == BRX_ERR_NO_MORE)
            break;
        if (result != BRX_OK) {
            status = DBG_ERR_READ_FAILED;
            break;
        }
        // The file blocks of one lines subsection describe one range of code: their rows make
        // one sequence, put in address order. Consecutive blocks with the same end belong to one
        // subsection.
        size_t spanBegin = m_Rows.size();
        uint64_t spanEnd = 0;
        bool spanOpen = false;
        auto closeSpan = [&]() {
            if (!spanOpen)
                return;
            std::stable_sort(
                m_Rows.data() + spanBegin, m_Rows.data() + m_Rows.size(),
                [](const CLineRow &a, const CLineRow &b) { return a.m_nAddress < b.m_nAddress; });
            uint64_t last = m_Rows.size() > spanBegin ? m_Rows[m_Rows.size() - 1].m_nAddress : 0;
            AddSpan(section, spanBegin, std::max(spanEnd, last));
            spanOpen = false;
        };
        for (BrxHandle block = BRX_FIRST; status == DBG_ERR_NONE;) {
            BrxHandle previous = block;
            result = _brx_get_keyed(section, BRX_KEY_NEXT_LINE_BLOCK, &previous, &block, 0);
            if (result == BRX_ERR_NO_MORE)
                break;
            BrxHandle reference = 0, symbol = 0;
            uint64_t codeEnd = 0;
            if (result != BRX_OK || !Query(block, BRX_KEY_LINE_BLOCK_FILE, nullptr, &reference) ||
                !Query(reference, BRX_KEY_LINE_FILE_SYMBOL, nullptr, &symbol) ||
                !Query(block, BRX_KEY_LINE_BLOCK_END, nullptr, &codeEnd)) {
                status = DBG_ERR_READ_FAILED;
                break;
            }
            auto file = fileOfSymbol.find(symbol);
            if (file == fileOfSymbol.end()) {
                status = DBG_ERR_READ_FAILED;
                break;
            }
            if (spanOpen && codeEnd != spanEnd)
                closeSpan();
            if (!spanOpen) {
                spanBegin = m_Rows.size();
                spanEnd = codeEnd;
                spanOpen = true;
            }
            for (BrxHandle item = BRX_FIRST;;) {
                BrxHandle previousItem = item;
                result = _brx_get_keyed(block, BRX_KEY_NEXT_LINE_ITEM, &previousItem, &item, 0);
                if (result == BRX_ERR_NO_MORE)
                    break;
                uint32_t line = 0;
                uint64_t address = 0;
                if (result != BRX_OK || !Query(item, BRX_KEY_LINE_ITEM_LINE, nullptr, &line) ||
                    !Query(item, BRX_KEY_LINE_ITEM_ADDRESS, nullptr, &address)) {
                    status = DBG_ERR_READ_FAILED;
                    break;
                }
                // Columns of COFF line items are not kept: every row has column 1.
                m_Rows.PushBack(CLineRow{address, line, 1, file->second, kRowIsStmt});
            }
        }
        closeSpan();
    }
    FinishRows();
    return status;
}

bool CBaseRetrieve::IsLibraryReader() const {
    return State().reader.get() == this;
}

void CBaseRetrieve::AttachModule(const std::u16string &producer, const std::u16string &directory,
                                 const std::u16string &name) {
    // Only the library's own reader builds the scope tree; a reader made on its own (a test, the
    // fuzzer) keeps its rows to itself.
    LibraryState &state = State();
    if (!IsLibraryReader() || state.moduleRoot)
        return;
    CCompInfo record(kRetrieveLanguage, 0, 0, kRetrieveMachine, nullptr, nullptr, producer.c_str(),
                     directory.c_str(), name.c_str(), u"");
    m_pModule = new CModuleScope(record);
    state.moduleRoot = m_pModule;
    state.currentScope = m_pModule;
}

void CBaseRetrieve::AttachSectionScope(CSectionRows &rows) {
    if (!m_pModule || rows.m_pScope || State().moduleRoot != m_pModule)
        return;
    uint16_t flags = 0;
    if (!Query(rows.m_Section, BRX_KEY_SECTION_FLAGS, nullptr, &flags))
        flags = 0;
    auto scope = std::make_unique<CSectionScope>(rows.m_Section, (flags & BRX_SECTION_CODE) != 0);
    if (m_pModule->AddChildScope(scope.get()).Ok())
        rows.m_pScope = scope.release(); // owned by the module now
}

CSectionRows &CBaseRetrieve::SlotOf(BrxHandle section) {
    auto found = m_SectionSlot.find(section);
    if (found != m_SectionSlot.end())
        return m_SectionList[found->second];
    m_SectionSlot.emplace(section, static_cast<uint32_t>(m_SectionList.size()));
    CSectionRows rows;
    rows.m_Section = section;
    rows.m_nBegin = rows.m_nEnd = static_cast<uint32_t>(m_Rows.size());
    rows.m_nBucketBegin = static_cast<uint32_t>(m_Buckets.size());
    m_SectionList.push_back(rows);
    return m_SectionList.back();
}

void CBaseRetrieve::AddSpan(BrxHandle section, size_t begin, uint64_t endAddress) {
    if (begin == m_Rows.size())
        return;
    bool sorted = std::is_sorted(
        m_Rows.data() + begin, m_Rows.data() + m_Rows.size(),
        [](const CLineRow &a, const CLineRow &b) { return a.m_nAddress < b.m_nAddress; });
    m_Spans.push_back(CSequenceSpan{section, static_cast<uint32_t>(begin),
                                    static_cast<uint32_t>(m_Rows.size()), sorted, endAddress});
}

void CBaseRetrieve::FinishRows() {
    m_nPaddedNameFile = INT32_MIN;
    // Work per span, not per row: a section is in address order when its spans follow one
    // another in the table and each starts at or above where the one before it ended.
    struct SlotState {
        uint32_t end = 0;
        uint32_t count = 0;
        bool ordered = true;
        uint64_t lastAddress = 0;
        std::vector<uint32_t> spans;
    };
    std::vector<SlotState> slots;
    bool contiguous = true;
    for (uint32_t i = 0; i < m_Spans.size(); ++i) {
        const CSequenceSpan &span = m_Spans[i];
        if (span.m_nBegin == span.m_nEnd)
            continue;
        uint32_t slot;
        auto found = m_SectionSlot.find(span.m_Section);
        if (found == m_SectionSlot.end()) {
            slot = static_cast<uint32_t>(m_SectionList.size());
            m_SectionSlot.emplace(span.m_Section, slot);
            CSectionRows rows;
            rows.m_Section = span.m_Section;
            rows.m_nBegin = span.m_nBegin;
            m_SectionList.push_back(rows);
        } else {
            slot = found->second;
        }
        if (slots.size() <= slot)
            slots.resize(slot + 1);
        SlotState &state = slots[slot];
        if (!state.spans.empty() && state.end != span.m_nBegin)
            contiguous = false;
        uint64_t first = m_Rows[span.m_nBegin].m_nAddress;
        if (!span.m_bSorted || (!state.spans.empty() && first < state.lastAddress))
            state.ordered = false;
        state.lastAddress = m_Rows[span.m_nEnd - 1].m_nAddress;
        state.end = span.m_nEnd;
        state.count += span.m_nEnd - span.m_nBegin;
        state.spans.push_back(i);
    }
    slots.resize(m_SectionList.size());
    if (!contiguous) {
        // Regroup: each section's spans, in their order, one section after another.
        CRowTable grouped;
        grouped.Reserve(m_Rows.size());
        for (size_t s = 0; s < m_SectionList.size(); ++s) {
            m_SectionList[s].m_nBegin = static_cast<uint32_t>(grouped.size());
            for (uint32_t i : slots[s].spans) {
                const CSequenceSpan &span = m_Spans[i];
                std::memcpy(grouped.data() + grouped.size(), m_Rows.data() + span.m_nBegin,
                            (span.m_nEnd - span.m_nBegin) * sizeof(CLineRow));
                grouped.SetSize(grouped.size() + (span.m_nEnd - span.m_nBegin));
            }
        }
        m_Rows.Swap(grouped);
    }
    m_Sequences.clear();
    m_Buckets.clear();
    m_AddressOrder.clear();
    for (size_t s = 0; s < m_SectionList.size(); ++s) {
        CSectionRows &rows = m_SectionList[s];
        rows.m_nEnd = rows.m_nBegin + slots[s].count;
        rows.m_nSequenceBegin = static_cast<uint32_t>(m_Sequences.size());
        uint32_t at = rows.m_nBegin;
        for (uint32_t i : slots[s].spans) {
            const CSequenceSpan &span = m_Spans[i];
            uint32_t length = span.m_nEnd - span.m_nBegin;
            m_Sequences.push_back(CSequence{at, at + length, span.m_nEndAddress});
            at += length;
        }
        rows.m_nSequenceEnd = static_cast<uint32_t>(m_Sequences.size());
        rows.m_bAddressOrdered = slots[s].ordered;
        if (!rows.m_bAddressOrdered) {
            // Rows at one address keep their table order.
            rows.m_nOrderBegin = static_cast<uint32_t>(m_AddressOrder.size());
            for (uint32_t r = rows.m_nBegin; r < rows.m_nEnd; ++r)
                m_AddressOrder.push_back(r);
            std::stable_sort(m_AddressOrder.begin() + rows.m_nOrderBegin, m_AddressOrder.end(),
                             [this](uint32_t a, uint32_t b) {
                                 return m_Rows[a].m_nAddress < m_Rows[b].m_nAddress;
                             });
        }
        BuildBuckets(rows);
        AttachSectionScope(rows);
    }
    m_Spans.clear();
}

std::pair<const CLineRow *, const CLineRow *> CBaseRetrieve::RowsOf(BrxHandle section) const {
    auto found = m_SectionSlot.find(section);
    if (found == m_SectionSlot.end())
        return {nullptr, nullptr};
    const CSectionRows &rows = m_SectionList[found->second];
    return {m_Rows.data() + rows.m_nBegin, m_Rows.data() + rows.m_nEnd};
}

void CBaseRetrieve::BuildBuckets(CSectionRows &rows) {
    rows.m_nBucketBegin = static_cast<uint32_t>(m_Buckets.size());
    rows.m_nBucketCount = 0;
    const uint32_t n = rows.Count();
    if (n == 0)
        return;
    auto addressAt = [&](uint32_t position) {
        return m_Rows[RowAtPosition(rows, position)].m_nAddress;
    };
    uint64_t low = addressAt(0);
    uint64_t span = addressAt(n - 1) - low;
    uint64_t wanted = std::max<uint64_t>(1, n / kRowsPerBucket);
    uint32_t shift = 0;
    // Written without "+ 1" so that a span of the whole 64-bit range does not wrap.
    while (shift < 63 && (span >> shift) >= wanted)
        ++shift;
    uint64_t count = (span >> shift) + 1;
    rows.m_nLowAddress = low;
    rows.m_nBucketShift = shift;
    rows.m_nBucketCount = static_cast<uint32_t>(count);
    // Entry b is the first position whose bucket is b or later; one pass over rows and buckets.
    m_Buckets.reserve(m_Buckets.size() + count + 1);
    uint32_t position = 0;
    for (uint64_t b = 0; b <= count; ++b) {
        while (position < n && ((addressAt(position) - low) >> shift) < b)
            ++position;
        m_Buckets.push_back(position);
    }
}

int64_t CBaseRetrieve::FindRowAtOffset(const CSectionRows &rows, uint64_t offset) const {
    // The first position at or above the offset is the first one above the address before it.
    uint32_t position = offset == 0 ? 0 : PositionAbove(rows, offset - 1);
    if (position >= rows.Count() || m_Rows[RowAtPosition(rows, position)].m_nAddress != offset)
        return -1;
    return position;
}

uint32_t CBaseRetrieve::PositionAbove(const CSectionRows &rows, uint64_t offset) const {
    if (rows.m_nBucketCount == 0 || offset < rows.m_nLowAddress)
        return 0;
    uint64_t bucket = (offset - rows.m_nLowAddress) >> rows.m_nBucketShift;
    if (bucket >= rows.m_nBucketCount)
        return rows.Count();
    // Earlier buckets hold only lower addresses and later ones only higher: the answer lies in
    // this bucket or at its end.
    const uint32_t *starts = m_Buckets.data() + rows.m_nBucketBegin + bucket;
    uint32_t lo = starts[0], n = starts[1] - starts[0];
    // A table in address order is searched in place: the bucket's rows are asked for at once.
    if (rows.m_bAddressOrdered && n <= 2 * kRowsPerBucket) {
        const char *bytes = reinterpret_cast<const char *>(m_Rows.data() + rows.m_nBegin + lo);
        for (uint32_t at = 0; at < n * sizeof(CLineRow); at += 64)
            __builtin_prefetch(bytes + at);
    }
    auto addressAt = [&](uint32_t position) {
        return m_Rows[RowAtPosition(rows, position)].m_nAddress;
    };
    // The steps take no branch on the comparisons: a mispredicted step would throw away the
    // work of the lookups that follow this one.
    while (n > 1) {
        uint32_t half = n / 2;
        lo = addressAt(lo + half - 1) <= offset ? lo + half : lo;
        n -= half;
    }
    return lo + (n == 1 && addressAt(lo) <= offset);
}

const CSectionRows *CBaseRetrieve::LiveSection(const DbgLineSectionHandle *handle) const {
    // Queries come in runs against one handle: the slot of the last one is tried first, and the
    // handle is compared with the one the slot gave out, never read.
    if (m_nLastLiveSlot < m_SectionList.size() && handle &&
        m_SectionList[m_nLastLiveSlot].m_pHandle == handle)
        return &m_SectionList[m_nLastLiveSlot];
    if (!m_LiveSectionHandles.Contains(handle))
        return nullptr;
    auto slot = m_SectionSlot.find(handle->section);
    if (slot == m_SectionSlot.end() || m_SectionList[slot->second].m_pHandle != handle)
        return nullptr;
    m_nLastLiveSlot = slot->second;
    return &m_SectionList[slot->second];
}

const CSequence &CBaseRetrieve::SequenceOf(const CSectionRows &rows, uint32_t row) const {
    auto first = m_Sequences.begin() + rows.m_nSequenceBegin;
    auto last = m_Sequences.begin() + rows.m_nSequenceEnd;
    auto it = std::upper_bound(first, last, row, [](uint32_t value, const CSequence &sequence) {
        return value < sequence.m_nBegin;
    });
    return *(it - 1);
}

DbgLineRow CBaseRetrieve::MakeRow(const CSequence &sequence, uint32_t row) const {
    const CLineRow &r = m_Rows[row];
    // A row's range runs to the next row of its sequence, or to the sequence's end; a row followed
    // by another at its own address (or, in a malformed table, a lower one) has an empty range.
    uint64_t next = row + 1 < sequence.m_nEnd ? m_Rows[row + 1].m_nAddress : sequence.m_nEndAddress;
    DbgLineRow out;
    out.offset = r.m_nAddress;
    out.end = std::max(next, r.m_nAddress);
    out.line = r.m_nLine;
    out.column = r.m_nColumn - 1;
    out.file_index = static_cast<uint32_t>(r.m_nFileIndex);
    out.flags = ((r.m_nFlags & kRowIsStmt) ? DBG_ROW_IS_STMT : 0) |
                (row == sequence.m_nBegin ? DBG_ROW_SEQUENCE_START : 0);
    return out;
}

uint32_t CBaseRetrieve::RowCount(const DbgLineSectionHandle *handle, uint64_t *count) const {
    const CSectionRows *rows = LiveSection(handle);
    if (!rows || !count)
        return DBG_ERR_OBJECT_FILE;
    *count = rows->Count();
    return DBG_ERR_NONE;
}

uint32_t CBaseRetrieve::GetRows(const DbgLineSectionHandle *handle, uint64_t first, DbgLineRow *out,
                                uint64_t *count) const {
    const CSectionRows *rows = LiveSection(handle);
    if (!rows || !count || (*count > 0 && !out))
        return DBG_ERR_OBJECT_FILE;
    uint64_t available = first < rows->Count() ? rows->Count() - first : 0;
    uint64_t copied = std::min(*count, available);
    if (copied > 0) {
        uint32_t row = rows->m_nBegin + static_cast<uint32_t>(first);
        const CSequence *sequence = &SequenceOf(*rows, row);
        for (uint64_t i = 0; i < copied; ++i, ++row) {
            while (row >= sequence->m_nEnd)
                ++sequence;
            out[i] = MakeRow(*sequence, row);
        }
    }
    *count = copied;
    return DBG_ERR_NONE;
}

uint32_t CBaseRetrieve::FindRow(const DbgLineSectionHandle *handle, uint64_t offset,
                                DbgLineRow *out, uint64_t *index) const {
    const CSectionRows *rows = LiveSection(handle);
    if (!rows || !out)
        return DBG_ERR_OBJECT_FILE;
    // The last row at or below the offset in address order; of several at one address, the
    // last in table order, the one whose range is not empty.
    uint32_t above = PositionAbove(*rows, offset);
    if (above == 0)
        return DBG_ERR_NO_LINE_AT_OFFSET;
    uint32_t row = RowAtPosition(*rows, above - 1);
    DbgLineRow found = MakeRow(SequenceOf(*rows, row), row);
    if (offset >= found.end)
        return DBG_ERR_NO_LINE_AT_OFFSET; // past its sequence's end, or in an empty range
    *out = found;
    if (index)
        *index = row - rows->m_nBegin;
    return DBG_ERR_NONE;
}

DbgLineSectionHandle *CBaseRetrieve::NumberedHandle(CSectionRows &rows) {
    if (rows.m_nNumber < 0)
        rows.m_nNumber = m_NextSectionNumber++;
    if (!rows.m_pHandle) {
        m_SectionHandles.push_back(
            DbgLineSectionHandle{rows.m_Section, static_cast<uint32_t>(rows.m_nNumber)});
        rows.m_pHandle = &m_SectionHandles.back();
        m_LiveSectionHandles.Insert(rows.m_pHandle);
    }
    return rows.m_pHandle;
}

uint32_t CBaseRetrieve::OpenObjectAndSourceFile(const char *objectName, const char *sourceName,
                                                DbgSourceHandle **outHandle) {
    if (m_hObject != 0)
        return DBG_ERR_ALREADY_OPEN;
    BrxHandle file = 0;
    uint32_t mode = m_nObjectKind;
    if (!objectName || _brx_open_file(objectName, &mode, &file, 0) != BRX_OK || file == 0)
        return DBG_ERR_OPEN_OBJECT_FILE;
    uint32_t status = BindObject(file);
    if (status != DBG_ERR_NONE) {
        _brx_close_file(file);
        return DBG_ERR_OBJECT_FILE;
    }
    m_bOwnsObject = true;
    status = LoadByFormat();
    if (status != DBG_ERR_NONE)
        return status;

    return FindSource(sourceName, outHandle);
}

uint32_t CBaseRetrieve::FindSource(const char *sourceName, DbgSourceHandle **outHandle) {
    if (!sourceName)
        return DBG_ERR_SOURCE_NOT_FOUND;
    // Compared lowercased on both sides; the caller's buffer is not written (it may be a
    // string literal).
    std::string wanted(sourceName);
    for (char &c : wanted)
        c = LowerAscii(c);
    std::string scratch;
    for (uint32_t index = 0; index < m_Files.FileCount(); ++index) {
        const FileRecord *record = m_Files.GetFile(index);
        const std::string &path = m_Files.Path(*record, scratch);
        if (path.size() != wanted.size())
            continue;
        bool equal = true;
        for (size_t i = 0; i < path.size() && equal; ++i)
            equal = LowerAscii(path[i]) == wanted[i];
        if (!equal)
            continue;
        // The handle names the file for as long as the reader lives.
        const char16_t *name = record->m_WidePath.c_str();
        if (!record->m_bPathKept) {
            m_SourceNames.push_back(Utf8ToUtf16(path));
            name = m_SourceNames.back().c_str();
        }
        m_SourceHandles.push_back(DbgSourceHandle{name, index, index});
        m_LiveSourceHandles.Insert(&m_SourceHandles.back());
        BuildSourceIndex();
        if (outHandle)
            *outHandle = &m_SourceHandles.back();
        return DBG_ERR_NONE;
    }
    return DBG_ERR_SOURCE_NOT_FOUND;
}

uint32_t CBaseRetrieve::OpenLineSection(BrxHandle section, DbgLineSectionHandle **outHandle) {
    BrxHandle owner = 0;
    if (!Query(section, BRX_KEY_OWNER, nullptr, &owner))
        return DBG_ERR_OBJECT_FILE;
    uint32_t status = BindObject(owner);
    if (status != DBG_ERR_NONE)
        return status;
    if (!m_bLoaded) {
        status = LoadByFormat();
        if (status != DBG_ERR_NONE)
            return status;
    }
    DbgLineSectionHandle *handle = SectionHandle(section);
    if (outHandle)
        *outHandle = handle;
    return DBG_ERR_NONE;
}

DbgLineSectionHandle *CBaseRetrieve::SectionHandle(BrxHandle section) {
    return NumberedHandle(SlotOf(section));
}

uint32_t CBaseRetrieve::InstInfoByOffset(uint32_t flag, DbgOffsetQuery *query, DbgInstInfo *info) {
    const CSectionRows *rows = query && info ? LiveSection(query->handle) : nullptr;
    if (!rows)
        return DBG_ERR_OBJECT_FILE;
    int64_t found = FindRowAtOffset(*rows, query->offset);
    if (found < 0)
        return DBG_ERR_NO_LINE_AT_OFFSET;
    if (flag == 0) {
        if (found == 0)
            return DBG_ERR_NO_PREVIOUS_LINE;
        --found;
    }
    const CLineRow &row = m_Rows[RowAtPosition(*rows, static_cast<uint32_t>(found))];
    query->offset = row.m_nAddress;
    info->line = row.m_nLine;
    info->column = static_cast<uint16_t>(row.m_nColumn);
    info->file_index = static_cast<uint32_t>(row.m_nFileIndex);
    // One copy of a fixed size from the padded name kept for the last file answered: answers
    // come in runs from one file, and a copy of one size costs less than a copy and a fill.
    std::memcpy(info->name, PaddedName(row.m_nFileIndex), sizeof(info->name));
    return DBG_ERR_NONE;
}

const char16_t *CBaseRetrieve::PaddedName(int32_t fileIndex) {
    if (fileIndex != m_nPaddedNameFile) {
        m_PaddedName.fill(0);
        if (const FileRecord *file = m_Files.GetFile(fileIndex)) {
            std::u16string scratch;
            const std::u16string &path = m_Files.WidePath(*file, scratch);
            std::copy_n(path.data(), std::min<size_t>(path.size(), m_PaddedName.size()),
                        m_PaddedName.begin());
        }
        m_nPaddedNameFile = fileIndex;
    }
    return m_PaddedName.data();
}

void CBaseRetrieve::BuildSourceIndex() {
    if (m_bSourceIndexBuilt)
        return;
    m_bSourceIndexBuilt = true;
    // A counting sort by file keeps each file's records in row order; a file's group then
    // needs sorting only when its lines do not already rise with the rows.
    const uint32_t files = m_Files.FileCount();
    m_FileStarts.assign(files + 1, 0);
    for (const CLineRow &row : m_Rows)
        if (static_cast<uint32_t>(row.m_nFileIndex) < files)
            ++m_FileStarts[row.m_nFileIndex + 1];
    for (uint32_t f = 0; f < files; ++f)
        m_FileStarts[f + 1] += m_FileStarts[f];
    m_SourceIndex.resize(m_FileStarts[files]);
    std::vector<uint32_t> next(m_FileStarts.begin(), m_FileStarts.end() - 1);
    for (size_t i = 0; i < m_Rows.size(); ++i) {
        const CLineRow &row = m_Rows[i];
        if (static_cast<uint32_t>(row.m_nFileIndex) < files)
            m_SourceIndex[next[row.m_nFileIndex]++] =
                CSourceIndexRecord{row.m_nLine, row.m_nColumn, static_cast<uint32_t>(i)};
    }
    // Records at equal positions are in address order, so a search meets the lowest first.
    auto less = [this](const CSourceIndexRecord &a, const CSourceIndexRecord &b) {
        if (a.m_nLine != b.m_nLine)
            return a.m_nLine < b.m_nLine;
        if (a.m_nColumn != b.m_nColumn)
            return a.m_nColumn < b.m_nColumn;
        uint64_t addressA = m_Rows[a.m_nRow].m_nAddress, addressB = m_Rows[b.m_nRow].m_nAddress;
        return addressA != addressB ? addressA < addressB : a.m_nRow < b.m_nRow;
    };
    for (uint32_t f = 0; f < files; ++f) {
        auto first = m_SourceIndex.begin() + m_FileStarts[f];
        auto last = m_SourceIndex.begin() + m_FileStarts[f + 1];
        if (!std::is_sorted(first, last, less))
            std::sort(first, last, less);
    }
}

int32_t CBaseRetrieve::FileOfRecord(int64_t record) const {
    auto it =
        std::upper_bound(m_FileStarts.begin(), m_FileStarts.end(), static_cast<uint32_t>(record));
    return static_cast<int32_t>(it - m_FileStarts.begin()) - 1;
}

int CBaseRetrieve::CompareRecord(int64_t record, int32_t file, uint32_t line,
                                 uint32_t column) const {
    int32_t recordFile = FileOfRecord(record);
    const CSourceIndexRecord &r = m_SourceIndex[static_cast<size_t>(record)];
    if (recordFile != file)
        return recordFile < file ? -1 : 1;
    if (r.m_nLine != line)
        return r.m_nLine < line ? -1 : 1;
    if (r.m_nColumn != column)
        return r.m_nColumn < column ? -1 : 1;
    return 0;
}

const CSectionRows *CBaseRetrieve::SectionOfRow(uint32_t row) const {
    // Sections hold consecutive ranges of the row table, in slot order.
    auto it = std::upper_bound(
        m_SectionList.begin(), m_SectionList.end(), row,
        [](uint32_t value, const CSectionRows &rows) { return value < rows.m_nEnd; });
    return it == m_SectionList.end() ? nullptr : &*it;
}

uint32_t CBaseRetrieve::InstInfoBySource(uint32_t flag, const DbgSourceQuery *query,
                                         DbgSourceResult *result) {
    if (!query || !result)
        return DBG_ERR_NO_LINE_AT_POSITION;
    if (!m_LiveSourceHandles.Contains(query->handle))
        return DBG_ERR_SOURCE_NOT_FOUND;
    BuildSourceIndex();
    const int32_t file = static_cast<int32_t>(query->handle->file_index);
    const uint32_t line = query->line;
    const uint32_t column = query->column;
    const int64_t count = static_cast<int64_t>(m_SourceIndex.size());

    int64_t hit = -1;     // an exact record
    int64_t nearest = -1; // the nearest record below the position
    bool searchIndex = true;
    if (flag != 0) {
        // Continue after the last hit.
        int64_t c = m_nLastSourceHit + 1;
        if (c >= count)
            return DBG_ERR_NO_LINE_AT_POSITION;
        int order = CompareRecord(c, file, line, column);
        if (order == 0) {
            hit = c;
            searchIndex = false;
        } else if (order > 0) {
            nearest = std::max<int64_t>(c, 1) - 1;
            searchIndex = false;
        }
    }
    if (searchIndex) {
        // The first record at or above the position: inside the file's group, or at a group's
        // edge for a file outside the list.
        int64_t lb;
        if (file < 0) {
            lb = 0;
        } else if (static_cast<uint32_t>(file) >= m_Files.FileCount()) {
            lb = count;
        } else {
            auto first = m_SourceIndex.begin() + m_FileStarts[file];
            auto last = m_SourceIndex.begin() + m_FileStarts[file + 1];
            auto it = std::lower_bound(first, last, 0, [&](const CSourceIndexRecord &r, int) {
                return r.m_nLine != line ? r.m_nLine < line : r.m_nColumn < column;
            });
            lb = it - m_SourceIndex.begin();
        }
        if (lb < count && CompareRecord(lb, file, line, column) == 0) {
            hit = lb;
        } else {
            if (lb == 0)
                return DBG_ERR_NO_LINE_AT_POSITION;
            nearest = lb - 1;
            if (flag == 1)
                m_nLastSourceHit = nearest;
        }
    }
    int64_t chosen = hit >= 0 ? hit : nearest;
    uint32_t row = m_SourceIndex[static_cast<size_t>(chosen)].m_nRow;
    const CSectionRows *rows = SectionOfRow(row);
    if (!rows)
        return DBG_ERR_NO_LINE_AT_POSITION;
    result->address = m_Rows[row].m_nAddress;
    result->handle = NumberedHandle(const_cast<CSectionRows &>(*rows));
    if (hit >= 0) {
        m_nLastSourceHit = hit;
        return DBG_ERR_NONE;
    }
    return DBG_ERR_INEXACT_POSITION;
}

uint32_t CBaseRetrieve::SourceFileCount(uint32_t *count) const {
    if (count)
        *count = m_Files.FileCount();
    return DBG_ERR_NONE;
}

uint32_t CBaseRetrieve::SourceFileName(int32_t index, char *buffer, uint32_t *size) const {
    const FileRecord *file = m_Files.GetFile(index);
    if (!file || !buffer || !size)
        return DBG_ERR_BAD_SOURCE_INDEX;
    // The capacity asked of the caller is two bytes per UTF-16 unit and the terminator, or the
    // converted length where that is longer (three-byte characters).
    std::string scratch;
    std::u16string wideScratch;
    const std::string &path = m_Files.Path(*file, scratch);
    uint64_t needed = std::max<uint64_t>(
        2 * uint64_t(m_Files.WidePath(*file, wideScratch).size()) + 1, uint64_t(path.size()) + 1);
    if (*size < needed)
        return DBG_ERR_BAD_SOURCE_INDEX;
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return DBG_ERR_NONE;
}
