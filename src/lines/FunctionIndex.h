// The functions of an object as its DWARF subprograms describe them, for a symbolizer that needs
// the name of the function holding an offset. Built once from .debug_info (every unit), then
// answered by binary search: the subprograms' ranges are cut into pieces that do not overlap,
// each naming the innermost function that covers it, so a lookup is one bisection whatever
// nesting the producer wrote.
#pragma once

#include "dwarf/DwarfSection.h"
#include "lines/LineSection.h"
#include "platform/CError.h"

#include <brix/brix.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quillet {

// One range of a function's code: [m_nStart, m_nEnd) as offsets in its section, and the
// function's name in the index's name pool.
struct CFunction {
    uint64_t m_nStart;
    uint64_t m_nEnd;
    BrxHandle m_Section;
    uint32_t m_nNameOffset;
    uint32_t m_nNameLength;
};

class CFunctionIndex {
public:
    // Reads the subprograms of every compilation unit that carry code: DW_AT_low_pc with
    // DW_AT_high_pc as an address or as a length, or DW_AT_ranges (a list in .debug_ranges or
    // .debug_rnglists, such as a function split into a hot and a cold part has), each range of
    // which becomes a function of its own under the subprogram's name. The name is the linkage
    // name where the entry or the declaration it completes (DW_AT_specification,
    // DW_AT_abstract_origin) has one, else DW_AT_name; `placer` says in which section each range
    // lies. A unit that cannot be read ends the walk, a range list that cannot be read loses its
    // ranges past the damage: what was found before is kept, and the result says the input was
    // malformed.
    CError Build(const CDwarfSections &sections, CSequencePlacer &placer);

    // The innermost function whose range holds `offset` in `section`, or null.
    const CFunction *Find(BrxHandle section, uint64_t offset) const;
    std::string_view Name(const CFunction &function) const {
        return std::string_view(m_Names).substr(function.m_nNameOffset, function.m_nNameLength);
    }
    size_t Count() const { return m_Functions.size(); }

private:
    // A stretch of a section that one function covers, with no other function nested inside it.
    struct CPiece {
        BrxHandle m_Section;
        uint32_t m_nFunction;
        uint64_t m_nStart;
        uint64_t m_nEnd;
    };
    void BuildPieces();

    std::vector<CFunction> m_Functions;
    std::vector<CPiece> m_Pieces; // sorted by section, then start
    std::string m_Names;
};

} // namespace quillet
