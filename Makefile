# Lumbra: make test | make demo | make bench
BUILD ?= build
JOBS  ?= 2
ARMHF_BUILD ?= build-armhf

.PHONY: all deps configure build test demo bench clean package armhf test-armhf package-armhf

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# The demo needs only the programs, not the tests: a fresh machine gets there sooner.
demo: configure
	@cmake --build $(BUILD) -j$(JOBS) --target Lumbra lumbra-agent lumbra-plcsim lumbra-platform modbus_tcp modbus_rtu
	@scripts/demo $(BUILD)

bench: build
	@cmake --build $(BUILD) -j$(JOBS) --target lumbra_benchmarks
	@scripts/run-bench $(BUILD)

package: build
	@cd $(BUILD) && cpack -G DEB

# 32-bit ARM: cross build against a sysroot of Debian's armhf packages, tests under qemu-arm.
armhf: deps
	@scripts/armhf-sysroot
	@cmake --no-warn-unused-cli -S . -B $(ARMHF_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(ARMHF_BUILD) -j$(JOBS)

test-armhf: armhf
	@scripts/test-armhf $(ARMHF_BUILD)

package-armhf: armhf
	@cd $(ARMHF_BUILD) && cpack -G DEB

clean:
	@rm -rf $(BUILD)
