# Two entry points: `make demo` (the main job) and `make check` (every test, twice: a normal
# build and an AddressSanitizer + UndefinedBehaviorSanitizer build; the fuzzers run first
# for a bounded time).
BUILD      ?= build
ASAN_BUILD ?= build-asan
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc)
CMAKE_FLAGS ?=

SHELL := /bin/bash
.SHELLFLAGS := -o pipefail -c

.PHONY: all demo check test test-asan fuzz configure install clean

# Quiet by default: configuration says only what goes wrong, ninja prints compiler output but no
# progress lines, and ctest's lines for tests that pass are left out, so that a failure, the list
# of failed tests and the summary close the run (ctest keeps everything in
# Testing/Temporary/LastTest.log). VERBOSE=1 shows it all.
ifeq ($(VERBOSE),)
Q               = @
CONFIGURE_QUIET = --log-level=WARNING | { grep -v -E '^-- (Configuring|Generating) done|^-- Build files have been written' || true; }
NINJA_QUIET     = -- --quiet
CTEST_QUIET     = | grep -v -E '^Test project |^ +Start +[0-9]+: |^ *[0-9]+/[0-9]+ Test +\#[0-9]+: .* Passed +[0-9.]+ sec$$'
endif

all: configure
	$(Q)cmake --build $(BUILD) -j $(JOBS) $(NINJA_QUIET)

configure:
	$(Q)cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS) $(CONFIGURE_QUIET)

demo: all
	./examples/demo.sh $(BUILD)

test: all
	@echo "== tests of the normal build ($(BUILD))"
	$(Q)cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_QUIET)

test-asan:
	@echo "== the AddressSanitizer + UndefinedBehaviorSanitizer build and its tests ($(ASAN_BUILD))"
	$(Q)cmake -S . -B $(ASAN_BUILD) -G Ninja -DQUILLET_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug \
	  $(CMAKE_FLAGS) $(CONFIGURE_QUIET)
	$(Q)cmake --build $(ASAN_BUILD) -j $(JOBS) $(NINJA_QUIET)
	$(Q)cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j $(JOBS) $(CTEST_QUIET)

# The fuzzers, built with clang from the sources: one over the object readers and the line
# decoder, one over programs of production calls; each runs for half of FUZZ_SECONDS.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
fuzz:
	@echo "== the fuzzers, $(FUZZ_SECONDS) s in all"
	$(Q)FUZZ_BUILD_DIR=$(abspath $(FUZZ_BUILD)) ./fuzz/run.sh $(FUZZ_SECONDS)

check: fuzz test test-asan
	@echo "make check: passed (the fuzzers, the normal build's tests, the sanitizer build's tests)"

install: all
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)

# The benchmarks, in a Release build of their own.
BENCH_BUILD ?= build-bench
.PHONY: bench
bench:
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DQUILLET_BENCH=ON -DQUILLET_TESTS=OFF -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	status=0; \
	for program in $(BENCH_BUILD)/bench/bench_* $(BENCH_BUILD)/bench/retrieval/bench_*; do \
	  if [ -f "$$program" ] && [ -x "$$program" ]; then "$$program" || status=1; fi; \
	done; \
	exit $$status
