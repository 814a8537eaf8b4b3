// The DWARF numbers that the writers use (DWARF 2), and those the readers also meet in what
// other producers write (DWARF 2 to 5), named as DWARF names them.
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

// ---- Read from other producers' objects ------------------------------------------------------

constexpr uint16_t DW_TAG_inlined_subroutine = 0x1d;
constexpr uint16_t DW_TAG_partial_unit = 0x3c;
constexpr uint16_t DW_TAG_skeleton_unit = 0x4a;

constexpr uint16_t DW_AT_abstract_origin = 0x31;
constexpr uint16_t DW_AT_declaration = 0x3c;
constexpr uint16_t DW_AT_specification = 0x47;
constexpr uint16_t DW_AT_ranges = 0x55;
constexpr uint16_t DW_AT_linkage_name = 0x6e;
constexpr uint16_t DW_AT_str_offsets_base = 0x72;
constexpr uint16_t DW_AT_addr_base = 0x73;
constexpr uint16_t DW_AT_rnglists_base = 0x74;
constexpr uint16_t DW_AT_MIPS_linkage_name = 0x2007;

constexpr uint16_t DW_FORM_block2 = 0x03;
constexpr uint16_t DW_FORM_block4 = 0x04;
constexpr uint16_t DW_FORM_data2 = 0x05;
constexpr uint16_t DW_FORM_data8 = 0x07;
constexpr uint16_t DW_FORM_block = 0x09;
constexpr uint16_t DW_FORM_strp = 0x0e;
constexpr uint16_t DW_FORM_udata = 0x0f;
constexpr uint16_t DW_FORM_ref_addr = 0x10;
constexpr uint16_t DW_FORM_ref1 = 0x11;
constexpr uint16_t DW_FORM_ref2 = 0x12;
constexpr uint16_t DW_FORM_ref4 = 0x13;
constexpr uint16_t DW_FORM_ref_udata = 0x15;
constexpr uint16_t DW_FORM_indirect = 0x16;
constexpr uint16_t DW_FORM_sec_offset = 0x17;
constexpr uint16_t DW_FORM_exprloc = 0x18;
constexpr uint16_t DW_FORM_flag_present = 0x19;
constexpr uint16_t DW_FORM_strx = 0x1a;
constexpr uint16_t DW_FORM_addrx = 0x1b;
constexpr uint16_t DW_FORM_ref_sup4 = 0x1c;
constexpr uint16_t DW_FORM_strp_sup = 0x1d;
constexpr uint16_t DW_FORM_data16 = 0x1e;
constexpr uint16_t DW_FORM_line_strp = 0x1f;
constexpr uint16_t DW_FORM_ref_sig8 = 0x20;
constexpr uint16_t DW_FORM_implicit_const = 0x21;
constexpr uint16_t DW_FORM_loclistx = 0x22;
constexpr uint16_t DW_FORM_rnglistx = 0x23;
constexpr uint16_t DW_FORM_ref_sup8 = 0x24;
constexpr uint16_t DW_FORM_strx1 = 0x25;
constexpr uint16_t DW_FORM_strx2 = 0x26;
constexpr uint16_t DW_FORM_strx3 = 0x27;
constexpr uint16_t DW_FORM_strx4 = 0x28;
constexpr uint16_t DW_FORM_addrx1 = 0x29;
constexpr uint16_t DW_FORM_addrx2 = 0x2a;
constexpr uint16_t DW_FORM_addrx3 = 0x2b;
constexpr uint16_t DW_FORM_addrx4 = 0x2c;
constexpr uint16_t DW_FORM_GNU_addr_index = 0x1f01;
constexpr uint16_t DW_FORM_GNU_str_index = 0x1f02;
constexpr uint16_t DW_FORM_GNU_ref_alt = 0x1f20;
constexpr uint16_t DW_FORM_GNU_strp_alt = 0x1f21;

// The entry kinds of a .debug_rnglists list.
constexpr uint8_t DW_RLE_end_of_list = 0x00;
constexpr uint8_t DW_RLE_base_addressx = 0x01;
constexpr uint8_t DW_RLE_startx_endx = 0x02;
constexpr uint8_t DW_RLE_startx_length = 0x03;
constexpr uint8_t DW_RLE_offset_pair = 0x04;
constexpr uint8_t DW_RLE_base_address = 0x05;
constexpr uint8_t DW_RLE_start_end = 0x06;
constexpr uint8_t DW_RLE_start_length = 0x07;

// Unit types of version 5 headers.
constexpr uint8_t DW_UT_compile = 1;
constexpr uint8_t DW_UT_type = 2;
constexpr uint8_t DW_UT_partial = 3;
constexpr uint8_t DW_UT_skeleton = 4;
constexpr uint8_t DW_UT_split_compile = 5;
constexpr uint8_t DW_UT_split_type = 6;

constexpr uint8_t DW_LNS_extended_op = 0;
constexpr uint8_t DW_LNS_set_column = 5;
constexpr uint8_t DW_LNS_negate_stmt = 6;
constexpr uint8_t DW_LNS_set_basic_block = 7;
constexpr uint8_t DW_LNS_const_add_pc = 8;
constexpr uint8_t DW_LNS_fixed_advance_pc = 9;
constexpr uint8_t DW_LNE_define_file = 3;
constexpr uint8_t DW_LNE_set_discriminator = 4;

// Content types of version 5 directory and file entries.
constexpr uint16_t DW_LNCT_path = 1;
constexpr uint16_t DW_LNCT_directory_index = 2;
constexpr uint16_t DW_LNCT_timestamp = 3;
constexpr uint16_t DW_LNCT_size = 4;
constexpr uint16_t DW_LNCT_MD5 = 5;

} // namespace dwarf
