#include "codeview/FileTablePasses.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/CodeViewTables.h"
#include "codeview/FileTables.h"
#include "frame/BinarySection.h"
#include "lines/SourceFile.h"
#include "platform/Check.h"
#include "platform/SourceFileReader.h"
#include "platform/Text.h"
#include "scopes/ScopeNode.h"

#include "quillet/quillet.h"

#include <vector>

namespace {

// Adds the files named by the entries of `scope`'s children, child by child, each child's own
// subtree before the next child. The module's own entries are not visited.
void CollectFiles(const CScopeNode &scope, const std::u16string &directory, CCodeViewTables &tables,
                  std::vector<uint8_t> &content) {
    for (const auto &child : scope.Children()) {
        const void *previous = nullptr;
        for (const CLineEntry &entry : child->Lines()) {
            if (entry.source == previous)
                continue;
            previous = entry.source;
            const CSourceFile *file = SourceOf(entry.source);
            if (!file || tables.bySource.count(entry.source))
                continue;
            std::string path = quillet::ToUtf8(quillet::ComposeSourcePath(directory, file->Name()));
            const auto known = tables.byPath.find(path);
            if (known != tables.byPath.end()) {
                tables.bySource.emplace(entry.source, known->second);
                continue;
            }
            if (tables.nextStringOffset == 0) {
                content.push_back(0); // the empty string at offset 0
                tables.nextStringOffset = 1;
            }
            const uint32_t position = uint32_t(tables.files.size());
            content.insert(content.end(), path.begin(), path.end());
            content.push_back(0);
            tables.bySource.emplace(entry.source, position);
            tables.byPath.emplace(path, position);
            tables.files.push_back({std::move(path), tables.nextStringOffset, entry.source});
            tables.nextStringOffset += uint32_t(tables.files.back().path.size() + 1);
        }
        CollectFiles(*child, directory, tables, content);
    }
}

uint32_t AppendAll(CBinarySection &section, const std::vector<uint8_t> &content) {
    if (content.empty())
        return DBG_ERR_NONE;
    return section.Append(content).Ok() ? DBG_ERR_NONE : DBG_ERR_WRITE_FAILED;
}

} // namespace

uint32_t WriteStringTable(const CScopeNode &module, CBinarySection &mainSymbols,
                          CCodeViewTables &tables) {
    std::vector<uint8_t> content;
    CollectFiles(module, quillet::WorkingDirectory(), tables, content);
    return AppendAll(mainSymbols, content);
}

uint32_t WriteChecksumTable(CBinarySection &mainSymbols, const CCodeViewTables &tables) {
    std::vector<uint8_t> content, bytes;
    content.reserve(tables.files.size() * quillet::cv::kChecksumRecordSize);
    for (const CCodeViewTables::File &file : tables.files) {
        // The file is read by the name its line entries carry, which is the path written for it.
        const CSourceFile *source = SourceOf(file.source);
        if (!QCHECK(source != nullptr) || !quillet::ReadWholeFile(source->Name(), bytes))
            return DBG_ERR_WRITE_FAILED;
        const auto record = quillet::EncodeChecksumRecord(
            file.stringOffset, quillet::CMd5::Of(bytes.data(), bytes.size()));
        content.insert(content.end(), record.begin(), record.end());
    }
    return AppendAll(mainSymbols, content);
}
