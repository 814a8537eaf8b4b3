#include "objects/DebugObjects.h"
#include "platform/ApiGuard.h"

#include "dwarf/Abbrev.h"
#include "frame/LibraryState.h"
#include "objects/LabelObjects.h"
#include "objects/ProcObject.h"
#include "objects/ValueObjects.h"
#include "platform/Check.h"
#include "scopes/ModuleScope.h"
#include "types/DebugTypes.h"

#include "quillet/quillet.h"

#include <memory>

CBaseLangObject::CBaseLangObject() = default;

CBaseLangObject::CBaseLangObject(const CBaseLangObject &other)
    : m_pAbbrev(other.m_pAbbrev), m_nRecordLength(other.m_nRecordLength),
      m_pOwnerScope(other.m_pOwnerScope) {}

// References to this object stay with their owners, pointing nowhere.
CBaseLangObject::~CBaseLangObject() {
    for (CEntryReference *reference : m_RefList)
        reference->m_pTarget = nullptr;
}

void *CBaseLangObject::operator new(size_t size) {
    return State().objectArena.Allocate(size);
}

// While the library resets, the arena releases all its blocks at once afterwards.
void CBaseLangObject::operator delete(void *p) {
    LibraryState &state = State();
    if (!state.releasing)
        state.objectArena.Release(p);
}

// The list grows first: a reference never names a target whose list does not hold it.
void CBaseLangObject::AddReferrer(CEntryReference *reference) {
    m_RefList.push_back(reference);
    reference->m_pTarget = this;
    reference->m_nSlot = m_RefList.size() - 1;
}

// Every referrer receives the same offset, so the list's order does not matter: the last
// reference takes the place of the one that leaves.
void CBaseLangObject::RemoveReferrer(CEntryReference *reference) {
    size_t slot = reference->m_nSlot;
    if (reference->m_pTarget != this || slot >= m_RefList.size() || m_RefList[slot] != reference)
        return;
    m_RefList[slot] = m_RefList.back();
    m_RefList[slot]->m_nSlot = slot;
    m_RefList.pop_back();
    reference->m_pTarget = nullptr;
}

void CEntryReference::Attach(CBaseLangObject *target) {
    if (target == m_pTarget)
        return;
    Detach();
    if (target)
        target->AddReferrer(this);
}

void CEntryReference::Detach() {
    if (m_pTarget)
        m_pTarget->RemoveReferrer(this);
}

void CBaseLangObject::LayOut() {
    uint64_t &offset = State().runningEntryOffset;
    for (CEntryReference *reference : m_RefList)
        reference->m_nOffset = offset;
    (void)ComputeDwarfSize(); // a failed sizing fails again when the entry is written
    offset += m_nRecordLength;
}

void CBaseLangObject::ShareNewAbbrev(CBaseAbbrev *fresh) {
    ShareAbbrev(fresh);
    m_pAbbrev = fresh;
}

void RegisterTypeWithModule(CBaseLangObject *typeObject) {
    CModuleScope *module = State().moduleRoot;
    if (!typeObject || !module || module->CompInfo().m_bNoDebugInfo)
        return;
    module->AddSharedObject(typeObject);
}

