// Abbreviations: one shared object per kind, declared in .debug_abbrev the first time an entry
// uses it, under a code numbered in order of first use.
#pragma once

#include "platform/CError.h"

#include <cstdint>

class CBinarySection;

// Registry kinds. A procedure's abbreviation is identified by both its children flag and its
// type flag, so that every procedure entry agrees with the declaration it names.
enum AbbrevKind : uint32_t {
    ABBREV_COMP_UNIT = 2,
    ABBREV_LABEL = 3,
    ABBREV_VARIABLE = 4,
    ABBREV_CONSTANT = 5,
    ABBREV_ENREG_SYM = 6,
    ABBREV_ENTRY_POINT = 7,
    ABBREV_PROC_CHILDREN = 8,
    ABBREV_PROC = 9,
    ABBREV_TYPE = 11,
    ABBREV_PROC_CHILDREN_TYPED = 12,
    ABBREV_PROC_TYPED = 13,
    ABBREV_KIND_COUNT = 14
};

class CBaseAbbrev {
public:
    virtual ~CBaseAbbrev();
    virtual uint32_t GetKind() const = 0;
    // Gives the code; on first use assigns it and appends the declaration to `section`.
    CError WriteDeclaration(CBinarySection &section, uint32_t &code);
    uint32_t Code() const { return m_nCode; }
    uint32_t AssignCode();

protected:
    // Lays out the declaration after its code: tag, children flag, attribute/form pairs, 0 0.
    virtual void DeclarationBody(uint8_t *out, unsigned &length) const = 0;

private:
    uint32_t m_nCode = 0;
};

// Keeps the first abbreviation of each kind in the library's registry; a later one of the same
// kind is destroyed and `abbrev` then points at the registered one.
void ShareAbbrev(CBaseAbbrev *&abbrev);
// The registered abbreviation of a kind, or null.
CBaseAbbrev *RegisteredAbbrev(uint32_t kind);
// Destroys every registered abbreviation (the library's reset).
void ClearAbbrevRegistry();
