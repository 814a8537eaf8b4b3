// Register numbers of register symbols and return-address registers, and what each output format
// writes for them on the bound target.
//
// On the default target the assembler numbers the registers 0 to 524 and fixed tables of ranges
// translate them into CodeView and DWARF numbers. On every other target the assembler gives the
// target's own DWARF register numbers: DWARF takes them unchanged and CodeView takes the
// machine's CodeView numbers, so a register without a CodeView number cannot be written there.
#pragma once

#include "platform/CError.h"

#include <cstdint>

// The default target's translations.
uint16_t ToCodeViewRegister(uint32_t reg);
uint16_t ToDwarfRegister(uint32_t reg);
constexpr uint32_t kMaxRegister = 524;

enum class RegisterUse { Symbol, ReturnAddress };

// Whether a register property may take `reg` on the bound target; before a module is bound the
// default target's numbering applies. CodeView writes only register symbols, so only they need a
// CodeView number.
bool AcceptsRegister(uint32_t reg, RegisterUse use);
// The DWARF register number written for `reg`.
uint16_t DwarfRegisterOf(uint32_t reg);
// The CodeView register number written for `reg`; fails when the target has none for it.
CError CodeViewRegisterOf(uint32_t reg, uint16_t &codeView);
