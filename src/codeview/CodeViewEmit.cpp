// The CodeView driver and the scope steps that frame symbol sections and write line blocks.
//
// Main .debug$S: signature, symbols (0xF1), string table (0xF3), checksums (0xF4), then one lines
// subsection (0xF2) per section that has line entries and is not COMDAT. A COMDAT code section
// has its own .debug$S, associated with it: signature, symbols, its own checksum table and its
// lines. Every lines subsection holds exactly one section header followed by that section's
// blocks, because readers take the first 12 bytes of a lines subsection as its header and all
// that follows as blocks. Every symbol section ends on a 4-byte boundary.
#include "codeview/CodeViewEmit.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/CodeViewTables.h"
#include "codeview/FileTablePasses.h"
#include "codeview/LineBlocks.h"
#include "codeview/SymbolSections.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "lines/SourceFile.h"
#include "platform/Check.h"
#include "scopes/ModuleScope.h"
#include "scopes/ProcScope.h"
#include "scopes/SectionScope.h"

#include "quillet/quillet.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

// Attributes of every CodeView section: 4-byte alignment, discardable debugging data, kind 1.
constexpr uint32_t kSectionAlignment = 4;
constexpr uint16_t kSectionFlags = BRX_SECTION_DEBUG;
constexpr uint32_t kSectionKind = 1;
// The main .debug$S buffers its signature and empty symbols header; .debug$T its signature.
constexpr uint32_t kMainSymbolsLowCapacity = 12;
constexpr uint32_t kTypesLowCapacity = 4;

// Publishes the tables for the scope steps and, whatever way the driver leaves, releases the
// symbol sections and forgets the tables.
class CEmissionScope {
public:
    explicit CEmissionScope(CCodeViewTables &tables) {
        LibraryState &state = State();
        state.codeViewTables = &tables;
        state.symbolSectionCursor = 0;
    }
    ~CEmissionScope() {
        LibraryState &state = State();
        for (CBinarySection *section : state.symbolSections)
            delete section;
        state.symbolSections.clear();
        state.symbolSectionCursor = 0;
        state.codeViewTables = nullptr;
    }
    CEmissionScope(const CEmissionScope &) = delete;
    CEmissionScope &operator=(const CEmissionScope &) = delete;
};

uint32_t CloseAllSubsections() {
    for (CBinarySection *section : State().symbolSections)
        if (uint32_t status = CloseSubsection(*section))
            return status;
    return DBG_ERR_NONE;
}

// Zero fill after the last subsection of every symbol section, up to a multiple of 4 bytes.
// Readers step from one subsection to the next by the length rounded up to 4, the last one
// included, and refuse a section that ends before that.
uint32_t PadSymbolSections() {
    static const uint8_t zeros[quillet::cv::kSubsectionAlignment] = {};
    for (CBinarySection *section : State().symbolSections) {
        const uint32_t alignment = quillet::cv::kSubsectionAlignment;
        const uint32_t fill = (alignment - uint32_t(section->Size() % alignment)) % alignment;
        if (fill == 0)
            continue;
        // Nothing more opens a subsection here.
        section->SetPendingSubsectionType(0);
        if (section->Append(zeros, fill).Failed())
            return DBG_ERR_WRITE_FAILED;
    }
    return DBG_ERR_NONE;
}

// The file blocks of one scope's own entries, sorted by address, for the table of `symbols`.
uint32_t AppendScopeBlocks(const CScopeNode &scope, CBinarySection &symbols,
                           std::vector<uint8_t> &bytes) {
    CCodeViewTables *tables = ActiveCodeViewTables();
    if (!QCHECK(tables != nullptr))
        return DBG_ERR_WRITE_FAILED;
    std::vector<quillet::CvLinePoint> points;
    points.reserve(scope.Lines().size());
    // An entry without a source file names no file: the tables have nothing for it.
    for (const CLineEntry &entry : scope.Lines())
        if (SourceOf(entry.source))
            points.push_back({entry.Address(), entry.line, entry.source});
    std::stable_sort(points.begin(), points.end(),
                     [](const quillet::CvLinePoint &a, const quillet::CvLinePoint &b) {
                         return a.address < b.address;
                     });

    const auto &indices = tables->checksumIndex[&symbols];
    auto lookup = [&](const void *source) {
        quillet::CvFileInfo info{};
        info.name = SourceOf(source)->Name();
        const auto offset = tables->stringOffsets.find(source);
        if (!QCHECK(offset != tables->stringOffsets.end()))
            return info;
        const auto index = indices.find(offset->second);
        if (QCHECK(index != indices.end()))
            info.checksumOffset = index->second * quillet::cv::kChecksumRecordSize;
        return info;
    };
    quillet::EncodeFileBlocks(points, lookup, bytes);
    return DBG_ERR_NONE;
}

uint32_t AppendBytes(CBinarySection &section, const std::vector<uint8_t> &bytes) {
    if (bytes.empty())
        return DBG_ERR_NONE;
    if (!QCHECK(bytes.size() <= UINT32_MAX))
        return DBG_ERR_WRITE_FAILED;
    return section.Append(bytes.data(), uint32_t(bytes.size())).Ok() ? DBG_ERR_NONE
                                                                     : DBG_ERR_WRITE_FAILED;
}

} // namespace

CCodeViewTables *ActiveCodeViewTables() {
    return State().codeViewTables;
}

