// The CodeView driver and the scope steps that frame symbol sections and write line blocks.
//
// Main .debug$S: signature, symbols (0xF1), the string table (0xF3) and the object's one
// checksum table (0xF4) of every file that line entries name, then the lines subsections (0xF2)
// of the sections that are not COMDAT. A COMDAT code section has its own .debug$S, associated
// with it: signature, symbols, and its lines subsections, whose blocks name files in the main
// checksum table (linkers keep one table per object). Every lines subsection holds one header
// and the blocks of the code it covers; the ranges of one section never overlap. Every symbol
// section ends on a 4-byte boundary.
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
#include <string>
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

// The entries of a section scope and of its procedures, each with its file's checksum offset.
std::vector<quillet::CvLinePoint> GatherLinePoints(const CSectionScope &scope,
                                                   const CCodeViewTables &tables) {
    size_t total = scope.Lines().size();
    for (const auto &child : scope.Children())
        total += child->Lines().size();
    std::vector<quillet::CvLinePoint> points;
    points.reserve(total);
    auto add = [&](const CScopeNode &holder) {
        // Runs of entries name one file: look it up when the record changes.
        const void *previous = nullptr;
        uint32_t checksumOffset = 0;
        for (const CLineEntry &entry : holder.Lines()) {
            if (entry.source != previous || !previous) {
                // An entry without a source file names no file: the tables have nothing for it.
                if (!SourceOf(entry.source))
                    continue;
                const auto file = tables.bySource.find(entry.source);
                if (!QCHECK(file != tables.bySource.end()))
                    continue;
                previous = entry.source;
                checksumOffset = file->second * quillet::cv::kChecksumRecordSize;
            }
            points.push_back({entry.Address(), entry.line, checksumOffset});
        }
    };
    add(scope);
    for (const auto &child : scope.Children())
        add(*child);
    return points;
}

// The procedures of a section scope, numbered by their position in `procedures`.
std::vector<quillet::CvCodeRange> ProcedureRanges(const CSectionScope &scope,
                                                  std::vector<CProcObject *> &procedures) {
    std::vector<quillet::CvCodeRange> ranges;
    for (const auto &child : scope.Children())
        if (child->GetKind() == SCOPE_PROCEDURE) {
            CProcObject *procedure = static_cast<const CProcScope &>(*child).Procedure();
            ranges.push_back({procedure->m_nStart, procedure->m_nEnd, procedures.size()});
            procedures.push_back(procedure);
        }
    return ranges;
}

// What a lines subsection's header is relocated against, and the value of its offset field.
// Dumpers key line tables by the name of that symbol, so no two subsections share one: the
// subsection that begins a procedure names the procedure's main symbol (as compilers do), the
// first other one of a section names the section, and any further one a symbol of its own,
// made at its start.
struct CLinesAnchor {
    BrxHandle target = 0;
    uint64_t offsetField = 0;
};

CError ChooseAnchor(const quillet::CvLineSubsection &subsection, BrxHandle section,
                    const std::vector<CProcObject *> &procedures, bool &sectionTaken,
                    CCodeViewTables &tables, CLinesAnchor &anchor) {
    if (subsection.opensProcedure != quillet::kNoProcedure) {
        BrxHandle main = 0;
        uint64_t address = 0;
        if (procedures[subsection.opensProcedure]->GetMainSymbol(main, address).Failed())
            return kFailed;
        if (address <= subsection.start) {
            anchor = {main, subsection.start - address};
            return kOk;
        }
    }
    if (!sectionTaken) {
        sectionTaken = true;
        anchor = {section, subsection.start};
        return kOk;
    }
    const std::string name = "$$$L" + std::to_string(tables.nextLineSymbol++);
    anchor.offsetField = 0;
    return objfile::CreateSymbol(name, BRX_SYMBOL_PLAIN, section, subsection.start, anchor.target);
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
    if (uint32_t status = WriteChecksumTable(mainSymbols, tables))
        return status;
    if (CloseSubsection(mainSymbols))
        return DBG_ERR_OBJECT_FILE;
    // The lines subsections start themselves: no table header may wait in front of them.
    mainSymbols.SetPendingSubsectionType(0);

    // Lines: each section scope starts its own subsections, in the main section or its own.
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
    CCodeViewTables *tables = ActiveCodeViewTables();
    if (!QCHECK(symSection != nullptr) || !QCHECK(tables != nullptr))
        return DBG_ERR_WRITE_FAILED;
    if (comdat) {
        if (!QCHECK(state.symbolSectionCursor < state.symbolSections.size()))
            return DBG_ERR_WRITE_FAILED;
        symSection = state.symbolSections[state.symbolSectionCursor];
    }

    uint64_t sectionSize = 0;
    if (objfile::SectionSize(scope.Section(), sectionSize).Failed())
        return DBG_ERR_OBJECT_FILE;
    std::vector<quillet::CvLinePoint> points = GatherLinePoints(scope, *tables);
    std::vector<CProcObject *> procedures;
    const auto ranges = ProcedureRanges(scope, procedures);
    bool sectionTaken = false;
    for (const quillet::CvLineSubsection &subsection :
         quillet::PlanLineSubsections(points, ranges, sectionSize)) {
        CLinesAnchor anchor;
        if (ChooseAnchor(subsection, scope.Section(), procedures, sectionTaken, *tables, anchor)
                .Failed())
            return DBG_ERR_OBJECT_FILE;
        // The subsection before this one is complete.
        if (uint32_t status = CloseSubsection(*symSection))
            return status;
        QCHECK(symSection->StartSubsection(DEBUG_S_LINES).Ok());
        const uint64_t header = symSection->Size();
        if (uint32_t status = AppendBytes(
                *symSection,
                quillet::EncodeLineSubsection(points, subsection, uint32_t(anchor.offsetField))))
            return status;
        // The linker fills in the header's segment and adds the anchor's address to its offset.
        if (symSection->AddSectionRelocation(header + 4, anchor.target).Failed() ||
            symSection->AddAddressRelocation(header, anchor.target).Failed())
            return DBG_ERR_WRITE_FAILED;
    }
    return DBG_ERR_NONE;
}

uint32_t ProcEmitCodeViewLines(CProcScope &, CBinarySection *&) {
    // The section scope writes the procedure's entries: its subsection also takes the section's
    // own entries that fall inside the procedure.
    return DBG_ERR_NONE;
}
