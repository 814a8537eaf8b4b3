#include "objects/ProcObject.h"

#include "codeview/CodeViewFormat.h"
#include "codeview/RecordNames.h"
#include "dwarf/Abbreviations.h"
#include "dwarf/DwarfConstants.h"
#include "dwarf/Leb128.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "frame/ObjectFile.h"
#include "frame/Target.h"
#include "objects/ValueObjects.h"
#include "platform/ByteWriter.h"
#include "types/DebugTypes.h"

#include "quillet/quillet.h"

#include <algorithm>
#include <cstdio>

using quillet::ByteWriter;
using quillet::SizeULEB128;

CProcObject::CProcObject() {
    UseAbbrev<CProcAbbrev>(ABBREV_PROC, false, false);
    if (CDebugProcType *type = State().defaultProcType)
        (void)SetProcType(type);
}

CProcObject::~CProcObject() = default;

int CProcObject::GetKind() const {
    return DBG_OBJ_PROCEDURE;
}

void CProcObject::SetEntryList(const BrxHandle *entries, uint32_t count) {
    m_EntryList.assign(entries, entries + count);
    m_SortedEntries = m_EntryList;
    std::sort(m_SortedEntries.begin(), m_SortedEntries.end());
}

bool CProcObject::IsEntrySymbol(BrxHandle symbol) const {
    return std::binary_search(m_SortedEntries.begin(), m_SortedEntries.end(), symbol);
}

bool CProcObject::HasDefaultType() const {
    return m_pType == State().defaultProcType;
}

CError CProcObject::SetProcType(CDebugProcType *type) {
    if (!type || type->GetTypeKind() != TYPE_PROCEDURE)
        return kFailed;
    m_pType = type;
    m_TypeRef.Attach(type->ReturnType());
    RegisterTypeWithModule(type->ReturnType());
    ChooseAbbrev(m_bWithChildren);
    return kOk;
}

void CProcObject::ChooseAbbrev(bool withChildren) {
    m_bWithChildren = withChildren;
    bool typed = !HasDefaultType();
    auto *current = static_cast<CProcAbbrev *>(m_pAbbrev);
    if (current && current->HasChildren() == withChildren && current->HasType() == typed)
        return;
    UseAbbrev<CProcAbbrev>(CProcAbbrev::KindFor(withChildren, typed), withChildren, typed);
}

CError CProcObject::GetMainSymbol(BrxHandle &symbol, uint64_t &address) {
    if (m_hMainSymbol != 0) {
        if (objfile::SymbolOffset(m_hMainSymbol, address).Failed())
            return kFailed;
        symbol = m_hMainSymbol;
        return kOk;
    }
    if (m_EntryList.empty())
        return kFailed;
    BrxHandle best = 0;
    uint64_t bestAddress = 0;
    for (BrxHandle entry : m_EntryList) {
        uint64_t offset = 0;
        if (entry == 0 || objfile::SymbolOffset(entry, offset).Failed())
            return kFailed;
        if (best == 0 || offset < bestAddress) {
            best = entry;
            bestAddress = offset;
        }
    }
    m_hMainSymbol = best;
    symbol = best;
    address = bestAddress;
    return kOk;
}

CError CProcObject::ConsistencyReset() {
    BrxHandle main = 0;
    uint64_t address = 0;
    if (GetMainSymbol(main, address).Failed())
        return kFailed;
    if (address != m_nStart) {
        BrxHandle section = 0;
        if (objfile::SymbolSection(m_EntryList.front(), section).Failed())
            return kFailed;
        // The type goes back to the default without touching referrers or the abbreviation.
        m_pType = State().defaultProcType;
        m_nDebugStart = 0;
        m_nDebugEnd = GetLength();
        m_nReturnRegister = 0;
        m_nFlags = 0;
    }
    return kOk;
}

