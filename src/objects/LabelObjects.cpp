#include "objects/LabelObjects.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/RecordNames.h"
#include "dwarf/Abbreviations.h"
#include "dwarf/Leb128.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "objects/ProcObject.h"
#include "platform/ByteWriter.h"
#include "scopes/ProcScope.h"
#include "types/DebugTypes.h"

#include "quillet/quillet.h"

using quillet::ByteWriter;
using quillet::SizeULEB128;

namespace {

unsigned CodeSize(const CBaseAbbrev *abbrev) {
    return SizeULEB128(abbrev ? abbrev->Code() : 0);
}

// The procedure of the scope that holds an object, or null outside a procedure scope.
CProcObject *ProcedureOf(CScopeNode *scope) {
    if (!scope || scope->GetKind() != SCOPE_PROCEDURE)
        return nullptr;
    return static_cast<CProcScope *>(scope)->Procedure();
}

} // namespace

// ---- Code labels ---------------------------------------------------------------------------

CCodeLabelObject::CCodeLabelObject(CScopeNode *owner) {
    m_pOwnerScope = owner;
    UseAbbrev<CLabelAbbrev>(ABBREV_LABEL);
}

int CCodeLabelObject::GetKind() const {
    return DBG_OBJ_CODE_LABEL;
}

bool CCodeLabelObject::IsEntryPoint() const {
    CProcObject *proc = ProcedureOf(m_pOwnerScope);
    return proc && proc->IsEntrySymbol(m_hSymbol);
}

CError CCodeLabelObject::WriteCodeView(CBinarySection &symbols, CBinarySection &) {
    if (m_hSymbol == 0)
        return kFailed;
    std::string name;
    if (objfile::SymbolName(m_hSymbol, name).Failed())
        return kFailed;
    if (CProcObject *proc = ProcedureOf(m_pOwnerScope)) {
        BrxHandle main = 0;
        uint64_t address = 0;
        if (proc->GetMainSymbol(main, address).Failed())
            return kFailed;
        if (m_hSymbol == main)
            return kOk; // the procedure's own record names this place
        if (IsEntryPoint() && !name.empty() && name[0] == '.')
            name.erase(0, 1);
    }
    quillet::cv::FitNamesInRecord(12, {&name});
    size_t n = name.size();
    ByteWriter record(n + 12);
    record.U16(uint16_t(n + 10));
    record.U16(quillet::cv::S_LABEL32);
    record.U32(0); // offset, relocated
    record.U16(0); // section, relocated
    record.U8(0);  // flags
    record.CString(name);
    uint64_t start = 0;
    if (symbols.AppendRecord(record, &start).Failed())
        return kFailed;
    if (symbols.AddSectionRelocation(start + 8, m_hSymbol).Failed() ||
        symbols.AddAddressRelocation(start + 4, m_hSymbol).Failed())
        return kFailed;
    return kOk;
}

CError CCodeLabelObject::ComputeDwarfSize() {
    m_bNamePrepared = false;
    if (m_hSymbol == 0)
        return kFailed;
    if (objfile::SymbolName(m_hSymbol, m_Name).Failed())
        return kFailed;
    m_nNameStart = 0;
    if (IsEntryPoint()) {
        if (!m_Name.empty() && m_Name[0] == '.')
            m_nNameStart = 1;
        UseAbbrev<CEntryPointAbbrev>(ABBREV_ENTRY_POINT);
    }
    uint32_t binding = 0;
    if (objfile::SymbolBinding(m_hSymbol, binding).Failed())
        return kFailed;
    m_bExternal = binding == BRX_BINDING_GLOBAL ? 1 : 0;
    m_nRecordLength =
        CodeSize(m_pAbbrev) + (m_Name.size() - m_nNameStart) + 2 + State().AddressWidth();
    m_bNamePrepared = true;
    return kOk;
}

CError CCodeLabelObject::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    if (m_hSymbol == 0 || !QCHECK(m_nRecordLength) || !m_bNamePrepared)
        return kFailed;
    uint32_t code = 0;
    if (m_pAbbrev->WriteDeclaration(abbrev, code).Failed())
        return kFailed;
    unsigned width = State().AddressWidth();
    std::string_view name(m_Name.data() + m_nNameStart, m_Name.size() - m_nNameStart);
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.CString(name);
    size_t addressField = entry.Size();
    entry.Zeros(width);
    entry.U8(m_bExternal);
    uint64_t start = 0;
    if (info.AppendRecord(entry, &start).Failed())
        return kFailed;
    std::string().swap(m_Name);
    m_bNamePrepared = false;
    return info.AddAddressRelocation(start + addressField, m_hSymbol);
}

