/*
 * brix: the object-file library that Quillet reads and writes object files through.
 *
 * An in-memory object model (file, sections, relocations, symbol table, symbols) behind a keyed
 * C interface. It writes relocatable ELF32, ELF64 and COFF objects and reads ELF (relocatable,
 * executable, shared) and COFF objects made by any tool.
 *
 * Every function returns 0 on success and a non-zero result on failure; a malformed file or
 * argument gives a non-zero result, never a crash. Handles are 32-bit, non-zero and unique in the
 * process while their file lives. Iterations ("next after X", X = BRX_FIRST for the first) end
 * with BRX_ERR_NO_MORE and cost O(1) per step. The last argument of the keyed calls is 0.
 */
#ifndef BRIX_BRIX_H
#define BRIX_BRIX_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define BRIX_API __attribute__((visibility("default")))
#else
#define BRIX_API
#endif

/* Also declared by quillet/quillet.h; C99 allows a typedef only once. */
#ifndef BRX_HANDLE_DEFINED
#define BRX_HANDLE_DEFINED
typedef uint32_t BrxHandle; /* 0 = none */
#endif

/* Results */
#define BRX_OK 0
#define BRX_ERR_FAILED 1                /* any failure without a number of its own */
#define BRX_ERR_BUFFER_TOO_SMALL 4122   /* name queries: double the buffer and ask again */
#define BRX_ERR_NO_MORE 4164            /* an iteration has no further object */
#define BRX_ERR_NOT_A_SECTION 4177      /* a section query on another kind of object */
#define BRX_ERR_UNSUPPORTED_COMPRESSION 4220 /* the bytes of a compressed section whose
                                                compression is not zlib */
/* Why _brx_open_file refused a file, so that a tool can tell its user: */
#define BRX_ERR_CANNOT_READ 4200        /* it does not exist or cannot be read: errno says why */
#define BRX_ERR_IS_DIRECTORY 4201       /* the path names a directory */
#define BRX_ERR_NOT_AN_OBJECT 4202      /* neither an ELF nor a COFF object */
#define BRX_ERR_UNSUPPORTED 4203        /* a kind brix does not read: an ELF class or byte order
                                           other than 32/64-bit and little/big endian, a big-object
                                           COFF, an import library */
#define BRX_ERR_TRUNCATED_HEADER 4204   /* the file ends inside its file header */
#define BRX_ERR_SECTION_TABLE_OUTSIDE 4205 /* the section headers end past the end of the file */
#define BRX_ERR_SECTION_OUTSIDE 4206    /* a section's contents or relocations end past the end */
#define BRX_ERR_SYMBOLS_OUTSIDE 4207    /* the symbol or string table ends past the end */
#define BRX_ERR_MALFORMED 4208          /* an index, offset or count in the file points at nothing */
/* Why _brx_write_file failed when the system refused: */
#define BRX_ERR_CANNOT_WRITE 4209       /* the file cannot be created or written: errno says why */

/* "First" for iterations, "any" for BrxFind.key */
#define BRX_FIRST 0xFFFFFFFFu
#define BRX_ANY 0xFFFFFFFFu

/* Object formats */
#define BRX_FORMAT_ELF32 1
#define BRX_FORMAT_ELF64 2
#define BRX_FORMAT_COFF 3

/* Object kinds (_brx_create_object, BrxFind.kind) */
#define BRX_KIND_FILE 1
#define BRX_KIND_SECTION 3
#define BRX_KIND_RELOCATION 4
#define BRX_KIND_SYMBOL_TABLE 5
#define BRX_KIND_SYMBOL 6
#define BRX_KIND_LINE_BLOCK 7 /* COFF reading: one CodeView line block of a section */
#define BRX_KIND_LINE_ITEM 8  /* COFF reading: one (offset, line) pair of a block */

/* Keys */
#define BRX_KEY_OWNER 2                /* any: out BrxHandle, the containing object */
#define BRX_KEY_FORMAT 3               /* file: out uint32_t format */
#define BRX_KEY_SYMBOL_STORAGE 7       /* symbol: uint32_t, 0 = defined in this file */
#define BRX_KEY_PATH 13                /* file (wide query): in uint32_t capacity in bytes; out char16_t[] */
#define BRX_KEY_OBJECT_KIND 19         /* file: out uint32_t, 0 relocatable, 1 executable, 2 shared, 3 other linked */
#define BRX_KEY_MACHINE 20             /* file: uint32_t machine number (e_machine / COFF machine);
                                          set it on a file made by _brx_new_file */
#define BRX_KEY_MACHINE_FLAGS 21       /* file: uint32_t ELF e_flags (0 unless set on a new ELF
                                          file, for example a RISC-V float ABI) */
