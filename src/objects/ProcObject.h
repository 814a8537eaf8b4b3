// A procedure: entry symbols, range in its section, type, return-address register and flags.
#pragma once

#include "objects/DebugObjects.h"

#include "brix/brix.h"

#include <string>
#include <vector>

class CDebugProcType;

class CProcObject : public CBaseLangObject {
public:
    // Starts with the procedure abbreviation without children and the default procedure type.
    CProcObject();
    ~CProcObject() override;

    int GetKind() const override;
    CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) override;
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;

    // The entry with the lowest address (the earlier of equal ones); computed once and kept.
    CError GetMainSymbol(BrxHandle &symbol, uint64_t &address);
    const std::vector<BrxHandle> &GetEntryList() const { return m_EntryList; }
    uint32_t GetLength() const { return uint32_t(m_nEnd - m_nStart); }
    void SetEntryList(const BrxHandle *entries, uint32_t count);
    // True when `symbol` is one of the entries; a binary search, as every label of the
    // procedure's scope asks.
    bool IsEntrySymbol(BrxHandle symbol) const;
    // Fails unless `type` is a procedure type.
    CError SetProcType(CDebugProcType *type);
    bool HasDefaultType() const;
    // Chooses the abbreviation for an entry with or without children (and with or without a
    // type reference, as the procedure's type says).
    void ChooseAbbrev(bool withChildren);

    std::vector<BrxHandle> m_EntryList;
    BrxHandle m_hMainSymbol = 0;
    CDebugProcType *m_pType = nullptr;
    uint64_t m_nStart = 0;
    uint64_t m_nEnd = 0;
    uint32_t m_nDebugStart = 0;
    uint32_t m_nDebugEnd = 0;
    uint32_t m_nReturnRegister = 0;
    uint16_t m_nFlags = 0;
    uint64_t m_nSibling = 0;
    CEntryReference m_TypeRef; // receives the offset of the return type's entry

private:
    std::vector<BrxHandle> m_SortedEntries; // the entry list in ascending order

    // A procedure whose start is not its main symbol's address loses type, range and flags.
    CError ConsistencyReset();

    std::string m_Name;
    bool m_bNamePrepared = false;
    bool m_bWithChildren = false;
};
