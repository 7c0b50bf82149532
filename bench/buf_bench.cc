// Text buffer: the cost of 32-byte growth steps, formatted appends, and base64
// of the whole content; and one boot-value read with daemon_status mapped.
#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <string>

#include "gikraidrum.h"

namespace {

// A long run of single characters reallocates about every 32 bytes.
void BM_BufCat(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  for (auto _ : state) {
    cmf_buf_t b{};
    for (int i = 0; i < n; ++i) cmf_buf_cat(&b, 'x');
    benchmark::DoNotOptimize(b.data);
    cmf_buf_free(&b);
  }
  state.SetBytesProcessed(state.iterations() * n);
}
BENCHMARK(BM_BufCat)->Arg(512)->Arg(64 << 10);

// Lines of a typical listing: mostly in place, a second format on each growth.
// The header is mapped as in an attached process, so the overflow notice
// (level 5) is filtered instead of reaching the system log.
void BM_BufSnprintfLines(benchmark::State& state) {
  const int lines = static_cast<int>(state.range(0));
  cmdb_header_t header{};
  header.log_level = 3;
  cmdb.header = &header;
  for (auto _ : state) {
    cmf_buf_t b{};
    for (int i = 0; i < lines; ++i) cmf_buf_snprintf(&b, "entry %d name=%s value=0x%08x\n", i, "interface", i * 7);
    benchmark::DoNotOptimize(b.data);
    cmf_buf_free(&b);
  }
  cmdb.header = nullptr;
  state.SetItemsProcessed(state.iterations() * lines);
}
BENCHMARK(BM_BufSnprintfLines)->Arg(16)->Arg(1024);

void BM_BufBase64RoundTrip(benchmark::State& state) {
  const std::string payload(static_cast<size_t>(state.range(0)), '\xA5');
  cmf_buf_t b{};
  for (auto _ : state) {
    cmf_buf_reset(&b, payload.data(), static_cast<int>(payload.size()));
    cmf_buf_base64_encode(&b);
    benchmark::DoNotOptimize(cmf_buf_base64_decode(&b));
  }
  cmf_buf_free(&b);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BufBase64RoundTrip)->Arg(48)->Arg(4096)->Arg(256 << 10);

// With daemon_status mapped for good, a boot value is one shared load.
void BM_Init0GetMapped(benchmark::State& state) {
  void* p = ::mmap(nullptr, sizeof(cmdb_daemon_status_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) {
    state.SkipWithError("mmap");
    return;
  }
  cmdb.daemon_status = p;
  for (auto _ : state) benchmark::DoNotOptimize(global_flag_if_set(0x4));
  cmdb.daemon_status = nullptr;
  ::munmap(p, sizeof(cmdb_daemon_status_t));
}
BENCHMARK(BM_Init0GetMapped);

}  // namespace