namespace {

bool Accepts(int kind, uint32_t id) {
    switch (kind) {
    case DBG_OBJ_CODE_LABEL:
        return id == DBG_PROP_SYMBOL;
    case DBG_OBJ_DATA_LABEL:
        return id >= DBG_PROP_SYMBOL && id <= DBG_PROP_BASE_TYPE;
    case DBG_OBJ_CONSTANT:
        return id >= DBG_PROP_TYPE && id <= DBG_PROP_NAME;
    case DBG_OBJ_ENREG_SYM:
        return id == DBG_PROP_TYPE || id == DBG_PROP_BASE_TYPE || id == DBG_PROP_NAME ||
               id == DBG_PROP_REGISTER;
    case DBG_OBJ_PROCEDURE:
        return id >= DBG_PROP_ENTRY_LIST && id <= DBG_PROP_PROC_FLAGS;
    default:
        return false;
    }
}

// The type named by a type property (id 2: a handle, id 3: a base-type code).
uint32_t TypeOfProperty(const DbgObjectProp &prop, CBaseDebugType *&type) {
    if (!prop.value)
        return DBG_ERR_BAD_TYPE;
    if (prop.id == DBG_PROP_BASE_TYPE) {
        DbgType handle = nullptr;
        uint32_t status = Dbg_base_type(*static_cast<const int32_t *>(prop.value), &handle);
        if (status != DBG_ERR_NONE)
            return status;
        type = FromHandle(handle);
    } else {
        type = FromHandle(*static_cast<const DbgType *>(prop.value));
    }
    return type ? DBG_ERR_NONE : DBG_ERR_BAD_TYPE;
}

// Constants and register symbols take basic types only (a base-type code always names one).
uint32_t BasicTypeOfProperty(const DbgObjectProp &prop, CDebugBasicType *&basic) {
    CBaseDebugType *type = nullptr;
    uint32_t status = TypeOfProperty(prop, type);
    if (status != DBG_ERR_NONE)
        return status;
    if (type->GetTypeKind() != TYPE_BASIC)
        return DBG_ERR_BAD_TYPE;
    basic = static_cast<CDebugBasicType *>(type);
    return DBG_ERR_NONE;
}

std::string NameOf(const void *value) {
    return value ? static_cast<const char *>(value) : "";
}

uint32_t ApplyCodeLabel(CCodeLabelObject &label, const DbgObjectProp &prop) {
    if (!prop.value)
        return DBG_ERR_BAD_PROPERTY_VALUE;
    label.m_hSymbol = *static_cast<const BrxHandle *>(prop.value);
    return DBG_ERR_NONE;
}

uint32_t ApplyDataLabel(CDataLabelObject &label, const DbgObjectProp &prop) {
    if (prop.id == DBG_PROP_SYMBOL) {
        if (!prop.value)
            return DBG_ERR_BAD_PROPERTY_VALUE;
        label.m_hSymbol = *static_cast<const BrxHandle *>(prop.value);
        return DBG_ERR_NONE;
    }
    CBaseDebugType *type = nullptr;
    uint32_t status = TypeOfProperty(prop, type);
    if (status == DBG_ERR_NONE)
        label.SetType(type);
    return status;
}

// The type and name properties that constants and register symbols share.
template <class Object> uint32_t ApplyBasicType(Object &object, const DbgObjectProp &prop) {
    CDebugBasicType *type = nullptr;
    uint32_t status = BasicTypeOfProperty(prop, type);
    if (status == DBG_ERR_NONE)
        object.SetType(type);
    return status;
}

template <class Object> uint32_t ApplyName(Object &object, const DbgObjectProp &prop) {
    if (!prop.value)
        return DBG_ERR_BAD_PROPERTY_VALUE;
    object.m_Name = NameOf(prop.value);
    object.m_bHasName = true;
    return DBG_ERR_NONE;
}

uint32_t ApplyConstant(CConstantObject &constant, const DbgObjectProp &prop) {
    switch (prop.id) {
    case DBG_PROP_TYPE:
    case DBG_PROP_BASE_TYPE:
        return ApplyBasicType(constant, prop);
    case DBG_PROP_VALUE:
        if (!prop.value)
            return DBG_ERR_BAD_PROPERTY_VALUE;
        return constant.SetValue(prop.value).Ok() ? DBG_ERR_NONE : DBG_ERR_BAD_TYPE;
    default: // DBG_PROP_NAME
        return ApplyName(constant, prop);
    }
}

uint32_t ApplyEnregSym(CEnregSymObject &symbol, const DbgObjectProp &prop) {
    switch (prop.id) {
    case DBG_PROP_TYPE:
    case DBG_PROP_BASE_TYPE:
        return ApplyBasicType(symbol, prop);
    case DBG_PROP_NAME:
        return ApplyName(symbol, prop);
    default: { // DBG_PROP_REGISTER
        if (!prop.value)
            return DBG_ERR_BAD_PROPERTY_VALUE;
        uint32_t reg = *static_cast<const uint32_t *>(prop.value);
        if (!AcceptsRegister(reg, RegisterUse::Symbol))
            return DBG_ERR_BAD_PROPERTY_VALUE;
        symbol.m_nRegister = reg;
        return DBG_ERR_NONE;
    }
    }
}

uint32_t ApplyProcedure(CProcObject &proc, const DbgObjectProp &prop) {
    switch (prop.id) {
    case DBG_PROP_ENTRY_LIST: {
        const auto *list = static_cast<const DbgEntryList *>(prop.value);
        if (!list->entries)
            return DBG_ERR_NULL_PROPERTY_VALUE;
        proc.SetEntryList(list->entries, list->count);
        return DBG_ERR_NONE;
    }
    case DBG_PROP_PROC_TYPE: {
        CBaseDebugType *type = FromHandle(*static_cast<const DbgType *>(prop.value));
        if (!type || type->GetTypeKind() != TYPE_PROCEDURE)
            return DBG_ERR_BAD_TYPE;
        return proc.SetProcType(static_cast<CDebugProcType *>(type)).Ok() ? DBG_ERR_NONE
                                                                          : DBG_ERR_BAD_TYPE;
    }
    case DBG_PROP_START:
        proc.m_nStart = *static_cast<const uint64_t *>(prop.value);
        return DBG_ERR_NONE;
    case DBG_PROP_END:
        proc.m_nEnd = *static_cast<const uint64_t *>(prop.value);
        return DBG_ERR_NONE;
    case DBG_PROP_DEBUG_START:
        proc.m_nDebugStart = *static_cast<const uint32_t *>(prop.value);
        return DBG_ERR_NONE;
    case DBG_PROP_DEBUG_END:
        proc.m_nDebugEnd = *static_cast<const uint32_t *>(prop.value);
        return DBG_ERR_NONE;
    case DBG_PROP_RETURN_REGISTER: {
        uint32_t reg = *static_cast<const uint32_t *>(prop.value);
        if (!AcceptsRegister(reg, RegisterUse::ReturnAddress))
            return DBG_ERR_BAD_PROPERTY_VALUE;
        proc.m_nReturnRegister = reg;
        return DBG_ERR_NONE;
    }
    default: // DBG_PROP_PROC_FLAGS
        proc.m_nFlags = *static_cast<const uint16_t *>(prop.value);
        return DBG_ERR_NONE;
    }
}

std::unique_ptr<CBaseLangObject> MakeObject(int32_t kind, CScopeNode *scope) {
    switch (kind) {
    case DBG_OBJ_CODE_LABEL:
        return std::make_unique<CCodeLabelObject>(scope);
    case DBG_OBJ_DATA_LABEL:
        return std::make_unique<CDataLabelObject>(scope);
    case DBG_OBJ_CONSTANT:
        return std::make_unique<CConstantObject>(scope);
    case DBG_OBJ_ENREG_SYM:
        return std::make_unique<CEnregSymObject>(scope);
    default:
        return std::make_unique<CProcObject>();
    }
}

} // namespace

