// Start-up, shut-down and emission.
#include "codeview/CodeViewEmit.h"
#include "frame/LibraryState.h"
#include "frame/Write.h"
#include "platform/ApiGuard.h"
#include "platform/Check.h"
#include "types/DebugTypes.h"

#include "quillet/quillet.h"

extern "C" QUILLET_API DbgStatus Dbg_init(uint32_t mode) try {
    LibraryState &state = State();
    if (mode == 0) {
        DbgType voidHandle = nullptr;
        DbgStatus err = Dbg_base_type(12, &voidHandle);
        QCHECK(err == DBG_ERR_NONE);
        state.voidType = static_cast<CDebugBasicType *>(FromHandle(voidHandle));
        DbgType procHandle = nullptr;
        CError stat =
            Dbg_procedure_type(voidHandle, 2, &procHandle) == DBG_ERR_NONE ? kOk : kFailed;
        QCHECK(stat == CError::BOOL_STATUS_OK);
        state.defaultProcType = static_cast<CDebugProcType *>(FromHandle(procHandle));
    } else if (!state.reader) {
        state.reader = CreateRetrieve(); // stays null when it cannot be allocated
    }
    state.mode = mode;
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_finish(void) try {
    State().Reset();
    return DBG_ERR_NONE;
} catch (...) {
    return StatusOfFailedAllocation();
}

extern "C" QUILLET_API DbgStatus Dbg_emit(void) try {
    int32_t format = State().binding.format;
    if (format < FORMAT_ELF32 || format > FORMAT_COFF)
        return DBG_ERR_NO_OBJECT_FORMAT;
    if (format == FORMAT_COFF)
        return RunCodeViewDriver();
    return RunDwarfDriver();
} catch (...) {
    return StatusOfFailedAllocation();
}
