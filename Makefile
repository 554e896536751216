# Thin wrappers over CMake and CTest; everything also works with plain
# `cmake --build` and `ctest`.
BUILD_DIR ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

demo: build
	scripts/demo.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
