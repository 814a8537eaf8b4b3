#include "dwarf/InfoSection.h"

#include "dwarf/Leb128.h"

#include <cstring>

namespace quillet {

namespace {

constexpr uint32_t kDwarf64Escape = 0xffffffffu;
constexpr uint16_t kInfoVersion = 2;
constexpr uint64_t kCompileUnitCode = 1;
constexpr unsigned kMaxIndirections = 4;

uint64_t ReadLE(const uint8_t *p, unsigned size) {
    uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i)
        value |= static_cast<uint64_t>(p[i]) << (8 * i);
    return value;
}

// Reads one attribute value of `form` into `value` (numbers) or skips it (blocks, strings).
// `fixedSize` is set to the width of a fixed-size value, 0 for the others.
bool ReadForm(const uint8_t *&p, const uint8_t *end, uint16_t form, unsigned addressSize,
              unsigned offsetSize, uint64_t &value) {
    auto fixed = [&](unsigned size) {
        if (static_cast<uint64_t>(end - p) < size)
            return false;
        value = ReadLE(p, size);
        p += size;
        return true;
    };
    auto block = [&](uint64_t length) {
        if (length > static_cast<uint64_t>(end - p))
            return false;
        p += length;
        return true;
    };
    bool ok = true;
    for (unsigned depth = 0; depth < kMaxIndirections; ++depth) {
        switch (form) {
        case DW_FORM_addr:
        case DW_FORM_ref_addr: // an address-sized offset in version 2
            return fixed(addressSize);
        case DW_FORM_data1:
        case DW_FORM_ref1:
        case DW_FORM_flag:
            return fixed(1);
        case DW_FORM_data2:
        case DW_FORM_ref2:
            return fixed(2);
        case DW_FORM_data4:
        case DW_FORM_ref4:
            return fixed(4);
        case DW_FORM_data8:
        case DW_FORM_ref8:
        case DW_FORM_ref_sig8:
            return fixed(8);
        case DW_FORM_strp:
        case DW_FORM_sec_offset:
            return fixed(offsetSize);
        case DW_FORM_sdata:
            value = static_cast<uint64_t>(ReadSLEB128(p, end, ok));
            return ok;
        case DW_FORM_udata:
        case DW_FORM_ref_udata:
            value = ReadULEB128(p, end, ok);
            return ok;
        case DW_FORM_flag_present:
            value = 1;
            return true;
        case DW_FORM_string: {
            const void *nul = std::memchr(p, 0, static_cast<size_t>(end - p));
            if (!nul)
                return false;
            p = static_cast<const uint8_t *>(nul) + 1;
            return true;
        }
        case DW_FORM_block1:
            return fixed(1) && block(value);
        case DW_FORM_block2:
            return fixed(2) && block(value);
        case DW_FORM_block4:
            return fixed(4) && block(value);
        case DW_FORM_block:
        case DW_FORM_exprloc: {
            uint64_t length = ReadULEB128(p, end, ok);
            return ok && block(length);
        }
        case DW_FORM_indirect:
            form = static_cast<uint16_t>(ReadULEB128(p, end, ok));
            if (!ok)
                return false;
            continue;
        default:
            return false;
        }
    }
    return false;
}

} // namespace

CError CInfoSection::ReadString(const uint8_t *&p, const uint8_t *end, uint16_t form,
                                unsigned offsetSize, std::string_view &out) {
    if (form == DW_FORM_string) {
        const uint8_t *start = p;
        uint64_t unused = 0;
        if (!ReadForm(p, end, form, m_nAddressSize, offsetSize, unused))
            return kFailed;
        out = std::string_view(reinterpret_cast<const char *>(start),
                               static_cast<size_t>(p - start - 1));
        return kOk;
    }
    if (form == DW_FORM_strp) {
        uint64_t offset = 0;
        if (!ReadForm(p, end, form, m_nAddressSize, offsetSize, offset) || offset >= m_nStringsSize)
            return kFailed;
        const uint8_t *start = m_pStrings + offset;
        const void *nul = std::memchr(start, 0, static_cast<size_t>(m_nStringsSize - offset));
        if (!nul)
            return kFailed;
        out = std::string_view(reinterpret_cast<const char *>(start),
                               static_cast<size_t>(static_cast<const uint8_t *>(nul) - start));
        return kOk;
    }
    return kFailed;
}

