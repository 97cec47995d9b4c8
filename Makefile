# The two commands a newcomer needs: `make test` and `make demo`. Each installs
# what is missing, builds, and runs.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
# The package manager family of `make demo`: deb (dpkg and apt) or rpm (rpm and dnf).
DEMO ?= deb

.PHONY: all deps configure build tool test test-long fuzz demo package bench clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# The tool alone, without the test suite and the benchmarks: all that the demo
# and the packages need.
tool: configure
	@cmake --build $(BUILD) -j $(JOBS) --target zelkor-patchmgmt-tool

# The quick suite. The fault suite (full disks, hostile inputs, long jobs) and
# the suites against real package managers take minutes; they carry the CTest
# labels below and run with `make test-long` (CI runs both).
LONG_LABELS = ^(faults|packages)$$
CTEST = ctest --test-dir $(BUILD) --output-on-failure --no-tests=ignore

# End-to-end cases spend most of their time waiting on scripts, so more of
# them run at once than there are cores.
test: build
	@$(CTEST) -j $$(( $(JOBS) * 2 )) --timeout 600 -LE '$(LONG_LABELS)'

test-long: build
	@$(CTEST) -j $$(( $(JOBS) * 2 )) --timeout 900 -L '$(LONG_LABELS)'

# Each fuzz target for FUZZ_SECONDS over its corpus, built with clang.
FUZZ_SECONDS ?= 60
fuzz: deps
	@scripts/run-fuzzers $(FUZZ_SECONDS)

demo: tool
	@DEMO=$(DEMO) scripts/demo $(BUILD)

# The .deb and the .rpm of the tool, written to $(BUILD).
package: tool
	@cpack --config $(BUILD)/CPackConfig.cmake -B $(BUILD)

bench: build
	@scripts/run-benchmarks $(BUILD)

clean:
	rm -rf $(BUILD)
