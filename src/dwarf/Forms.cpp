#include "dwarf/Forms.h"

#include "dwarf/DwarfConstants.h"

namespace quillet {

using namespace dwarf;

namespace {

// DW_FORM_indirect may name another form; a chain longer than this is not a real entry.
constexpr unsigned kMaxIndirections = 4;

} // namespace

bool IsStringForm(uint16_t form) {
    switch (form) {
    case DW_FORM_string:
    case DW_FORM_strp:
    case DW_FORM_line_strp:
    case DW_FORM_strx:
    case DW_FORM_strx1:
    case DW_FORM_strx2:
    case DW_FORM_strx3:
    case DW_FORM_strx4:
    case DW_FORM_GNU_str_index:
    case DW_FORM_strp_sup:
    case DW_FORM_GNU_strp_alt:
        return true;
    default:
        return false;
    }
}

bool IsAddressForm(uint16_t form) {
    switch (form) {
    case DW_FORM_addr:
    case DW_FORM_addrx:
    case DW_FORM_addrx1:
    case DW_FORM_addrx2:
    case DW_FORM_addrx3:
    case DW_FORM_addrx4:
    case DW_FORM_GNU_addr_index:
        return true;
    default:
        return false;
    }
}

CError ReadAttribute(CDataCursor &c, const CAttributeSpec &spec, const CFormContext &context,
                     CAttributeValue &value) {
    value = CAttributeValue{};
    uint16_t form = spec.m_nForm;
    for (unsigned depth = 0; depth < kMaxIndirections; ++depth) {
        value.m_nForm = form;
        switch (form) {
        case DW_FORM_addr:
            value.m_nValue = c.Field(context.m_nAddressSize, &value.m_Section);
            break;
        case DW_FORM_data1:
        case DW_FORM_ref1:
        case DW_FORM_flag:
        case DW_FORM_strx1:
        case DW_FORM_addrx1:
            value.m_nValue = c.Fixed(1);
            break;
        case DW_FORM_data2:
        case DW_FORM_ref2:
        case DW_FORM_strx2:
        case DW_FORM_addrx2:
            value.m_nValue = c.Fixed(2);
            break;
        case DW_FORM_strx3:
        case DW_FORM_addrx3:
            value.m_nValue = c.Fixed(3);
            break;
        case DW_FORM_strx4:
        case DW_FORM_addrx4:
        case DW_FORM_ref_sup4:
            value.m_nValue = c.Fixed(4);
            break;
        // Four- and eight-byte data may be offsets into other sections (a version 2 or 3
        // statement list), so they are read as fields that relocations can patch.
        case DW_FORM_data4:
        case DW_FORM_ref4:
            value.m_nValue = c.Field(4, &value.m_Section);
            break;
        case DW_FORM_data8:
        case DW_FORM_ref8:
        case DW_FORM_ref_sig8:
        case DW_FORM_ref_sup8:
            value.m_nValue = c.Field(8, &value.m_Section);
            break;
        case DW_FORM_data16:
            c.Skip(16);
            break;
        case DW_FORM_strp:
        case DW_FORM_line_strp:
        case DW_FORM_sec_offset:
        case DW_FORM_strp_sup:
        case DW_FORM_GNU_strp_alt:
        case DW_FORM_GNU_ref_alt:
            value.m_nValue = c.Field(context.m_nOffsetSize, &value.m_Section);
            break;
        case DW_FORM_ref_addr:
            // An address-sized offset in version 2, an offset-sized one later.
            value.m_nValue =
                c.Field(context.m_nVersion <= 2 ? context.m_nAddressSize : context.m_nOffsetSize,
                        &value.m_Section);
            break;
        case DW_FORM_sdata:
            value.m_nValue = static_cast<uint64_t>(c.SLEB());
            break;
        case DW_FORM_udata:
        case DW_FORM_ref_udata:
        case DW_FORM_strx:
        case DW_FORM_addrx:
        case DW_FORM_loclistx:
        case DW_FORM_rnglistx:
        case DW_FORM_GNU_addr_index:
        case DW_FORM_GNU_str_index:
            value.m_nValue = c.ULEB();
            break;
        case DW_FORM_flag_present:
            value.m_nValue = 1;
            break;
        case DW_FORM_implicit_const:
            value.m_nValue = static_cast<uint64_t>(spec.m_nImplicitConst);
            break;
        case DW_FORM_string:
            value.m_Text = c.CString();
            break;
        case DW_FORM_block1:
            c.Skip(c.Fixed(1));
            break;
        case DW_FORM_block2:
            c.Skip(c.Fixed(2));
            break;
        case DW_FORM_block4:
            c.Skip(c.Fixed(4));
            break;
        case DW_FORM_block:
        case DW_FORM_exprloc:
            c.Skip(c.ULEB());
            break;
        case DW_FORM_indirect:
            form = static_cast<uint16_t>(c.ULEB());
            if (!c.Ok() || form == DW_FORM_implicit_const)
                return kFailed;
            continue;
        default:
            c.Fail();
            return kFailed;
        }
        return c.Ok() ? kOk : kFailed;
    }
    c.Fail();
    return kFailed;
}

CError CStringTables::String(const CAttributeValue &value, const CFormContext &context,
                             uint64_t strOffsetsBase, std::string_view &out) const {
    switch (value.m_nForm) {
    case DW_FORM_string:
        out = value.m_Text;
        return kOk;
    case DW_FORM_strp:
        return m_Sections.str.String(value.m_nValue, out) ? kOk : kFailed;
    case DW_FORM_line_strp:
        return m_Sections.lineStr.String(value.m_nValue, out) ? kOk : kFailed;
    case DW_FORM_strx:
    case DW_FORM_strx1:
    case DW_FORM_strx2:
    case DW_FORM_strx3:
    case DW_FORM_strx4:
    case DW_FORM_GNU_str_index: {
        // An index into the unit's part of .debug_str_offsets, each entry an offset (relocated)
        // into .debug_str.
        const CDwarfSection &offsets = m_Sections.strOffsets;
        uint64_t width = context.m_nOffsetSize;
        if (value.m_nValue > (UINT64_MAX - strOffsetsBase) / width)
            return kFailed;
        uint64_t at = strOffsetsBase + value.m_nValue * width;
        if (at > offsets.m_nSize || width > offsets.m_nSize - at)
            return kFailed;
        uint64_t offset = offsets.Field(at, context.m_nOffsetSize);
        return m_Sections.str.String(offset, out) ? kOk : kFailed;
    }
    default:
        return kFailed;
    }
}

CError CStringTables::Address(const CAttributeValue &value, const CFormContext &context,
                              uint64_t addrBase, uint64_t &address, BrxHandle &section) const {
    if (value.m_nForm == DW_FORM_addr) {
        address = value.m_nValue;
        section = value.m_Section;
        return kOk;
    }
    if (!IsAddressForm(value.m_nForm))
        return kFailed;
    const CDwarfSection &addresses = m_Sections.addr;
    uint64_t width = context.m_nAddressSize;
    if (width == 0 || value.m_nValue > (UINT64_MAX - addrBase) / width)
        return kFailed;
    uint64_t at = addrBase + value.m_nValue * width;
    if (at > addresses.m_nSize || width > addresses.m_nSize - at)
        return kFailed;
    address = addresses.Field(at, context.m_nAddressSize, &section);
    return kOk;
}

} // namespace quillet
