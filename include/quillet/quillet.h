/*
 * Quillet: debugging information for an assembler.
 *
 * An assembler describes the program it translates (module, sections, procedures, labels,
 * data, constants, register symbols, types, source files and one line entry per instruction)
 * and then calls Dbg_emit once: Quillet writes DWARF 2 into ELF32/ELF64 objects and CodeView
 * into COFF objects, through the object-file library declared in <brix/brix.h>.
 * In retrieval mode (Dbg_init(1)) it reads line information back from an object file and
 * answers queries by section offset and by source position.
 *
 * Conventions: every function returns a DbgStatus (0 = DBG_ERR_NONE); results are passed
 * through out-parameters, written only on success. One thread drives the library; all state is
 * process-wide. Dbg_finish releases everything, so a process may run any number of production
 * and retrieval runs one after another.
 */
#ifndef QUILLET_QUILLET_H
#define QUILLET_QUILLET_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#else
#include <uchar.h>
#endif

#if defined(__GNUC__)
#define QUILLET_API __attribute__((visibility("default")))
#else
#define QUILLET_API
#endif

typedef uint32_t DbgStatus;          /* DBG_ERR_* codes */
/* Also declared by brix/brix.h; C99 allows a typedef only once. */
#ifndef BRX_HANDLE_DEFINED
#define BRX_HANDLE_DEFINED
typedef uint32_t BrxHandle;          /* object-file, section or symbol handle of brix; 0 = none */
#endif
typedef struct DbgScope_ *DbgScope;  /* scope handle */
typedef struct DbgObject_ *DbgObject; /* language-object handle */
typedef struct DbgType_ *DbgType;    /* type handle */
typedef struct DbgSource_ *DbgSource; /* source handle: stays valid until Dbg_finish */

/* ---- Status codes ---------------------------------------------------------------------- */
#define DBG_ERR_NONE 0u                     /* success */
#define DBG_ERR_FAILED 1u                   /* a module scope already exists */
#define DBG_ERR_NO_CURRENT_SCOPE 3u         /* no scope given and none current */
#define DBG_ERR_SCOPE_NOT_OPENED 4u         /* no current scope, or it refuses a child of that kind */
#define DBG_ERR_SCOPE_NOT_CLOSED 5u         /* current scope already closed, or it has child scopes */
#define DBG_ERR_NOT_AN_OBJECT 6u            /* the handle is not a language object */
#define DBG_ERR_BAD_OBJECT_KIND 7u          /* object kind not 1..5 */
#define DBG_ERR_BAD_PROPERTY 8u             /* a property id the object kind does not define */
#define DBG_ERR_BAD_TYPE 9u                 /* bad base-type code, wrong type kind, value before type */
#define DBG_ERR_BAD_PROPERTY_VALUE 11u      /* a refused property value (register above 524) */
#define DBG_ERR_BAD_PROCEDURE_KIND 12u      /* procedure kind not 1 or 2 */
#define DBG_ERR_NO_MEMORY 13u               /* allocating a section reader failed */
#define DBG_ERR_READ_FAILED 14u             /* reading/parsing failed */
#define DBG_ERR_UNSUPPORTED_FORMAT 15u      /* object format not supported here */
#define DBG_ERR_LINE_REJECTED 17u           /* the scope refused the line entry */
#define DBG_ERR_WRITE_FAILED 18u            /* writing a record failed */
#define DBG_ERR_NO_OBJECT_FORMAT 19u        /* no object format bound (no module scope) */
#define DBG_ERR_ALREADY_OPEN 22u            /* object file already bound / open */
#define DBG_ERR_NULL_PROPERTY_VALUE 25u     /* a null value pointer for a procedure property */
#define DBG_ERR_OBJECT_FILE 26u             /* an object-file library operation failed */
#define DBG_ERR_NO_PREVIOUS_LINE 28u        /* the row before the first one was asked for */
#define DBG_ERR_NO_LINE_AT_OFFSET 29u       /* no row starts exactly at the offset */
#define DBG_ERR_LINE_SECTION_TOO_SHORT 31u  /* .debug_line shorter than 32 bytes */
#define DBG_ERR_OPEN_OBJECT_FILE 32u        /* the object file could not be opened */
#define DBG_ERR_SOURCE_NOT_FOUND 33u        /* source file not named by the line information */
#define DBG_ERR_INEXACT_POSITION 34u        /* no row exactly at the position; nearest one given */
#define DBG_ERR_NO_LINE_AT_POSITION 35u     /* no further row after the last hit */
#define DBG_ERR_NOT_RETRIEVE_MODE 37u       /* the library is not in retrieval mode */
#define DBG_ERR_BAD_SOURCE_INDEX 38u        /* source index out of range or buffer too small */
#define DBG_ERR_NO_HANDLE_MEMORY 39u        /* allocating a line-section handle failed */

