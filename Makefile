# Entry points for a fresh machine. `make run` builds the library and runs the
# demo; `make check` builds and runs every test in the release and the
# sanitizer build. Both install missing build tools first.
JOBS ?= $(shell nproc)
DEMO_FILE ?= build/demo.vk7

.PHONY: run check deps build build-asan test test-asan bench clean

run: deps build
	./build/release/velk demo $(DEMO_FILE)

check: deps test test-asan

deps:
	./.ci/install-deps

build:
	cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release
	cmake --build build/release -j $(JOBS)

build-asan:
	cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Asan
	cmake --build build/asan -j $(JOBS)

test: build
	cd build/release && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd build/asan && ctest --output-on-failure -j $(JOBS)

# Benchmarks: each bulk path beside its raw baseline; see the "ratio" column.
bench: deps
	cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVELK_BUILD_BENCH=ON
	cmake --build build/release -j $(JOBS) --target velk_bench
	./build/release/bench/velk_bench --benchmark_counters_tabular=true $(BENCH_ARGS)

clean:
	rm -rf build
