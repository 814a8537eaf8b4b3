#include "Help.h"

namespace qdbg {

namespace {

const char kSynopsis[] = R"(NAME
    qdbg - describe a module as text and write it as an object file with debugging
           information; query the line information of object files

SYNOPSIS
    qdbg build DESCRIPTION -o OUTPUT [--format elf64|elf32|coff] [--target TARGET]
    qdbg lines [--json] OBJECT
    qdbg addr [--json] [-f] [--section NAME] OBJECT [ADDRESS...]
    qdbg line [--json] OBJECT SOURCE LINE [COLUMN]
    qdbg files [--json] OBJECT
    qdbg --help | qdbg COMMAND --help
    qdbg --version

DESCRIPTION
    qdbg is the command-line front end of Quillet. `build` reads a module description (a
    small line-oriented text, see DESCRIPTION FORMAT) and drives the same C functions that an
    assembler calls, so that the object file it writes carries DWARF 2 (ELF) or CodeView (COFF)
    debugging information. The other commands read the line information of an object file back
    through Quillet's retrieval functions: from ELF objects with DWARF line programs and from
    COFF objects with CodeView line blocks, made by Quillet or by other tools.

    Results go to standard output, faults to standard error.

COMMANDS
)";

const char kBuild[] =
    R"(    build DESCRIPTION -o OUTPUT [--format elf64|elf32|coff] [--target TARGET]
        Reads DESCRIPTION and writes the object file OUTPUT.
        -o, --output OUTPUT   the object file to write (required)
        -f, --format FORMAT   elf64 (the default), elf32 or coff
        -t, --target TARGET   the machine the object is for, which the linkers, debuggers and
                              symbolizers of that machine then read it as:
                                default   elf64, elf32 or coff (the default)
                                x86-64    elf64 or coff
                                i386      elf32 or coff
                                aarch64   elf64 or coff
                                riscv64   elf64
                              A target with a format it does not use is a command-line error
                              (exit code 2). On a target other than default, register numbers
                              are the target's DWARF register numbers.
        For example, an x86-64 program that ld links and gdb debugs:
            qdbg build prog.qd -o prog.o --target x86-64
            ld prog.o -o prog && gdb -batch -ex 'break prog.s:12' -ex run -ex bt ./prog
        A fault in the description is reported as DESCRIPTION:LINE: what is wrong, for
        example "desc.txt:12: unknown type 'data3'"; a refusal by the library names the line
        whose call it refused and the status code. Nothing is written then.
        For COFF output the library reads every source file named by a line entry (its MD5
        checksum goes into the object), so those files must exist; relative names are taken
        from the working directory.
)";

const char kLines[] = R"(    lines [--json] OBJECT
        Prints every row of OBJECT's line information, one per line, section by section in
        the order of its line tables; several rows at one address are all shown:
            SECTION ADDRESS LINE COLUMN FILE
        for example ".text 0x401136 12 5 /src/prog.c". ADDRESS is the virtual address in a
        linked object (executable or shared object) and the offset in SECTION in a
        relocatable one. COLUMN is 0 where the line table gives none.
        --json   one JSON object per row instead:
                 {"section": ".text", "offset": 54, "address": 4198710, "line": 12,
                  "column": 5, "file": "/src/prog.c"}
                 (offset is the section offset; file is null where the table names none)
)";

const char kAddr[] = R"(    addr [--json] [-f] [--section NAME] OBJECT [ADDRESS...]
        Answers which source line holds each ADDRESS (decimal or 0x-prefixed hexadecimal),
        in the order given. Without ADDRESS arguments, reads one address per line from
        standard input and answers each line as soon as it is read, so that a program can
        keep qdbg running and ask one address at a time.
        Addresses are virtual addresses in a linked object and offsets in the .text section
        of a relocatable one. The answer is the row whose range holds the address; past the
        end of a sequence of rows there is none.
        -f, --functions   print the function that holds the address before its line: the
                          function symbol whose range holds it or, where the symbol table
                          has none (a stripped one), the DWARF subprogram that does
        --section NAME    addresses are offsets in section NAME
        --json            one JSON object per address:
                          {"address": 4198710, "function": "main", "file": "/src/prog.c",
                           "line": 12, "column": 5}
                          (function only with -f; function and file null and line 0 where
                          nothing is known)
        Plain output is FILE:LINE, FILE:? for code that belongs to no source line, and ??:0
        where no row holds the address; with -f a line with the function's name, or ??,
        comes first. An input line that is not an address is named on standard error and
        answered as unknown, and the exit code is then 1.
)";

const char kLine[] = R"(    line [--json] OBJECT SOURCE LINE [COLUMN]
        Prints "SECTION ADDRESS" for every place where code of SOURCE:LINE starts (ADDRESS
        as for `lines`), in the order of the line tables; with COLUMN, only code of that
        column, without it code of any column. SOURCE names a file of `qdbg files` by its full
        path or by any trailing part of it that starts at a directory boundary (prog.c and
        src/prog.c name /work/src/prog.c); letter case and the separators / and \ are not
        told apart, and every file that SOURCE names is searched. When LINE has no code,
        the nearest earlier line with code is named on standard error and the exit code is 3.
        --json   each place as a row of `lines --json`
)";

