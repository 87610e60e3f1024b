# Thin over the CMake presets; README.md says what each target is for.
SHELL := /bin/bash
# Most tests wait for a peer or a delay rather than compute.
TEST_JOBS ?= 8

.PHONY: build run test packages clean

packages:
	scripts/install-packages.sh

build: packages
	cmake --preset default
	cmake --build --preset default

run: build
	scripts/demo.sh build

test: build
	ctest --test-dir build --output-on-failure -j $(TEST_JOBS)

clean:
	rm -rf build build-*
