# The two commands of a fresh machine: `make demo` and `make test`.
# Every build lives in its own folder under build/, configured once with CMake and built with ninja.

JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 30
CMAKE_FLAGS ?=
DEMO_FLAGS ?=

.PHONY: all deps build test unit-test asan-test tsan-test fuzz-test bench demo format clean

all: build

deps:
	@bash scripts/install-deps.sh

build/release/build.ninja:
	cmake -S . -B build/release -G Ninja -DVDL_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps build/release/build.ninja
	ninja -C build/release -j $(JOBS)

build/asan/build.ninja:
	cmake -S . -B build/asan -G Ninja -DVDL_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=Debug -DVDL_SANITIZE=address,undefined \
	  -DVDL_BUILD_BENCH=OFF $(CMAKE_FLAGS)

build/tsan/build.ninja:
	cmake -S . -B build/tsan -G Ninja -DVDL_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVDL_SANITIZE=thread \
	  -DVDL_BUILD_BENCH=OFF $(CMAKE_FLAGS)

build/fuzz/build.ninja:
	cmake -S . -B build/fuzz -G Ninja -DVDL_WARNINGS_AS_ERRORS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVDL_FUZZ=ON \
	  -DCMAKE_C_COMPILER=clang-16 -DCMAKE_CXX_COMPILER=clang++-16 $(CMAKE_FLAGS)

unit-test: build
	ctest --test-dir build/release --output-on-failure -j $(JOBS)
	@# How close the replays look to the device's frames: thresholds and measured values of the browser tests.
	@cat build/release/tests/scenario/fidelity.txt build/release/tests/demo/fidelity.txt \
	  build/release/tests/webview/fidelity.txt 2>/dev/null || true

asan-test: deps build/asan/build.ninja
	ninja -C build/asan -j $(JOBS) vdl_tests
	ctest --test-dir build/asan --output-on-failure -j $(JOBS) -L unit

# The queues and everything that hands work between threads, under ThreadSanitizer.
tsan-test: deps build/tsan/build.ninja
	ninja -C build/tsan -j $(JOBS) vdl_thread_tests
	ctest --test-dir build/tsan --output-on-failure -j $(JOBS) -L threads

fuzz-test: deps build/fuzz/build.ninja
	ninja -C build/fuzz -j $(JOBS) vdl_fuzzers
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/run-fuzzers.sh build/fuzz

test: unit-test asan-test tsan-test fuzz-test

bench: build
	bash scripts/run-benchmarks.sh build/release

# Records the scripted app into a collector on 127.0.0.1 and serves the replay until Ctrl-C.
demo: build
	build/release/examples/demo/vdl-demo $(DEMO_FLAGS)

format:
	git ls-files '*.h' '*.cc' | xargs clang-format -i

clean:
	rm -rf build
