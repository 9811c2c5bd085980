# Two entry points on a fresh Debian machine: `make test` and `make demo`.
PRESET ?= debug
BUILD_DIR = build/$(PRESET)
JOBS ?= $(shell nproc)
# Many tests spend their time waiting on child processes, servers and timeouts, not on the CPU.
TEST_JOBS ?= $(shell echo $$(( $$(nproc) * 2 )))

.PHONY: all deps configure build test demo package bench fuzz asan tsan coverage clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(TEST_JOBS)

# The demo needs only the vntr program; `make test` builds the rest.
demo: configure
	@cmake --build --preset $(PRESET) -j $(JOBS) --target vntr
	$(BUILD_DIR)/tools/vntr/vntr demo

# Debian packages of the release build: the runtime library, the development files and the
# tools, written to build/release/packages/ (install with `sudo apt-get install ./build/release/packages/*.deb`).
package: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS) --target VNTRTagManager VNTRTagManager_static vntr vntr-sandbox
	cd build/release && cpack -G DEB -B packages >/dev/null && ls -1 $(CURDIR)/build/release/packages/*.deb

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

# Line, function and branch coverage of src/ from the whole suite (a --coverage -O0 build);
# prints the summary and writes build/coverage/report/index.html.
coverage: deps
	@cmake --preset coverage >/dev/null
	@cmake --build --preset coverage -j $(JOBS)
	@find build/coverage -name '*.gcda' -delete
	ctest --preset coverage -j $(TEST_JOBS)
	@mkdir -p build/coverage/report
	gcovr -r . --gcov-ignore-parse-errors --filter 'src/' -j $(JOBS) --print-summary \
	  --html-details build/coverage/report/index.html build/coverage

# Benchmarks: the release preset (which builds them), then every benchmark program; the figures
# go to bench/results/latest.txt and latest.json. A few minutes; never part of `make test`.
bench: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS) --target vntr_store_bench vntr_micro_bench vntr-bench
	bench/run.sh build/release bench/results

# libFuzzer targets in their own clang build; each runs FUZZ_SECONDS from the seed corpus in
# fuzz/corpus (copied to a scratch directory, so the repository is never written).
FUZZ_SECONDS ?= 30
FUZZ_BUILD_DIR = build/fuzz

fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	  -DVNTR_BUILD_FUZZERS=ON -DVNTR_BUILD_TESTS=OFF -DVNTR_BUILD_TOOLS=OFF \
	  -DVNTR_WERROR=$(or $(VNTR_WERROR),OFF) >/dev/null
	@cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target vntr_fuzzers
	fuzz/run-fuzzers.sh $(FUZZ_BUILD_DIR) $(FUZZ_SECONDS)

clean:
	rm -rf build
