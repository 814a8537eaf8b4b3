// `qdbg build --target`: the machines an object can be written for and the formats each uses.
#ifndef QDBG_TARGETS_H
#define QDBG_TARGETS_H

#include <cstdint>
#include <string>

namespace qdbg {

// The machine number (brix key 20) that `target` has in `format` (1 ELF32, 2 ELF64, 3 COFF).
// False, with `error` saying why, for an unknown target or one that does not use the format.
bool MachineFor(const std::string &target, int format, uint32_t &machine, std::string &error);

} // namespace qdbg

#endif
