# Front door: every target configures and builds what it needs.
BUILD_DIR ?= build
ASAN_DIR ?= build-asan
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
GENERATOR := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
CMAKE_FLAGS ?=

.PHONY: all setup build demo test test-asan test-tsan test-windows windows-packages bench fuzz fuzz-seeds clean

all: build

# Installs the Debian packages the build needs when some are missing (the list
# is in the script); every target that configures runs it first.
setup:
	@tools/setup/ensure_packages.sh

$(BUILD_DIR)/CMakeCache.txt: | setup
	cmake -S . -B $(BUILD_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: setup $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS)

demo: build
	cmake --build $(BUILD_DIR) --target demo

# The LAS and E57 reader tests' npm packages go into the build tree (skipped when npm
# cannot reach its registry); the test's own set-up runs the same script.
LAS_READER = tests/cloud/las_reader
E57_READER = tests/cloud/e57_reader
NPM_READER = tests/support/install_npm_reader.sh

test: build
	sh $(NPM_READER) $(LAS_READER) $(BUILD_DIR)/tests/las_reader copc
	sh $(NPM_READER) $(E57_READER) $(BUILD_DIR)/tests/e57_reader web-e57
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

$(ASAN_DIR)/CMakeCache.txt: | setup
	cmake -S . -B $(ASAN_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DKVR_SANITIZE=ON -DKVR_BUILD_BENCH=OFF $(CMAKE_FLAGS)

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer; any report fails it.
test-asan: setup $(ASAN_DIR)/CMakeCache.txt
	cmake --build $(ASAN_DIR) -j $(JOBS)
	sh $(NPM_READER) $(LAS_READER) $(ASAN_DIR)/tests/las_reader copc
	sh $(NPM_READER) $(E57_READER) $(ASAN_DIR)/tests/e57_reader web-e57
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_DIR) --output-on-failure -j $(JOBS)

TSAN_DIR ?= build-tsan
# The tests of the paths that run threads: the parallel export, in process and
# in the tool (which the tests start, built with the same flags), point readers
# on disjoint block ranges of one scan, the simulator's workers. Only what they
# need is built.
TSAN_TESTS = Exports.*:LazWriterTest.*:KvrscanTest.ExportIsTheSameOnAnyNumberOfThreads:PointReaderSplits.*:ScanSet.IsTheSameForASeed*
TSAN_FLAGS = -fsanitize=thread -fno-omit-frame-pointer

$(TSAN_DIR)/CMakeCache.txt: | setup
	cmake -S . -B $(TSAN_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVR_BUILD_BENCH=OFF \
	  -DKVR_BUILD_PYTHON=OFF -DCMAKE_CXX_FLAGS="$(TSAN_FLAGS)" -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread \
	  -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread $(CMAKE_FLAGS)

# Any report of ThreadSanitizer fails it (the tool exits 66 and its test fails).
test-tsan: setup $(TSAN_DIR)/CMakeCache.txt
	cmake --build $(TSAN_DIR) -j $(JOBS) --target kvr_unit_tests kvrscan
	cd $(TSAN_DIR)/tests && TSAN_OPTIONS=halt_on_error=1:exitcode=66 ./kvr_unit_tests --gtest_filter='$(TSAN_TESTS)'

WINDOWS_DIR ?= build-windows
WINDOWS_CMAKE_FLAGS ?=
WINE ?= /usr/lib/wine/wine64
# The tests' Wine prefix lives in the build folder (the toolchain file runs every
# program with it); WINEDEBUG=-all keeps Wine's own messages out.
WINE_ENV = WINEPREFIX=$(abspath $(WINDOWS_DIR))/wine-prefix WINEDEBUG=-all

windows-packages:
	@tools/setup/ensure_packages.sh --windows

$(WINDOWS_DIR)/CMakeCache.txt: | windows-packages
	cmake -S . -B $(WINDOWS_DIR) $(GENERATOR) -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/x86_64-w64-mingw32.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVR_WINE=$(WINE) -DKVR_GTEST_SOURCE_DIR=/usr/src/googletest \
	  -DKVR_BUILD_KVRSCAN=OFF -DKVR_BUILD_CLOUD=OFF -DKVR_BUILD_BENCH=OFF $(WINDOWS_CMAKE_FLAGS)

# Cross-builds kvr_decode.dll and the tests with MinGW-w64 and runs them under Wine.
test-windows: windows-packages $(WINDOWS_DIR)/CMakeCache.txt
	cmake --build $(WINDOWS_DIR) -j $(JOBS)
	$(WINE_ENV) $(WINE) wineboot --init
	ctest --test-dir $(WINDOWS_DIR) --output-on-failure -j $(JOBS)

bench: build
	cmake --build $(BUILD_DIR) --target bench

FUZZ_DIR ?= build-fuzz
FUZZ_SECONDS ?= 10
# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS.
fuzz: setup
	cmake -S . -B $(FUZZ_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
	  -DKVR_BUILD_FUZZ=ON -DKVR_BUILD_TESTS=OFF -DKVR_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzz_targets
	fuzz/run_all.sh $(FUZZ_DIR)/fuzz $(FUZZ_SECONDS) $(JOBS)

# Rewrites the fuzz targets' seed corpora (fuzz/corpus) from the test builders.
fuzz-seeds: build
	rm -rf fuzz/corpus
	$(BUILD_DIR)/tests/kvr_fuzz_seeds fuzz/corpus

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(TSAN_DIR) $(FUZZ_DIR) $(WINDOWS_DIR)
