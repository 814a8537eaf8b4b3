#include "types/DebugTypes.h"
#include "platform/ApiGuard.h"

#include "dwarf/Abbreviations.h"
#include "dwarf/Leb128.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "platform/ByteWriter.h"

#include <memory>

using quillet::ByteWriter;
using quillet::SizeULEB128;

namespace {

struct BasicTypeInfo {
    const char *name;
    int16_t byteSize;
    int16_t encoding;       // DW_ATE_*
    uint32_t codeViewIndex; // primitive type index
};

// Indexed by base-type code; odd codes are unsigned, even codes signed.
constexpr BasicTypeInfo kBasicTypes[13] = {
    {"", 0, 0, 0},         {"data1", 1, 8, 0x20}, {"data1", 1, 6, 0x10}, {"data2", 2, 7, 0x21},
    {"data2", 2, 5, 0x11}, {"data4", 4, 7, 0x22}, {"data4", 4, 5, 0x12}, {"data8", 8, 7, 0x77},
    {"data8", 8, 5, 0x76}, {"real4", 4, 4, 0x40}, {"real8", 8, 4, 0x41}, {"real10", 10, 4, 0x42},
    {"void", 0, 1, 0x03},
};

} // namespace

// ---- Base ------------------------------------------------------------------------------------

CBaseDebugType::CBaseDebugType() {
    State().liveTypes.Insert(this);
}

CBaseDebugType::~CBaseDebugType() {
    LibraryState &state = State();
    if (!state.releasing)
        state.liveTypes.Erase(this);
}

uint32_t CBaseDebugType::AssignTypeIndex() {
    m_nTypeIndex = State().typeIndexCounter++;
    return m_nTypeIndex;
}

DbgType_ *ToHandle(CBaseDebugType *type) {
    return reinterpret_cast<DbgType_ *>(type);
}

CBaseDebugType *FromHandle(const DbgType_ *handle) {
    if (!handle || !State().liveTypes.Contains(handle))
        return nullptr;
    return reinterpret_cast<CBaseDebugType *>(const_cast<DbgType_ *>(handle));
}

// ---- Basic types -----------------------------------------------------------------------------

CDebugBasicType::CDebugBasicType() {
    UseAbbrev<CTypeAbbrev>(ABBREV_TYPE);
}

CDebugBasicType::~CDebugBasicType() = default;

CError CDebugBasicType::SetBasicKind(int32_t code) {
    if (code < 1 || code > 12)
        return kFailed;
    const BasicTypeInfo &info = kBasicTypes[code];
    m_nCode = code;
    m_Name = info.name;
    m_nByteSize = info.byteSize;
    m_nEncoding = info.encoding;
    return kOk;
}

uint32_t CDebugBasicType::AssignTypeIndex() {
    m_nTypeIndex = (m_nCode >= 1 && m_nCode <= 12) ? kBasicTypes[m_nCode].codeViewIndex : 0;
    return m_nTypeIndex;
}

CError CDebugBasicType::GetTypeIndex(CBinarySection &, uint32_t &index) {
    index = m_nTypeIndex != 0 ? m_nTypeIndex : AssignTypeIndex();
    return index != 0 ? kOk : kFailed;
}

CError CDebugBasicType::ComputeDwarfSize() {
    m_nRecordLength = SizeULEB128(m_pAbbrev->Code()) + m_Name.size() + 1 +
                      SizeULEB128(uint64_t(int64_t(m_nByteSize))) +
                      SizeULEB128(uint64_t(int64_t(m_nEncoding)));
    return kOk;
}

CError CDebugBasicType::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    if (!QCHECK(m_nRecordLength))
        return kFailed;
    uint32_t code = 0;
    CError declared = m_pAbbrev->WriteDeclaration(abbrev, code);
    QCHECK(declared == CError::BOOL_STATUS_OK);
    // Both values are below 64, where the unsigned and signed encodings are the same byte.
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.CString(m_Name);
    entry.ULEB(uint64_t(int64_t(m_nByteSize)));
    entry.ULEB(uint64_t(int64_t(m_nEncoding)));
    return info.AppendRecord(entry);
}

CDebugBasicType *BasicType(int32_t code) {
    if (code < 1 || code > 12)
        return nullptr;
    LibraryState &state = State();
    if (CDebugBasicType *cached = state.baseTypeCache[code])
        return cached;
    auto type = std::make_unique<CDebugBasicType>();
    (void)type->SetBasicKind(code);
    CDebugBasicType *made = type.get();
    state.typeTable.push_back(std::move(type));
    state.baseTypeCache[code] = made;
    return made;
}

// ---- Procedure types -------------------------------------------------------------------------

CError CDebugProcType::SetProcedureKind(uint32_t kind) {
    if (kind != 1 && kind != 2)
        return kFailed;
    m_nProcedureKind = kind;
    return kOk;
}

CError CDebugProcType::SetReturnType(CBaseDebugType *type) {
    if (!type || type->GetTypeKind() != TYPE_BASIC)
        return kFailed;
    m_pReturnType = static_cast<CDebugBasicType *>(type);
    return kOk;
}

CError CDebugProcType::GetTypeIndex(CBinarySection &types, uint32_t &index) {
    if (m_nTypeIndex != 0) {
        index = m_nTypeIndex;
        return kOk;
    }
    if (!m_pReturnType)
        return kFailed;
    uint32_t returnIndex = 0;
    if (m_pReturnType->GetTypeIndex(types, returnIndex).Failed())
        return kFailed;
    ByteWriter argumentList(8);
    argumentList.U16(6);
    argumentList.U16(LF_ARGLIST);
    argumentList.U32(0); // no arguments
    CError appended = types.AppendRecord(argumentList);
    QCHECK(appended == CError::BOOL_STATUS_OK);
    uint32_t argumentListIndex = State().typeIndexCounter++;

    ByteWriter procedure(16);
    procedure.U16(14);
    procedure.U16(LF_PROCEDURE);
    procedure.U32(returnIndex);
    procedure.U8(m_nProcedureKind == 1 ? 0x0d : 0x00); // call type
    procedure.U8(0);                                   // function attributes
    procedure.U16(0);                                  // parameter count
    procedure.U32(argumentListIndex);
    if (types.AppendRecord(procedure).Failed())
        return kFailed;
    index = AssignTypeIndex();
    return kOk;
}

// ---- Exported functions ------------------------------------------------------------------------

extern "C" QUILLET_API DbgStatus Dbg_base_type(int32_t code, DbgType *out_type) try {
    CDebugBasicType *type = BasicType(code);
    if (!type)
        return DBG_ERR_BAD_TYPE;
    if (out_type)
        *out_type = ToHandle(type);
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_procedure_type(DbgType return_type, uint32_t procedure_kind,
                                                    DbgType *out_type) try {
    auto type = std::make_unique<CDebugProcType>();
    if (type->SetProcedureKind(procedure_kind).Failed())
        return DBG_ERR_BAD_PROCEDURE_KIND;
    if (type->SetReturnType(FromHandle(return_type)).Failed())
        return DBG_ERR_BAD_TYPE;
    if (out_type)
        *out_type = ToHandle(type.get());
    State().typeTable.push_back(std::move(type));
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}
