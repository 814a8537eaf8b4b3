// The library's side of the object-file library: the binding of the object file being written,
// and one small wrapper per call the library makes, each returning CError.
#pragma once

#include "platform/CError.h"

#include "brix/brix.h"

#include <cstdint>
#include <string>

// Object formats as the object-file library reports them.
constexpr int32_t FORMAT_ELF32 = 1;
constexpr int32_t FORMAT_ELF64 = 2;
constexpr int32_t FORMAT_COFF = 3;

struct CTarget;

struct CObjectFile {
    BrxHandle file = 0;
    int32_t format = 0;
    BrxHandle symbolTable = 0;
    // The machine the file is for; null while nothing is bound.
    const CTarget *target = nullptr;
};

namespace objfile {

// Finds the symbol table of `file`, its format and its target. A file whose machine the library
// does not write for is not bound: `unsupported` is set and the binding is left empty.
CError Bind(BrxHandle file, CObjectFile &binding, bool &unsupported);
CError QueryMachine(BrxHandle file, uint32_t &machine);
CError QueryFormat(BrxHandle file, int32_t &format);
CError SymbolName(BrxHandle symbol, std::string &name);
CError SymbolBinding(BrxHandle symbol, uint32_t &binding);
CError SymbolOffset(BrxHandle symbol, uint64_t &offset);
CError SymbolSection(BrxHandle symbol, BrxHandle &section);
CError SectionName(BrxHandle section, std::string &name);
CError SectionSize(BrxHandle section, uint64_t &size);
CError SectionFlags(BrxHandle section, uint16_t &flags);
CError SectionComdat(BrxHandle section, BrxComdat &comdat);
CError FindSection(BrxHandle file, const std::string &name, BrxHandle &section);
CError CreateSection(BrxHandle file, int32_t format, const std::string &name, uint16_t flags,
                     uint32_t alignment, uint32_t kindAttribute, BrxHandle &section);
// A local symbol of `type` at `offset` in `section`, in the bound file's symbol table.
CError CreateSymbol(const std::string &name, uint32_t type, BrxHandle section, uint64_t offset,
                    BrxHandle &symbol);
CError CreateRelocation(BrxHandle section, int32_t format, uint32_t type, uint64_t offset,
                        BrxHandle target, int64_t addend = 0);
// Writes `count` bytes at `offset`; `written` is the count the library reports.
CError WriteBytes(BrxHandle section, uint64_t offset, const void *data, uint64_t count,
                  uint64_t &written);
CError ReadBytes(BrxHandle section, uint64_t offset, void *data, uint64_t count, uint64_t &read);
// The path of the object file (wide query), however long.
CError FilePath(BrxHandle file, std::u16string &path);

} // namespace objfile
