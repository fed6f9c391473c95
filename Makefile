# Lumbra: make test | make demo | make bench
BUILD ?= build
JOBS  ?= 2

.PHONY: all deps configure build test demo bench clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

demo: build
	@scripts/demo $(BUILD)

bench: build
	@cmake --build $(BUILD) -j$(JOBS) --target lumbra_benchmarks
	@scripts/run-bench $(BUILD)

clean:
	@rm -rf $(BUILD)
