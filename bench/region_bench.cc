// Region lifecycle: creating a region from the sample schema, attaching a
// reader in mode 1, and the memory an attached reader holds.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <memory>

#include "gikraidrum.h"
#include "tests/sample_schema.h"

namespace {

// The creation's summary line is for the host's console, not the report.
class QuietStdout {
 public:
  QuietStdout() {
    fflush(stdout);
    saved_ = ::dup(1);
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(null, 1);
    ::close(null);
  }
  ~QuietStdout() {
    fflush(stdout);
    ::dup2(saved_, 1);
    ::close(saved_);
  }

 private:
  int saved_;
};

long resident_kb() {
  long size = 0, resident = 0;
  FILE* f = fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  if (fscanf(f, "%ld %ld", &size, &resident) != 2) resident = -1;
  fclose(f);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void ensure_region() {
  static bool created = false;
  if (created) return;
  QuietStdout quiet;
  gk::test::SampleSchema schema;
  created = gk::test::create_region(schema, 3) == 0;
}

void BM_CreateRegion(benchmark::State& state) {
  QuietStdout quiet;
  if (cmf_shm_create_init() != 0) state.SkipWithError("daemon_status");
  for (auto _ : state) {
    state.PauseTiming();
    auto schema = std::make_unique<gk::test::SampleSchema>();   // the builder consumes its defaults
    cmdb.platform = 3;
    cmdb.schema = schema->root();
    cmdb.service_table = schema->service_table;
    state.ResumeTiming();
    if (cmf_shm_create() != 0) state.SkipWithError("cmf_shm_create failed");
  }
}
BENCHMARK(BM_CreateRegion)->Unit(benchmark::kMicrosecond);

void BM_AttachModeOne(benchmark::State& state) {
  ensure_region();
  for (auto _ : state) {
    if (init_cmdb_app_core(1) != 0) state.SkipWithError("init_cmdb_app_core(1) failed");
    cleanup_cmdb_app_core();
  }
}
BENCHMARK(BM_AttachModeOne)->Unit(benchmark::kMicrosecond);

// Resident memory a reader adds: right after attaching, and once it has read
// every page of every sub-region it maps.
void BM_AttachedResidentMemory(benchmark::State& state) {
  ensure_region();
  long before = 0, attached = 0, touched = 0;
  for (auto _ : state) {
    before = resident_kb();
    if (init_cmdb_app_core(1) != 0) state.SkipWithError("init_cmdb_app_core(1) failed");
    attached = resident_kb();
    void* bases[] = {cmdb.cmdb_node, cmdb.cmdb_sql_node, cmdb.cmdb_datasource, cmdb.cmdb_node_index,
                     cmdb.page,      cmdb.cmdb_global,   cmdb.cmdb_global_rw,  cmdb.cmdb_event,
                     cmdb.debug_zone, cmdb.domain,       cmdb.domid_index,     cmdb.domname_index,
                     cmdb.devices,   cmdb.admin_login_status};
    const char* names[] = {"cmdb_node", "cmdb_sql_node", "cmdb_datasource", "cmdb_node_index", "page",
                           "cmdb_global", "cmdb_global_rw", "cmdb_event", "debug_zone", "domain",
                           "domid_index", "domname_index", "devices", "admin_login_status"};
    unsigned sum = 0;
    for (size_t i = 0; i < sizeof bases / sizeof bases[0]; ++i) {
      struct stat st;
      if (cmdb_shm_stat(names[i], &st) != 0) continue;
      auto* p = static_cast<volatile uint8_t*>(bases[i]);
      for (off_t off = 0; off < st.st_size; off += 4096) sum += p[off];
    }
    benchmark::DoNotOptimize(sum);
    touched = resident_kb();
    cleanup_cmdb_app_core();
  }
  state.counters["attach_kB"] = static_cast<double>(attached - before);
  state.counters["all_read_kB"] = static_cast<double>(touched - before);
}
BENCHMARK(BM_AttachedResidentMemory)->Iterations(1)->Unit(benchmark::kMicrosecond);

}  // namespace