const char kFiles[] = R"(    files [--json] OBJECT
        Prints the source files that OBJECT's line information names, one per line, in the
        order of its file tables.
        --json   {"index": 0, "file": "/src/prog.c"} per file
)";

const char kFormat[] = R"(
DESCRIPTION FORMAT
    One statement per line. '#' starts a comment that runs to the end of the line. A statement
    is a keyword followed by words; a word is bare, "quoted" (with \" and \\ inside), or
    name=value (the value bare or quoted). Numbers are decimal or 0x-prefixed hexadecimal.
    The first statement is `module`. A symbol may be named before the `symbol` line that
    defines it; sources, types and sections are declared before they are used.

    module source=NAME [directory=DIR] [producer=TEXT] [tool=PATH] [language=1]
           [machine=1] [front-end=MAJOR.MINOR.BUILD] [back-end=MAJOR.MINOR.BUILD]
           [edit-and-continue=yes|no] [no-debug-info=yes|no]
        The compilation unit. directory defaults to the working directory, producer to
        "qdbg", the versions to 0.0.0, the flags to no.

    source ALIAS PATH
        Registers a source file; line entries name it by ALIAS. Files are numbered in the
        order of their `source` lines.

    proctype ALIAS [returns=BASICTYPE] [kind=1|2]
        A procedure type returning a basic type (default void) of procedure kind 1 or 2
        (default 2).

    section NAME [code] [align=N] [size=N] [bytes=HEX] [fill=BYTE]
            [comdat=nodup|any|samesize|exact|largest|associative] [associate=SECTION]
        Creates a section of the object file and opens a section scope on it; what follows,
        up to the next `section`, belongs to that scope. `code` marks a code section.
        bytes= gives the contents as hexadecimal digits; size= extends them to N bytes of the
        fill byte (default 0). comdat=associative needs associate=SECTION. A NAME that was
        defined before takes no attributes: it opens a further scope on the same section,
        as an assembler does when it returns to a section. Statements before the first
        `section` belong to the module scope.

    symbol NAME OFFSET [global|local] [function|plain] [section=SECTION]
        A symbol of the object file at OFFSET in the current section (or in SECTION); local
        and plain by default. Labels and procedures take their names and addresses from
        symbols.

    label SYMBOL
        A code label at SYMBOL.
    data SYMBOL [TYPE]
        A data label at SYMBOL, optionally typed.
    constant NAME TYPE VALUE
        A named constant of a basic type; VALUE is an integer (negative only for the signed
        types) or, for real4, real8 and real10, a decimal number.
    register NAME TYPE NUMBER
        A symbol that lives in register NUMBER: 0 to 524, the assembler's numbering, on the
        default target; the target's DWARF register number on the others (for example 3 for
        rbx on x86-64), which COFF output turns into the machine's CodeView register.

    procedure ENTRY[,ENTRY...] end=OFFSET [start=OFFSET] [type=PROCTYPE]
              [return-register=N] [flags=N] [debug-start=N] [debug-end=N]
    ...
    end
        A procedure entered through the ENTRY symbols (the one at the lowest offset is its
        main symbol, which gives its name), from start (default: the main symbol's offset) to
        end in the current section. The statements up to `end` belong to its scope.

    line SOURCE LINE OFFSET [column=N] [base=N]
        The line entry of one instruction at base + OFFSET (base defaults to 0) in the
        current scope.
    lines SOURCE LINE:OFFSET ...
        Several line entries at once.

    Basic types: data1 data2 data4 data8 (unsigned), sdata1 sdata2 sdata4 sdata8 (signed),
    real4 real8 real10, void. A PROCTYPE alias is also a TYPE for `data`.

EXAMPLE
    module source=hello.s producer="qasm 1.0" front-end=1.0.0
    source main hello.s
    proctype counter returns=data4 kind=1
    section .text code align=16 size=32 fill=0x90
      symbol start 0 global function
      symbol loop 8
      procedure start end=32 type=counter return-register=1
        label loop
        register count data4 17
        lines main 3:0 4:4 6:8 7:12
      end
    section .data align=8 size=8
      symbol total 0 global
      data total data8
      constant limit sdata4 -100

    qdbg build hello.desc -o hello.o            # then: qdbg lines hello.o
)";

const char kExit[] = R"(
EXIT STATUS
    0   success
    1   the description, the object file or the library refused (message on standard error)
    2   bad command line
    3   a query found nothing: an address without a row (addr), or a line without code
        or a source file that is not named (line)
)";

} // namespace

std::string HelpText(const std::string &command) {
    std::string header = "qdbg " + command + "\n\n";
    if (command.empty())
        return std::string(kSynopsis) + kBuild + "\n" + kLines + "\n" + kAddr + "\n" + kLine +
               "\n" + kFiles + kFormat + kExit;
    if (command == "build")
        return header + kBuild + kFormat + kExit;
    if (command == "lines")
        return header + kLines + kExit;
    if (command == "addr")
        return header + kAddr + kExit;
    if (command == "line")
        return header + kLine + kExit;
    if (command == "files")
        return header + kFiles + kExit;
    return std::string();
}

} // namespace qdbg