CError CInfoSection::ParseUnit() {
    m_Name = m_Directory = m_Producer = std::string_view();
    m_nStatementList = m_nLowAddress = m_nHighAddress = 0;
    if (m_nNextUnit >= m_nSize || m_nSize - m_nNextUnit < 4)
        return kFailed;
    const uint8_t *p = m_pData + m_nNextUnit;
    const uint8_t *sectionEnd = m_pData + m_nSize;
    uint64_t length = ReadLE(p, 4);
    p += 4;
    unsigned offsetSize = 4;
    if (length == kDwarf64Escape) {
        if (sectionEnd - p < 8)
            return kFailed;
        length = ReadLE(p, 8);
        p += 8;
        offsetSize = 8;
    }
    if (length > static_cast<uint64_t>(sectionEnd - p))
        return kFailed;
    const uint8_t *end = p + length;
    m_nNextUnit = static_cast<uint64_t>(end - m_pData);
    m_bLastUnit = (m_nNextUnit == m_nSize);

    if (static_cast<uint64_t>(end - p) < 2u + offsetSize + 1u)
        return kFailed;
    if (ReadLE(p, 2) != kInfoVersion)
        return kFailed;
    p += 2;
    uint64_t abbrevOffset = ReadLE(p, offsetSize);
    p += offsetSize;
    m_nAddressSize = *p++;
    if (m_nAddressSize == 0 || m_nAddressSize > 8)
        return kFailed;
    if (abbrevOffset >= m_Abbrev.Size() || m_Abbrev.ParseFirstAbbrev(abbrevOffset).Failed())
        return kFailed;

    bool ok = true;
    if (ReadULEB128(p, end, ok) != kCompileUnitCode || !ok)
        return kFailed;
    bool haveName = false, haveDirectory = false, haveProducer = false;
    for (const CAttributeSpec &spec : m_Abbrev.Attributes()) {
        uint64_t value = 0;
        switch (spec.m_nAttribute) {
        case DW_AT_name:
            haveName = ReadString(p, end, spec.m_nForm, offsetSize, m_Name).Ok();
            if (!haveName)
                return kFailed;
            break;
        case DW_AT_comp_dir:
            haveDirectory = ReadString(p, end, spec.m_nForm, offsetSize, m_Directory).Ok();
            if (!haveDirectory)
                return kFailed;
            break;
        case DW_AT_producer:
            haveProducer = ReadString(p, end, spec.m_nForm, offsetSize, m_Producer).Ok();
            if (!haveProducer)
                return kFailed;
            break;
        case DW_AT_low_pc:
        case DW_AT_high_pc:
            if (spec.m_nForm != DW_FORM_addr ||
                !ReadForm(p, end, spec.m_nForm, m_nAddressSize, offsetSize, value))
                return kFailed;
            (spec.m_nAttribute == DW_AT_low_pc ? m_nLowAddress : m_nHighAddress) = value;
            break;
        case DW_AT_stmt_list:
            if (!ReadForm(p, end, spec.m_nForm, m_nAddressSize, offsetSize, value))
                return kFailed;
            m_nStatementList = value;
            break;
        default:
            if (!ReadForm(p, end, spec.m_nForm, m_nAddressSize, offsetSize, value))
                return kFailed;
            break;
        }
    }
    if (!haveName || !haveDirectory || !haveProducer)
        return kFailed;
    return kOk;
}

} // namespace quillet
