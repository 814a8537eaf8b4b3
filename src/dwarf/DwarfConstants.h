// The DWARF 2 numbers that the writers use, named as DWARF names them.
#pragma once

#include <cstdint>

namespace dwarf {

constexpr uint8_t DW_TAG_entry_point = 0x03;
constexpr uint8_t DW_TAG_label = 0x0a;
constexpr uint8_t DW_TAG_compile_unit = 0x11;
constexpr uint8_t DW_TAG_base_type = 0x24;
constexpr uint8_t DW_TAG_constant = 0x27;
constexpr uint8_t DW_TAG_subprogram = 0x2e;
constexpr uint8_t DW_TAG_variable = 0x34;

constexpr uint8_t DW_CHILDREN_no = 0;
constexpr uint8_t DW_CHILDREN_yes = 1;

constexpr uint8_t DW_AT_sibling = 0x01;
constexpr uint8_t DW_AT_location = 0x02;
constexpr uint8_t DW_AT_name = 0x03;
constexpr uint8_t DW_AT_byte_size = 0x0b;
constexpr uint8_t DW_AT_stmt_list = 0x10;
constexpr uint8_t DW_AT_low_pc = 0x11;
constexpr uint8_t DW_AT_high_pc = 0x12;
constexpr uint8_t DW_AT_comp_dir = 0x1b;
constexpr uint8_t DW_AT_const_value = 0x1c;
constexpr uint8_t DW_AT_producer = 0x25;
constexpr uint8_t DW_AT_return_addr = 0x2a;
constexpr uint8_t DW_AT_encoding = 0x3e;
constexpr uint8_t DW_AT_external = 0x3f;
constexpr uint8_t DW_AT_identifier_case = 0x42;
constexpr uint8_t DW_AT_type = 0x49;

constexpr uint8_t DW_FORM_addr = 0x01;
constexpr uint8_t DW_FORM_data4 = 0x06;
constexpr uint8_t DW_FORM_string = 0x08;
constexpr uint8_t DW_FORM_block1 = 0x0a;
constexpr uint8_t DW_FORM_data1 = 0x0b;
constexpr uint8_t DW_FORM_flag = 0x0c;
constexpr uint8_t DW_FORM_sdata = 0x0d;
constexpr uint8_t DW_FORM_ref8 = 0x14;

constexpr uint8_t DW_OP_regx = 0x90;
constexpr uint8_t DW_ID_case_insensitive = 3;

// Line-number program opcodes.
constexpr uint8_t DW_LNS_copy = 1;
constexpr uint8_t DW_LNS_advance_pc = 2;
constexpr uint8_t DW_LNS_advance_line = 3;
constexpr uint8_t DW_LNS_set_file = 4;
constexpr uint8_t DW_LNE_end_sequence = 1;
constexpr uint8_t DW_LNE_set_address = 2;

} // namespace dwarf