CError CProcObject::WriteCodeView(CBinarySection &symbols, CBinarySection &types) {
    if (ConsistencyReset().Failed())
        return kFailed;
    uint32_t binding = 0;
    std::string name;
    if (objfile::SymbolBinding(m_hMainSymbol, binding).Failed() ||
        objfile::SymbolName(m_hMainSymbol, name).Failed())
        return kFailed;
    if (!name.empty() && name[0] == '.')
        name.erase(0, 1);
    if (m_nDebugStart == 0 && m_nDebugEnd == 0)
        m_nDebugEnd = GetLength();
    uint32_t typeIndex = 0;
    if (!m_pType || m_pType->GetTypeIndex(types, typeIndex).Failed())
        return kFailed;
    quillet::cv::FitNamesInRecord(41, {&name});
    size_t n = name.size();
    ByteWriter record(n + 41);
    record.U16(uint16_t(n + 39));
    record.U16(binding == BRX_BINDING_GLOBAL ? quillet::cv::S_GPROC32 : quillet::cv::S_LPROC32);
    record.U32(0); // parent
    record.U32(0); // end
    record.U32(0); // next
    record.U32(GetLength());
    record.U32(m_nDebugStart);
    record.U32(m_nDebugEnd);
    record.U32(typeIndex);
    record.U32(0); // offset, relocated
    record.U16(0); // section, relocated
    record.U8(uint8_t(m_nFlags & 0x1F));
    record.CString(name);
    record.U8(0);
    uint64_t start = 0;
    if (symbols.AppendRecord(record, &start).Failed())
        return kFailed;
    if (symbols.AddSectionRelocation(start + 36, m_hMainSymbol).Failed() ||
        symbols.AddAddressRelocation(start + 32, m_hMainSymbol).Failed())
        return kFailed;
    return kOk;
}

CError CProcObject::ComputeDwarfSize() {
    m_bNamePrepared = false;
    if (ConsistencyReset().Failed())
        return kFailed;
    if (objfile::SymbolName(m_hMainSymbol, m_Name).Failed())
        return kFailed;
    if (!m_Name.empty() && m_Name[0] == '.')
        m_Name.erase(0, 1);
    // The entry must agree with its declaration: a reset type drops the type reference.
    ChooseAbbrev(m_bWithChildren);
    uint16_t reg = DwarfRegisterOf(m_nReturnRegister);
    unsigned width = State().AddressWidth();
    m_nRecordLength = SizeULEB128(m_pAbbrev->Code()) + SizeULEB128(reg) + m_Name.size() + 12 +
                      2 * width + (HasDefaultType() ? 0 : 8);
    m_bNamePrepared = true;
    return kOk;
}

CError CProcObject::WriteDwarf(CBinarySection &info, CBinarySection &abbrev) {
    uint32_t binding = 0;
    if (m_hMainSymbol == 0 || objfile::SymbolBinding(m_hMainSymbol, binding).Failed())
        return kFailed;
    if (!QCHECK(m_nRecordLength) || !m_bNamePrepared)
        return kFailed;
    uint32_t code = 0;
    if (m_pAbbrev->WriteDeclaration(abbrev, code).Failed())
        return kFailed;
    unsigned width = State().AddressWidth();
    uint16_t reg = DwarfRegisterOf(m_nReturnRegister);
    bool typed = static_cast<CProcAbbrev *>(m_pAbbrev)->HasType();
    ByteWriter entry(m_nRecordLength);
    entry.ULEB(code);
    entry.U64(m_nSibling);
    entry.CString(m_Name);
    size_t lowField = entry.Size();
    entry.Zeros(width);
    size_t highField = entry.Size();
    entry.Zeros(width);
    entry.U8(binding == BRX_BINDING_GLOBAL ? 1 : 0);
    if (typed)
        entry.U64(m_TypeRef.m_nOffset);
    entry.U8(uint8_t(SizeULEB128(reg) + 1));
    entry.U8(dwarf::DW_OP_regx);
    entry.ULEB(reg);
    uint64_t start = 0;
    if (info.AppendRecord(entry, &start).Failed())
        return kFailed;
    std::string().swap(m_Name);
    m_bNamePrepared = false;
    if (info.AddAddressRelocation(start + lowField, m_hMainSymbol).Failed())
        return kFailed;
    BrxHandle section = 0;
    if (objfile::SymbolSection(m_hMainSymbol, section).Failed())
        return kFailed;
    // On a real machine a symbol at the procedure's end would be taken by linkers and symbolizers
    // for the procedure that follows it: high_pc is the section's address plus the end offset.
    if (!BoundTarget().IsDefault())
        return info.AddAddressRelocation(start + highField, section, int64_t(m_nEnd));
    // The procedure's end gets a symbol of its own, "$$$00001" and on, for high_pc. It marks a
    // place, not a function: typed as one, symbolizers would name the code after it by it.
    char endName[32];
    std::snprintf(endName, sizeof(endName), "$$$%05u", State().endSymbolCounter++);
    BrxHandle endSymbol = 0;
    if (objfile::CreateSymbol(endName, BRX_SYMBOL_PLAIN, section, m_nEnd, endSymbol).Failed())
        return kFailed;
    return info.AddAddressRelocation(start + highField, endSymbol);
}