uint32_t ApplyObjectProperties(CBaseLangObject &object, const DbgObjectProp *props,
                               uint32_t count) {
    int kind = object.GetKind();
    if (kind < DBG_OBJ_CODE_LABEL || kind > DBG_OBJ_PROCEDURE)
        return DBG_ERR_NOT_AN_OBJECT;
    uint32_t records = count & 0xFFFF; // only the low 16 bits of the count are used
    if (records > 0 && !props)
        return DBG_ERR_BAD_PROPERTY_VALUE;
    for (uint32_t i = 0; i < records; ++i) {
        const DbgObjectProp &prop = props[i];
        if (kind == DBG_OBJ_PROCEDURE && !prop.value)
            return DBG_ERR_NULL_PROPERTY_VALUE;
        if (!Accepts(kind, prop.id))
            return DBG_ERR_BAD_PROPERTY;
        uint32_t status = DBG_ERR_NONE;
        switch (kind) {
        case DBG_OBJ_CODE_LABEL:
            status = ApplyCodeLabel(static_cast<CCodeLabelObject &>(object), prop);
            break;
        case DBG_OBJ_DATA_LABEL:
            status = ApplyDataLabel(static_cast<CDataLabelObject &>(object), prop);
            break;
        case DBG_OBJ_CONSTANT:
            status = ApplyConstant(static_cast<CConstantObject &>(object), prop);
            break;
        case DBG_OBJ_ENREG_SYM:
            status = ApplyEnregSym(static_cast<CEnregSymObject &>(object), prop);
            break;
        default:
            status = ApplyProcedure(static_cast<CProcObject &>(object), prop);
            break;
        }
        if (status != DBG_ERR_NONE)
            return status;
    }
    return DBG_ERR_NONE;
}

extern "C" QUILLET_API DbgStatus Dbg_create_object(int32_t kind, const DbgObjectProp *props,
                                                   uint32_t count, DbgScope scope,
                                                   DbgObject *out_object) try {
    LibraryState &state = State();
    CScopeNode *target = scope ? reinterpret_cast<CScopeNode *>(scope) : state.currentScope;
    if (!target && kind != DBG_OBJ_PROCEDURE)
        return DBG_ERR_NO_CURRENT_SCOPE;
    if (kind < DBG_OBJ_CODE_LABEL || kind > DBG_OBJ_PROCEDURE)
        return DBG_ERR_BAD_OBJECT_KIND;
    if (kind != DBG_OBJ_PROCEDURE && !state.IsLiveScope(target))
        return DBG_ERR_NO_CURRENT_SCOPE;
    // Types that the properties register join the module's list after what is there now.
    CModuleScope *module = state.moduleRoot;
    size_t moduleObjects = module ? module->Objects().size() : 0;
    std::unique_ptr<CBaseLangObject> object = MakeObject(kind, target);
    uint32_t status = ApplyObjectProperties(*object, props, count);
    if (status != DBG_ERR_NONE) {
        // Nothing of the object stays: the types it registered leave the module again (no other
        // object refers to them yet, or they would have been registered before), and releasing
        // it takes its type references out of the types' referrer lists.
        if (module)
            module->DropSharedObjectsFrom(moduleObjects);
        return status;
    }
    if (out_object)
        *out_object = reinterpret_cast<DbgObject>(object.get());
    if (kind != DBG_OBJ_PROCEDURE) {
        target->AddObject(object.release());
    } else {
        // Held by the library until Dbg_open_procedure_scope hands it to its scope.
        const void *key = object.get();
        state.unattachedProcedures.emplace(key, std::move(object));
    }
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_add_object_prop(DbgObject object, const DbgObjectProp *props,
                                                     uint32_t count) try {
    if (!object || !State().objectArena.Contains(object))
        return DBG_ERR_NOT_AN_OBJECT;
    return ApplyObjectProperties(*reinterpret_cast<CBaseLangObject *>(object), props, count);
} catch (...) {
    return StatusOfFailedAllocation();
}
