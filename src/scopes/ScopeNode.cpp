#include "scopes/ScopeNode.h"

#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "objects/DebugObjects.h"
#include "platform/Check.h"

#include "quillet/quillet.h"

namespace {
constexpr size_t kFirstLineCapacity = 128;
}

CScopeNode::CScopeNode() {
    State().liveScopes.Insert(this);
}

// Objects first, then the subtree, then the line entries.
CScopeNode::~CScopeNode() {
    LibraryState &state = State();
    for (CBaseLangObject *object : m_Objects) {
        if (object->GetKind() != 0) // basic types belong to the type table
            delete object;
    }
    m_Objects.clear();
    m_Children.clear();
    state.ForgetScope(this);
    if (state.currentScope == this)
        state.currentScope = nullptr;
}

CError CScopeNode::CreateLineEntry(uint32_t line, uint32_t column, uint32_t baseLow,
                                   uint32_t baseHigh, uint32_t offset, void *source) {
    QCHECK(source != nullptr && *static_cast<CSourceCell *>(source));
    // Most scopes that get one entry get many: start with room for a good number of them.
    if (m_Lines.capacity() == 0)
        m_Lines.reserve(kFirstLineCapacity);
    CLineEntry entry;
    entry.line = line;
    entry.column = column;
    entry.base = (uint64_t(baseHigh) << 32) | baseLow;
    entry.offset = offset;
    entry.source = source;
    m_Lines.push_back(entry);
    return kOk;
}

void CScopeNode::AttachChild(CScopeNode *scope) {
    QCHECK(scope->m_pParentScope == nullptr);
    scope->m_pParentScope = this;
    m_Children.emplace_back(scope);
}

void CScopeNode::AddObject(CBaseLangObject *object) {
    if (object->IsListed())
        return;
    object->SetListed(true);
    m_Objects.push_back(object);
}

void CScopeNode::AddSharedObject(CBaseLangObject *object) {
    AddObject(object);
}

void CScopeNode::DropSharedObjectsFrom(size_t count) {
    while (m_Objects.size() > count && m_Objects.back()->GetKind() == 0) {
        m_Objects.back()->SetListed(false);
        m_Objects.pop_back();
    }
}

bool CScopeNode::SubtreeHasLines() const {
    if (!m_Lines.empty())
        return true;
    for (const auto &child : m_Children)
        if (child->SubtreeHasLines())
            return true;
    return false;
}

std::unique_ptr<CBaseLangObject> CScopeNode::TakeObjectAt(size_t position) {
    CBaseLangObject *object = m_Objects[position];
    m_Objects[position] = m_Objects.back();
    m_Objects.pop_back();
    object->SetListed(false);
    return std::unique_ptr<CBaseLangObject>(object);
}

uint32_t CScopeNode::LayoutChildrenAndObjects() {
    for (const auto &child : m_Children) {
        uint32_t status = child->LayoutDwarf();
        if (status != DBG_ERR_NONE)
            return status;
    }
    for (CBaseLangObject *object : m_Objects)
        object->LayOut();
    return DBG_ERR_NONE;
}

uint32_t CScopeNode::LayoutDwarf() {
    return LayoutChildrenAndObjects();
}

uint32_t CScopeNode::EmitDwarf(CBinarySection &info, CBinarySection &abbrev, CBinarySection &line) {
    uint32_t status = BeginDwarfScope(info, abbrev, line);
    if (status != DBG_ERR_NONE)
        return status;
    status = EmitDwarfLines(line);
    if (status != DBG_ERR_NONE)
        return status;
    for (const auto &child : m_Children) {
        status = child->EmitDwarf(info, abbrev, line);
        if (status != DBG_ERR_NONE)
            return status;
    }
    for (CBaseLangObject *object : m_Objects)
        if (object->WriteDwarf(info, abbrev).Failed())
            return DBG_ERR_WRITE_FAILED;
    return EndDwarfScope(info, abbrev, line);
}

uint32_t CScopeNode::EmitCodeViewSymbols(CBinarySection *symbols, CBinarySection *types) {
    uint32_t status = BeginCodeViewScope(symbols, types);
    if (status != DBG_ERR_NONE)
        return status;
    if (!symbols || !types)
        return DBG_ERR_WRITE_FAILED;
    for (CBaseLangObject *object : m_Objects)
        if (object->WriteCodeView(*symbols, *types).Failed())
            return DBG_ERR_WRITE_FAILED;
    for (const auto &child : m_Children) {
        status = child->EmitCodeViewSymbols(symbols, types);
        if (status != DBG_ERR_NONE)
            return status;
    }
    return EndCodeViewScope(symbols, types);
}

uint32_t CScopeNode::EmitCodeViewLineWalk(CBinarySection *symbols) {
    uint32_t status = EmitCodeViewLines(symbols);
    if (status != DBG_ERR_NONE)
        return status;
    if (!symbols)
        return DBG_ERR_NONE; // nothing below has line entries
    for (const auto &child : m_Children) {
        status = child->EmitCodeViewLineWalk(symbols);
        if (status != DBG_ERR_NONE)
            return status;
    }
    return DBG_ERR_NONE;
}
