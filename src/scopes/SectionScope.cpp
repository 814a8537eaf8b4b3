#include "scopes/SectionScope.h"

#include "codeview/CodeViewEmit.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "platform/Check.h"

#include "quillet/quillet.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>

CSectionScope::CSectionScope(BrxHandle section) : m_hSection(section) {
    uint16_t flags = 0;
    // A section whose flags cannot be read counts as not holding code.
    if (objfile::SectionFlags(section, flags).Ok())
        m_bCode = (flags & BRX_SECTION_CODE) != 0;
}

CError CSectionScope::AddChildScope(CScopeNode *scope) {
    if (scope->GetKind() != SCOPE_PROCEDURE)
        return kFailed;
    AttachChild(scope);
    return kOk;
}

uint32_t CSectionScope::LayoutDwarf() {
    (void)LayoutChildrenAndObjects();
    return DBG_ERR_NONE;
}

uint32_t CSectionScope::BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) {
    return SectionBeginCodeView(*this, symbols, types);
}

uint32_t CSectionScope::EmitCodeViewLines(CBinarySection *&symbols) {
    return SectionEmitCodeViewLines(*this, symbols);
}

namespace {
struct SortedRow {
    uint64_t address;
    const CLineEntry *entry;
};

// Entries past the section's end are written as described (the assembler may have described
// code that it did not emit), and the check says where: once per section, naming the first.
void ReportEntriesPastEnd(BrxHandle section, const std::vector<SortedRow> &rows) {
    uint64_t size = 0;
    if (rows.empty() || objfile::SectionSize(section, size).Failed() || rows.back().address < size)
        return;
    auto first =
        std::lower_bound(rows.begin(), rows.end(), size,
                         [](const SortedRow &row, uint64_t end) { return row.address < end; });
    std::string name;
    if (objfile::SectionName(section, name).Failed())
        name = "?";
    char report[160];
    std::snprintf(report, sizeof(report),
                  "%zu line entries lie past the end of section %s (size 0x%" PRIx64
                  "), the first at offset 0x%" PRIx64,
                  size_t(rows.end() - first), name.c_str(), size, first->address);
    quillet::ReportCheck(report, __FILE__, __LINE__);
}
} // namespace

// The section's own entries and those of its procedures are written as one sequence, ordered by
// address. They are ordered through a list of references, so no entry is copied.
uint32_t CSectionScope::EmitDwarfLines(CBinarySection &line) {
    size_t total = m_Lines.size();
    for (const auto &child : m_Children)
        total += child->Lines().size();
    if (total == 0)
        return DBG_ERR_NONE;
    std::vector<SortedRow> rows;
    rows.reserve(total);
    for (const CLineEntry &entry : m_Lines)
        rows.push_back({entry.Address(), &entry});
    for (const auto &child : m_Children)
        for (const CLineEntry &entry : child->Lines())
            rows.push_back({entry.Address(), &entry});
    auto byAddress = [](const SortedRow &a, const SortedRow &b) { return a.address < b.address; };
    if (!std::is_sorted(rows.begin(), rows.end(), byAddress))
        std::stable_sort(rows.begin(), rows.end(), byAddress);
    ReportEntriesPastEnd(m_hSection, rows);

    LibraryState &state = State();
    CLineRowWriter writer(state.lineState, state.AddressWidth());
    // A row that fails (the process decodes line programs) is dropped; the others still go.
    for (const SortedRow &row : rows)
        (void)writer.AddRow(m_hSection, *row.entry);
    m_bWroteRows = !writer.Bytes().empty();
    (void)writer.Flush(line);
    // The module is emitted once: the entries, by far the largest part of what the library
    // holds, are given back as soon as their rows are written, before the object file is.
    rows = std::vector<SortedRow>();
    std::vector<CLineEntry>().swap(m_Lines);
    for (const auto &child : m_Children)
        std::vector<CLineEntry>().swap(child->Lines());
    return DBG_ERR_NONE;
}

// Every section that wrote rows ends its own sequence, so rows of different sections never share
// one. A section without rows has no sequence: an end-of-sequence row alone would name file 1,
// which a module without source files does not have.
uint32_t CSectionScope::EndDwarfScope(CBinarySection &, CBinarySection &, CBinarySection &line) {
    if (!m_bWroteRows)
        return DBG_ERR_NONE;
    LibraryState &state = State();
    CLineRowWriter writer(state.lineState, state.AddressWidth());
    uint64_t size = 0; // a size that cannot be read leaves the end just past the last row
    (void)objfile::SectionSize(m_hSection, size);
    writer.EndSequence(size);
    (void)writer.Flush(line);
    m_bWroteRows = false;
    return DBG_ERR_NONE;
}
