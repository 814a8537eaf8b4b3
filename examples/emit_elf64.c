/*
 * emit_elf64: what an assembler does with Quillet, in one small C program.
 *
 * It makes a new ELF64 object through brix (a code section with the bytes of a small counting
 * loop, and the symbols an assembler would define), describes the module through Quillet (a
 * section scope, a procedure scope with a label, a register symbol and one line entry per
 * instruction), emits the debugging information and writes the object.
 *
 *     emit_elf64 OUTPUT.o
 */
#include <brix/brix.h>
#include <quillet/quillet.h>

#include <stdio.h>
#include <stdlib.h>

/* Each call either succeeds or ends the program with the call's name and status. */
static void check(uint32_t status, const char *what) {
    if (status != 0) {
        fprintf(stderr, "emit_elf64: %s failed with status %u\n", what, (unsigned)status);
        exit(1);
    }
}

static BrxHandle make_symbol(BrxHandle table, const char *name, BrxHandle section, uint64_t offset,
                             uint32_t binding, uint32_t type) {
    uint32_t storage = 0; /* defined in this file */
    const BrxAttr attrs[] = {{BRX_KEY_SYMBOL_NAME, name},        {BRX_KEY_SYMBOL_STORAGE, &storage},
                             {BRX_KEY_SYMBOL_BINDING, &binding}, {BRX_KEY_SYMBOL_TYPE, &type},
                             {BRX_KEY_SYMBOL_SECTION, &section}, {BRX_KEY_SYMBOL_OFFSET, &offset}};
    BrxHandle symbol = 0;
    check((uint32_t)_brx_create_object(table, BRX_FORMAT_ELF64, BRX_KIND_SYMBOL, 6, attrs, &symbol,
                                       0),
          name);
    return symbol;
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: emit_elf64 OUTPUT.o\n");
        return 2;
    }

    /* The object file, as the assembler makes it: one code section and its symbols. */
    static const uint8_t code[] = {
        0x31, 0xc0,          /* count:  xor  eax, eax      line 4 */
        0xb9, 0x0a, 0, 0, 0, /*         mov  ecx, 10       line 5 */
        0xff, 0xc0,          /* again:  inc  eax           line 7 */
        0xe2, 0xfc,          /*         loop again         line 8 */
        0xc3,                /*         ret                line 9 */
    };
    BrxHandle file = 0, text = 0, table = 0;
    check((uint32_t)_brx_new_file(argv[1], BRX_FORMAT_ELF64, &file), "_brx_new_file");
    uint16_t flags = BRX_SECTION_CODE;
    uint32_t alignment = 16;
    const BrxAttr section_attrs[] = {{BRX_KEY_NAME, ".text"},
                                     {BRX_KEY_SECTION_FLAGS, &flags},
                                     {BRX_KEY_SECTION_ALIGNMENT, &alignment}};
    check((uint32_t)_brx_create_object(file, BRX_FORMAT_ELF64, BRX_KIND_SECTION, 3, section_attrs,
                                       &text, 0),
          "creating .text");
    BrxBytes bytes = {sizeof code, 0, (void *)code};
    check((uint32_t)_brx_set_value(text, BRX_KEY_SECTION_DATA, &bytes, 0), "writing .text");
    BrxFind find = {BRX_FIRST, BRX_KIND_SYMBOL_TABLE, BRX_ANY, NULL};
    check((uint32_t)_brx_get_keyed(file, BRX_KEY_FIND, &find, &table, 0),
          "finding the symbol table");
    BrxHandle count = make_symbol(table, "count", text, 0, BRX_BINDING_GLOBAL, BRX_SYMBOL_FUNCTION);
    BrxHandle again = make_symbol(table, "again", text, 7, BRX_BINDING_LOCAL, BRX_SYMBOL_PLAIN);

    /* The module, as the assembler describes it while it translates count.s. */
    check(Dbg_init(0), "Dbg_init");
    const uint16_t version[3] = {1, 0, 0};
    DbgScope module = NULL, section = NULL, procedure_scope = NULL;
    check(Dbg_open_module_scope(file, 1, 0, 0, 1, version, version, u"emit_elf64 1.0", u".",
                                u"count.s", u"emit_elf64", &module),
          "Dbg_open_module_scope");
    DbgSource source = NULL;
    check(DbgLine_create_source(u"count.s", &source), "DbgLine_create_source");
    check(Dbg_open_section_scope(text, &section), "Dbg_open_section_scope");

    /* count: a procedure returning a data4 in a register, entered through its global symbol. */
    DbgType data4 = NULL, counter = NULL;
    check(Dbg_base_type(5, &data4), "Dbg_base_type");
    check(Dbg_procedure_type(data4, 1, &counter), "Dbg_procedure_type");
    const DbgEntryList entries = {&count, 1};
    const uint64_t start = 0, end = sizeof code;
    const uint32_t return_register = 1;
    const DbgObjectProp procedure_props[] = {{DBG_PROP_ENTRY_LIST, &entries},
                                             {DBG_PROP_START, &start},
                                             {DBG_PROP_END, &end},
                                             {DBG_PROP_PROC_TYPE, &counter},
                                             {DBG_PROP_RETURN_REGISTER, &return_register}};
    DbgObject procedure = NULL, object = NULL;
    check(Dbg_create_object(DBG_OBJ_PROCEDURE, procedure_props, 5, NULL, &procedure),
          "creating the procedure");
    check(Dbg_open_procedure_scope(procedure, &procedure_scope), "Dbg_open_procedure_scope");

    const DbgObjectProp label_props[] = {{DBG_PROP_SYMBOL, &again}};
    check(Dbg_create_object(DBG_OBJ_CODE_LABEL, label_props, 1, NULL, &object), "the label");
    const int32_t data4_code = 5;
    const uint32_t ecx = 18; /* a register number of the assembler's numbering */
    const DbgObjectProp register_props[] = {
        {DBG_PROP_NAME, "counter"}, {DBG_PROP_BASE_TYPE, &data4_code}, {DBG_PROP_REGISTER, &ecx}};
    check(Dbg_create_object(DBG_OBJ_ENREG_SYM, register_props, 3, NULL, &object),
          "the register symbol");

    /* One line entry per instruction: (line, offset in .text). */
    static const uint32_t rows[][2] = {{4, 0}, {5, 2}, {7, 7}, {8, 9}, {9, 11}};
    for (size_t k = 0; k < sizeof rows / sizeof rows[0]; ++k) {
        const DbgLineDesc line = {source, rows[k][0], 0, 0, 0, rows[k][1]};
        check(Dbg_create_line(NULL, &line), "Dbg_create_line");
    }
    check(Dbg_close_current_scope(), "closing the procedure scope");

    /* One call writes .debug_info, .debug_abbrev and .debug_line; brix writes the file. */
    check(Dbg_emit(), "Dbg_emit");
    check((uint32_t)_brx_write_file(file), "_brx_write_file");
    Dbg_finish();
    _brx_close_file(file);
    printf("wrote %s\n", argv[1]);
    return 0;
}
