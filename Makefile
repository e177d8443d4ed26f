# Quick start: `make demo` runs the agent on a built-in default; `make test` builds and runs every test.
PRESET ?= dev
JOBS ?= $(shell nproc)

.PHONY: all deps build test asan demo bench fuzz package format format-check clean

all: build

deps:
	@bash scripts/install-deps

build: deps
	@cmake --preset $(PRESET) >/dev/null
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	@ctest --preset $(PRESET)

asan:
	@$(MAKE) --no-print-directory test PRESET=asan

demo:
	@$(MAKE) --no-print-directory build PRESET=release
	@bash scripts/demo build/release

bench:
	@$(MAKE) --no-print-directory build PRESET=release
	@for b in build/release/bench/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2; done

# A Debian package of the release build (CPack's DEB generator), in build/release.
package:
	@$(MAKE) --no-print-directory build PRESET=release
	@cd build/release && cpack -G DEB

fuzz: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@bash scripts/run-fuzzers build/fuzz 60

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

format-check:
	@git ls-files '*.h' '*.cpp' | xargs -r clang-format --dry-run --Werror

clean:
	@rm -rf build
