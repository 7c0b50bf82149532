// Loading a schema: what a creating process pays once at start-up, for the
// example appliance and for a schema that fills the gid range.
#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tools/schema/schema_loader.h"

namespace {

// Read before main enters the sandbox, whose tmpfs on /tmp hides a checkout there.
const std::string kExample = [] {
  std::ifstream in(GK_SOURCE_DIR "/examples/appliance.json");
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}();

// 110 kind-2 tables of 15 nodes each (key, eleven attributes, a child table of
// key and one attribute): 1650 nodes, most of the gid range.
std::string full_schema() {
  std::ostringstream text;
  text << "{ \"nodes\": [\n";
  uint32_t gid = 100;
  auto node = [&](const char* name, int number, const char* rest) {
    text << R"({"name":")" << name;
    if (number >= 0) text << number;
    text << R"(","gid":)" << gid++ << "," << rest;
  };
  for (int t = 0; t < 110; ++t) {
    text << (t ? ",\n" : "");
    node("t", t, R"("kind":2,"scope":2,"size":80,"defaults":{"a0":1,"a1":"x"},"children":[)");
    node("key", -1, R"("kind":5,"type":2,"size":32,"children":[)");
    for (int a = 0; a < 11; ++a) {
      node("a", a, a == 1 ? R"("kind":5,"type":2,"size":4,)" : R"("kind":5,"type":1,"size":4,)");
      text << R"("offset":)" << 32 + 4 * a << "},";
    }
    node("sub", -1, R"("kind":3,"size":8,"children":[)");
    node("k", -1, R"("kind":5,"type":1,"size":4,"children":[)");
    node("v", -1, R"("kind":5,"type":1,"size":4,"offset":4}]}]}]}]})");
  }
  text << "\n]}";
  return text.str();
}

void load(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    schema::Schema s;
    std::string error;
    if (schema::load_string(text, "bench.json", &s, &error) != 0) {
      state.SkipWithError(error.c_str());
      break;
    }
    benchmark::DoNotOptimize(s.root());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void BM_LoadExample(benchmark::State& state) { load(state, kExample); }
BENCHMARK(BM_LoadExample);

void BM_LoadFullGidRange(benchmark::State& state) { load(state, full_schema()); }
BENCHMARK(BM_LoadFullGidRange)->Unit(benchmark::kMillisecond);

}  // namespace