uint32_t RunCodeViewDriver() {
    LibraryState &state = State();
    if (!state.moduleRoot)
        return DBG_ERR_NONE;
    const BrxHandle file = state.binding.file;
    CModuleScope &module = *state.moduleRoot;

    CCodeViewTables tables;
    CEmissionScope emission(tables);

    state.symbolSections.push_back(
        new CBinarySection(file, FORMAT_COFF, ".debug$S", kSectionAlignment, kSectionFlags,
                           kSectionKind, CBinarySection::LowBuffer{kMainSymbolsLowCapacity}));
    CBinarySection &mainSymbols = *state.symbolSections.front();
    QCHECK(mainSymbols.StartSubsection(CV_SIGNATURE).Ok());
    QCHECK(mainSymbols.StartSubsection(DEBUG_S_SYMBOLS).Ok());

    CBinarySection types(file, FORMAT_COFF, ".debug$T", kSectionAlignment, kSectionFlags,
                         kSectionKind, CBinarySection::LowBuffer{kTypesLowCapacity});
    QCHECK(types.StartSubsection(CV_SIGNATURE).Ok());

    // Symbols: COMDAT section scopes add their own symbol sections to the list as they begin.
    if (uint32_t status = module.EmitCodeViewSymbols(&mainSymbols, &types))
        return status;
    if (CloseAllSubsections())
        return DBG_ERR_OBJECT_FILE;

    mainSymbols.SetPendingSubsectionType(DEBUG_S_STRINGTABLE);
    if (uint32_t status = WriteStringTable(module, mainSymbols, tables))
        return status;
    if (CloseSubsection(mainSymbols))
        return DBG_ERR_OBJECT_FILE;

    mainSymbols.SetPendingSubsectionType(DEBUG_S_FILECHKSMS);
    state.symbolSectionCursor = 0;
    if (uint32_t status = WriteChecksumTables(module, mainSymbols, tables))
        return status;
    if (CloseAllSubsections())
        return DBG_ERR_OBJECT_FILE;

    mainSymbols.SetPendingSubsectionType(DEBUG_S_LINES);
    state.symbolSectionCursor = 0;
    if (uint32_t status = module.EmitCodeViewLineWalk(&mainSymbols))
        return status;
    if (CloseAllSubsections())
        return DBG_ERR_OBJECT_FILE;
    return PadSymbolSections();
}

uint32_t SectionBeginCodeView(CSectionScope &scope, CBinarySection *&symSection,
                              CBinarySection * /*typeSection*/) {
    if (!IsComdatSection(scope.Section()))
        return DBG_ERR_NONE;
    LibraryState &state = State();
    int32_t format = 0;
    if (objfile::QueryFormat(state.binding.file, format).Failed())
        return DBG_ERR_READ_FAILED;
    if (format != FORMAT_COFF)
        return DBG_ERR_UNSUPPORTED_FORMAT;
    // Its signature and symbols header come in front of its first record; the records of this
    // scope and its whole subtree go there.
    auto *own = new CBinarySection(state.binding.file, FORMAT_COFF, ".debug$S", kSectionAlignment,
                                   kSectionFlags, kSectionKind,
                                   CBinarySection::AssociatedWith{scope.Section()});
    state.symbolSections.push_back(own);
    symSection = own;
    return DBG_ERR_NONE;
}

uint32_t SectionEmitCodeViewLines(CSectionScope &scope, CBinarySection *&symSection) {
    LibraryState &state = State();
    const bool comdat = IsComdatSection(scope.Section());
    // Every COMDAT section scope moves the cursor, lines or not, so the next one finds its own.
    if (comdat)
        ++state.symbolSectionCursor;
    if (!scope.SubtreeHasLines()) {
        symSection = nullptr;
        return DBG_ERR_NONE;
    }
    if (!QCHECK(symSection != nullptr))
        return DBG_ERR_WRITE_FAILED;
    if (comdat) {
        if (!QCHECK(state.symbolSectionCursor < state.symbolSections.size()))
            return DBG_ERR_WRITE_FAILED;
        symSection = state.symbolSections[state.symbolSectionCursor];
        QCHECK(symSection->StartSubsection(DEBUG_S_LINES).Ok());
    } else if (symSection->PendingSubsectionType() != DEBUG_S_LINES) {
        // An earlier section's lines subsection is complete: close it and open the next one
        // in front of this header.
        if (uint32_t status = CloseSubsection(*symSection))
            return status;
        symSection->SetPendingSubsectionType(DEBUG_S_LINES);
    }

    uint64_t codeSize = 0;
    if (objfile::SectionSize(scope.Section(), codeSize).Failed())
        return DBG_ERR_OBJECT_FILE;
    std::vector<uint8_t> bytes = quillet::EncodeLineHeader(uint32_t(codeSize));
    if (uint32_t status = AppendScopeBlocks(scope, *symSection, bytes))
        return status;
    if (uint32_t status = AppendBytes(*symSection, bytes))
        return status;
    // The header's segment and offset fields are filled in by the linker.
    const uint64_t header = symSection->Size() - bytes.size();
    if (symSection->AddSectionRelocation(header + 4, scope.Section()).Failed() ||
        symSection->AddAddressRelocation(header, scope.Section()).Failed())
        return DBG_ERR_WRITE_FAILED;
    return DBG_ERR_NONE;
}

uint32_t ProcEmitCodeViewLines(CProcScope &scope, CBinarySection *&symSection) {
    if (scope.Lines().empty())
        return DBG_ERR_NONE;
    if (!QCHECK(symSection != nullptr))
        return DBG_ERR_WRITE_FAILED;
    std::vector<uint8_t> bytes;
    if (uint32_t status = AppendScopeBlocks(scope, *symSection, bytes))
        return status;
    return AppendBytes(*symSection, bytes);
}
