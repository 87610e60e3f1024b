# A thin layer over the CMake presets; README.md describes the targets.
SHELL := /bin/bash
# Most tests wait for a peer or a delay rather than compute.
TEST_JOBS ?= 16

# PACING=event has every daemon of the system tests and of the soak use it.
ifdef PACING
export VEMK_PACING := $(PACING)
endif

# No target is a file.
.PHONY: $(shell sed -n 's/^\([a-z][a-z-]*\):.*/\1/p' $(firstword $(MAKEFILE_LIST)))

packages:
	scripts/install-packages.sh build run test

# Programs for the tests. If they were installed, they would run as services of the machine.
unpacked: packages
	scripts/unpack-packages.sh build-unpacked

# The tests need packages that the programs do not need. A folder that has tests keeps them: they
# can still run, and Ninja does not forget the dependencies of their objects.
configure:
	scripts/install-packages.sh build run
	cmake --preset default -DBUILD_TESTING=$(if $(wildcard build/CTestTestfile.cmake),ON,OFF)

build: configure
	cmake --build --preset default --target vemk vemkctl roam-service

run: build
	scripts/demo.sh build

test: packages unpacked
	cmake --preset default
	cmake --build --preset default
	ctest --test-dir build --output-on-failure -j $(TEST_JOBS)

# The system tests with daemons of pacing=event.
test-event: export VEMK_PACING := event
test-event: packages unpacked
	cmake --preset default
	cmake --build --preset default
	ctest --test-dir build --output-on-failure -j $(TEST_JOBS) -L system

# The console in a headless browser; `make test` does not include this.
browser-test: build
	scripts/install-packages.sh test browser
	VEMK_BUILD_DIR=build PYTHONDONTWRITEBYTECODE=1 \
	  /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/browser

# Services on Go's WebSocket libraries, from Debian's packages and without a network.
GO_ENVIRONMENT := GO111MODULE=off GOPATH=/usr/share/gocode GOCACHE=$(CURDIR)/build-go/cache \
  GOROOT= GOFLAGS=
test-go: build
	scripts/install-packages.sh test go
	for library in gorilla nhooyr; do \
	  $(GO_ENVIRONMENT) /usr/bin/go build -o build-go/$$library \
	    tests/go/service.go tests/go/$$library.go || exit; \
	done
	VEMK_BUILD_DIR=build VEMK_GO_DIR=build-go PYTHONDONTWRITEBYTECODE=1 \
	  /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/go

# All tests as MIPS programs under emulation; the system tests' peers are the native companions.
target: packages unpacked companions target-environment
	cmake --preset mips
	cmake --build --preset mips
	file build-mips/vemk
	tests/target_size/measure_size.py sizes --on mipsel
	build-mips-env/bin/qemu --version | head -n 1
	ctest --test-dir build-mips -V -R '^unit\.ProcessorTest\.' | grep -E 'Test command|processor:'
	ctest --test-dir build-mips --output-on-failure -j $(TEST_JOBS)

# The daemon over releases of libwebsockets: LWS has tags, folders with sources or prefixes of SDKs,
# LWS_MIRROR the repository with the tags, ARCH=mipsel builds for MIPS, SANITIZE=address or thread.
releases: packages unpacked companions $(if $(ARCH),target-environment)
	scripts/install-packages.sh releases
	TEST_JOBS=$(TEST_JOBS) scripts/releases.py $(if $(ARCH),--arch $(ARCH)) \
	  $(if $(SANITIZE),--sanitize $(SANITIZE)) $(LWS)

# The other ends of the system tests where the daemon is built elsewhere.
companions: packages
	cmake --preset default
	cmake --build --preset default --target vemkctl roam-service

target-environment:
	scripts/install-packages.sh target
	scripts/target-env.sh build-mips-env

target-size: packages target-environment
	tests/target_size/measure_size.py --write docs/target.md

