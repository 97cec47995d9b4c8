# The two commands a newcomer needs: `make test` and `make demo`. Each installs
# what is missing, builds, and runs.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test demo bench clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# End-to-end cases spend most of their time waiting on scripts, so more of
# them run at once than there are cores.
test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $$(( $(JOBS) * 2 )) --timeout 600

demo: build
	@scripts/demo $(BUILD)

bench: build
	@scripts/run-benchmarks $(BUILD)

clean:
	rm -rf $(BUILD)
