#pragma once

#include "brix/brix.h"

#include <cstdint>

namespace brix {

// _brx_get_keyed (wide = false) and _wcbrx_get_keyed (wide = true): the numeric result of the
// interface.
int32_t GetKeyed(BrxHandle object, uint32_t key, const void *input, void *output, bool wide);

} // namespace brix
