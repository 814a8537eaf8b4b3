#!/usr/bin/env bash
# The demo behind `make demo`. An x86-64 program described through qdbg (its code bytes are in the
# description: no assembler runs) is linked with ld and debugged with gdb; an AArch64 build of the
# same program, linked by ld.lld, is asked about by llvm-symbolizer; an x86-64 COFF build is
# linked by lld-link into a program whose PDB has every line. Then the C example and the example descriptions
# for the default target, read by binutils and queried back with qdbg.
#
#     examples/demo.sh BUILD_DIR
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
examples=$(cd "$(dirname "$0")" && pwd)
qdbg="$build/tools/qdbg"
out="$build/demo"
mkdir -p "$out"

banner() { printf '\n==== %s\n' "$*"; }

# The address of a symbol in a linked program, as nm lists it.
address_of() { nm "$1" | awk -v name="$2" '$3 == name { print "0x" $1 }'; }
plus() { printf '0x%x' $(($1 + $2)); }

# Everything the demo shows goes through one filter that writes the project's root as
# <project>, so that the output names no place on this machine. Tools run in the output
# directory on relative names for the same reason.
root=$(cd "$examples/.." && pwd)
show() {
    # qdbg reads source names relative to the working directory (COFF output digests the files).
    cd "$examples"
    "$qdbg" build square-x86-64.qd -o "$out/square-x86-64.o" --target x86-64
    "$qdbg" build square-aarch64.qd -o "$out/square-aarch64.o" --target aarch64
    "$qdbg" build square-x86-64.qd -o "$out/square-x86-64.obj" --target x86-64 --format coff
    cd "$out"

    banner "x86-64: qdbg build square-x86-64.qd -o square-x86-64.o --target x86-64"
    readelf -h square-x86-64.o | grep -E 'Class|Machine'
    banner "llvm-dwarfdump-14 --verify --all square-x86-64.o"
    llvm-dwarfdump-14 --verify --all square-x86-64.o
    banner "ld square-x86-64.o -o square-x86-64 && ./square-x86-64"
    ld square-x86-64.o -o square-x86-64
    status=0
    ./square-x86-64 || status=$?
    echo "exit status $status"
    banner "gdb -batch -ex 'break square-x86-64.s:16' -ex run -ex bt -ex finish -ex 'ptype total'"
    gdb -nx -batch -ex 'break square-x86-64.s:16' -ex run -ex bt -ex finish -ex 'ptype total' \
        ./square-x86-64 2>&1

    banner "aarch64: qdbg build square-aarch64.qd --target aarch64; ld.lld -m aarch64linux"
    ld.lld -m aarch64linux square-aarch64.o -o square-aarch64
    llvm-dwarfdump-14 --verify --all square-aarch64.o | tail -n 1
    start=$(address_of square-aarch64 _start)
    square=$(address_of square-aarch64 square)
    banner "llvm-symbolizer-14 --obj=square-aarch64 _start+4 square square+4"
    llvm-symbolizer-14 --obj=square-aarch64 "$(plus "$start" 4)" "$square" "$(plus "$square" 4)"

    banner "x86-64 COFF: qdbg build --format coff --target x86-64; lld-link /debug /machine:x64"
    lld-link /debug /subsystem:console /nodefaultlib /entry:_start /machine:x64 \
        /out:square-x86-64.exe square-x86-64.obj
    banner "llvm-pdbutil-14 dump -l square-x86-64.pdb"
    llvm-pdbutil-14 dump -l square-x86-64.pdb
    base=$(llvm-readobj-14 --file-headers square-x86-64.exe | awk '/ImageBase:/ { print $2 }')
    text=$(llvm-readobj-14 --sections square-x86-64.exe |
        awk '/Name: .text/ { found = 1 } found && /VirtualAddress:/ { print $2; exit }')
    code=$(plus "$base" "$text")
    banner "llvm-symbolizer-14 --obj=square-x86-64.exe (through the PDB) _start+5 square+6"
    llvm-symbolizer-14 --obj=square-x86-64.exe "$(plus "$code" 0x5)" "$(plus "$code" 0x19)"

    banner "The default target. C example: emit_elf64 makes an ELF64 object through brix and the C API"
    "$build/examples/emit_elf64" count.o
    banner "readelf --debug-dump=info,line -W count.o"
    readelf --debug-dump=info,line -W count.o

    cd "$examples"
    for description in hello tour; do
        for format in elf64 elf32 coff; do
            "$qdbg" build "$description.qd" -o "$out/$description-$format.o" --format "$format"
            printf 'qdbg build %s.qd --format %s -> %s-%s.o (%s bytes)\n' "$description" "$format" \
                "$description" "$format" "$(wc -c < "$out/$description-$format.o")"
        done
    done
    cd "$out"
    banner "readelf --debug-dump=info,line -W hello-elf32.o"
    readelf --debug-dump=info,line -W hello-elf32.o

    banner "qdbg lines tour-elf64.o"
    "$qdbg" lines tour-elf64.o
    banner "qdbg lines tour-coff.o"
    "$qdbg" lines tour-coff.o
    banner "qdbg files tour-elf64.o"
    "$qdbg" files tour-elf64.o
    banner "qdbg addr -f tour-elf64.o 0x13 0x15   (offsets in .text: inside the instructions at 0x11 and 0x14)"
    "$qdbg" addr -f tour-elf64.o 0x13 0x15
    banner "qdbg line tour-elf64.o tour.s 10"
    "$qdbg" line tour-elf64.o tour.s 10
    banner "done: the objects and programs are in $1/demo"
}
show "$@" 2>&1 | sed -e "s|$root|<project>|g"
exit "${PIPESTATUS[0]}"
