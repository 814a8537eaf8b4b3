// The scope API: opening, moving and closing the current scope.
#include "frame/LibraryState.h"
#include "objects/CompInfo.h"
#include "objects/ProcObject.h"
#include "platform/ApiGuard.h"
#include "platform/Check.h"
#include "scopes/ModuleScope.h"
#include "scopes/ProcScope.h"
#include "scopes/SectionScope.h"

#include "quillet/quillet.h"

#include <memory>

namespace {

DbgScope ToHandle(CScopeNode *scope) {
    return reinterpret_cast<DbgScope>(scope);
}

// The current scope if it is one the library knows, else null.
CScopeNode *LiveCurrentScope() {
    LibraryState &state = State();
    CScopeNode *current = state.currentScope;
    return current && state.IsLiveScope(current) ? current : nullptr;
}

// Attaches a new scope under the current one and makes it current; 4 when refused.
uint32_t OpenUnderCurrent(std::unique_ptr<CScopeNode> scope, DbgScope *out_scope) {
    CScopeNode *current = LiveCurrentScope();
    if (scope->Parent() != nullptr || !current || current->AddChildScope(scope.get()).Failed())
        return DBG_ERR_SCOPE_NOT_OPENED;
    CScopeNode *opened = scope.release(); // owned by its parent now
    State().currentScope = opened;
    if (out_scope)
        *out_scope = ToHandle(opened);
    return DBG_ERR_NONE;
}

} // namespace

extern "C" QUILLET_API DbgStatus Dbg_open_module_scope(
    BrxHandle object_file, uint32_t language, uint32_t edit_and_continue, uint32_t no_debug_info,
    uint32_t machine, const uint16_t front_end_version[3], const uint16_t back_end_version[3],
    const char16_t *producer, const char16_t *directory, const char16_t *source_name,
    const char16_t *tool_path, DbgScope *out_scope) try {
    LibraryState &state = State();
    if (!QCHECK(object_file != 0))
        return DBG_ERR_FAILED; // nothing is bound to a null handle
    if (state.binding.file == 0) {
        bool unsupported = false;
        CError bound = objfile::Bind(object_file, state.binding, unsupported);
        if (unsupported)
            return DBG_ERR_UNSUPPORTED_FORMAT; // the check has named the refusal
        QCHECK(bound == CError::BOOL_STATUS_OK);
    } else if (state.binding.file == object_file) {
        return DBG_ERR_ALREADY_OPEN;
    }
    if (state.moduleRoot)
        return DBG_ERR_FAILED;
    CCompInfo compInfo(language, edit_and_continue, no_debug_info, machine, front_end_version,
                       back_end_version, producer, directory, source_name, tool_path);
    auto *module = new CModuleScope(compInfo);
    state.moduleRoot = module;
    state.currentScope = module;
    if (out_scope)
        *out_scope = ToHandle(module);
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_open_section_scope(BrxHandle section,
                                                        DbgScope *out_scope) try {
    if (!LiveCurrentScope())
        return DBG_ERR_SCOPE_NOT_OPENED;
    return OpenUnderCurrent(std::make_unique<CSectionScope>(section), out_scope);
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_open_procedure_scope(DbgObject procedure,
                                                          DbgScope *out_scope) try {
    LibraryState &state = State();
    // Only a procedure that no scope holds yet can open a scope.
    auto found = state.unattachedProcedures.find(procedure);
    CScopeNode *current = LiveCurrentScope();
    if (found == state.unattachedProcedures.end() || !current ||
        current->GetKind() != SCOPE_SECTION)
        return DBG_ERR_SCOPE_NOT_OPENED;
    auto *proc = static_cast<CProcObject *>(found->second.get());
    auto scope = std::make_unique<CProcScope>(proc);
    found->second.release();
    state.unattachedProcedures.erase(found);
    return OpenUnderCurrent(std::move(scope), out_scope);
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_close_current_scope(void) try {
    CScopeNode *current = LiveCurrentScope();
    if (!current)
        return DBG_ERR_NO_CURRENT_SCOPE;
    // A refused close changes nothing.
    if (!current->IsOpen() || !current->Children().empty())
        return DBG_ERR_SCOPE_NOT_CLOSED;
    current->SetOpen(false);
    // A closed scope rarely receives more entries: give back the list's spare capacity.
    current->Lines().shrink_to_fit();
    State().currentScope = current->Parent();
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_get_current_scope(DbgScope *out_scope) try {
    if (out_scope)
        *out_scope = ToHandle(State().currentScope);
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

// Any value is accepted; functions that use the current scope refuse one the library does not
// know.
extern "C" QUILLET_API DbgStatus Dbg_set_current_scope(DbgScope scope) try {
    State().currentScope = reinterpret_cast<CScopeNode *>(scope);
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}
