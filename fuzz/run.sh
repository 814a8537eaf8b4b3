#!/usr/bin/env bash
# Builds the two fuzzers with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) from
# the sources: the retrieval fuzzer (object files and line sections read back) and the API fuzzer
# (programs of production calls). Makes their seed corpora and fuzzes each for half the time.
#   fuzz/run.sh SECONDS      build, seed, fuzz; exits non-zero when an input crashes
#   fuzz/run.sh --build-only build the fuzzer and the seeds, do not run
# FUZZ_BUILD_DIR overrides where everything goes (default: build-fuzz in the source tree).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
OUT="${FUZZ_BUILD_DIR:-$ROOT/build-fuzz}"
CXX="${FUZZ_CXX:-clang++-14}"
MC="${FUZZ_MC:-llvm-mc-14}"
CC_WIN="${FUZZ_CLANG:-clang-14}"
SECONDS_TO_RUN="${1:-60}"

mkdir -p "$OUT/obj" "$OUT/seeds" "$OUT/corpus"
FLAGS=(-std=c++17 -g -O1 -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
       -I"$ROOT/include" -I"$ROOT/src" -I"$ROOT/brix")

# Compile every library source once (again only when it is newer than its object), two at a time.
compile() {
    local src="$1" obj
    obj="$OUT/obj/$(echo "${src#"$ROOT"/}" | tr '/' '_').o"
    if [[ ! -f "$obj" || "$src" -nt "$obj" ]] || find "$ROOT/src" "$ROOT/brix" "$ROOT/include" \
        -name '*.h' -newer "$obj" | grep -q .; then
        "$CXX" "${FLAGS[@]}" -c "$src" -o "$obj"
    fi
    echo "$obj"
}
export -f compile
export OUT CXX ROOT
export FLAGS_STR="${FLAGS[*]}"
SOURCES=$(find "$ROOT/src" "$ROOT/brix" -name '*.cpp' | sort)
OBJECTS=$(printf '%s\n' $SOURCES | xargs -P 2 -I{} bash -c 'FLAGS=($FLAGS_STR); compile "$@"' _ {})
for target in Retrieve Api; do
    harness=$(compile "$ROOT/fuzz/Fuzz$target.cpp")
    "$CXX" -fsanitize=fuzzer,address,undefined $OBJECTS "$harness" -lz \
        -o "$OUT/fuzz_$(echo "$target" | tr '[:upper:]' '[:lower:]')"
done

# Seeds: valid objects made now by other tools, each behind the byte that selects "object";
# and raw line sections behind the byte that selects "line section".
SEEDS="$OUT/seeds"
WORK="$(mktemp -d)"
trap 'rm -rf "$WORK"' EXIT
{
    echo '.file 1 "a.s"'
    echo '.file 2 "/inc" "b.inc"'
    for section in .text .text.two; do
        echo ".section $section,\"ax\",@progbits"
        echo "  nop"
        for i in $(seq 1 40); do
            echo ".loc $(( (i % 2) + 1 )) $(( i * 3 )) $(( i % 4 ))"
            echo "  movl \$$i, %eax"
        done
    done
    echo '.section .debug_abbrev,"",@progbits'
    echo '.byte 1, 0x11, 1, 0x03, 0x08, 0x1b, 0x08, 0x25, 0x08, 0x10, 0x06, 0, 0, 0'
    echo '.section .debug_info,"",@progbits'
    echo '.long .Lend - .Lstart'
    echo '.Lstart: .short 2'
    echo '.long 0'
    echo '.byte 8, 1'
    echo '.asciz "a.s"'
    echo '.asciz "/w"'
    echo '.asciz "seed"'
    echo '.long 0'
    echo '.byte 0'
    echo '.Lend:'
} > "$WORK/seed.s"
"$MC" -filetype=obj -triple x86_64-linux-gnu -dwarf-version=2 "$WORK/seed.s" -o "$WORK/elf64.o"
"$MC" -filetype=obj -triple i686-linux-gnu -dwarf-version=2 "$WORK/seed.s" -o "$WORK/elf32.o"
printf 'int f(int x) {\n  int y = x * 3;\n  return y + 1;\n}\nint g(void) { return f(2); }\n' > "$WORK/c.c"
"$CC_WIN" --target=x86_64-pc-windows-msvc -gcodeview -c "$WORK/c.c" -o "$WORK/coff.obj"
# Today's producers: version 5 with its string sections, compressed sections (zlib, and zstd,
# which is refused), and version 5 line headers damaged where they differ from earlier ones
# (address size, segment selector size, version, the directory format's form).
"$CC_WIN" --target=x86_64-linux-gnu -g -gdwarf-5 -c "$WORK/c.c" -o "$WORK/v5.o"
"$CC_WIN" --target=x86_64-linux-gnu -g -gdwarf-4 -gz -c "$WORK/c.c" -o "$WORK/zlib.o"
objcopy --compress-debug-sections=zstd "$WORK/v5.o" "$WORK/zstd.o"
llvm-objcopy-14 --dump-section .debug_line="$WORK/line5.bin" "$WORK/v5.o"
damage() { # file offset byte
    cp "$WORK/line5.bin" "$WORK/$1.bin"
    printf "$3" | dd of="$WORK/$1.bin" bs=1 seek="$2" conv=notrunc status=none
    llvm-objcopy-14 --update-section .debug_line="$WORK/$1.bin" "$WORK/v5.o" "$WORK/$1.o"
}
damage v5-address-size 6 '\x00'
damage v5-segment-size 7 '\x04'
damage v5-version 4 '\x06'
damage v5-directory-form 32 '\x7f'
# A function split into a hot part in .text and a cold one in .text.unlikely, which gcc describes
# by a range list: .debug_ranges at version 4, .debug_rnglists at version 5.
printf '__attribute__((cold, noinline)) void report(int v) { __asm__ volatile("" :: "r"(v)); }\n'\
'int total(const int *v, int n) {\n  int s = 0;\n  for (int i = 0; i < n; ++i) {\n'\
'    if (v[i] < 0) { report(v[i]); s -= v[i] * 7; continue; }\n    s += v[i] * v[i];\n  }\n'\
'  return s;\n}\n' > "$WORK/split.c"
gcc -g -O2 -gdwarf-4 -c "$WORK/split.c" -o "$WORK/split4.o"
gcc -g -O2 -gdwarf-5 -c "$WORK/split.c" -o "$WORK/split5.o"
for object in elf64.o elf32.o coff.obj v5.o zlib.o zstd.o v5-address-size.o v5-segment-size.o \
              v5-version.o v5-directory-form.o split4.o split5.o; do
    { printf '\x00'; cat "$WORK/$object"; } > "$SEEDS/object-$object"
done
llvm-objcopy-14 --dump-section .debug_line="$WORK/line.bin" "$WORK/elf64.o"
{ printf '\x01'; cat "$WORK/line.bin"; } > "$SEEDS/line-elf64"
{ printf '\x01'; cat "$WORK/line5.bin"; } > "$SEEDS/line-v5"

# API seeds: one module each in ELF32, ELF64 and COFF (a format byte, section sizes, symbol
# bindings; then: open the module, two sources, .text, a procedure with its scope, two lines, a
# constant, emit). The byte layout is the one FuzzApi.cpp reads.
mkdir -p "$OUT/seeds-api" "$OUT/corpus-api"
PROGRAM='\x00\x01\x00\x00\x00\x01\x00\x09\x00\x09\x01\x01\x00'
PROGRAM+='\x02\x02\x07\x00\x01\x02\x03\x01\x01\x00\x0a\x01\x20\x00\x01\x01'
PROGRAM+='\x0a\x00\x02\x00\x00\x04\x01\x0a\x01\x05\x00\x00\x08\x01'
PROGRAM+='\x05\x03\x03\x05\x00\x00\x03\x06\x00\x04\x2a\x00\x00\x00\x00\x00\x00\x00'
PROGRAM+='\x00\x00\x00\x00\x00\x00\x00\x00\x00\x01\x0c'
printf "\x00\x00\x10\x01\x01\x00\x00\x01$PROGRAM" > "$OUT/seeds-api/elf32"
printf "\x01\x00\x10\x01\x01\x00\x00\x01$PROGRAM" > "$OUT/seeds-api/elf64"
printf "\x02\x00\x10\x01\x01\x01\x00\x00\x01$PROGRAM" > "$OUT/seeds-api/coff"
# A typed data label refused at its next property, then a typed register symbol, then emit.
printf '\x01\x00\x10\x01\x01\x00\x00\x01\x00\x01\x00\x00\x00\x01\x00\x01\x00\x05\x02\x02\x03\x06\x00\x04' \
    > "$OUT/seeds-api/failed-create"
printf '\x00%.0s' $(seq 17) >> "$OUT/seeds-api/failed-create"
printf '\x01\x05\x04\x03\x05\x00\x00\x03\x08\x00\x06\x05\x00\x00\x01\x0c' >> "$OUT/seeds-api/failed-create"

if [[ "${1:-}" == "--build-only" ]]; then
    exit 0
fi
# libFuzzer reports every input that finds something new; that goes to a log per fuzzer, and the
# terminal gets each one's closing summary or, when an input fails, the report (libFuzzer exits
# non-zero and keeps the crashing input in $OUT).
cd "$OUT"
fuzz() {
    local name="$1" seconds="$2" corpus="$3" seeds="$4"
    local log="$OUT/$name.log" status=0
    local shown="${log#"$ROOT"/}" # named from the project root when it lies inside it
    "./$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -print_funcs=0 "$corpus" "$seeds" >"$log" 2>&1 || status=$?
    if [[ $status -eq 0 ]]; then
        local runs added
        runs=$(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) second.*/\1 inputs in \2 s/p' "$log")
        added=$(sed -n 's/^stat::new_units_added: *//p' "$log")
        echo "$name: no failure in ${runs:-?}, ${added:-0} new corpus entries (log: $shown)"
    else
        # The report starts at the sanitizer's or libFuzzer's first word on the failure.
        local first
        first=$(grep -n -m1 -E '^==[0-9]+==|^ERROR: libFuzzer|runtime error:|^SUMMARY:' "$log" |
                cut -d: -f1 || true)
        tail -n +"${first:-1}" "$log" | head -n 80
        echo "$name: FAILED (exit $status); the input is kept in ${OUT#"$ROOT"/}; log: $shown"
    fi
    return $status
}
HALF=$(( (SECONDS_TO_RUN + 1) / 2 ))
status=0
fuzz fuzz_retrieve "$HALF" "$OUT/corpus" "$SEEDS" || status=1
fuzz fuzz_api "$(( SECONDS_TO_RUN - HALF ))" "$OUT/corpus-api" "$OUT/seeds-api" || status=1
exit $status
