#include "objects/ValueObjects.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/RecordNames.h"
#include "dwarf/Abbreviations.h"
#include "dwarf/DwarfConstants.h"
#include "dwarf/Leb128.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "platform/ByteWriter.h"
#include "types/DebugTypes.h"

#include "quillet/quillet.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

using quillet::ByteWriter;
using quillet::SizeULEB128;
namespace cv = quillet::cv;

// ---- Constants -------------------------------------------------------------------------------

CConstantObject::CConstantObject(CScopeNode *owner) {
    m_pOwnerScope = owner;
    UseAbbrev<CConstantAbbrev>(ABBREV_CONSTANT);
}

CConstantObject::~CConstantObject() = default;

int CConstantObject::GetKind() const {
    return DBG_OBJ_CONSTANT;
}

void CConstantObject::SetType(CDebugBasicType *type) {
    m_Type = type;
    m_TypeRef.Attach(type);
    RegisterTypeWithModule(type);
}

CError CConstantObject::SetValue(const void *value) {
    if (!m_Type || m_Type->ByteSize() < 1)
        return kFailed;
    const auto *bytes = static_cast<const uint8_t *>(value);
    m_pValue.assign(bytes, bytes + m_Type->ByteSize());
    m_bHasValue = true;
    return kOk;
}

namespace {

void PutLeaf(NumericLeaf &out, uint16_t leaf, uint64_t value, unsigned count) {
    out.leaf = leaf;
    out.count = count;
    for (unsigned i = 0; i < count; ++i)
        out.bytes[i] = uint8_t(value >> (8 * i));
}

void UnsignedLeaf(NumericLeaf &out, uint64_t v) {
    if (v <= 127)
        PutLeaf(out, cv::LF_CHAR, v, 1);
    else if (v <= 0xFFFF)
        PutLeaf(out, cv::LF_USHORT, v, 2);
    else
        PutLeaf(out, cv::LF_ULONG, v, 4);
}

void SignedLeaf(NumericLeaf &out, int64_t v) {
    if (v >= -128 && v <= 127)
        PutLeaf(out, cv::LF_CHAR, uint64_t(v), 1);
    else if (v >= -32768 && v <= 32767)
        PutLeaf(out, cv::LF_SHORT, uint64_t(v), 2);
    else
        PutLeaf(out, cv::LF_LONG, uint64_t(v), 4);
}

} // namespace

CError CConstantObject::EncodeNumericLeaf(NumericLeaf &out) const {
    if (!m_Type || !m_bHasValue || m_pValue.size() != size_t(m_Type->ByteSize()))
        return kFailed;
    uint64_t raw = 0;
    std::memcpy(&raw, m_pValue.data(), std::min<size_t>(m_pValue.size(), 8));
    switch (m_Type->Code()) {
    case 1: // data1 unsigned: above 127 it no longer fits a signed char
    case 3:
        if (raw <= 127)
            PutLeaf(out, cv::LF_CHAR, raw, 1);
        else
            PutLeaf(out, cv::LF_USHORT, raw, 2);
        return kOk;
    case 2:
        PutLeaf(out, cv::LF_CHAR, raw, 1);
        return kOk;
    case 4:
        SignedLeaf(out, int16_t(raw));
        return kOk;
    case 5:
        UnsignedLeaf(out, uint32_t(raw));
        return kOk;
    case 6:
        SignedLeaf(out, int32_t(raw));
        return kOk;
    case 7:
        if (raw >> 32)
            PutLeaf(out, cv::LF_UQUADWORD, raw, 8);
        else
            UnsignedLeaf(out, raw);
        return kOk;
    case 8: {
        int64_t v = int64_t(raw);
        if (v < INT32_MIN || v > INT32_MAX)
            PutLeaf(out, cv::LF_QUADWORD, raw, 8);
        else
            SignedLeaf(out, v);
        return kOk;
    }
    case 9:
        PutLeaf(out, cv::LF_REAL32, raw, 4);
        return kOk;
    case 10:
        PutLeaf(out, cv::LF_REAL64, raw, 8);
        return kOk;
    case 11:
        out.leaf = cv::LF_REAL80;
        out.count = 10;
        std::memcpy(out.bytes, m_pValue.data(), 10);
        return kOk;
    default: // void has no numeric leaf
        return kFailed;
    }
}