#define BRX_KEY_FIND 25                /* file: in BrxFind, out BrxHandle */
#define BRX_KEY_NAME 36                /* section: the name (create: const char *; query: as key 66) */
#define BRX_KEY_SECTION_SIZE 37        /* section: out uint64_t */
#define BRX_KEY_SECTION_DATA 38        /* section: BrxBytes; get reads, set writes */
#define BRX_KEY_SECTION_ADDRESS 40     /* section: uint64_t address (0 in relocatable objects) */
#define BRX_KEY_SECTION_FLAGS 43       /* section: uint16_t, BRX_SECTION_CODE | BRX_SECTION_DEBUG */
#define BRX_KEY_NEXT_RELOCATION 45     /* section: in const BrxHandle *previous, out BrxHandle */
#define BRX_KEY_SECTION_KIND 46        /* section: uint32_t, 1 for debugging sections */
#define BRX_KEY_SECTION_ALIGNMENT 51   /* section: uint32_t alignment in bytes */
#define BRX_KEY_FIND_SYMBOL 57         /* symbol table: in BrxFindSymbol, out BrxHandle */
#define BRX_KEY_SYMBOL_NAME 66         /* symbol: create const char *; query in const uint32_t *capacity, out char[] */
#define BRX_KEY_SYMBOL_SECTION 67      /* symbol: BrxHandle section (0: undefined or absolute) */
#define BRX_KEY_SYMBOL_BINDING 68      /* symbol: uint32_t, 2 global, 1 local */
#define BRX_KEY_SYMBOL_TYPE 69         /* symbol: uint32_t, 0 plain, 2 function, 4 source file */
#define BRX_KEY_SYMBOL_OFFSET 70       /* symbol: uint64_t offset in its section */
#define BRX_KEY_SYMBOL_SIZE 71         /* symbol (query): uint64_t size in bytes, 0 when the file gives
                                          none (ELF st_size; COFF a function definition's TotalSize) */
#define BRX_KEY_RELOC_OFFSET 86        /* relocation: uint64_t offset in its section */
#define BRX_KEY_RELOC_TYPE 89          /* relocation: uint32_t type */
#define BRX_KEY_RELOC_TARGET 92        /* relocation: BrxHandle symbol or section */
#define BRX_KEY_NEXT_LINE_BLOCK 124    /* section: in const BrxHandle *previous, out BrxHandle block */
#define BRX_KEY_LINE_FILE_SYMBOL 125   /* file reference (key 131): out BrxHandle source-file symbol */
#define BRX_KEY_LINE_ITEM_COUNT 126    /* line block: out uint32_t number of items */
#define BRX_KEY_LINE_ITEM_LINE 127     /* line item: out uint32_t line */
#define BRX_KEY_LINE_ITEM_ADDRESS 128  /* line item: out uint64_t section offset */
#define BRX_KEY_LINE_ITEM_COLUMN 129   /* line item: out uint32_t column (0 when unknown) */
#define BRX_KEY_NEXT_LINE_ITEM 130     /* line block: in const BrxHandle *previous, out BrxHandle item */
#define BRX_KEY_LINE_BLOCK_FILE 131    /* line block: out BrxHandle file reference (answers key 125) */
#define BRX_KEY_COMDAT 133             /* section: BrxComdat */
#define BRX_KEY_RESOLVED_RELOCATIONS 136 /* section (query): BrxResolvedList, the values its
                                            relocations give the fields they patch */
#define BRX_KEY_LINE_BLOCK_END 135     /* line block: out uint64_t section offset where the code that
                                          its lines subsection covers ends */
#define BRX_KEY_RELOC_ADDEND 134       /* relocation: int64_t addend (ELF RELA; 0 otherwise) */

/* Machine numbers (key 20) of the targets that Quillet writes debugging information for. A new
   file has the default target's number of its format until another is set. */
#define BRX_MACHINE_ELF_DEFAULT 50
#define BRX_MACHINE_ELF_I386 3
#define BRX_MACHINE_ELF_X86_64 62
#define BRX_MACHINE_ELF_AARCH64 183
#define BRX_MACHINE_ELF_RISCV 243
#define BRX_MACHINE_COFF_DEFAULT 0x0200
#define BRX_MACHINE_COFF_I386 0x014c
#define BRX_MACHINE_COFF_X86_64 0x8664
#define BRX_MACHINE_COFF_ARM64 0xaa64

/* Section flag bits (key 43) */
#define BRX_SECTION_CODE 2
#define BRX_SECTION_DEBUG 4

/* Symbol bindings and types (keys 68, 69) */
#define BRX_BINDING_LOCAL 1
#define BRX_BINDING_GLOBAL 2
#define BRX_SYMBOL_PLAIN 0
#define BRX_SYMBOL_FUNCTION 2
#define BRX_SYMBOL_SOURCE_FILE 4

/* COFF COMDAT selections (key 133) */
#define BRX_COMDAT_NONE 0
#define BRX_COMDAT_NODUPLICATES 1
#define BRX_COMDAT_ANY 2
#define BRX_COMDAT_SAME_SIZE 3
#define BRX_COMDAT_EXACT_MATCH 4
#define BRX_COMDAT_ASSOCIATIVE 5
#define BRX_COMDAT_LARGEST 6

typedef struct BrxAttr {
    uint32_t key;      /* creation attribute; for key 36 and 66 the value is the name itself */
    const void *value;
} BrxAttr;

typedef struct BrxBytes {
    uint64_t count;  /* in: bytes to move; out: bytes moved */
    uint64_t offset; /* offset in the section */
    void *data;
} BrxBytes;

typedef struct BrxComdat {
    uint32_t selection; /* 0: not COMDAT */
    BrxHandle section;  /* associated section for selection 5 */
} BrxComdat;

typedef struct BrxFind {
    BrxHandle after;   /* BRX_FIRST for the first */
    uint32_t kind;     /* BRX_KIND_* */
    uint32_t key;      /* attribute to match, BRX_ANY for any */
    const void *value; /* the value it must have (for key 36: const char *) */
} BrxFind;

/* One relocated field of a section, as a reader of a relocatable object needs it: what the field
 * holds once every section is placed at address 0. For an absolute relocation that is the
 * symbol's offset in its section plus the addend (ELF RELA) or plus the value in place (ELF REL);
 * for the paired add and subtract relocations of machines that relax code (RISC-V), the
 * difference they compute, with no section. Relocations of kinds a reader has no use for (PC-
 * relative, thread-local, relaxation hints) are left out. Compressed sections: the offsets and
 * values are those of the decompressed bytes. */
typedef struct BrxResolvedRelocation {
    uint64_t offset;   /* of the field in the section */
    uint64_t value;    /* the field's value */
    BrxHandle section; /* the section `value` is an offset in; 0 for a difference, or a symbol
                          that is undefined or absolute */
    uint32_t size;     /* bytes of the field: 1, 2, 4 or 8 */
} BrxResolvedRelocation;

/* Key 136: with entries NULL, count receives how many entries the section has; else up to count
 * entries from position `first` are copied in ascending offset order and count receives how
 * many were. */
typedef struct BrxResolvedList {
    uint64_t count;
    uint64_t first;
    BrxResolvedRelocation *entries;
} BrxResolvedList;

typedef struct BrxFindSymbol {
    BrxHandle after;   /* BRX_FIRST for the first */
    uint32_t key;      /* attribute to match, BRX_ANY for any */
    const void *value; /* points at the value (uint32_t for keys 68 and 69) */
} BrxFindSymbol;

BRIX_API int32_t _brx_get_keyed(BrxHandle object, uint32_t key, const void *input, void *output,
                                uint32_t reserved);
BRIX_API int32_t _wcbrx_get_keyed(BrxHandle object, uint32_t key, const void *input, void *output,
                                  uint32_t reserved);
BRIX_API int32_t _brx_set_value(BrxHandle object, uint32_t key, const void *value,
                                uint32_t reserved);
BRIX_API int32_t _brx_create_object(BrxHandle parent, int32_t format, uint32_t kind,
                                    uint32_t count, const BrxAttr *attrs, BrxHandle *out,
                                    uint32_t reserved);
/* Opens an existing object file for reading; *mode receives the object kind (key 19). A refused
 * file gives one of the results above that says why (errno is kept for BRX_ERR_CANNOT_READ). */
BRIX_API int32_t _brx_open_file(const char *path, uint32_t *mode, BrxHandle *out_file,
                                uint32_t reserved);
/* An empty object of format 1, 2 or 3 with its symbol table, to be written to path. */
BRIX_API int32_t _brx_new_file(const char *path, int32_t format, BrxHandle *out_file);
/* Serialises a file made by _brx_new_file to its path (BRX_ERR_CANNOT_WRITE keeps errno). A
 * regular file that cannot be written to its end is removed. */
BRIX_API int32_t _brx_write_file(BrxHandle file);
/* Releases the file and every handle of it. */
BRIX_API int32_t _brx_close_file(BrxHandle file);

#ifdef __cplusplus
}
#endif

#endif /* BRIX_BRIX_H */
