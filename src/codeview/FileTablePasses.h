// The two passes that fill the tables no language object owns: the string table of source-file
// paths (main symbol section only) and the file-checksum tables (the main one, shared by every
// section that is not COMDAT, and one in each COMDAT section's own symbol section).
#pragma once

#include <cstdint>

class CBinarySection;
class CScopeNode;
struct CCodeViewTables;

// The string-table pass over the module's subtree: one composed path per source-file record,
// appended to the main symbol section as one piece. The module's own entries are not visited.
uint32_t WriteStringTable(const CScopeNode &module, CBinarySection &mainSymbols,
                          CCodeViewTables &tables);

// The checksum pass: one record per file and table, MD5 of the file's bytes. 18 when a file
// cannot be read or an append fails.
uint32_t WriteChecksumTables(const CScopeNode &module, CBinarySection &mainSymbols,
                             CCodeViewTables &tables);
