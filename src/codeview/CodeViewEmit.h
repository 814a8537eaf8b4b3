// The CodeView side of the emission: the driver, and the scope steps that frame symbol
// sections and write line blocks. The scope classes delegate to these functions.
#pragma once

#include <cstdint>

class CBinarySection;
class CSectionScope;
class CProcScope;

// Runs the CodeView driver on the module root; returns a DBG_ERR_* status.
uint32_t RunCodeViewDriver();

// Section scope: a COMDAT code section gets a symbol section of its own (replaces symSection).
uint32_t SectionBeginCodeView(CSectionScope &scope, CBinarySection *&symSection,
                              CBinarySection *typeSection);
// Section scope: the line header and the blocks of its own entries; null symSection to skip.
uint32_t SectionEmitCodeViewLines(CSectionScope &scope, CBinarySection *&symSection);
// Procedure scope: the blocks of its own entries.
uint32_t ProcEmitCodeViewLines(CProcScope &scope, CBinarySection *&symSection);
