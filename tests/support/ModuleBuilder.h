// Building an object file through brix and describing it through the Quillet C API, as an
// assembler does, plus a counter of consistency-check reports.
#pragma once

#include "support/Support.h"

#include "brix/brix.h"
#include "quillet/quillet.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qtest {

// Counts the failed consistency checks reported while it lives.
class CheckCounter {
public:
    CheckCounter();
    ~CheckCounter();
    int Count() const;
    const std::vector<std::string> &Expressions() const;
};

// An object file made through brix, described through the Quillet C API. The constructor calls
// Dbg_init(0) unless told otherwise; the destructor calls Dbg_finish and closes the file.
class ModuleBuilder {
public:
    ModuleBuilder(const std::string &path, int32_t format, bool initLibrary = true);
    ~ModuleBuilder();
    ModuleBuilder(const ModuleBuilder &) = delete;
    ModuleBuilder &operator=(const ModuleBuilder &) = delete;

    // Sets the object file's machine (brix key 20), which chooses the target at OpenModule.
    bool SetMachine(uint32_t machine);

    BrxHandle File() const { return m_File; }
    BrxHandle SymbolTable() const { return m_SymbolTable; }
    const std::string &Path() const { return m_Path; }

    // A section holding `size` bytes (all 0x90); code sections carry the code flag.
    BrxHandle AddSection(const std::string &name, bool code, uint64_t size);
    // A symbol at `offset` of `section`; binding 2 global, 1 local.
    BrxHandle AddSymbol(const std::string &name, BrxHandle section, uint64_t offset,
                        bool global = true, uint32_t type = BRX_SYMBOL_FUNCTION);

    // Dbg_open_module_scope with fixed versions; the directory, source and producer as given.
    DbgStatus OpenModule(const std::u16string &directory = u"c:\\work",
                         const std::u16string &source = u"main.asm",
                         const std::u16string &producer = u"qasm 1.0", uint32_t noDebugInfo = 0,
                         DbgScope *out = nullptr);
    DbgStatus OpenSection(BrxHandle section, DbgScope *out = nullptr);
    // Creates a procedure entered through `entries` over [start, end) and opens its scope.
    DbgStatus OpenProcedure(const std::vector<BrxHandle> &entries, uint64_t start, uint64_t end,
                            DbgScope *out = nullptr, DbgObject *procedure = nullptr,
                            DbgType type = nullptr, uint32_t returnRegister = 0);
    DbgStatus Close() { return Dbg_close_current_scope(); }

    DbgStatus CodeLabel(BrxHandle symbol, DbgObject *out = nullptr, DbgScope scope = nullptr);
    // A data label; baseType 0 leaves it untyped.
    DbgStatus DataLabel(BrxHandle symbol, int32_t baseType, DbgObject *out = nullptr);
    // A constant of a basic type with the value's bytes (as wide as the type).
    DbgStatus Constant(const std::string &name, int32_t baseType, const void *value,
                       DbgObject *out = nullptr);
    DbgStatus Register(const std::string &name, int32_t baseType, uint32_t reg,
                       DbgObject *out = nullptr);

    DbgSource Source(const std::u16string &name);
    // A line entry at `offset` (base 0) of the current scope, or of `scope`.
    DbgStatus Line(DbgSource source, uint32_t line, uint64_t offset, DbgScope scope = nullptr);

    DbgStatus Emit() { return Dbg_emit(); }

    // The bytes of a section of the file, by name (empty when there is no such section).
    std::vector<uint8_t> SectionBytes(const std::string &name) const;
    std::vector<uint8_t> SectionBytes(BrxHandle section) const;
    BrxHandle FindSection(const std::string &name) const;
    // Every section of the file with this name, in creation order (a COFF object has several
    // .debug$S).
    std::vector<BrxHandle> SectionsNamed(const std::string &name) const;
    struct Relocation {
        uint64_t offset;
        uint32_t type;
        BrxHandle target;
    };
    // The relocations of a section, in the order they were made.
    std::vector<Relocation> Relocations(BrxHandle section) const;
    // Writes the object file to its path; true on success.
    bool Write();

private:
    std::string m_Path;
    int32_t m_Format;
    bool m_bInit;
    BrxHandle m_File = 0;
    BrxHandle m_SymbolTable = 0;
};

} // namespace qtest
