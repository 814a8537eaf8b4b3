// The DWARF emission driver.
#pragma once

#include <cstdint>

// Lays out the tree, creates .debug_info, .debug_abbrev and .debug_line and writes them; returns
// a DBG_ERR_* status.
uint32_t RunDwarfDriver();
