#!/usr/bin/env bash
# The demo behind `make demo`: runs the C example, builds the example descriptions with qdbg in
# every object format, and shows what binutils and LLVM read from the objects, then queries the
# line information back with qdbg.
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

# LLVM 14 knows no relocations of machine 50 and says so once per relocation and once per
# object; everything else it prints is shown.
dwarfdump() {
    llvm-dwarfdump-14 "$@" 2>&1 |
        grep -v -e 'failed to compute relocation: Unknown' -e 'No available targets are compatible with triple'
}

# No LLVM tool opens a COFF object of machine 0x0200; a copy with the machine field zeroed is
# read in full (the CodeView content does not depend on the machine).
zeroed_copy() {
    cp "$1" "$2"
    printf '\0\0' | dd of="$2" bs=1 seek=0 count=2 conv=notrunc status=none
}

# Everything the demo shows goes through one filter that writes the project's root as
# <project>, so that the output names no place on this machine.
root=$(cd "$examples/.." && pwd)
show() {
    banner "C example: emit_elf64 makes an ELF64 object through brix and the C API"
    "$build/examples/emit_elf64" "$out/count.o"
    banner "readelf --debug-dump=info,line -W count.o"
    readelf --debug-dump=info,line -W "$out/count.o"

    # qdbg reads source names relative to the working directory (COFF output digests the files).
    cd "$examples"
    for description in hello tour; do
        for format in elf64 elf32 coff; do
            "$qdbg" build "$description.qd" -o "$out/$description-$format.o" --format "$format"
            printf 'qdbg build %s.qd --format %s -> %s-%s.o (%s bytes)\n' "$description" "$format" \
                "$description" "$format" "$(wc -c < "$out/$description-$format.o")"
        done
    done

    banner "llvm-dwarfdump-14 --debug-info --debug-line hello-elf64.o"
    dwarfdump --debug-info --debug-line "$out/hello-elf64.o"

    banner "readelf --debug-dump=info,line -W hello-elf32.o"
    readelf --debug-dump=info,line -W "$out/hello-elf32.o"

    banner "llvm-dwarfdump-14 --verify --all on every ELF object"
    for object in "$out"/*-elf32.o "$out"/*-elf64.o "$out/count.o"; do
        printf '%s: ' "$(basename "$object")"
        dwarfdump --verify --all "$object" | tail -n 1
    done

    banner "llvm-readobj-14 --codeview hello-coff.o (machine field zeroed)"
    zeroed_copy "$out/hello-coff.o" "$out/hello-coff-machine0.o"
    llvm-readobj-14 --codeview "$out/hello-coff-machine0.o"

    banner "qdbg lines tour-elf64.o"
    "$qdbg" lines "$out/tour-elf64.o"
    banner "qdbg lines tour-coff.o"
    "$qdbg" lines "$out/tour-coff.o"
    banner "qdbg files tour-elf64.o"
    "$qdbg" files "$out/tour-elf64.o"
    banner "qdbg addr tour-elf64.o .text 0x13   (inside the instruction at 0x11)"
    "$qdbg" addr "$out/tour-elf64.o" .text 0x13
    banner "qdbg line tour-elf64.o <tour.s as listed above> 10"
    tour_path=$("$qdbg" files "$out/tour-elf64.o" | grep 'tour\.s$')
    "$qdbg" line "$out/tour-elf64.o" "$tour_path" 10
    banner "done: the objects are in $1/demo"
}
show "$@" 2>&1 | sed -e "s|$root|<project>|g"
exit "${PIPESTATUS[0]}"
