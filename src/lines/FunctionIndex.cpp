#include "lines/FunctionIndex.h"

#include "dwarf/AbbrevSection.h"
#include "dwarf/DwarfConstants.h"
#include "dwarf/InfoSection.h"

#include <algorithm>
#include <numeric>

namespace quillet {

using namespace dwarf;

namespace {

constexpr uint64_t kNoReference = UINT64_MAX;
// A declaration that completes another is followed this far: producers chain two or three
// (a concrete instance, its abstract origin, the declaration in a class); a longer chain is a
// cycle in a malformed file.
constexpr unsigned kMaxReferenceHops = 8;
// Names are kept in one pool addressed by 32-bit offsets.
constexpr uint64_t kMaxNamePool = UINT32_MAX;
// The range-list entries the index reads in all are one per byte of the two list sections and
// this many more: every entry takes a byte or more, so an object whose subprograms each have a
// list of their own never needs more, and lists that many subprograms share cannot make the index
// grow past the input's size.
constexpr uint64_t kRangeEntrySlack = 4096;

// A unit as the name resolution needs it again after the walk, and as its range lists need it:
// the base their entries start from and where an indexed list's offsets lie.
struct CUnitRecord {
    CUnitHeader m_Header;
    uint64_t m_nStrOffsetsBase;
    uint64_t m_nAddrBase;
    uint64_t m_nLowAddress;
    BrxHandle m_LowSection;
    uint64_t m_nRnglistsBase;
};

// What one entry says about a subprogram: its names, the entry it completes, and its code.
struct CSubprogramEntry {
    std::string_view m_Linkage, m_Name;
    uint64_t m_nReference = kNoReference; // a .debug_info offset
    CAttributeValue m_Low, m_High, m_Ranges;
};

// One range of a list as addresses, the section a relocation names for its start, and where
// its entry lies in the list's section.
struct CCodeRange {
    uint64_t m_nEntry;
    uint64_t m_nStart, m_nEnd;
    BrxHandle m_Section;
};

// Reads the range lists that subprograms point at: .debug_ranges for units of versions 2 to 4,
// .debug_rnglists from version 5. Entries are read through relocations, so in a relocatable
// object a range names the section it lies in: its start's relocation, else the base's. Every
// list read draws on one budget of entries, which bounds the work whatever the lists claim.
class CRangeListReader {
public:
    CRangeListReader(const CDwarfSections &sections, const CStringTables &strings)
        : m_Sections(sections), m_Strings(strings),
          m_nBudget(sections.ranges.m_nSize + sections.rnglists.m_nSize + kRangeEntrySlack) {}

    // Appends the ranges of the list `value` names to `out`. Fails on an offset or index
    // outside its section, a list that runs off the section's end, an entry kind it does not
    // know, an address it cannot find, or a spent budget; the ranges read before stay.
    CError Read(const CAttributeValue &value, const CUnitRecord &unit,
                std::vector<CCodeRange> &out) {
        if (unit.m_Header.m_Form.m_nVersion >= 5)
            return ReadRnglist(value, unit, out);
        if (value.m_nForm == DW_FORM_rnglistx)
            return kFailed;
        return ReadRanges(value.m_nValue, unit, out);
    }

private:
    bool Spend() {
        if (m_nBudget == 0)
            return false;
        --m_nBudget;
        return true;
    }

    static void Add(uint64_t entry, uint64_t start, uint64_t end, BrxHandle section,
                    std::vector<CCodeRange> &out) {
        if (end > start)
            out.push_back(CCodeRange{entry, start, end, section});
    }

    // Pairs of addresses, relative to a base that starts as the unit's low address and that a
    // pair whose first address is all ones replaces; a pair of zeros ends the list.
    CError ReadRanges(uint64_t offset, const CUnitRecord &unit, std::vector<CCodeRange> &out) {
        const CDwarfSection &section = m_Sections.ranges;
        if (offset >= section.m_nSize)
            return kFailed;
        unsigned width = unit.m_Header.m_Form.m_nAddressSize;
        uint64_t allOnes = width >= 8 ? UINT64_MAX : (uint64_t(1) << (8 * width)) - 1;
        uint64_t base = unit.m_nLowAddress;
        BrxHandle baseSection = unit.m_LowSection;
        CDataCursor c(section, offset, section.m_nSize);
        for (;;) {
            if (!Spend())
                return kFailed;
            uint64_t entry = c.Position();
            BrxHandle beginSection = 0, endSection = 0;
            uint64_t begin = c.Field(width, &beginSection);
            uint64_t end = c.Field(width, &endSection);
            if (!c.Ok())
                return kFailed;
            // Relocated fields that happen to hold zeros are a range at a section's start.
            if (begin == 0 && end == 0 && beginSection == 0 && endSection == 0)
                return kOk;
            if (begin == allOnes && beginSection == 0) {
                base = end;
                baseSection = endSection;
                continue;
            }
            Add(entry, base + begin, base + end, beginSection ? beginSection : baseSection, out);
        }
    }

