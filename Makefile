# Quick start on a fresh Debian 12 machine:
#   make run    install what is missing, build, open the console on the virtual board
#   make test   install what is missing, build, run the whole suite: plain, the kernel tests
#               in a VM, ThreadSanitizer, ASan+UBSan, the unit tests and part of the board tests
#               built for 32-bit ARM under qemu-user, the device build check, and a short
#               libFuzzer run of every harness
PRESET ?= default
JOBS ?= 2
# Tests at once: board tests mostly wait on the models, so more than cores.
TEST_JOBS ?= 4
# ThreadSanitizer's board tests also mostly wait on the models (their
# summed test time is about 1.3 times the plain suite's), so as many at once.
TSAN_JOBS ?= 4

.PHONY: all deps build run test suites test-default test-asan test-arm test-arm-full test-tsan test-kernel device-check bench soak fuzz fuzz-build fuzz-smoke fuzz-coverage clean \
	built-default built-asan built-tsan built-arm built-fuzz

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET)

run: build
	scripts/run-board build/$(PRESET)

# `make test` runs six suites. The builds run one after the other, each
# on every core; a suite starts as soon as its build is done and runs
# while the next build compiles (the suite is proven to hold on a loaded
# machine). The longest suite, ThreadSanitizer's, is built second so that
# it overlaps the most compiling, and runs alone among the suites. The
# ARM suite (a few minutes: unit tests, fuzz replays and part of the board
# tests) and then the libFuzzer run run beside the ASan one; the device
# build check runs once the default build is done. Each suite's output is
# printed when it ends.
#
# A failed suite does not stop the suites after it (a failed build stops
# those that need it, and -k lets the others go on), and the run ends with
# one line per stage and the failing tests of the failed ones
# (scripts/test-stage; the stages' whole output is in build/stages/).
STAGES_DIR = build/stages
test: deps
	@rm -rf $(STAGES_DIR)
	@$(MAKE) --no-print-directory -j2 -k --output-sync=target suites PIPELINE=1; rc=$$?; \
	  scripts/test-stage --summary $(STAGES_DIR) || rc=1; exit $$rc

suites: test-default test-kernel test-tsan test-asan test-arm fuzz-smoke device-check

# The order of the builds and of the suites, within `make test` only;
# there `deps` has run once before.
after = $(if $(PIPELINE),$(1))
DEPS = $(if $(PIPELINE),,deps)
# Within `make test`, each command of a stage goes through scripts/test-stage;
# a suite's result is left to the summary, so the suites after it run.
STAGE = $(if $(PIPELINE),scripts/test-stage $(STAGES_DIR) $@)
SUITE = $(if $(PIPELINE),scripts/test-stage --suite $(STAGES_DIR) $@)

built-default: $(DEPS)
	$(STAGE) cmake --preset default
	$(STAGE) cmake --build --preset default

built-tsan: $(DEPS) $(call after,built-default)
	$(STAGE) cmake --preset tsan
	$(STAGE) cmake --build --preset tsan

built-asan: $(DEPS) $(call after,built-tsan)
	$(STAGE) cmake --preset asan
	$(STAGE) cmake --build --preset asan

built-arm: $(DEPS) $(call after,built-asan)
	$(STAGE) cmake --preset arm
	$(STAGE) cmake --build --preset arm

built-fuzz: $(DEPS) $(call after,built-arm)
	$(STAGE) cmake --preset fuzz
	$(STAGE) cmake --build --preset fuzz

test-default: built-default
	$(SUITE) ctest --preset default -j$(TEST_JOBS)

# ThreadSanitizer: findings are fixed, or suppressed narrowly in
# tests/tsan.supp with the third-party frame and the reason. The fuzz
# replays are left out: they feed parsers on one thread, which ASan and
# UBSan cover.
test-tsan: built-tsan $(call after,test-default)
	$(SUITE) ctest --preset tsan -j$(TSAN_JOBS) -E '^fuzz\.'

# The module against the real Linux kernel: the kernel tests (ctest label
# "kernel") of build/default run inside the VM of scripts/kernel-vm, one
# at a time, against the kernel board. A VM that cannot start fails the
# stage with its reason.
KERNEL_VM_TIMEOUT ?= 1500
test-kernel: built-default $(call after,test-default)
	$(SUITE) scripts/kernel-vm --timeout $(KERNEL_VM_TIMEOUT) --writable build/default -- ctest --preset kernel

test-asan: built-asan $(call after,test-tsan)
	$(SUITE) ctest --preset asan -j$(TEST_JOBS)

# The device's ABI: the module, the platform pieces, the virtual board and
# the tests cross-built for 32-bit ARM (armhf) and run under qemu-user, the
# board with umockdev's armhf libraries (docs/arm-board.md). `make test`
# runs the unit tests, the fuzz replays and the part of the board tests
# that tests/arm-board-part.txt lists (every board test file, every ioctl,
# usbfs and serial-settings interface); test-arm-full runs every board and
# console test too. Board tests mostly wait on the models, so as many at
# once as in the other suites.
test-arm: built-arm $(call after,test-tsan)
	$(SUITE) ctest --preset arm -j$(TEST_JOBS) -R "$$(scripts/arm-board-part regex build/arm)"

test-arm-full: built-arm
	ctest --preset arm -j$(TEST_JOBS)

# The device build: Android.bp's module built for 32-bit ARM with the
# sources, defines and warnings Android.bp sets (clang, as on the device),
# linked with only the libraries it names; and the same source files as
# the host build compiles into the module (scripts/check-android-bp).
device-check: $(DEPS) $(call after,built-default)
	$(if $(PIPELINE),,cmake --preset default > /dev/null)
	$(SUITE) scripts/check-android-bp --host-build build/default --device-build build/device

# Fuzzing with libFuzzer (clang; preset "fuzz", build/fuzz): every harness
# of tests/fuzz for FUZZ_SECONDS each, one after the other, from the
# checked-in starters and a working corpus that grows between runs; prints
# executions, coverage and crashes per harness (docs/fuzzing.md).
FUZZ_SECONDS ?= 180
fuzz-build: built-fuzz

fuzz: fuzz-build
	nice -n 10 scripts/run-fuzz build/fuzz $(FUZZ_SECONDS)

# The short run of `make test`: each harness 20 s from its starters alone.
fuzz-smoke: built-fuzz $(call after,test-arm)
	$(SUITE) scripts/run-fuzz build/fuzz 20 --fresh

# What the fuzz corpora reach (clang; preset "coverage", build/coverage):
# the harnesses' replay programs, built with clang's source-based coverage
# and no sanitizers, run their corpus (the checked-in starters, kept
# reproducers, and the working corpus `make fuzz` grew, when there is one);
# prints, for every function tests/fuzz/reach.tsv lists, the share of its
# lines reached, also in build/coverage/fuzz-coverage.md (docs/fuzzing.md).
fuzz-coverage: deps
	cmake --preset coverage
	cmake --build --preset coverage
	scripts/fuzz-coverage build/coverage

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