/* ---- Object kinds (Dbg_create_object) -------------------------------------------------- */
#define DBG_OBJ_CODE_LABEL 1
#define DBG_OBJ_DATA_LABEL 2
#define DBG_OBJ_CONSTANT 3
#define DBG_OBJ_ENREG_SYM 4
#define DBG_OBJ_PROCEDURE 5

/* ---- Property ids (DbgObjectProp.id) and what the value pointer addresses ---------------- */
#define DBG_PROP_SYMBOL 1           /* kinds 1, 2: const BrxHandle * symbol */
#define DBG_PROP_TYPE 2             /* kinds 2, 3, 4: const DbgType * */
#define DBG_PROP_BASE_TYPE 3        /* kinds 2, 3, 4: const int32_t * base-type code 1..12 */
#define DBG_PROP_VALUE 4            /* kind 3: the value bytes, as wide as the type */
#define DBG_PROP_NAME 5             /* kinds 3, 4: const char * NUL-terminated */
#define DBG_PROP_REGISTER 6         /* kind 4: const uint32_t * register (see Registers) */
#define DBG_PROP_ENTRY_LIST 7       /* kind 5: const DbgEntryList * */
#define DBG_PROP_PROC_TYPE 8        /* kind 5: const DbgType * procedure type */
#define DBG_PROP_START 9            /* kind 5: const uint64_t * start offset in the section */
#define DBG_PROP_END 10             /* kind 5: const uint64_t * end offset in the section */
#define DBG_PROP_DEBUG_START 11     /* kind 5: const uint32_t * */
#define DBG_PROP_DEBUG_END 12       /* kind 5: const uint32_t * */
#define DBG_PROP_RETURN_REGISTER 13 /* kind 5: const uint32_t * register (see Registers) */
#define DBG_PROP_PROC_FLAGS 14      /* kind 5: const uint16_t * */

/* Registers. On the default target registers are numbered 0..524 (11 above). On another target
 * (the machine set on the object file, see Dbg_open_module_scope) they are the target's DWARF
 * register numbers, 0..65535: DWARF writes them unchanged, CodeView writes the machine's CodeView
 * register, and a register symbol whose number has none is refused with 11 in a COFF module. */

/* ---- Records ------------------------------------------------------------------------------ */
typedef struct DbgObjectProp {
    uint32_t id;       /* DBG_PROP_* */
    const void *value; /* what it points at depends on the id (see above) */
} DbgObjectProp;

typedef struct DbgEntryList {
    const BrxHandle *entries; /* symbols through which a procedure is entered; not null */
    uint32_t count;
} DbgEntryList;

typedef struct DbgLineDesc {
    DbgSource source;   /* from DbgLine_create_source */
    uint32_t line;      /* source line */
    uint32_t column;    /* source column (kept; not written by either format) */
    uint32_t base_low;  /* 64-bit base offset of the instruction in its section, low word */
    uint32_t base_high; /* high word */
    uint32_t offset;    /* added to the base */
} DbgLineDesc;

typedef struct DbgLineSectionHandle {
    BrxHandle section;       /* section of the object file */
    uint32_t section_number; /* numbered from 0 in the order sections are first met */
} DbgLineSectionHandle;

typedef struct DbgSourceHandle {
    const char16_t *name;      /* the file's path, owned by the library */
    uint32_t file_index;       /* position in the file list */
    uint32_t file_index_again; /* the same */
} DbgSourceHandle;

typedef struct DbgOffsetQuery {
    DbgLineSectionHandle *handle; /* from DbgLine_open_line_section */
    uint64_t offset;              /* in: section offset; out: the row's address */
} DbgOffsetQuery;

typedef struct DbgInstInfo {
    uint32_t line;
    uint16_t column;
    char16_t name[257]; /* source path, zero-padded; a name of 257 units has no terminator */
    uint32_t file_index;
} DbgInstInfo;

typedef struct DbgSourceQuery {
    DbgSourceHandle *handle; /* from DbgLine_open_object_and_source_file */
    uint32_t line;
    uint16_t column;
} DbgSourceQuery;

typedef struct DbgSourceResult {
    DbgLineSectionHandle *handle; /* written by the library */
    uint64_t address;             /* section offset of the row found */
} DbgSourceResult;

