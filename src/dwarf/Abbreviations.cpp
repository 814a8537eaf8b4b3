#include "dwarf/Abbreviations.h"

#include "dwarf/DwarfConstants.h"
#include "frame/BinarySection.h"
#include "frame/LibraryState.h"
#include "platform/ByteWriter.h"

#include <initializer_list>

using namespace dwarf;

namespace {

// The longest declaration body after the code: tag, children, 11 pairs and the terminator.
constexpr unsigned kMaxBody = 2 + 2 * 11 + 2;

void Lay(uint8_t *out, unsigned &length, uint8_t tag, uint8_t children,
         std::initializer_list<uint8_t> pairs) {
    length = 0;
    out[length++] = tag;
    out[length++] = children;
    for (uint8_t b : pairs)
        out[length++] = b;
    out[length++] = 0;
    out[length++] = 0;
}

} // namespace

CBaseAbbrev::~CBaseAbbrev() = default;

uint32_t CBaseAbbrev::AssignCode() {
    m_nCode = State().abbrevCodeCounter++;
    return m_nCode;
}

CError CBaseAbbrev::WriteDeclaration(CBinarySection &section, uint32_t &code) {
    if (m_nCode != 0) {
        code = m_nCode;
        return kOk;
    }
    code = AssignCode();
    uint8_t body[kMaxBody];
    unsigned length = 0;
    DeclarationBody(body, length);
    quillet::ByteWriter writer(quillet::SizeULEB128(code) + length);
    writer.ULEB(code);
    writer.Bytes(body, length);
    return section.AppendRecord(writer);
}

void ShareAbbrev(CBaseAbbrev *&abbrev) {
    LibraryState &state = State();
    uint32_t kind = abbrev->GetKind();
    if (!QCHECK(kind < ABBREV_KIND_COUNT))
        return;
    CBaseAbbrev *&slot = state.abbrevRegistry[kind];
    if (slot == nullptr) {
        slot = abbrev;
    } else if (slot != abbrev) {
        delete abbrev;
        abbrev = slot;
    }
}

CBaseAbbrev *RegisteredAbbrev(uint32_t kind) {
    return kind < ABBREV_KIND_COUNT ? State().abbrevRegistry[kind] : nullptr;
}

void ClearAbbrevRegistry() {
    for (CBaseAbbrev *&slot : State().abbrevRegistry) {
        delete slot;
        slot = nullptr;
    }
}

void CCompUnitAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    if (m_bNoRange)
        Lay(out, length, DW_TAG_compile_unit, DW_CHILDREN_yes,
            {DW_AT_name, DW_FORM_string, DW_AT_comp_dir, DW_FORM_string, DW_AT_producer,
             DW_FORM_string, DW_AT_stmt_list, DW_FORM_data4, DW_AT_identifier_case, DW_FORM_data1});
    else
        Lay(out, length, DW_TAG_compile_unit, DW_CHILDREN_yes,
            {DW_AT_name, DW_FORM_string, DW_AT_comp_dir, DW_FORM_string, DW_AT_producer,
             DW_FORM_string, DW_AT_low_pc, DW_FORM_addr, DW_AT_high_pc, DW_FORM_addr,
             DW_AT_stmt_list, DW_FORM_data4, DW_AT_identifier_case, DW_FORM_data1});
}

void CLabelAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    Lay(out, length, DW_TAG_label, DW_CHILDREN_no,
        {DW_AT_name, DW_FORM_string, DW_AT_low_pc, DW_FORM_addr, DW_AT_external, DW_FORM_flag});
}

void CEntryPointAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    Lay(out, length, DW_TAG_entry_point, DW_CHILDREN_no,
        {DW_AT_name, DW_FORM_string, DW_AT_low_pc, DW_FORM_addr, DW_AT_external, DW_FORM_flag});
}

void CVariableAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    Lay(out, length, DW_TAG_variable, DW_CHILDREN_no,
        {DW_AT_name, DW_FORM_string, DW_AT_low_pc, DW_FORM_addr, DW_AT_type, DW_FORM_ref8,
         DW_AT_external, DW_FORM_flag});
}

void CConstantAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    Lay(out, length, DW_TAG_constant, DW_CHILDREN_no,
        {DW_AT_name, DW_FORM_string, DW_AT_const_value, DW_FORM_block1, DW_AT_type, DW_FORM_ref8});
}

void CEnregSymAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    Lay(out, length, DW_TAG_constant, DW_CHILDREN_no,
        {DW_AT_name, DW_FORM_string, DW_AT_location, DW_FORM_block1});
}

void CProcAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    uint8_t children = m_bChildren ? DW_CHILDREN_yes : DW_CHILDREN_no;
    if (m_bType)
        Lay(out, length, DW_TAG_subprogram, children,
            {DW_AT_sibling, DW_FORM_ref8, DW_AT_name, DW_FORM_string, DW_AT_low_pc, DW_FORM_addr,
             DW_AT_high_pc, DW_FORM_addr, DW_AT_external, DW_FORM_flag, DW_AT_type, DW_FORM_ref8,
             DW_AT_return_addr, DW_FORM_block1});
    else
        Lay(out, length, DW_TAG_subprogram, children,
            {DW_AT_sibling, DW_FORM_ref8, DW_AT_name, DW_FORM_string, DW_AT_low_pc, DW_FORM_addr,
             DW_AT_high_pc, DW_FORM_addr, DW_AT_external, DW_FORM_flag, DW_AT_return_addr,
             DW_FORM_block1});
}

void CTypeAbbrev::DeclarationBody(uint8_t *out, unsigned &length) const {
    Lay(out, length, DW_TAG_base_type, DW_CHILDREN_no,
        {DW_AT_name, DW_FORM_string, DW_AT_byte_size, DW_FORM_sdata, DW_AT_encoding,
         DW_FORM_sdata});
}