CError CConstantObject::WriteCodeView(CBinarySection &symbols, CBinarySection &types) {
    if (!m_Type || !m_bHasName)
        return kFailed;
    NumericLeaf leaf;
    if (EncodeNumericLeaf(leaf).Failed())
        return kFailed;
    uint32_t typeIndex = 0;
    if (m_Type->GetTypeIndex(types, typeIndex).Failed())
        return kFailed;
    std::string name = m_Name;
    cv::FitNamesInRecord(leaf.count + 11, {&name});
    size_t n = name.size();
    ByteWriter record(leaf.count + n + 11);
    record.U16(uint16_t(leaf.count + n + 9));
    record.U16(cv::S_CONSTANT);
    record.U32(typeIndex);
    record.U16(leaf.leaf);
    record.Bytes(leaf.bytes, leaf.count);
    record.CString(name);
    return symbols.AppendRecord(record);
}

CError CConstantObject::ComputeDwarfSize() {
    if (!m_Type || !m_bHasName || !m_bHasValue || m_Type->ByteSize() < 1 ||
        m_pValue.size() != size_t(m_Type->ByteSize()))
        return kFailed;
    m_nRecordLength = SizeULEB128(m_pAbbrev->Code()) + m_Name.size() + m_pValue.size() + 10;
    return kOk;
}

CError CConstantObject::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    if (!QCHECK(m_nRecordLength) || !m_Type || !m_bHasName || !m_bHasValue ||
        m_pValue.size() != size_t(m_Type->ByteSize()))
        return kFailed;
    uint32_t code = 0;
    if (m_pAbbrev->WriteDeclaration(abbrev, code).Failed())
        return kFailed;
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.CString(m_Name);
    entry.U8(uint8_t(m_pValue.size()));
    entry.Bytes(m_pValue.data(), m_pValue.size());
    entry.U64(m_TypeRef.m_nOffset);
    return info.AppendRecord(entry);
}

// ---- Register-resident symbols ---------------------------------------------------------------

CEnregSymObject::CEnregSymObject(CScopeNode *owner) {
    m_pOwnerScope = owner;
    UseAbbrev<CEnregSymAbbrev>(ABBREV_ENREG_SYM);
}

CEnregSymObject::~CEnregSymObject() = default;

int CEnregSymObject::GetKind() const {
    return DBG_OBJ_ENREG_SYM;
}

void CEnregSymObject::SetType(CDebugBasicType *type) {
    m_pType = type;
    m_TypeRef.Attach(type);
    RegisterTypeWithModule(type);
}

CError CEnregSymObject::WriteCodeView(CBinarySection &symbols, CBinarySection &types) {
    if (!m_pType || !m_bHasName)
        return kFailed;
    uint32_t typeIndex = 0;
    if (m_pType->GetTypeIndex(types, typeIndex).Failed())
        return kFailed;
    uint16_t reg = 0;
    if (CodeViewRegisterOf(m_nRegister, reg).Failed())
        return kFailed;
    std::string name = m_Name;
    cv::FitNamesInRecord(11, {&name});
    size_t n = name.size();
    ByteWriter record(n + 11);
    record.U16(uint16_t(n + 9));
    record.U16(cv::S_REGISTER);
    record.U32(typeIndex);
    record.U16(reg);
    record.CString(name);
    return symbols.AppendRecord(record);
}

CError CEnregSymObject::ComputeDwarfSize() {
    if (!m_bHasName || !m_pType)
        return kFailed;
    m_nRecordLength = SizeULEB128(m_pAbbrev->Code()) + m_Name.size() +
                      SizeULEB128(DwarfRegisterOf(m_nRegister)) + 3;
    return kOk;
}

CError CEnregSymObject::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    if (!QCHECK(m_nRecordLength) || !m_bHasName || !m_pType)
        return kFailed;
    uint32_t code = 0;
    if (m_pAbbrev->WriteDeclaration(abbrev, code).Failed())
        return kFailed;
    uint16_t reg = DwarfRegisterOf(m_nRegister);
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.CString(m_Name);
    entry.U8(uint8_t(SizeULEB128(reg) + 1));
    entry.U8(dwarf::DW_OP_regx);
    entry.ULEB(reg);
    return info.AppendRecord(entry);
}
