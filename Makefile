# Thin over the CMake presets; README.md says what each target is for.
SHELL := /bin/bash
# Most tests wait for a peer or a delay rather than compute.
TEST_JOBS ?= 8

.PHONY: build run test target target-size packages clean

packages:
	scripts/install-packages.sh

build: packages
	cmake --preset default
	cmake --build --preset default

run: build
	scripts/demo.sh build

test: build
	ctest --test-dir build --output-on-failure -j $(TEST_JOBS)

# As for MIPS under emulation; the native companions are the other ends of the system tests.
target: packages
	scripts/install-packages.sh scripts/packages-target.txt
	scripts/target-env.sh build-mips-env
	cmake --preset default
	cmake --build --preset default --target vemkctl roam-service
	cmake --preset mips
	cmake --build --preset mips
	file build-mips/vemk
	build-mips-env/bin/qemu --version | head -n 1
	ctest --test-dir build-mips -V -R '^unit\.ProcessorTest\.' | grep -E 'Test command|processor:'
	ctest --test-dir build-mips --output-on-failure -j $(TEST_JOBS)

target-size: packages
	scripts/install-packages.sh scripts/packages-target.txt
	scripts/target-env.sh build-mips-env
	scripts/target-size.py --write docs/target.md

clean:
	rm -rf build build-*
