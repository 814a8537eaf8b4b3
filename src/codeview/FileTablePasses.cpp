// The two passes that fill the tables no language object owns: the string table of source-file
// paths (main symbol section only) and the file-checksum tables (the main one, shared by every
// section that is not COMDAT, and one in each COMDAT section's own symbol section).
#include "codeview/FileTablePasses.h"

#include "codeview/CodeViewTables.h"
#include "codeview/FileTables.h"
#include "codeview/SymbolSections.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "lines/SourceFile.h"
#include "platform/Check.h"
#include "platform/SourceFileReader.h"
#include "platform/Text.h"
#include "scopes/ScopeNode.h"
#include "scopes/SectionScope.h"

#include "quillet/quillet.h"

#include <vector>

namespace {

// Adds the paths of the files named by the entries of `scope`'s children, child by child, each
// child's own subtree before the next child. The module's own entries are not visited.
void CollectPaths(const CScopeNode &scope, const std::u16string &directory, CCodeViewTables &tables,
                  std::vector<uint8_t> &content) {
    for (const auto &child : scope.Children()) {
        const void *previous = nullptr;
        for (const CLineEntry &entry : child->Lines()) {
            if (entry.source == previous)
                continue;
            previous = entry.source;
            const CSourceFile *file = SourceOf(entry.source);
            if (!file || tables.stringOffsets.count(entry.source))
                continue;
            const std::string path =
                quillet::ToUtf8(quillet::ComposeSourcePath(directory, file->Name()));
            if (tables.nextStringOffset == 0) {
                content.push_back(0); // the empty string at offset 0
                tables.nextStringOffset = 1;
            }
            content.insert(content.end(), path.begin(), path.end());
            content.push_back(0);
            tables.stringOffsets.emplace(entry.source, tables.nextStringOffset);
            tables.nextStringOffset += uint32_t(path.size() + 1);
        }
        CollectPaths(*child, directory, tables, content);
    }
}

// One checksum walk: the symbol-section cursor, the table that records go to, and the tables.
class CChecksumWalk {
public:
    explicit CChecksumWalk(CCodeViewTables &tables) : m_Tables(tables) {}

    uint32_t Visit(const CScopeNode &scope, CBinarySection *table) {
        LibraryState &state = State();
        bool ownTable = false;
        if (scope.GetKind() == SCOPE_SECTION &&
            IsComdatSection(static_cast<const CSectionScope &>(scope).Section())) {
            ++state.symbolSectionCursor;
            ownTable = true;
        }
        // A scope with no entries anywhere below it adds nothing; the module is always walked.
        if (scope.GetKind() != SCOPE_MODULE && !scope.SubtreeHasLines())
            return DBG_ERR_NONE;
        if (ownTable) {
            if (!QCHECK(state.symbolSectionCursor < state.symbolSections.size()))
                return DBG_ERR_WRITE_FAILED;
            table = state.symbolSections[state.symbolSectionCursor];
            QCHECK(table->StartSubsection(DEBUG_S_FILECHKSMS).Ok());
        }
        // Entries held by the module itself are written in neither format.
        if (scope.GetKind() != SCOPE_MODULE) {
            const void *previous = nullptr;
            for (const CLineEntry &entry : scope.Lines()) {
                if (entry.source == previous)
                    continue;
                previous = entry.source;
                if (uint32_t status = AddFile(entry.source, *table))
                    return status;
            }
        }
        for (const auto &child : scope.Children())
            if (uint32_t status = Visit(*child, table))
                return status;
        return DBG_ERR_NONE;
    }

private:
    uint32_t AddFile(const void *source, CBinarySection &table) {
        const CSourceFile *file = SourceOf(source);
        if (!file)
            return DBG_ERR_NONE;
        const auto offset = m_Tables.stringOffsets.find(source);
        if (!QCHECK(offset != m_Tables.stringOffsets.end()))
            return DBG_ERR_NONE;
        auto &indices = m_Tables.checksumIndex[&table];
        if (indices.count(offset->second))
            return DBG_ERR_NONE;
        const uint32_t index = uint32_t(indices.size());
        indices.emplace(offset->second, index);

        auto digest = m_Tables.digests.find(source);
        if (digest == m_Tables.digests.end()) {
            if (!quillet::ReadWholeFile(file->Name(), m_Bytes))
                return DBG_ERR_WRITE_FAILED;
            digest =
                m_Tables.digests.emplace(source, quillet::CMd5::Of(m_Bytes.data(), m_Bytes.size()))
                    .first;
        }
        const auto record = quillet::EncodeChecksumRecord(offset->second, digest->second);
        if (table.Append(record.data(), uint32_t(record.size())).Failed())
            return DBG_ERR_WRITE_FAILED;
        return DBG_ERR_NONE;
    }

    CCodeViewTables &m_Tables;
    std::vector<uint8_t> m_Bytes;
};

} // namespace

uint32_t WriteStringTable(const CScopeNode &module, CBinarySection &mainSymbols,
                          CCodeViewTables &tables) {
    std::vector<uint8_t> content;
    CollectPaths(module, quillet::WorkingDirectory(), tables, content);
    if (content.empty())
        return DBG_ERR_NONE;
    if (!QCHECK(content.size() <= UINT32_MAX))
        return DBG_ERR_WRITE_FAILED;
    return mainSymbols.Append(content.data(), uint32_t(content.size())).Ok() ? DBG_ERR_NONE
                                                                             : DBG_ERR_WRITE_FAILED;
}

uint32_t WriteChecksumTables(const CScopeNode &module, CBinarySection &mainSymbols,
                             CCodeViewTables &tables) {
    CChecksumWalk walk(tables);
    return walk.Visit(module, &mainSymbols);
}