/* ---- Lifecycle ---------------------------------------------------------------------------- */
/* Mode 0: production (describe, then Dbg_emit). Mode 1: retrieval. Always DBG_ERR_NONE. */
QUILLET_API DbgStatus Dbg_init(uint32_t mode);
/* Releases everything the run created and resets the library. Always DBG_ERR_NONE. */
QUILLET_API DbgStatus Dbg_finish(void);
/* Writes the described module into the bound object file: DWARF 2 (ELF) or CodeView (COFF).
 * 19 without a module scope; 14, 15, 18, 26 on failures while writing. */
QUILLET_API DbgStatus Dbg_emit(void);

/* ---- Scopes ------------------------------------------------------------------------------- */
/* Opens the module (compilation unit) on an object file made through brix. language and
 * machine 1; version triples of three uint16 values; wide strings (UTF-16, NUL-terminated).
 * 1 when a module exists; 22 when this object file is already bound.
 * The object file's machine (brix's BRX_KEY_MACHINE, set before this call) chooses the target,
 * whose relocation types and register numbers the output uses: the default target (machine 50
 * in ELF32 and ELF64, 0x0200 in COFF), x86-64 (62 in ELF64, 0x8664 in COFF), i386 (3 in ELF32,
 * 0x014c in COFF), aarch64 (183 in ELF64, 0xaa64 in COFF) or riscv64 (243 in ELF64). Any other
 * machine, or one in a format its target does not use, is refused with 15 (a check report
 * names it) and nothing is bound. */
QUILLET_API DbgStatus Dbg_open_module_scope(BrxHandle object_file, uint32_t language,
                                            uint32_t edit_and_continue, uint32_t no_debug_info,
                                            uint32_t machine, const uint16_t front_end_version[3],
                                            const uint16_t back_end_version[3],
                                            const char16_t *producer, const char16_t *directory,
                                            const char16_t *source_name,
                                            const char16_t *tool_path, DbgScope *out_scope);
/* Opens a section scope under the current (module) scope. 4 when not accepted. */
QUILLET_API DbgStatus Dbg_open_section_scope(BrxHandle section, DbgScope *out_scope);
/* Opens a procedure scope for a procedure object under the current (section) scope. 4 when
 * not accepted. */
QUILLET_API DbgStatus Dbg_open_procedure_scope(DbgObject procedure, DbgScope *out_scope);
/* Closes the current scope; its parent becomes current. 3 without one; 5 when already closed
 * or when it has child scopes. */
QUILLET_API DbgStatus Dbg_close_current_scope(void);
QUILLET_API DbgStatus Dbg_get_current_scope(DbgScope *out_scope);
QUILLET_API DbgStatus Dbg_set_current_scope(DbgScope scope);

/* ---- Objects and types -------------------------------------------------------------------- */
/* Creates an object of kind 1..5 in scope (NULL: the current scope) and applies the property
 * list (only the low 16 bits of count are used). A procedure (kind 5) joins the tree only
 * through Dbg_open_procedure_scope. Statuses 3, 7, 8, 9, 11, 25. */
QUILLET_API DbgStatus Dbg_create_object(int32_t kind, const DbgObjectProp *props, uint32_t count,
                                        DbgScope scope, DbgObject *out_object);
/* Applies a further property list; records before a failing one stay applied. */
QUILLET_API DbgStatus Dbg_add_object_prop(DbgObject object, const DbgObjectProp *props,
                                          uint32_t count);
/* The basic type of a base-type code: 1/2 data1 unsigned/signed, 3/4 data2, 5/6 data4,
 * 7/8 data8, 9 real4, 10 real8, 11 real10, 12 void. 9 for any other code. */
QUILLET_API DbgStatus Dbg_base_type(int32_t code, DbgType *out_type);
/* A new procedure type returning a basic type; procedure kind 1 or 2 (12 otherwise). */
QUILLET_API DbgStatus Dbg_procedure_type(DbgType return_type, uint32_t procedure_kind,
                                         DbgType *out_type);

/* ---- Line entries ------------------------------------------------------------------------- */
/* Registers a source file; its position (from 0) is its file index. Always DBG_ERR_NONE. */
QUILLET_API DbgStatus DbgLine_create_source(const char16_t *source_file_name,
                                            DbgSource *out_source);
/* Records the line entry of one instruction in scope (NULL: the current scope); 3 without one. */
QUILLET_API DbgStatus Dbg_create_line(DbgScope scope, const DbgLineDesc *desc);

/* ---- Retrieval (after Dbg_init(1)); every function answers 37 in any other mode ----------- */
QUILLET_API DbgStatus DbgLine_open_line_section(BrxHandle section,
                                                DbgLineSectionHandle **out_handle);