    CError ReadRnglist(const CAttributeValue &value, const CUnitRecord &unit,
                       std::vector<CCodeRange> &out) {
        const CDwarfSection &section = m_Sections.rnglists;
        const CFormContext &form = unit.m_Header.m_Form;
        uint64_t offset = value.m_nValue;
        if (value.m_nForm == DW_FORM_rnglistx) {
            // An index into the offsets that follow the list table's header, each counted from
            // the table's base.
            uint64_t listsBase = unit.m_nRnglistsBase, width = form.m_nOffsetSize;
            if (listsBase == 0 || listsBase > section.m_nSize ||
                value.m_nValue >= (section.m_nSize - listsBase) / width)
                return kFailed;
            uint64_t relative =
                section.Field(listsBase + value.m_nValue * width, static_cast<unsigned>(width));
            if (relative > UINT64_MAX - listsBase)
                return kFailed;
            offset = listsBase + relative;
        }
        if (offset >= section.m_nSize)
            return kFailed;
        unsigned width = form.m_nAddressSize;
        uint64_t base = unit.m_nLowAddress;
        BrxHandle baseSection = unit.m_LowSection;
        CDataCursor c(section, offset, section.m_nSize);
        // An address through .debug_addr; the section its relocation names comes with it.
        auto indexed = [&](uint64_t &address, BrxHandle &where) {
            CAttributeValue index{DW_FORM_addrx, c.ULEB(), 0, {}};
            return c.Ok() && m_Strings.Address(index, form, unit.m_nAddrBase, address, where).Ok();
        };
        for (;;) {
            if (!Spend())
                return kFailed;
            uint64_t entry = c.Position();
            uint8_t kind = c.U8();
            if (!c.Ok())
                return kFailed;
            uint64_t start = 0, end = 0;
            BrxHandle where = 0, unused = 0;
            switch (kind) {
            case DW_RLE_end_of_list:
                return kOk;
            case DW_RLE_base_addressx:
                if (!indexed(base, baseSection))
                    return kFailed;
                continue;
            case DW_RLE_base_address:
                base = c.Field(width, &baseSection);
                if (!c.Ok())
                    return kFailed;
                continue;
            case DW_RLE_startx_endx:
                if (!indexed(start, where) || !indexed(end, unused))
                    return kFailed;
                break;
            case DW_RLE_startx_length:
                if (!indexed(start, where))
                    return kFailed;
                end = start + c.ULEB();
                break;
            case DW_RLE_offset_pair:
                start = base + c.ULEB();
                end = base + c.ULEB();
                where = baseSection;
                break;
            case DW_RLE_start_end:
                start = c.Field(width, &where);
                end = c.Field(width, &unused);
                break;
            case DW_RLE_start_length:
                start = c.Field(width, &where);
                end = start + c.ULEB();
                break;
            default:
                return kFailed;
            }
            if (!c.Ok())
                return kFailed;
            Add(entry, start, end, where, out);
        }
    }

