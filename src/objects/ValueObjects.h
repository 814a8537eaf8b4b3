// Named constants and register-resident symbols: a name, a basic type and a value or register.
#pragma once

#include "objects/DebugObjects.h"
#include "objects/Registers.h"

#include <string>
#include <vector>

class CBaseDebugType;
class CDebugBasicType;

// A CodeView numeric leaf and the value bytes that follow it.
struct NumericLeaf {
    uint16_t leaf = 0;
    uint8_t bytes[10] = {};
    unsigned count = 0;
};

class CConstantObject : public CBaseLangObject {
public:
    explicit CConstantObject(CScopeNode *owner);
    ~CConstantObject() override;

    int GetKind() const override;
    CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) override;
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;
    // The smallest leaf that holds the value; fails for a type without a numeric leaf (void).
    CError EncodeNumericLeaf(NumericLeaf &out) const;
    void SetType(CDebugBasicType *type);
    // Copies as many bytes as the type is wide; fails without a type of at least one byte.
    CError SetValue(const void *value);

    bool m_bHasName = false;
    std::string m_Name;
    std::vector<uint8_t> m_pValue;
    bool m_bHasValue = false;
    CDebugBasicType *m_Type = nullptr;
    CEntryReference m_TypeRef; // receives the offset of the type's entry
};

class CEnregSymObject : public CBaseLangObject {
public:
    explicit CEnregSymObject(CScopeNode *owner);
    ~CEnregSymObject() override;

    int GetKind() const override;
    CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) override;
    CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) override;
    CError ComputeDwarfSize() override;
    void SetType(CDebugBasicType *type);

    bool m_bHasName = false;
    std::string m_Name;
    CDebugBasicType *m_pType = nullptr;
    uint32_t m_nRegister = 0;
    // Receives the offset of the type's entry; the entry does not name it, but the type's entry
    // is written because the symbol uses it.
    CEntryReference m_TypeRef;
};
