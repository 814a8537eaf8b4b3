// Language objects: what the assembler describes in scopes (code labels, data labels, constants,
// register symbols, procedures). Each object writes itself in both formats: one CodeView symbol
// record and one DWARF entry, whose offset is known to every entry that refers to it once the
// layout pass has run.
#pragma once

#include "dwarf/Abbrev.h"
#include "platform/CError.h"

#include <cstddef>
#include <cstdint>
#include <vector>

class CBaseAbbrev;
class CBaseLangObject;
class CBinarySection;
class CScopeNode;

// A field that receives the DWARF entry offset of another object (a type's entry) when that
// object is laid out. It knows its place in the target's referrer list, so it leaves the list in
// constant time: when it is pointed at another target, and when its owner is destroyed (an
// object whose creation failed must leave no field behind for the layout to write into).
class CEntryReference {
public:
    CEntryReference() = default;
    ~CEntryReference() { Detach(); }
    CEntryReference(const CEntryReference &) = delete;
    CEntryReference &operator=(const CEntryReference &) = delete;

    // Joins the referrers of `target` (none when null), leaving those of the earlier target.
    void Attach(CBaseLangObject *target);
    void Detach();
    CBaseLangObject *Target() const { return m_pTarget; }

    uint64_t m_nOffset = 0;

private:
    friend class CBaseLangObject;
    CBaseLangObject *m_pTarget = nullptr;
    size_t m_nSlot = 0; // position in the target's referrer list
};

class CBaseLangObject {
public:
    CBaseLangObject();
    CBaseLangObject(const CBaseLangObject &other);
    CBaseLangObject &operator=(const CBaseLangObject &) = delete;
    virtual ~CBaseLangObject();

    // Objects live in the library's object arena, which also tells live handles from others.
    static void *operator new(size_t size);
    static void operator delete(void *p);

    // 0 compilation unit or basic type; DBG_OBJ_* for the objects made by Dbg_create_object.
    virtual int GetKind() const = 0;
    // Appends the object's CodeView record (and its relocations) to `symbols`; `types` receives
    // the type records that the record's type index needs.
    virtual CError WriteCodeView(CBinarySection &symbols, CBinarySection &types) = 0;
    // Appends the DWARF entry, declaring its abbreviation in `abbrev` on first use.
    virtual CError WriteDwarf(CBinarySection &info, CBinarySection &abbrev) = 0;
    // Sets the entry size; runs in the layout pass before any entry is written.
    virtual CError ComputeDwarfSize() = 0;

    // `reference` receives this object's entry offset when it is laid out (through
    // CEntryReference::Attach, which keeps each reference in one list at a time).
    void AddReferrer(CEntryReference *reference);
    void RemoveReferrer(CEntryReference *reference);
    size_t ReferrerCount() const { return m_RefList.size(); }
    // Stores the running entry offset in every referrer, sizes the entry and advances the offset.
    void LayOut();

    CBaseAbbrev *Abbrev() const { return m_pAbbrev; }
    uint64_t RecordLength() const { return m_nRecordLength; }
    CScopeNode *OwnerScope() const { return m_pOwnerScope; }
    // Set while the object stands in a scope's object list (a list holds each object once).
    bool IsListed() const { return m_bListed; }
    void SetListed(bool listed) { m_bListed = listed; }

protected:
    // Replaces the abbreviation with `fresh`, shared through the registry.
    void ShareNewAbbrev(CBaseAbbrev *fresh);
    // Takes the registered abbreviation of the kind; one is made only when there is none yet.
    template <class T, class... Args> void UseAbbrev(uint32_t kind, Args... args) {
        if (CBaseAbbrev *registered = RegisteredAbbrev(kind))
            m_pAbbrev = registered;
        else
            ShareNewAbbrev(new T(args...));
    }

    std::vector<CEntryReference *> m_RefList;
    CBaseAbbrev *m_pAbbrev = nullptr;
    uint64_t m_nRecordLength = 0;
    CScopeNode *m_pOwnerScope = nullptr;
    bool m_bListed = false;
};

// Applies a property list to an object of kinds 1..5; the status of the first failing record.
uint32_t ApplyObjectProperties(CBaseLangObject &object, const struct DbgObjectProp *props,
                               uint32_t count);
// Makes a basic type's entry part of the module (once), unless debugging information is off.
void RegisterTypeWithModule(CBaseLangObject *typeObject);
