// Code labels (with entry points) and data labels: name and address come from an object-file
// symbol.
#pragma once

#include "objects/DebugObjects.h"

#include "brix/brix.h"

#include <string>

class CBaseDebugType;
class CDebugBasicType;

class CCodeLabelObject : public CBaseLangObject {
public:
    explicit CCodeLabelObject(CScopeNode *owner);

    int GetKind() const override;
    CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) override;
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;
    // True in a procedure scope whose procedure is entered through this label's symbol.
    bool IsEntryPoint() const;

    BrxHandle m_hSymbol = 0;

private:
    std::string m_Name;      // fetched at layout, released once the entry is written
    size_t m_nNameStart = 0; // 1 when an entry point's leading dot is dropped
    bool m_bNamePrepared = false;
    uint8_t m_bExternal = 0;
};

class CDataLabelObject : public CBaseLangObject {
public:
    explicit CDataLabelObject(CScopeNode *owner);
    ~CDataLabelObject() override;

    int GetKind() const override;
    CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) override;
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;
    // Sets the type and takes the place of the old type's referrer.
    void SetType(CBaseDebugType *type);
    bool IsTyped() const;

    BrxHandle m_hSymbol = 0;
    CBaseDebugType *m_pType = nullptr;
    // Receives the offset of the entry that DW_AT_type names.
    CEntryReference m_TypeRef;

private:
    std::string m_Name;
    bool m_bNamePrepared = false;
};
