// Registering source files and recording line entries.
#include "frame/LibraryState.h"
#include "platform/ApiGuard.h"
#include "platform/Check.h"
#include "platform/Text.h"
#include "scopes/ScopeNode.h"

#include "quillet/quillet.h"

extern "C" QUILLET_API DbgStatus DbgLine_create_source(const char16_t *source_file_name,
                                                       DbgSource *out_source) try {
    QCHECK(source_file_name != NULL);
    LibraryState &state = State();
    CSourceCell *cell = state.sourceFiles.Create(quillet::WideCopy(source_file_name));
    state.liveSources.Insert(cell);
    if (out_source)
        *out_source = reinterpret_cast<DbgSource>(cell);
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_create_line(DbgScope scope, const DbgLineDesc *desc) try {
    LibraryState &state = State();
    CScopeNode *target = scope ? reinterpret_cast<CScopeNode *>(scope) : state.currentScope;
    if (!target || !state.IsLiveScope(target))
        return DBG_ERR_NO_CURRENT_SCOPE;
    if (!QCHECK(desc != NULL))
        return DBG_ERR_LINE_REJECTED;
    // A source handle the library never gave out is refused before anything reads it; a null
    // one is reported by the entry itself and recorded.
    if (desc->source && !QCHECK(state.IsLiveSource(desc->source)))
        return DBG_ERR_LINE_REJECTED;
    if (target
            ->CreateLineEntry(desc->line, desc->column, desc->base_low, desc->base_high,
                              desc->offset, desc->source)
            .Failed())
        return DBG_ERR_LINE_REJECTED;
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}
