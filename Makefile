# The few commands a person types; CMake does the work. Where set-up is needed first, ./run WHAT calls this.

JOBS ?= $(shell nproc)
CMAKE_BUILD = cmake --build
CTEST = ctest --output-on-failure --no-tests=error --parallel $(JOBS)

.PHONY: all build build-asan build-clang demo lab test bench check format clean

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

# Every test: as released, then under AddressSanitizer and UndefinedBehaviorSanitizer.
test: build build-asan
	@$(CTEST) --test-dir build/asan --label-exclude lint
	@$(CTEST) --test-dir build

bench: build
	@bench/bench

# What a change has to pass besides the tests: formatting, clang's warnings, static analysis.
check: build build-clang
	@$(CTEST) --test-dir build --label-regex lint

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	@rm -rf build
