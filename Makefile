# Set-up and test entry points; everything builds with CMake + Ninja.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps build demo test stress asan tsan bench fuzz lint format clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B build -G Ninja $(CMAKE_FLAGS)
	cmake --build build -j $(JOBS)

# A few seconds of the library at work, in a private sandbox (examples/demo.sh).
demo: build
	build/cmdbctl sandbox -- sh examples/demo.sh build/cmdbctl

test: build
	ctest --test-dir build -j $(JOBS) --output-on-failure

# The load test alone, for DURATION seconds with READERS reader processes.
DURATION ?= 300
READERS ?= 4
stress: build
	GK_STRESS_SECONDS=$(DURATION) GK_STRESS_READERS=$(READERS) build/tests/stress/stress_test

asan: deps
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DGK_SANITIZE=address,undefined \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ $(CMAKE_FLAGS)
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build-asan -j $(JOBS) --output-on-failure

bench: deps
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DGK_TESTS=OFF -DGK_BENCH=ON $(CMAKE_FLAGS)
	cmake --build build-bench -j $(JOBS)
	build-bench/bench/gk_bench $(BENCH_ARGS)

# Runs each fuzz target for FUZZ_SECONDS on a working corpus seeded from tests/fuzz/corpus.
FUZZ_SECONDS ?= 60
fuzz: deps
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGK_FUZZ=ON -DGK_SANITIZE=address,undefined \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ $(CMAKE_FLAGS)
	cmake --build build-fuzz -j $(JOBS) --target event_receiver_fuzz
	mkdir -p build-fuzz/corpus/event_receiver
	build-fuzz/tests/fuzz/event_receiver_fuzz -max_total_time=$(FUZZ_SECONDS) \
	  build-fuzz/corpus/event_receiver tests/fuzz/corpus/event_receiver

lint: build
	cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ --enable=warning,performance,portability \
	  --inline-suppr --suppress=missingIncludeSystem -I include -I . \
	  region lock alloc tree event util tools/schema
	run-clang-tidy -quiet -p build $(CURDIR)/region $(CURDIR)/lock $(CURDIR)/alloc $(CURDIR)/tree \
	  $(CURDIR)/event $(CURDIR)/util $(CURDIR)/tools/schema >build/clang-tidy.log 2>&1 || { cat build/clang-tidy.log; exit 1; }

format:
	clang-format -i include/*.h */*.cc */*.h tests/*.c

clean:
	rm -rf build build-asan build-bench build-fuzz
