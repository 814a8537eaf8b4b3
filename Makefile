# Two entry points: `make demo` (the main job) and `make check` (every test, twice: a normal
# build and an AddressSanitizer + UndefinedBehaviorSanitizer build; the fuzzers run first
# for a bounded time).
BUILD      ?= build
ASAN_BUILD ?= build-asan
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all demo check test test-asan fuzz configure install clean

all: configure
	cmake --build $(BUILD) -j $(JOBS)

configure:
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

demo: all
	./examples/demo.sh $(BUILD)

test: all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan:
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DQUILLET_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j $(JOBS)

# The fuzzers, built with clang from the sources: one over the object readers and the line
# decoder, one over programs of production calls; each runs for half of FUZZ_SECONDS.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
fuzz:
	FUZZ_BUILD_DIR=$(abspath $(FUZZ_BUILD)) ./fuzz/run.sh $(FUZZ_SECONDS)

check: fuzz test test-asan

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
