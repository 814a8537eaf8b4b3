// The one guard at the C boundary. Inside, the library meets an exception only where the standard
// library reports an allocation that failed (std::bad_alloc, or std::length_error for a size no
// container can hold); none may unwind into a C caller. Every exported function is written as a
// function-try-block whose handler answers this status:
//
//     extern "C" QUILLET_API DbgStatus Dbg_emit(void) try {
//         ...
//     } catch (...) {
//         return StatusOfFailedAllocation();
//     }
#pragma once

#include <quillet/quillet.h>

inline DbgStatus StatusOfFailedAllocation() noexcept {
    return DBG_ERR_NO_MEMORY;
}
