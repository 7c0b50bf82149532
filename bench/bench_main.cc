// Benchmarks run in the tests' sandbox: the fixed paths and IPC keys stay private.
#include <benchmark/benchmark.h>

#include "tests/sandbox.h"

int main(int argc, char** argv) {
  gk::test::enter_sandbox();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
