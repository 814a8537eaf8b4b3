#include "scopes/ProcScope.h"

#include "codeview/CodeViewEmit.h"
#include "codeview/CodeViewFormat.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "objects/LabelObjects.h"

#include "quillet/quillet.h"

CProcScope::CProcScope(CProcObject *procedure) : m_pProc(procedure) {}

CProcScope::~CProcScope() = default;

uint32_t CProcScope::BeginCodeViewScope(CBinarySection *&symbols, CBinarySection *types) {
    if (!symbols || !types || m_pProc->WriteCodeView(*symbols, *types).Failed())
        return DBG_ERR_WRITE_FAILED;
    return DBG_ERR_NONE;
}

uint32_t CProcScope::EndCodeViewScope(CBinarySection *symbols, CBinarySection *) {
    const uint8_t endRecord[4] = {0x02, 0x00, uint8_t(quillet::cv::S_END), 0x00};
    if (!symbols || symbols->Append(endRecord, 4).Failed())
        return DBG_ERR_WRITE_FAILED;
    return DBG_ERR_NONE;
}

uint32_t CProcScope::EmitCodeViewLines(CBinarySection *&symbols) {
    return ProcEmitCodeViewLines(*this, symbols);
}

uint32_t CProcScope::LayoutDwarf() {
    BrxHandle main = 0;
    uint64_t address = 0;
    if (m_pProc->GetMainSymbol(main, address).Failed())
        return DBG_ERR_OBJECT_FILE;
    // The label of the main symbol is folded into the procedure's own entry.
    for (size_t i = 0; i < m_Objects.size(); ++i) {
        CBaseLangObject *object = m_Objects[i];
        if (object->GetKind() == DBG_OBJ_CODE_LABEL &&
            static_cast<CCodeLabelObject *>(object)->m_hSymbol == main) {
            m_FoldedLabels.push_back(TakeObjectAt(i));
            break;
        }
    }
    m_pProc->ChooseAbbrev(!m_Objects.empty());
    m_pProc->LayOut();
    uint32_t status = LayoutChildrenAndObjects();
    LibraryState &state = State();
    if (!m_Objects.empty())
        state.runningEntryOffset += 1; // the null entry that ends the children
    m_pProc->m_nSibling = state.runningEntryOffset;
    return status;
}

uint32_t CProcScope::BeginDwarfScope(CBinarySection &info, CBinarySection &abbrev,
                                     CBinarySection &) {
    m_pProc->ChooseAbbrev(!m_Objects.empty());
    if (m_pProc->WriteDwarf(info, abbrev).Failed())
        return DBG_ERR_WRITE_FAILED;
    return DBG_ERR_NONE;
}

uint32_t CProcScope::EndDwarfScope(CBinarySection &info, CBinarySection &, CBinarySection &) {
    if (m_Objects.empty())
        return DBG_ERR_NONE;
    const uint8_t nullEntry = 0;
    return info.Append(&nullEntry, 1).Ok() ? DBG_ERR_NONE : DBG_ERR_OBJECT_FILE;
}
