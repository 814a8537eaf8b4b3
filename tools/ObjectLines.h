// The line information of one object file as the query commands see it: its sections (by name
// and, in a linked object, by address), the rows of each, the source files, and the function
// that holds an address. A small layer over the retrieval functions of the C API and brix's
// symbol table; line sections, file names and the function index are fetched when first asked
// for, so a query pays only for what it uses.
#ifndef QDBG_OBJECT_LINES_H
#define QDBG_OBJECT_LINES_H

#include "RangeIndex.h"

#include <brix/brix.h>
#include <quillet/quillet.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qdbg {

class ObjectLines {
public:
    static constexpr size_t kNone = SIZE_MAX;

    struct Section {
        BrxHandle handle = 0;
        std::string name;
        uint64_t address = 0; // 0 in a relocatable object
        uint64_t size = 0;
        bool code = false;
        // Debugging information, relocations, symbol and string tables: no program bytes.
        bool bookkeeping = false;
        DbgLineSectionHandle *lines = nullptr; // once opened
        RangeIndex<uint32_t> functions;        // section offsets -> m_FunctionNames
    };

    ObjectLines() = default;
    ObjectLines(const ObjectLines &) = delete;
    ObjectLines &operator=(const ObjectLines &) = delete;
    ~ObjectLines();

    // Opens the object file and reads its line information; false, with the reason, when either
    // fails.
    bool Open(const std::string &path, std::string &error);

    // A linked object's rows and symbols are at virtual addresses; a relocatable one's at
    // offsets in their sections.
    bool Linked() const { return m_bLinked; }
    const std::vector<Section> &Sections() const { return m_Sections; }
    // Where a section's offset lies in the numbering that the user sees: the virtual address
    // in a linked object, the offset itself in a relocatable one.
    uint64_t AddressOf(size_t section, uint64_t offset) const {
        return m_bLinked ? m_Sections[section].address + offset : offset;
    }
    size_t FindSection(std::string_view name) const;
    // The section whose addresses hold address in a linked object (code sections first), or
    // kNone.
    size_t SectionAt(uint64_t address);

    // The line-section handle of a section, opened on first use; the library's status.
    DbgStatus Lines(size_t section, DbgLineSectionHandle *&handle);
    // The path of a row's file, or null when the object names no such file.
    const std::string *FileName(uint32_t index);
    size_t FileCount() const { return m_FileNames.size(); }
    // The function whose code holds offset in the section: the function symbol whose range
    // holds it, else the DWARF subprogram that does; empty when none does. The name lives until
    // the next call.
    std::string_view FunctionAt(size_t section, uint64_t offset);

private:
    void BuildFunctionIndex();

    BrxHandle m_hFile = 0;
    bool m_bLinked = false;
    std::vector<Section> m_Sections;
    std::unordered_map<BrxHandle, size_t> m_SectionByHandle;
    RangeIndex<uint32_t> m_CodeByAddress, m_OtherByAddress; // -> m_Sections
    bool m_bAddressIndex = false;
    std::vector<std::optional<std::string>> m_FileNames;
    std::vector<std::string> m_FunctionNames;
    std::vector<char> m_Subprogram; // the last name a subprogram gave
    bool m_bFunctionIndex = false;
};

// Whether a source path is named by what a user typed: the whole path or a trailing part of it
// that starts at a path component (`a.c` and `src/a.c` name `/work/src/a.c`, `c.c` does not).
// Letter case and the two separators `/` and `\` are not told apart.
bool NamesSource(std::string_view path, std::string_view typed);

} // namespace qdbg

#endif
