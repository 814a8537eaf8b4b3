// The module description that `qdbg build` reads: a line-oriented text naming the object file's
// sections and symbols and everything the C API can describe (module values, source files,
// types, scopes, objects, line entries). Parsing checks the text and every name it uses; the
// builder (Builder.h) then replays it through brix and the C API.
#ifndef QDBG_DESCRIPTION_H
#define QDBG_DESCRIPTION_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qdbg {

// A fault in the description: the line it is on (1-based) and what is wrong.
class DescriptionError : public std::runtime_error {
public:
    DescriptionError(int line, const std::string &message)
        : std::runtime_error(message), m_nLine(line) {}
    int Line() const { return m_nLine; }

private:
    int m_nLine;
};

// A type as a description names it: one of the twelve basic types by its base-type code, or a
// procedure type declared with `proctype`.
struct TypeRef {
    int32_t baseCode = 0; // 1..12 for a basic type, 0 for a procedure type
    size_t procType = 0;  // index into Description::procTypes when baseCode is 0
    bool IsBasic() const { return baseCode != 0; }
};

struct ModuleDecl {
    int line = 0;
    uint32_t language = 1;
    uint32_t machine = 1;
    uint32_t editAndContinue = 0;
    uint32_t noDebugInfo = 0;
    uint16_t frontEnd[3] = {0, 0, 0};
    uint16_t backEnd[3] = {0, 0, 0};
    std::string producer = "qdbg";
    std::string directory; // empty: the working directory of qdbg
    std::string source;
    std::string tool;
};

struct SourceDecl {
    int line = 0;
    std::string alias;
    std::string path;
};

struct ProcTypeDecl {
    int line = 0;
    std::string alias;
    int32_t returnCode = 12;
    uint32_t kind = 2;
};

struct SectionDecl {
    int line = 0;
    std::string name;
    bool code = false;
    uint32_t alignment = 1;
    std::vector<uint8_t> bytes; // the section's contents
    uint32_t comdat = 0;        // COMDAT selection, 0 for none
    size_t associate = 0;       // index of the associated section for selection 5
};

struct SymbolDecl {
    int line = 0;
    std::string name;
    size_t section = 0;
    uint64_t offset = 0;
    uint32_t binding = 1; // 1 local, 2 global
    uint32_t type = 0;    // 0 plain, 2 function
};

// One step of the scope walk, in the order the description gives them.
struct Step {
    enum Kind { OpenSection, Label, Data, Constant, Register, OpenProcedure, CloseProcedure, Line };
    Kind kind = Line;
    int line = 0;
    size_t section = 0;          // OpenSection
    size_t symbol = 0;           // Label, Data
    std::vector<size_t> entries; // OpenProcedure: entry symbols
    std::string name;            // Constant, Register
    bool hasType = false;        // Data, Register (optional), Constant, OpenProcedure
    TypeRef type;
    std::vector<uint8_t> value; // Constant: the value bytes, as wide as the type
    uint32_t registerNumber = 0;
    bool hasRegister = false;
    // OpenProcedure
    bool hasStart = false;
    uint64_t start = 0, end = 0;
    uint32_t debugStart = 0, debugEnd = 0, returnRegister = 0;
    uint16_t flags = 0;
    // Line
    size_t source = 0;
    uint32_t lineNumber = 0, column = 0, offset = 0;
    uint64_t base = 0;
};

struct Description {
    std::string fileName;
    ModuleDecl module;
    std::vector<SourceDecl> sources;
    std::vector<ProcTypeDecl> procTypes;
    std::vector<SectionDecl> sections;
    std::vector<SymbolDecl> symbols;
    std::vector<Step> steps;
};

// Parses the text of a description; throws DescriptionError for the first fault.
Description ParseDescription(const std::string &text);

// Base-type code of a basic type name ("data4", "sdata2", "real8", "void"), 0 if unknown.
int32_t BaseTypeCode(const std::string &name);
// Byte width of a base-type code (0 for void).
unsigned BaseTypeWidth(int32_t code);

} // namespace qdbg

#endif
