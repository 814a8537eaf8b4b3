// `qdbg build`: replays a parsed description through brix (sections, symbols) and the C API
// (module, sources, types, scopes, objects, line entries), then emits and writes the object.
#ifndef QDBG_BUILDER_H
#define QDBG_BUILDER_H

#include "Description.h"

#include <cstdint>
#include <string>

namespace qdbg {

// Writes the object file `output` in `format` (1 ELF32, 2 ELF64, 3 COFF) for the target whose
// machine number is `machine`. A refusal by brix or by the library throws DescriptionError naming
// the description line that caused it (line 0 for the steps that belong to no line: emission and
// writing).
void BuildObject(const Description &description, const std::string &output, int format,
                 uint32_t machine);

} // namespace qdbg

#endif