# Without a shared library, an FPU or glibc: the nearest to a device that can run here.
target-static: packages companions
	scripts/install-packages.sh target static
	scripts/static-env.sh build-static-env
	cmake --preset mips-static
	cmake --build --preset mips-static
	file build-mips-static/vemk
	readelf -A build-mips-static/vemk | grep -E 'ISA:|FP ABI:'
	ctest --preset mips-static -j $(TEST_JOBS)
	tests/target_size/measure_size.py sizes rest --on static --runs 1 --minutes 0.25
	file -b build-size-mipsel-static/build/vemk
	size build-size-mipsel-static/build/vemk

# The unit and system tests and the fuzz corpus under AddressSanitizer with
# UndefinedBehaviorSanitizer, then under ThreadSanitizer.
sanitize: packages unpacked
	for preset in asan tsan; do \
	  cmake --preset $$preset && cmake --build --preset $$preset \
	  && ctest --test-dir build-$$preset --output-on-failure -j $(TEST_JOBS) -R '^(unit|system|fuzz)\.' \
	  || exit; \
	done

# Both compilers' warnings as errors, then the analysers.
analyze: packages
	scripts/install-packages.sh analyze
	cmake --preset default
	cmake --build --preset default
	cmake --preset clang
	cmake --build --preset clang
	scripts/analyze.sh build-clang

# The lines and branches of src/ that the unit tests execute, and the system tests that run everywhere.
# Of these, only a daemon that ends by itself counts: one that a signal ends does not write counters.
coverage: packages companions
	scripts/install-packages.sh coverage
	cmake --preset coverage
	cmake --build --preset coverage
	find build-coverage -name '*.gcda' -delete
	ctest --preset coverage -j $(TEST_JOBS)
	scripts/coverage-report.py build-coverage

# One small change to src/ after another: each must make a unit test fail.
mutants: packages
	scripts/install-packages.sh mutants
	PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/mutants
	scripts/mutants.py

# Every fuzz target for so many seconds, two at a time.
SECONDS ?= 60
fuzz: packages
	scripts/install-packages.sh fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz
	scripts/run-fuzzers.py build-fuzz --seconds $(SECONDS)

# The daemon under random faults, with both directions loaded; SEED repeats a run.
MINUTES ?= 30
soak: build
	scripts/install-packages.sh test
	VEMK_BUILD_DIR=$${VEMK_BUILD_DIR:-build} \
	  /usr/bin/python3 tests/soak/soak.py --minutes $(MINUTES) $(if $(SEED),--seed $(SEED))

bench-programs:
	scripts/install-packages.sh build run bench
	cmake --preset bench
	cmake --build --preset bench

# The daemon beside other bridges, for docs/performance.md; BENCH has options of bench/bench.py.
bench: bench-programs
	scripts/unpack-packages.sh build-bench/unpacked bench-unpacked
	scripts/install-node-bridge.sh build-bench/node
	bench/bench.py run $(or $(BENCH),--write)

# Whether the daemon still reaches half of what docs/performance.md says.
bench-check: bench-programs
	bench/bench.py check $(BENCH)

# The cost of looking at a message from the bus, and of parsing each message.
bench-classify: bench-programs
	build-bench/bench_classify

# A Debian package for this machine. Its date is that of the last change, so that another build
# gives the same bytes.
package:
	scripts/install-packages.sh build package
	cmake -S . -B build-package -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF
	cmake --build build-package
	rm -f build-package/vemk_*.deb
	cd build-package && SOURCE_DATE_EPOCH=$${SOURCE_DATE_EPOCH:-$$(git log -1 --format=%ct)} cpack
	ls -l build-package/vemk_*.deb

package-test: package
	scripts/install-packages.sh package-test
	scripts/test-package.sh build-package/vemk_*.deb

# Every behaviour with its test, in build/behaviours.md, and docs/faults.md.
behaviours:
	scripts/list-behaviours.py

# After a change in docs/pictures.
pictures:
	scripts/install-packages.sh pictures
	scripts/make-pictures.sh

clean:
	rm -rf build build-*
