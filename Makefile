# Two entry points on a fresh Debian machine: `make test` and `make demo`.
PRESET ?= debug
BUILD_DIR = build/$(PRESET)
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test demo bench fuzz asan tsan clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

demo: build
	$(BUILD_DIR)/tools/vntr/vntr demo

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

clean:
	rm -rf build
