#include "scopes/ModuleScope.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/RecordNames.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "lines/LineProgram.h"
#include "platform/ByteWriter.h"
#include "platform/Text.h"
#include "scopes/SectionScope.h"
#include "types/DebugTypes.h"

#include "quillet/quillet.h"

namespace {
constexpr uint16_t kDwarfVersion = 2;
}

CModuleScope::CModuleScope(const CCompInfo &compInfo) : m_CompInfo(compInfo) {}

CModuleScope::~CModuleScope() {
    LibraryState &state = State();
    if (state.moduleRoot == this)
        state.moduleRoot = nullptr;
}

CError CModuleScope::AddChildScope(CScopeNode *scope) {
    if (scope->GetKind() != SCOPE_SECTION)
        return kFailed;
    auto *section = static_cast<CSectionScope *>(scope);
    if (section->IsCodeSection()) {
        // Before the scope is attached: an allocation that fails here leaves it with its caller.
        m_CodeSections.insert(section->Section());
        // The unit's address range is known only when there is exactly one code section.
        m_CompInfo.m_hCodeSection = m_CodeSections.size() == 1 ? section->Section() : 0;
    }
    AttachChild(scope);
    return kOk;
}

void CModuleScope::RegisterReferencedTypes() {
    for (const auto &type : State().typeTable) {
        if (type->GetTypeKind() != TYPE_BASIC)
            continue;
        auto *basic = static_cast<CDebugBasicType *>(type.get());
        if (basic->ReferrerCount() > 0 && !basic->IsListed())
            AddSharedObject(basic);
    }
}

uint32_t CModuleScope::LayoutDwarf() {
    RegisterReferencedTypes();
    m_CompInfo.LayOut();
    uint32_t status = LayoutChildrenAndObjects();
    State().runningEntryOffset += 1; // the null entry that ends the unit's children
    return status;
}

uint32_t CModuleScope::BeginDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                                       CBinarySection &line) {
    LibraryState &state = State();
    // The unit length is known before anything is written: the layout pass sized every entry.
    quillet::ByteWriter header(11);
    header.U32(uint32_t(state.runningEntryOffset - 4));
    header.U16(kDwarfVersion);
    header.U32(0); // abbreviation offset, relocated
    header.U8(uint8_t(state.AddressWidth()));
    uint64_t start = 0;
    if (info.AppendRecord(header, &start).Failed() ||
        info.AddSectionRelocation(start + 6, abbrev.Section()).Failed())
        return DBG_ERR_OBJECT_FILE;
    m_CompInfo.m_hLineSection = line.Section();
    if (m_CompInfo.WriteDwarf(info, abbrev).Failed())
        return DBG_ERR_OBJECT_FILE;
    return DBG_ERR_NONE;
}

uint32_t CModuleScope::EmitDwarfLines(CBinarySection &line) {
    std::vector<uint8_t> header =
        BuildLineProgramHeader(m_CompInfo.m_pDirectory, State().sourceFiles);
    return line.Append(header).Ok() ? DBG_ERR_NONE : DBG_ERR_OBJECT_FILE;
}

uint32_t CModuleScope::EndDwarfScope(CBinarySection &info, CBinarySection &, CBinarySection &line) {
    const uint8_t nullEntry = 0;
    if (info.Append(&nullEntry, 1).Failed())
        return DBG_ERR_OBJECT_FILE;
    if (line.WriteU32At(0, uint32_t(line.Size() - 4)).Failed())
        return DBG_ERR_OBJECT_FILE;
    return DBG_ERR_NONE;
}

uint32_t CModuleScope::BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) {
    if (!symbols || !types)
        return DBG_ERR_WRITE_FAILED;
    std::u16string path;
    if (objfile::FilePath(State().binding.file, path).Failed())
        return DBG_ERR_OBJECT_FILE;
    if (!quillet::IsAbsolutePath(path))
        path = quillet::JoinPath(quillet::WorkingDirectory(), path);
    std::string name = quillet::ToUtf8(path);
    quillet::cv::FitNamesInRecord(9, {&name});
    quillet::ByteWriter record(name.size() + 9);
    record.U16(uint16_t(name.size() + 7));
    record.U16(quillet::cv::S_OBJNAME);
    record.U32(0); // signature
    record.CString(name);
    if (symbols->AppendRecord(record).Failed())
        return DBG_ERR_OBJECT_FILE;
    if (m_CompInfo.WriteCodeView(*symbols, *types).Failed())
        return DBG_ERR_WRITE_FAILED;
    if (m_CompInfo.m_bNoDebugInfo == 0 && m_CompInfo.WriteEnvBlock(*symbols).Failed())
        return DBG_ERR_WRITE_FAILED;
    return DBG_ERR_NONE;
}
