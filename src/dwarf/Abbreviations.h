// The abbreviation of each kind of entry: its tag, children flag and attribute list.
#pragma once

#include "dwarf/Abbrev.h"

class CCompUnitAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_COMP_UNIT; }
    // Set when the unit has no single code section: the address range is left out.
    uint8_t m_bNoRange = 0;

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};

class CLabelAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_LABEL; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};

class CEntryPointAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_ENTRY_POINT; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};

class CVariableAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_VARIABLE; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};

class CConstantAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_CONSTANT; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};

class CEnregSymAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_ENREG_SYM; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};

class CProcAbbrev : public CBaseAbbrev {
public:
    CProcAbbrev(bool withChildren, bool withType) : m_bChildren(withChildren), m_bType(withType) {}
    uint32_t GetKind() const override { return KindFor(m_bChildren, m_bType); }
    static uint32_t KindFor(bool withChildren, bool withType) {
        if (withType)
            return withChildren ? ABBREV_PROC_CHILDREN_TYPED : ABBREV_PROC_TYPED;
        return withChildren ? ABBREV_PROC_CHILDREN : ABBREV_PROC;
    }
    bool HasChildren() const { return m_bChildren; }
    bool HasType() const { return m_bType; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;

private:
    bool m_bChildren;
    bool m_bType;
};

class CTypeAbbrev : public CBaseAbbrev {
public:
    uint32_t GetKind() const override { return ABBREV_TYPE; }

protected:
    void DeclarationBody(uint8_t *out, unsigned &length) const override;
};
