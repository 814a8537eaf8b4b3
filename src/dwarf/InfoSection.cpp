#include "dwarf/InfoSection.h"

#include "dwarf/DwarfConstants.h"

namespace quillet {

using namespace dwarf;

namespace {

constexpr uint32_t kDwarf64Escape = 0xffffffffu;
constexpr uint32_t kFirstReservedLength = 0xfffffff0u;
constexpr uint16_t kFirstVersion = 2, kLastVersion = 5;
constexpr unsigned kMaxAddressSize = 8;

} // namespace

CError CInfoSection::NextUnit(CUnitHeader &header, bool &more) {
    const CDwarfSection &info = m_Sections.info;
    more = m_nNextUnit < info.m_nSize;
    if (!more)
        return kOk;
    CDataCursor c(info, m_nNextUnit, info.m_nSize);
    header = CUnitHeader{};
    header.m_nOffset = m_nNextUnit;
    uint64_t length = c.U32();
    if (length == kDwarf64Escape) {
        length = c.U64();
        header.m_Form.m_nOffsetSize = 8;
    } else if (length >= kFirstReservedLength) {
        return kFailed;
    }
    if (!c.Ok() || length > c.Remaining())
        return kFailed;
    header.m_nEnd = c.Position() + length;
    // Whatever happens to this unit, the next one starts after it.
    m_nNextUnit = header.m_nEnd;
    CDataCursor h(info, c.Position(), header.m_nEnd);
    header.m_Form.m_nVersion = h.U16();
    if (header.m_Form.m_nVersion < kFirstVersion || header.m_Form.m_nVersion > kLastVersion)
        return kFailed;
    if (header.m_Form.m_nVersion >= 5) {
        header.m_nUnitType = h.U8();
        header.m_Form.m_nAddressSize = h.U8();
        header.m_nAbbrevOffset = h.Field(header.m_Form.m_nOffsetSize);
        // Skeleton and split units name their DWO by an id; type units their type.
        if (header.m_nUnitType == DW_UT_skeleton || header.m_nUnitType == DW_UT_split_compile)
            h.Skip(8);
        else if (header.m_nUnitType == DW_UT_type || header.m_nUnitType == DW_UT_split_type)
            h.Skip(8 + header.m_Form.m_nOffsetSize);
    } else {
        header.m_nUnitType = DW_UT_compile;
        header.m_nAbbrevOffset = h.Field(header.m_Form.m_nOffsetSize);
        header.m_Form.m_nAddressSize = h.U8();
    }
    header.m_nEntries = h.Position();
    if (!h.Ok() || header.m_Form.m_nAddressSize == 0 ||
        header.m_Form.m_nAddressSize > kMaxAddressSize || header.m_nAbbrevOffset >= m_Abbrev.Size())
        return kFailed;
    return kOk;
}

CError CInfoSection::ReadUnitEntry(const CUnitHeader &header, CUnitEntry &entry) {
    entry = CUnitEntry{};
    if (m_Abbrev.UseTable(header.m_nAbbrevOffset).Failed())
        return kFailed;
    CDataCursor c(m_Sections.info, header.m_nEntries, header.m_nEnd);
    const CAbbrev *abbrev = m_Abbrev.Find(c.ULEB());
    if (!c.Ok() || !abbrev ||
        (abbrev->m_nTag != DW_TAG_compile_unit && abbrev->m_nTag != DW_TAG_partial_unit &&
         abbrev->m_nTag != DW_TAG_skeleton_unit))
        return kFailed;
    entry.m_nTag = abbrev->m_nTag;

    // Strings and addresses may be indexed from bases that come later in the entry: values are
    // kept as read and resolved once the entry is complete.
    CAttributeValue name, directory, producer, low;
    for (const CAttributeSpec &spec : abbrev->m_Attributes) {
        CAttributeValue value;
        if (ReadAttribute(c, spec, header.m_Form, value).Failed())
            return kFailed;
        switch (spec.m_nAttribute) {
        case DW_AT_name:
            name = value;
            break;
        case DW_AT_comp_dir:
            directory = value;
            break;
        case DW_AT_producer:
            producer = value;
            break;
        case DW_AT_low_pc:
            low = value;
            break;
        case DW_AT_stmt_list:
            entry.m_bHasStatementList = true;
            entry.m_nStatementList = value.m_nValue;
            break;
        case DW_AT_str_offsets_base:
            entry.m_nStrOffsetsBase = value.m_nValue;
            break;
        case DW_AT_addr_base:
            entry.m_nAddrBase = value.m_nValue;
            break;
        case DW_AT_rnglists_base:
            entry.m_nRnglistsBase = value.m_nValue;
            break;
        default:
            break;
        }
    }
    auto resolve = [&](const CAttributeValue &value, std::string_view &out) {
        return value.m_nForm == 0 ||
               (IsStringForm(value.m_nForm) &&
                m_Strings.String(value, header.m_Form, entry.m_nStrOffsetsBase, out).Ok());
    };
    if (!resolve(name, entry.m_Name) || !resolve(directory, entry.m_CompilationDirectory) ||
        !resolve(producer, entry.m_Producer))
        return kFailed;
    if (low.m_nForm != 0 &&
        (!IsAddressForm(low.m_nForm) || m_Strings
                                            .Address(low, header.m_Form, entry.m_nAddrBase,
                                                     entry.m_nLowAddress, entry.m_LowSection)
                                            .Failed()))
        return kFailed;
    return kOk;
}

} // namespace quillet