    const CDwarfSections &m_Sections;
    const CStringTables &m_Strings;
    uint64_t m_nBudget;
};

bool IsLengthForm(uint16_t form) {
    switch (form) {
    case DW_FORM_data1:
    case DW_FORM_data2:
    case DW_FORM_data4:
    case DW_FORM_data8:
    case DW_FORM_udata:
    case DW_FORM_sdata:
    case DW_FORM_implicit_const:
        return true;
    default:
        return false;
    }
}

// The .debug_info offset a reference names, or kNoReference for references into other files
// (type signatures, supplementary files), which this reader does not have.
uint64_t ReferenceTarget(const CAttributeValue &value, const CUnitHeader &unit) {
    switch (value.m_nForm) {
    case DW_FORM_ref1:
    case DW_FORM_ref2:
    case DW_FORM_ref4:
    case DW_FORM_ref8:
    case DW_FORM_ref_udata:
        return value.m_nValue <= UINT64_MAX - unit.m_nOffset ? unit.m_nOffset + value.m_nValue
                                                             : kNoReference;
    case DW_FORM_ref_addr:
        return value.m_nValue;
    default:
        return kNoReference;
    }
}

// Reads the attributes of an entry declared by `abbrev` and keeps what a subprogram needs. A
// name that cannot be found is left empty: the entry's other attributes may still name it.
CError ReadSubprogram(CDataCursor &c, const CAbbrev &abbrev, const CUnitRecord &unit,
                      const CStringTables &strings, CSubprogramEntry &out) {
    const CFormContext &form = unit.m_Header.m_Form;
    for (const CAttributeSpec &spec : abbrev.m_Attributes) {
        CAttributeValue value;
        if (ReadAttribute(c, spec, form, value).Failed())
            return kFailed;
        switch (spec.m_nAttribute) {
        case DW_AT_name:
            if (strings.String(value, form, unit.m_nStrOffsetsBase, out.m_Name).Failed())
                out.m_Name = {};
            break;
        case DW_AT_linkage_name:
        case DW_AT_MIPS_linkage_name:
            if (strings.String(value, form, unit.m_nStrOffsetsBase, out.m_Linkage).Failed())
                out.m_Linkage = {};
            break;
        case DW_AT_specification:
        case DW_AT_abstract_origin:
            out.m_nReference = ReferenceTarget(value, unit.m_Header);
            break;
        case DW_AT_low_pc:
            out.m_Low = value;
            break;
        case DW_AT_high_pc:
            out.m_High = value;
            break;
        case DW_AT_ranges:
            out.m_Ranges = value;
            break;
        default:
            break;
        }
    }
    return kOk;
}

// Reads the attributes of an entry the walk has no use for.
CError SkipEntry(CDataCursor &c, const CAbbrev &abbrev, const CFormContext &form) {
    for (const CAttributeSpec &spec : abbrev.m_Attributes) {
        CAttributeValue value;
        if (ReadAttribute(c, spec, form, value).Failed())
            return kFailed;
    }
    return kOk;
}

// The code range of a subprogram entry given by its low and high addresses, and the section a
// relocation names for its start; false when it has none (a declaration, an inlined body's
// abstract entry, code given by a range list) or it cannot be read.
bool CodeRange(const CSubprogramEntry &entry, const CUnitRecord &unit, const CStringTables &strings,
               uint64_t &low, uint64_t &high, BrxHandle &section) {
    const CFormContext &form = unit.m_Header.m_Form;
    if (!IsAddressForm(entry.m_Low.m_nForm) ||
        strings.Address(entry.m_Low, form, unit.m_nAddrBase, low, section).Failed())
        return false;
    if (IsLengthForm(entry.m_High.m_nForm)) {
        if (entry.m_High.m_nValue > UINT64_MAX - low)
            return false;
        high = low + entry.m_High.m_nValue;
    } else {
        BrxHandle highSection = 0;
        if (!IsAddressForm(entry.m_High.m_nForm) ||
            strings.Address(entry.m_High, form, unit.m_nAddrBase, high, highSection).Failed())
            return false;
    }
    return high > low;
}

} // namespace

CError CFunctionIndex::Build(const CDwarfSections &sections, CSequencePlacer &placer) {
    m_Functions.clear();
    m_Pieces.clear();
    m_Names.clear();
    CAbbrevSection abbrevSection(sections.abbrev.m_pData, sections.abbrev.m_nSize);
    CInfoSection info(sections, abbrevSection);
    const CStringTables &strings = info.Strings();

    CRangeListReader rangeLists(sections, strings);

    // The names each subprogram has of its own, with the functions (one per range) it gives;
    // those that complete another entry are looked up once every unit is known, since the
    // reference may point into a later unit.
    std::vector<CSubprogramEntry> own;
    std::vector<uint32_t> ownerOf; // for each function, its entry in `own`
    struct CPending {
        uint32_t m_nEntry;
        uint64_t m_nTarget;
    };
    std::vector<CPending> pending;
    std::vector<CUnitRecord> units;
    std::vector<CCodeRange> ranges;
    CError result = kOk;
    bool badList = false;

    for (;;) {
        CUnitRecord unit{};
        bool more = false;
        if (info.NextUnit(unit.m_Header, more).Failed()) {
            result = kFailed;
            break;
        }
        if (!more)
            break;
        if (unit.m_Header.m_nUnitType == DW_UT_type ||
            unit.m_Header.m_nUnitType == DW_UT_split_type)
            continue;
        CUnitEntry unitEntry;
        if (info.ReadUnitEntry(unit.m_Header, unitEntry).Failed()) {
            result = kFailed;
            break;
        }
        unit.m_nStrOffsetsBase = unitEntry.m_nStrOffsetsBase;
        unit.m_nAddrBase = unitEntry.m_nAddrBase;
        unit.m_nLowAddress = unitEntry.m_nLowAddress;
        unit.m_LowSection = unitEntry.m_LowSection;
        unit.m_nRnglistsBase = unitEntry.m_nRnglistsBase;
        units.push_back(unit);

        // Every entry of the unit in order; nesting does not matter, since a subprogram is
        // recognised by its tag wherever it stands.
        CDataCursor c(sections.info, unit.m_Header.m_nEntries, unit.m_Header.m_nEnd);
        while (!c.AtEnd()) {
            uint64_t entryOffset = c.Position();
            uint64_t code = c.ULEB();
            if (!c.Ok()) {
                result = kFailed;
                break;
            }
            if (code == 0)
                continue; // the end of a list of children
            const CAbbrev *abbrev = abbrevSection.Find(code);
            if (!abbrev) {
                result = kFailed;
                break;
            }
            if (abbrev->m_nTag != DW_TAG_subprogram) {
                if (SkipEntry(c, *abbrev, unit.m_Header.m_Form).Failed()) {
                    result = kFailed;
                    break;
                }
                continue;
            }
            CSubprogramEntry entry;
            if (ReadSubprogram(c, *abbrev, unit, strings, entry).Failed()) {
                result = kFailed;
                break;
            }
            // The code as ranges of addresses: the low and high addresses, or a list whose
            // damage loses only this subprogram's ranges past it.
            ranges.clear();
            if (entry.m_Ranges.m_nForm != 0) {
                if (rangeLists.Read(entry.m_Ranges, unit, ranges).Failed())
                    badList = true;
            } else {
                CCodeRange range{entryOffset, 0, 0, 0};
                if (CodeRange(entry, unit, strings, range.m_nStart, range.m_nEnd, range.m_Section))
                    ranges.push_back(range);
            }
            size_t before = m_Functions.size();
            auto entryIndex = static_cast<uint32_t>(own.size());
            for (const CCodeRange &range : ranges) {
                BrxHandle section = 0;
                int64_t bias = 0;
                if (placer.Place(CAddressOperand{range.m_nEntry, range.m_nStart, range.m_Section},
                                 section, bias) != CSequencePlacer::Result::Placed)
                    continue;
                m_Functions.push_back(CFunction{range.m_nStart + static_cast<uint64_t>(bias),
                                                range.m_nEnd + static_cast<uint64_t>(bias), section,
                                                0, 0});
                ownerOf.push_back(entryIndex);
            }
            if (m_Functions.size() == before)
                continue;
            if (entry.m_Linkage.empty() && entry.m_nReference != kNoReference)
                pending.push_back(CPending{entryIndex, entry.m_nReference});
            own.push_back(entry);
        }
        if (result.Failed())
            break;
    }
    if (badList)
        result = kFailed;

    // Declarations completed by others: visited in .debug_info order, so that units sharing an
    // abbreviation table are met together.
    std::sort(pending.begin(), pending.end(),
              [](const CPending &a, const CPending &b) { return a.m_nTarget < b.m_nTarget; });
    for (const CPending &p : pending) {
        CSubprogramEntry &names = own[p.m_nEntry];
        uint64_t target = p.m_nTarget;
        for (unsigned hop = 0; hop < kMaxReferenceHops && target != kNoReference; ++hop) {
            auto unit = std::upper_bound(
                units.begin(), units.end(), target,
                [](uint64_t value, const CUnitRecord &u) { return value < u.m_Header.m_nOffset; });
            if (unit == units.begin())
                break;
            --unit;
            if (target < unit->m_Header.m_nEntries || target >= unit->m_Header.m_nEnd ||
                abbrevSection.UseTable(unit->m_Header.m_nAbbrevOffset).Failed())
                break;
            CDataCursor c(sections.info, target, unit->m_Header.m_nEnd);
            const CAbbrev *abbrev = abbrevSection.Find(c.ULEB());
            CSubprogramEntry referenced;
            if (!c.Ok() || !abbrev ||
                ReadSubprogram(c, *abbrev, *unit, strings, referenced).Failed())
                break;
            if (!referenced.m_Linkage.empty()) {
                names.m_Linkage = referenced.m_Linkage;
                break;
            }
            if (names.m_Name.empty())
                names.m_Name = referenced.m_Name;
            target = referenced.m_nReference;
        }
    }

    // Functions without any name are left out: nothing could be said of them. The ranges of one
    // subprogram share its name in the pool.
    constexpr uint32_t kUnnamed = UINT32_MAX;
    std::vector<uint32_t> nameOffset(own.size(), kUnnamed);
    for (size_t i = 0; i < own.size(); ++i) {
        std::string_view name = own[i].m_Linkage.empty() ? own[i].m_Name : own[i].m_Linkage;
        if (name.empty() || m_Names.size() + name.size() > kMaxNamePool)
            continue;
        nameOffset[i] = static_cast<uint32_t>(m_Names.size());
        m_Names.append(name);
    }
    size_t kept = 0;
    for (size_t i = 0; i < m_Functions.size(); ++i) {
        uint32_t entry = ownerOf[i];
        if (nameOffset[entry] == kUnnamed)
            continue;
        CFunction function = m_Functions[i];
        function.m_nNameOffset = nameOffset[entry];
        std::string_view name =
            own[entry].m_Linkage.empty() ? own[entry].m_Name : own[entry].m_Linkage;
        function.m_nNameLength = static_cast<uint32_t>(name.size());
        m_Functions[kept++] = function;
    }
    m_Functions.resize(kept);
    m_Functions.shrink_to_fit();
    BuildPieces();
    return result;
}

void CFunctionIndex::BuildPieces() {
    // Outer functions before the ones nested in them: by start, the longer range first.
    std::vector<uint32_t> order(m_Functions.size());
    std::iota(order.begin(), order.end(), 0u);
    std::sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
        const CFunction &x = m_Functions[a], &y = m_Functions[b];
        if (x.m_Section != y.m_Section)
            return x.m_Section < y.m_Section;
        if (x.m_nStart != y.m_nStart)
            return x.m_nStart < y.m_nStart;
        if (x.m_nEnd != y.m_nEnd)
            return x.m_nEnd > y.m_nEnd;
        return a < b;
    });
    m_Pieces.clear();
    m_Pieces.reserve(2 * order.size());
    auto emit = [this](BrxHandle section, uint32_t function, uint64_t start, uint64_t end) {
        if (!m_Pieces.empty()) {
            CPiece &last = m_Pieces.back();
            if (last.m_Section == section && last.m_nFunction == function && last.m_nEnd == start) {
                last.m_nEnd = end;
                return;
            }
        }
        m_Pieces.push_back(CPiece{section, function, start, end});
    };

    // A sweep over each section: `open` holds the functions whose ranges hold the cursor,
    // innermost last; the innermost owns the code up to the next start or its own end. A range
    // that ends past the one around it (which well-formed input never has) keeps its tail.
    std::vector<uint32_t> open;
    BrxHandle section = 0;
    uint64_t cursor = 0;
    auto advance = [&](uint64_t until) {
        while (!open.empty()) {
            const CFunction &top = m_Functions[open.back()];
            if (top.m_nEnd > until)
                break;
            if (cursor < top.m_nEnd) {
                emit(section, open.back(), cursor, top.m_nEnd);
                cursor = top.m_nEnd;
            }
            open.pop_back();
        }
        if (!open.empty() && cursor < until)
            emit(section, open.back(), cursor, until);
        cursor = std::max(cursor, until);
    };
    for (uint32_t f : order) {
        const CFunction &function = m_Functions[f];
        if (open.empty() || function.m_Section != section) {
            advance(UINT64_MAX);
            open.clear();
            section = function.m_Section;
            cursor = function.m_nStart;
        } else {
            advance(function.m_nStart);
        }
        open.push_back(f);
    }
    advance(UINT64_MAX);
}

const CFunction *CFunctionIndex::Find(BrxHandle section, uint64_t offset) const {
    auto it = std::upper_bound(m_Pieces.begin(), m_Pieces.end(), std::make_pair(section, offset),
                               [](const std::pair<BrxHandle, uint64_t> &key, const CPiece &p) {
                                   return key.first != p.m_Section ? key.first < p.m_Section
                                                                   : key.second < p.m_nStart;
                               });
    if (it == m_Pieces.begin())
        return nullptr;
    --it;
    if (it->m_Section != section || offset >= it->m_nEnd)
        return nullptr;
    return &m_Functions[it->m_nFunction];
}

} // namespace quillet
