// The two passes that fill the tables no language object owns, both in the main symbol section:
// the string table of source-file paths and the one file-checksum table of the object.
#pragma once

#include <cstdint>

class CBinarySection;
class CScopeNode;
struct CCodeViewTables;

// The string-table pass over the module's subtree: one path per file that line entries name,
// appended to the main symbol section as one piece. The module's own entries are not visited.
uint32_t WriteStringTable(const CScopeNode &module, CBinarySection &mainSymbols,
                          CCodeViewTables &tables);

// The checksum pass: one record per file of the string table, in its order, with the MD5 of the
// file's bytes. 18 when a file cannot be read or an append fails.
uint32_t WriteChecksumTable(CBinarySection &mainSymbols, const CCodeViewTables &tables);
