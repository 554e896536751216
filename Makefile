# Thin wrappers over CMake and CTest; everything also works with plain
# `cmake --build` and `ctest`.
BUILD_DIR ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CTEST_FLAGS ?= --output-on-failure -j $(JOBS) --timeout 300
FUZZ_SECONDS ?= 600
COMMA := ,

# What `make demo` runs: the development node, the examples and orvik.
DEMO_TARGETS = orvik-devnode sender receiver registry_watcher readme_example orvik

.PHONY: all deps configure build test demo docs package test-asan test-tsan fuzz stress clean bench

all: build

deps:
	@scripts/install-deps.sh

# $(call configure_once,DIR,OPTIONS): configures DIR with OPTIONS and
# CMAKE_FLAGS unless DIR already holds a configured build. Once configured,
# `cmake --build` configures again by itself when a CMakeLists.txt changes;
# CMAKE_FLAGS given on the command line configure again too.
configure_once = @if [ ! -f $(1)/cmake_install.cmake ] || [ -n "$(strip $(CMAKE_FLAGS))" ]; then \
		echo "cmake -S . -B $(1) $(strip $(2) $(CMAKE_FLAGS))"; \
		cmake -S . -B $(1) $(2) $(CMAKE_FLAGS); \
	fi

configure: deps
	$(call configure_once,$(BUILD_DIR))

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest $(CTEST_FLAGS)

demo: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target $(DEMO_TARGETS)
	scripts/demo.sh $(BUILD_DIR)

# The API reference, in $(BUILD_DIR)/docs/html; fails on any public name
# without documentation.
docs: configure
	cmake --build $(BUILD_DIR) --target docs

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer (with
# leak detection), and under ThreadSanitizer.
test-asan: deps
	$(call configure_once,build-asan,-DORVIKM_SANITIZE=address$(COMMA)undefined)
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest $(CTEST_FLAGS)

test-tsan: deps
	$(call configure_once,build-tsan,-DORVIKM_SANITIZE=thread)
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/tsan.supp \
		ctest $(CTEST_FLAGS)

# Each fuzz target for FUZZ_SECONDS (default 600).
fuzz: build
	scripts/fuzz.sh $(BUILD_DIR)/fuzz-build receiver $(FUZZ_SECONDS)
	scripts/fuzz.sh $(BUILD_DIR)/fuzz-build headers $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD_DIR) build-asan build-tsan $(PACKAGE_DIR)

# The stress, burst and fault tests (label "stress") at full scale, one at a
# time; their figures are collected in $(BUILD_DIR)/stress-figures.txt.
STRESS_FIGURES = $(abspath $(BUILD_DIR))/stress-figures.txt
stress: build
	rm -f $(STRESS_FIGURES)
	cd $(BUILD_DIR) && ORVIKM_STRESS=full ORVIKM_STRESS_FIGURES=$(STRESS_FIGURES) \
		ctest --output-on-failure -L stress -j 1
	@cat $(STRESS_FIGURES)

# The micro benchmarks and orvik-bench (the library against raw libzmq, one
# table), built in Release in a directory of their own.
BENCH_DIR ?= build-bench
bench: deps
	$(call configure_once,$(BENCH_DIR),-DCMAKE_BUILD_TYPE=Release)
	cmake --build $(BENCH_DIR) -j $(JOBS) --target orvik-micro-bench orvik-bench
	$(BENCH_DIR)/bench/orvik-micro-bench --benchmark_min_time=0.2
	$(BENCH_DIR)/bench/orvik-bench

# The Debian packages liborvikm0, liborvikm-dev and orvik-tools, from a
# Release build in a directory of their own; they land in
# $(PACKAGE_DIR)/packages.
PACKAGE_DIR ?= build-package
package: deps
	JOBS=$(JOBS) scripts/package.sh $(PACKAGE_DIR)
