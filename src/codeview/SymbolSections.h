// Framing of the CodeView symbol sections that the passes share: closing a subsection once its
// content is complete, and telling a COMDAT code section (which has a symbol section of its own).
#pragma once

#include "brix/brix.h"

#include <cstdint>

class CBinarySection;

// Ends the open subsection of `section`: its length field receives the bytes written since its
// header. A section with nothing written since the last close is left alone. Fails (26) when the
// length cannot be written.
uint32_t CloseSubsection(CBinarySection &section);

// True for a section that the object-file library reports as COMDAT (a failed query is reported
// and counts as not COMDAT).
bool IsComdatSection(BrxHandle section);