/* Opens an object file and finds a source file of its line information (ASCII case does not
 * matter; source_name is not written). */
QUILLET_API DbgStatus DbgLine_open_object_and_source_file(const char *object_name,
                                                          const char *source_name,
                                                          DbgSourceHandle **out_handle);
/* flag 1: the row at the offset; flag 0: the row before it. 26, 28, 29. */
QUILLET_API DbgStatus DbgLine_get_inst_info_by_offset(uint32_t flag, DbgOffsetQuery *query,
                                                      DbgInstInfo *info);
/* flag 0: search; flag 1: continue after the last hit. 0 exact, 34 nearest below, 35 none. */
QUILLET_API DbgStatus DbgLine_get_inst_info_by_source(uint32_t flag, const DbgSourceQuery *query,
                                                      DbgSourceResult *result);
QUILLET_API DbgStatus DbgLine_get_source_files_number(uint32_t *count);
/* Copies the name of file `index` into buffer; *size must be at least 2 * length + 1. */
QUILLET_API DbgStatus DbgLine_get_source_file_name(int32_t index, char *buffer, uint32_t *size);

/* ---- Rows and functions of a line section (retrieval; what a symbolizer needs) ------------ */
/* One row of a line table, as the table holds it. Rows of one section are numbered from 0 in
 * table order: sequence by sequence, in each sequence in the order the program emits them, so
 * several rows at one address all appear. End-of-sequence markers are not rows; they end the
 * range of the row before them. */
typedef struct DbgLineRow {
    uint64_t offset;     /* section offset where the row's code starts */
    uint64_t end;        /* section offset where its range ends: the next greater address of
                            its sequence, or the sequence's end (offset itself when another row
                            follows at the same address) */
    uint32_t line;       /* 0: code that belongs to no source line */
    uint32_t column;     /* 0 where the table gives none */
    uint32_t file_index; /* index for DbgLine_get_source_file_name */
    uint32_t flags;      /* DBG_ROW_* bits */
} DbgLineRow;
#define DBG_ROW_IS_STMT 1u        /* a recommended breakpoint location */
#define DBG_ROW_SEQUENCE_START 2u /* the first row of its sequence */

/* The number of rows of a line section. 26 for a handle the reader did not hand out (or a null
 * count). */
QUILLET_API DbgStatus DbgLine_get_row_count(DbgLineSectionHandle *handle, uint64_t *count);
/* Copies rows of the section in table order, from row `first`, into rows: *count in: how many
 * rows the array holds; out: how many were copied (fewer, or 0, at the end). rows may be NULL
 * when *count is 0. 26 as above. */
QUILLET_API DbgStatus DbgLine_get_rows(DbgLineSectionHandle *handle, uint64_t first,
                                       DbgLineRow *rows, uint64_t *count);
/* The row whose range holds `offset`: the last row at or below it in the sequence that covers
 * it (of several rows at one address, the last); never a row past its sequence's end. *index
 * (when not NULL) receives the row's number. 29 when no sequence covers the offset; 26 as above
 * (or a null row). */
QUILLET_API DbgStatus DbgLine_find_row(DbgLineSectionHandle *handle, uint64_t offset,
                                       DbgLineRow *row, uint64_t *index);
/* The function whose code holds `offset` in the section, as the DWARF subprograms of an ELF
 * object describe it (the innermost, where ranges nest): its name in UTF-8 into buffer (*size in:
 * capacity; out: length + 1, also when 38 says the buffer is too small) and its range
 * [*start, *end) as section offsets (start and end may be NULL). The name is the linkage name
 * where the subprogram or the declaration it completes has one (as the symbol table names the
 * function), else its plain name. A subprogram whose code is a list of ranges (a function split
 * into a hot and a cold part) answers for each range, [*start, *end) being that range. 29 when no
 * subprogram holds the offset (and for COFF objects, whose functions the symbol table names); 26
 * as above (or a null size). */
QUILLET_API DbgStatus DbgLine_find_function(DbgLineSectionHandle *handle, uint64_t offset,
                                            char *buffer, uint32_t *size, uint64_t *start,
                                            uint64_t *end);

/* ---- Consistency checks ------------------------------------------------------------------- */
/* A failed internal check is reported (expression, source file base name, line) to the handler
 * and the library goes on. The default handler prints one line to standard error; NULL
 * restores it. */
typedef void (*DbgCheckHandler)(const char *expression, const char *file, unsigned line);
QUILLET_API void Dbg_set_check_handler(DbgCheckHandler handler);

#ifdef __cplusplus
}
#endif

#endif /* QUILLET_QUILLET_H */