// ---- Data labels ---------------------------------------------------------------------------

CDataLabelObject::CDataLabelObject(CScopeNode *owner) {
    m_pOwnerScope = owner;
    m_pType = State().voidType;
    UseAbbrev<CVariableAbbrev>(ABBREV_VARIABLE);
}

CDataLabelObject::~CDataLabelObject() = default;

int CDataLabelObject::GetKind() const {
    return DBG_OBJ_DATA_LABEL;
}

bool CDataLabelObject::IsTyped() const {
    return m_pType && m_pType != State().voidType;
}

// The entry that DW_AT_type names: a basic type's own, or a procedure type's return type.
static CDebugBasicType *EntryTypeOf(CBaseDebugType *type) {
    if (!type)
        return nullptr;
    if (type->GetTypeKind() == TYPE_BASIC)
        return static_cast<CDebugBasicType *>(type);
    return static_cast<CDebugProcType *>(type)->ReturnType();
}

void CDataLabelObject::SetType(CBaseDebugType *type) {
    // Setting a type again takes this label out of the earlier type's referrers.
    m_pType = type;
    CDebugBasicType *entryType = EntryTypeOf(type);
    m_TypeRef.Attach(entryType);
    RegisterTypeWithModule(entryType);
}

CError CDataLabelObject::WriteCodeView(CBinarySection &symbols, CBinarySection &types) {
    uint32_t binding = 0;
    if (m_hSymbol == 0 || objfile::SymbolBinding(m_hSymbol, binding).Failed())
        return kFailed;
    std::string name;
    if (objfile::SymbolName(m_hSymbol, name).Failed())
        return kFailed;
    uint32_t typeIndex = 0;
    if (!m_pType || m_pType->GetTypeIndex(types, typeIndex).Failed())
        return kFailed;
    quillet::cv::FitNamesInRecord(15, {&name});
    size_t n = name.size();
    ByteWriter record(n + 15);
    record.U16(uint16_t(n + 13));
    record.U16(binding == BRX_BINDING_GLOBAL ? quillet::cv::S_GDATA32 : quillet::cv::S_LDATA32);
    record.U32(typeIndex);
    record.U32(0); // offset, relocated
    record.U16(0); // section, relocated
    record.CString(name);
    uint64_t start = 0;
    if (symbols.AppendRecord(record, &start).Failed())
        return kFailed;
    if (symbols.AddSectionRelocation(start + 12, m_hSymbol).Failed() ||
        symbols.AddAddressRelocation(start + 8, m_hSymbol).Failed())
        return kFailed;
    return kOk;
}

CError CDataLabelObject::ComputeDwarfSize() {
    m_bNamePrepared = false;
    if (m_hSymbol == 0)
        return kFailed;
    if (objfile::SymbolName(m_hSymbol, m_Name).Failed())
        return kFailed;
    // An untyped data label is written as a plain label and shares the code labels' declaration.
    if (IsTyped())
        UseAbbrev<CVariableAbbrev>(ABBREV_VARIABLE);
    else
        UseAbbrev<CLabelAbbrev>(ABBREV_LABEL);
    m_nRecordLength =
        CodeSize(m_pAbbrev) + m_Name.size() + 2 + State().AddressWidth() + (IsTyped() ? 8 : 0);
    m_bNamePrepared = true;
    return kOk;
}

CError CDataLabelObject::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    uint32_t binding = 0;
    if (m_hSymbol == 0 || objfile::SymbolBinding(m_hSymbol, binding).Failed())
        return kFailed;
    if (!QCHECK(m_nRecordLength) || !m_bNamePrepared)
        return kFailed;
    uint32_t code = 0;
    if (m_pAbbrev->WriteDeclaration(abbrev, code).Failed())
        return kFailed;
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.CString(m_Name);
    size_t addressField = entry.Size();
    entry.Zeros(State().AddressWidth());
    if (IsTyped())
        entry.U64(m_TypeRef.m_nOffset);
    entry.U8(binding == BRX_BINDING_GLOBAL ? 1 : 0);
    uint64_t start = 0;
    if (info.AppendRecord(entry, &start).Failed())
        return kFailed;
    std::string().swap(m_Name);
    m_bNamePrepared = false;
    return info.AddAddressRelocation(start + addressField, m_hSymbol);
}
