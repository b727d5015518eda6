# Quick start on a fresh Debian 12 machine:
#   make run    install what is missing, build, open the console on the virtual board
#   make test   install what is missing, build, run the whole suite (also under ASan+UBSan,
#               and the unit tests built for 32-bit ARM under qemu-user)
PRESET ?= default
JOBS ?= 2
# Tests at once: board tests mostly wait on the models, so more than cores.
TEST_JOBS ?= 4

.PHONY: all deps build run test test-default test-asan test-arm test-tsan bench soak fuzz fuzz-build fuzz-smoke clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET)

run: build
	scripts/run-board build/$(PRESET)

test: deps
	$(MAKE) --no-print-directory test-default
	$(MAKE) --no-print-directory test-asan
	$(MAKE) --no-print-directory test-arm

test-default:
	cmake --preset default
	cmake --build --preset default
	ctest --preset default -j$(TEST_JOBS)

test-asan:
	cmake --preset asan
	cmake --build --preset asan
	ctest --preset asan -j$(TEST_JOBS)

# The device's ABI: module, platform pieces and unit tests cross-built for
# 32-bit ARM (armhf) and run under qemu-user; no board tests (no umockdev
# there).
test-arm: deps
	cmake --preset arm
	cmake --build --preset arm
	ctest --preset arm -j$(JOBS)

# ThreadSanitizer run: not part of `make test` (umockdev's preload and
# GLib's worker threads make it slow); findings are fixed or suppressed
# narrowly in tests/tsan.supp with the reason.
test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan -j$(JOBS)

# Fuzzing with libFuzzer (clang; preset "fuzz", build/fuzz): every harness
# of tests/fuzz for FUZZ_SECONDS each, one after the other, from the
# checked-in starters and a working corpus that grows between runs; prints
# executions, coverage and crashes per harness (docs/fuzzing.md).
FUZZ_SECONDS ?= 180
fuzz-build: deps
	cmake --preset fuzz
	cmake --build --preset fuzz

fuzz: fuzz-build
	nice -n 10 scripts/run-fuzz build/fuzz $(FUZZ_SECONDS)

# The short run for the suite: each harness 20 s from its starters alone.
fuzz-smoke: fuzz-build
	scripts/run-fuzz build/fuzz 20 --fresh

# Performance figures (speed lives here, never in tests): the release
# build, then one table of every figure next to the bound its timing
# contract allows, and a timeline (build/release/bench-timeline.json).
# See docs/performance.md.
bench: deps
	cmake --preset release
	cmake --build --preset release
	scripts/run-bench build/release

# Soak: 8 service threads x 10 000 mixed calls on the virtual board with
# every link live, checked on the board side (no DSP command lost, torn or
# reordered, reply waits within their bounds, descriptors and memory flat);
# about 7 minutes, not part of `make test`. SOAK_ARGS="--calls 300" for a
# short run.
SOAK_ARGS ?=
soak: deps
	cmake --preset default
	cmake --build --preset default --target soak -j$(JOBS)
	scripts/run-soak build/default $(SOAK_ARGS)

clean:
	rm -rf build
