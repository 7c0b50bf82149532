# Set-up and test entry points; everything builds with CMake + Ninja.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
# Warnings are errors here and in CI; a plain cmake build only reports them.
GK_CMAKE = -DGK_WERROR=ON $(CMAKE_FLAGS)

.PHONY: all deps build demo test stress asan tsan memcheck bench fuzz lint format package package-test clean

all: build

# Each target installs the packages it uses (scripts/install-deps GROUP).
deps:
	@scripts/install-deps

build: deps
	cmake -S . -B build -G Ninja $(GK_CMAKE)
	cmake --build build -j $(JOBS)

# A few seconds of the library at work, in a private sandbox (examples/demo.sh).
demo: build
	build/cmdbctl sandbox sh examples/demo.sh build/cmdbctl

test: build
	ctest --test-dir build -j $(JOBS) --output-on-failure

# The load test alone, for DURATION seconds with READERS reader processes,
# then cmdbd SIGKILLed KILLS times under a stream of commits.
DURATION ?= 300
READERS ?= 4
KILLS ?= 300
stress: build
	GK_STRESS_SECONDS=$(DURATION) GK_STRESS_READERS=$(READERS) build/tests/stress/stress_test
	GK_DAEMON_KILLS=$(KILLS) build/tests/daemon/cmdbd_kill_test

asan:
	@scripts/install-deps asan
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DGK_SANITIZE=address,undefined \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ $(GK_CMAKE)
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build-asan -j $(JOBS) --output-on-failure

bench:
	@scripts/install-deps bench
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DGK_TESTS=OFF -DGK_BENCH=ON $(GK_CMAKE)
	cmake --build build-bench -j $(JOBS)
	build-bench/bench/gk_bench $(BENCH_ARGS)

# Runs each fuzz target for FUZZ_SECONDS on a working corpus seeded from
# tests/fuzz/corpus/<target>; a crash leaves its input in build-fuzz/.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS = event_receiver compare buf entry_index schema region
fuzz:
	@scripts/install-deps fuzz
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGK_FUZZ=ON -DGK_SANITIZE=address,undefined \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ $(GK_CMAKE)
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	set -e; for t in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/corpus/$$t; \
	  echo "fuzz $$t: $(FUZZ_SECONDS) s"; \
	  build-fuzz/tests/fuzz/$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    -artifact_prefix=build-fuzz/$$t- build-fuzz/corpus/$$t tests/fuzz/corpus/$$t 2>build-fuzz/$$t.log \
	    || { tail -60 build-fuzz/$$t.log; exit 1; }; \
	  grep -E "^stat::number_of_executed_units|^Done" build-fuzz/$$t.log; \
	done

# The threaded cases under ThreadSanitizer: the lock (per-thread read depth)
# and the per-thread path buffer.
TSAN_TESTS = lock_test alloc_test
tsan:
	@scripts/install-deps tsan
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGK_SANITIZE=thread -DGK_TOOLS=OFF \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ $(GK_CMAKE)
	cmake --build build-tsan -j $(JOBS) --target $(TSAN_TESTS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir build-tsan -j $(JOBS) --output-on-failure -R '^(LockTest|PageFileTest)[.]'

# Every single-process test case under valgrind memcheck: no error, no leak.
# Cases that fork, and the long randomized runs (minutes under the checker),
# are left to the other runs (MEMCHECK_EXCLUDE).
MEMCHECK_EXCLUDE ?= Randomized|Process|Child|Fork|Killed|Kill|Other|Across|Concurrent|Daemon|Delivery|Cmdbctl|host[.]|demo[.]|install[.]|abi[.]
memcheck:
	@scripts/install-deps memcheck
	cmake -S . -B build-memcheck -G Ninja -DCMAKE_BUILD_TYPE=Debug -DGK_TOOLS=ON $(GK_CMAKE) \
	  "-DGK_MEMCHECK=valgrind;--quiet;--vgdb=no;--error-exitcode=99;--leak-check=full;--errors-for-leak-kinds=definite,indirect;--child-silent-after-fork=yes;--trace-children=no"
	cmake --build build-memcheck -j $(JOBS)
	ctest --test-dir build-memcheck -j $(JOBS) --output-on-failure -L unit -E '$(MEMCHECK_EXCLUDE)'

# Debian packages in build-package/, checked by lintian (errors fail).
package:
	@scripts/install-deps package
	cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
	  -DCMAKE_SKIP_INSTALL_RPATH=ON -DGK_TESTS=OFF -DGK_PACKAGE=ON $(CMAKE_FLAGS)
	cmake --build build-package -j $(JOBS)
	cd build-package && cpack -G DEB >/dev/null && ls -1 *.deb *.ddeb 2>/dev/null
	lintian --fail-on error build-package/*.deb

# The packages installed into a fresh Debian 12 root (mmdebstrap, from the
# package registry), then used there: sandbox, create, a consumer build.
package-test: package
	@scripts/install-deps package-test
	scripts/package-test build-package

lint: build
	@scripts/install-deps lint
	cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ --enable=warning,performance,portability \
	  --inline-suppr --suppress=missingIncludeSystem -I include -I . \
	  region lock alloc tree event util tools/schema
	run-clang-tidy -quiet -p build $(CURDIR)/region $(CURDIR)/lock $(CURDIR)/alloc $(CURDIR)/tree \
	  $(CURDIR)/event $(CURDIR)/util $(CURDIR)/tools/schema >build/clang-tidy.log 2>&1 || { cat build/clang-tidy.log; exit 1; }

format:
	@scripts/install-deps format
	clang-format -i include/*.h */*.cc */*.h tests/*.c

clean:
	rm -rf build build-asan build-bench build-fuzz build-tsan build-memcheck
