// What the relocations of a relocatable object put into the fields they patch (key 136): each
// machine's arithmetic, so that a reader of debugging sections needs none.
#pragma once

#include "Model.h"

namespace brix {

// Fills the section's m_Resolved once; BRX_OK, or the result of decompressing its bytes (the
// values in place are read from them).
int32_t ResolveRelocations(const CBrxFile &file, CSection &section);

} // namespace brix
