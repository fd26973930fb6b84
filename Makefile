# The few commands a person types; CMake does the work. Where set-up is needed first, ./run WHAT calls this.

JOBS ?= $(shell nproc)
CMAKE_BUILD = cmake --build
FAULTS = /usr/bin/python3 -B tests/faults
# Many of the tests wait most of the time, for the daemon's timer of 5 s above all.
CTEST = ctest --output-on-failure --no-tests=error --parallel $(shell expr 2 '*' $(JOBS))

.PHONY: all arm build build-asan build-clang demo lab test bench fuzz fuzz-corpus fuzz-coverage soak faults fault-figures check
.PHONY: mutation package coverage memcheck allocations analyse format clean

all: build

build: build/build.ninja
	@$(CMAKE_BUILD) build

build-asan: build/asan/build.ninja
	@$(CMAKE_BUILD) build/asan

build-clang: build/clang/build.ninja
	@$(CMAKE_BUILD) build/clang

build/build.ninja:
	@cmake --preset release --log-level=WARNING >/dev/null

build/%/build.ninja:
	@cmake --preset $* --log-level=WARNING >/dev/null

# The main job on real input, told line by line.
demo: build
	@lab/demo

# The lab, kept running, with a prompt.
lab: build
	@lab/lab

# Every test: under AddressSanitizer and UndefinedBehaviorSanitizer, then as released.
test: build build-asan
	@$(CTEST) --test-dir build/asan --label-exclude lint
	@$(CTEST) --test-dir build

# Every door under libFuzzer for SECONDS each (60), or one: DOOR=static_route. What breaks something fails the command.
fuzz: build/fuzz/build.ninja
	@$(CMAKE_BUILD) build/fuzz --target fuzz_doors
	@tests/fuzz/fuzz.py --seconds $(or $(SECONDS),60) $(if $(DOOR),--door $(DOOR)) $(if $(UNTIL),--until $(UNTIL))

# Inputs that reach something new go from what the runs learnt to tests/fuzz/corpus, which every test run replays.
fuzz-corpus: build/fuzz/build.ninja
	@$(CMAKE_BUILD) build/fuzz --target fuzz_doors
	@tests/fuzz/merge.py

# What the doors reach of src/ with the inputs in tests/fuzz/corpus.
fuzz-coverage: build/fuzz-coverage/build.ninja
	@$(CMAKE_BUILD) build/fuzz-coverage --target fuzz_doors
	@tests/fuzz/coverage.py

# The daemon for 32-bit ARM: built with libraries of its own (in ARM_SYSROOT), its sources held against musl's headers, the
# unit tests and the main job under qemu, and what it takes of memory.
ARM_SYSROOT = build/arm-sysroot
# make leaves the signals 32 and 33, the C library's own, ignored in what it starts. A program under qemu cannot undo that for
# its children, as the daemon does, since qemu has other numbers for these: so it is undone before (13 is rt_sigaction).
DEFAULT_SIGNALS = perl -e '$$default = "\0" x 32; syscall(13, $$_, $$default, 0, 8) for 32, 33; exec @ARGV or exit 127'
arm: build
	@packaging/arm/sysroot $(ARM_SYSROOT)
	@cmake --preset arm --log-level=WARNING >/dev/null
	@$(CMAKE_BUILD) build/arm
	@packaging/arm/musl-check $(ARM_SYSROOT) build/arm
	@packaging/arm/sizes $(ARM_SYSROOT) build/arm
	@/usr/bin/python3 -B packaging/arm/stack.py build/arm
	@$(DEFAULT_SIGNALS) $(CTEST) --test-dir build/arm --label-regex unit
	@packaging/arm/memory $(ARM_SYSROOT) build/arm build
	@packaging/arm/lab $(ARM_SYSROOT) build/arm build lab/demo

# The access point for HOURS (fractions too) of changes and faults, compared every minute with what the store says.
HOURS ?= 1
soak: build
	@tests/reliability/soak --hours $(HOURS) $(if $(SECONDS),--seconds $(SECONDS)) \
		$(if $(filter command environment,$(origin SEED)),--seed $(SEED))

# The daemon beside its floors and peers: one table, and bench/plot.svg. Five minutes on a machine that does nothing else.
bench: build
	@bench/bench

# What a change has to pass besides the tests: formatting, clang's warnings, static analysis.
check: build build-clang
	@$(CTEST) --test-dir build --label-regex lint

# Changes src/ a little, many times, and expects a unit test to fail each time: COUNT= SEED= FILES='timer.cpp oap/*'.
# What survived is tried again with REPLAY=survivors.
COUNT ?= 600
SEED ?= 1
mutation:
	@/usr/bin/python3 -B tests/mutation/mutate.py --count $(COUNT) --seed $(SEED) --files "$(FILES)" $(if $(REPLAY),--replay $(REPLAY)) \
		$(if $(SANITIZED),--sanitized)

# Lines and branches of src/ that the unit tests run; fails below 95 % and 85 %.
coverage: build/coverage/build.ninja
	@$(CMAKE_BUILD) build/coverage
	@find build/coverage -name '*.gcda' -delete
	@SANDBOX_WRITABLE=$(CURDIR)/build/coverage $(CTEST) --test-dir build/coverage --tests-regex '^unit\.'
	@gcovr --root . --filter src/ --txt build/coverage/lines.txt build/coverage
	@gcovr --root . --filter src/ --branches --txt build/coverage/branches.txt --fail-under-line 95 \
		--fail-under-branch 85 --print-summary build/coverage
	@grep -v '100%' build/coverage/lines.txt

# The daemon's unit tests under valgrind's memcheck: about ten minutes.
memcheck: build/memcheck/build.ninja
	@$(CMAKE_BUILD) build/memcheck
	@$(CTEST) --test-dir build/memcheck --tests-regex '^unit\.'

# Each allocation of the daemon's made to fail once in each unit test, in at most LIMIT runs of a test.
LIMIT ?= 100000
allocations: build-asan
	@for program in build/asan/bin/unit_*; do FAIL_EACH_ALLOCATION=$(LIMIT) lab/sandbox $$program || exit 1; done

# g++'s -fanalyzer.
analyse: build
	@/usr/bin/python3 -B tests/lint/analyse.py build .

# Debian packages, in build/package.
package:
	@packaging/package

# What fails x what the daemon is doing, PARALLEL sandboxes at a time; BINARIES=build/asan/bin for sanitized programs.
faults: build
	@$(FAULTS)/matrix.py

# A thousand of each of the faults that are most common, with writes going on.
fault-figures: build
	@$(FAULTS)/figures.py

format:
	@git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf build
