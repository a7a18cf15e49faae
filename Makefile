# Tarnwick UPnP SDK: the project's commands. See README.md.
#   make test   configure, build and run every test inside a private loopback-only namespace
#   make run    the main job (see README.md)
#   make check  the format check, make test, then ASan+UBSan, TSan, the 32-bit ARM build under
#               qemu, and short fuzz runs
#   make fuzz-long [FUZZ_SECONDS=600] [FUZZ_TARGETS="fuzz_ssdp ..."]
#               each fuzz target for longer, then what it found merged into fuzz/corpus/
SHELL := /bin/sh
JOBS ?= 2
BUILD_TYPE ?= RelWithDebInfo
WERROR ?= ON
NETNS := sh scripts/netns-run.sh
CTEST_ARGS ?= --output-on-failure -j$(JOBS)
FUZZ_SECONDS ?= 20
# fuzz-long runs 600 s per target unless FUZZ_SECONDS is given on the command line or in the
# environment; FUZZ_TARGETS (empty: all) names the programs it runs.
FUZZ_LONG_SECONDS := $(if $(filter file,$(origin FUZZ_SECONDS)),600,$(FUZZ_SECONDS))
FUZZ_TARGETS ?=

.PHONY: all deps build test run check asan tsan arm arm-release stress fuzz fuzz-build fuzz-long \
  bench format format-check clean

all: build

deps:
	@sh scripts/install-deps.sh

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DTW_WERROR=$(WERROR)
	cmake --build build -j$(JOBS)

test: build
	$(NETNS) ctest --test-dir build $(CTEST_ARGS)

run: build
	@sh scripts/run-main.sh

asan:
	@sh scripts/install-deps.sh --check
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTW_WERROR=$(WERROR) -DTW_BUILD_EXAMPLES=OFF \
	  -DCMAKE_C_FLAGS="-O1 -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all" \
	  -DCMAKE_CXX_FLAGS="-O1 -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all" \
	  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined \
	  -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined
	cmake --build build-asan -j$(JOBS)
	$(NETNS) ctest --test-dir build-asan $(CTEST_ARGS)

tsan:
	@sh scripts/install-deps.sh --check
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DTW_WERROR=$(WERROR) -DTW_BUILD_EXAMPLES=OFF \
	  -DCMAKE_C_FLAGS="-O1 -fsanitize=thread -fno-omit-frame-pointer" \
	  -DCMAKE_CXX_FLAGS="-O1 -fsanitize=thread -fno-omit-frame-pointer" \
	  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread
	cmake --build build-tsan -j$(JOBS)
	TSAN_OPTIONS="halt_on_error=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  $(NETNS) ctest --test-dir build-tsan $(CTEST_ARGS)

arm:
	@sh scripts/install-deps.sh --check
	cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
	  -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DTW_WERROR=$(WERROR)
	cmake --build build-arm -j$(JOBS)
	$(NETNS) ctest --test-dir build-arm $(CTEST_ARGS)

# Load and fault runs that take longer than a unit test: each script of tests/stress/ against the
# plain build, inside the private namespace (each script enters it by itself).
stress: build
	@for script in tests/stress/*.sh; do echo "== $$script"; sh "$$script" build || exit 1; done

# The library as it ships for 32-bit ARM: a Release build, its tests under qemu, then the shared
# object stripped to build-arm-release/dist/ with its size.
arm-release:
	@sh scripts/install-deps.sh --check
	cmake -S . -B build-arm-release -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
	  -DCMAKE_BUILD_TYPE=Release -DTW_WERROR=$(WERROR)
	cmake --build build-arm-release -j$(JOBS)
	$(NETNS) ctest --test-dir build-arm-release $(CTEST_ARGS)
	sh scripts/strip-release.sh build-arm-release arm-linux-gnueabihf-

fuzz-build:
	@sh scripts/install-deps.sh --check
	CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DTW_BUILD_FUZZ=ON -DBUILD_TESTING=OFF -DTW_BUILD_EXAMPLES=OFF
	cmake --build build-fuzz -j$(JOBS)

fuzz: fuzz-build
	sh scripts/run-fuzz.sh build-fuzz $(FUZZ_SECONDS)

fuzz-long: fuzz-build
	sh scripts/run-fuzz-long.sh build-fuzz $(FUZZ_LONG_SECONDS) $(FUZZ_TARGETS)

bench:
	@sh scripts/install-deps.sh --bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DTW_BUILD_BENCH=ON -DBUILD_TESTING=OFF
	cmake --build build-bench -j$(JOBS)
	sh scripts/run-bench.sh build-bench

check: format-check test asan tsan arm fuzz

format:
	clang-format-14 -i $$(git ls-files '*.cpp' '*.h' '*.c')

format-check:
	@sh scripts/install-deps.sh --check
	sh scripts/check_format.sh

clean:
	rm -rf build build-asan build-tsan build-arm build-arm-release build-fuzz build-bench
