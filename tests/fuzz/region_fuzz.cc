// A real region (examples/appliance.json with the demo configuration) whose
// data is damaged by a fuzzed list of byte edits: the domain table and its
// indexes, the locator handles and table limits, the node records, and the
// blocks of every allocated page (past the slab headers and free chains, which
// the library's translation itself trusts). Over it the reader dumps the whole
// configuration and the engine applies a request of every kind of operation,
// rolled back; both must stay inside the region's mappings and end, with or
// without an error. The edits are undone after each input.
#include <string.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>
#include <vector>

#include "tests/fuzz/fuzz_host.h"
#include "tests/sandbox.h"
#include "tools/schema/schema_loader.h"
#include "writer/engine.h"
#include "writer/reader.h"

namespace {

schema::Schema* g_built;
config::Model* g_model;
writer::ConfigWriter* g_writer;
Json::Value g_request;

struct Area {
  uint8_t* p;
  uint32_t size;
  // Node records lie at 4-byte offsets here, and the library reads them in
  // place through cmdb_node_t*, which the sanitizer's alignment check flags
  // for an offset that is not: edits of node areas write whole words whose low
  // bits are clear, so damaged offsets stay aligned.
  bool words = false;
};

// Where edits may land, found afresh for each input: pages move when mapped again.
std::vector<Area> areas() {
  std::vector<Area> out;
  auto* dt = static_cast<uint8_t*>(cmdb.domain);
  const auto* d = static_cast<const cmdb_domain_table_t*>(cmdb.domain);
  out.push_back({dt, static_cast<uint32_t>(offsetof(cmdb_domain_table_t, rec) + sizeof(cmdb_domain_rec_t) * (d->count + 1))});
  out.push_back({static_cast<uint8_t*>(cmdb.domid_index), 16});
  out.push_back({static_cast<uint8_t*>(cmdb.domname_index), 16});
  auto* g = static_cast<cmdb_global_t*>(cmdb.cmdb_global);
  out.push_back({reinterpret_cast<uint8_t*>(&g->locators_ready), sizeof(uint32_t) * (1 + CMDB_LOCATOR_GROUPS)});
  out.push_back({reinterpret_cast<uint8_t*>(&g->table_limits), sizeof g->table_limits});
  out.push_back({static_cast<uint8_t*>(cmdb.cmdb_node_index), 4 * 1024, true});
  out.push_back({static_cast<uint8_t*>(cmdb.cmdb_node), 2048, true});
  const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
  const auto* ct = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches);
  for (int32_t page = 1; page < pt->page_max; ++page) {
    if (pt->slot[page].size == -1) continue;
    auto* base = static_cast<uint8_t*>(cmf_ptr_from_shmid(CMF_SHMID(page, CMF_SHMID_LARGE), 1)) - 8;
    const int32_t c = reinterpret_cast<const cmdb_slab_header_t*>(base)->cache;
    const uint32_t head = c < 0 ? 8 : 24 + 4 * ct->cache[c].num;
    out.push_back({base + head, static_cast<uint32_t>(pt->slot[page].size) - head});
  }
  return out;
}

struct Edit {
  uint8_t* at;
  std::vector<uint8_t> old;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gk::test::enter_sandbox();
  const std::string source = GK_SOURCE_DIR;
  static schema::Schema built, named;
  std::string error;
  if (schema::load_file(source + "/examples/appliance.json", &built, &error) != 0 ||
      schema::load_file(source + "/examples/appliance.json", &named, &error) != 0)
    return fprintf(stderr, "%s\n", error.c_str()), 1;
  static std::array<uint8_t, CMDB_SERVICES * CMDB_SERVICE_SIZE> services{};
  cmf_shm_create_init();
  cmdb.platform = 3, cmdb.schema = built.root(), cmdb.service_table = services.data();
  if (cmf_shm_create() != 0 || init_cmdb_app_core(2) != 0) return fprintf(stderr, "no region\n"), 1;
  g_built = &built;
  g_model = new config::Model(std::move(named));
  g_writer = new writer::ConfigWriter;
  Json::Value load;
  std::ifstream(source + "/examples/demo-config.json") >> load["config"];
  load["op"] = "load";
  Json::Value first(Json::arrayValue);
  first.append(load);
  if (g_writer->begin() != 0 || !config::apply(*g_model, *g_writer, first).ok() || g_writer->commit() != 0)
    return fprintf(stderr, "cannot load the demo configuration\n"), 1;
  std::istringstream(R"([
    {"op": "set", "path": "interface[1]", "values": {"mtu": 1400}},
    {"op": "set", "path": "interface[7]", "values": {"name": "eth7"}},
    {"op": "set", "path": "system", "values": {"hostname": "fuzz"}},
    {"op": "set", "path": "policy[allow-web].rule[40]", "domain": "east", "values": {"port": 8}},
    {"op": "delete", "path": "policy[allow-web]", "domain": "east"},
    {"op": "domain-rename", "name": "west", "to": "ouest"},
    {"op": "domain-add", "name": "north"},
    {"op": "domain-remove", "name": "ouest"},
    {"op": "load", "config": {"global": {"address": [{"name": "x"}]}}}])") >> g_request;
  return 0;
}

// Input: one byte choosing the work (bit 0 the dump, the others each a pair of
// the request's operations), then edits of 6 + n bytes each: the area, a
// little-endian offset in it, n (1..8), n bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t work = data[0];
  const std::vector<Area> where = areas();
  std::vector<Edit> edits;
  for (size_t i = 1; i + 6 <= size;) {
    const Area& a = where[data[i] % where.size()];
    uint32_t offset;
    memcpy(&offset, data + i + 1, 4);
    const size_t n = std::min<size_t>({size_t{data[i + 5] % 8u} + 1, size - i - 6, a.size});
    if (n == 0) break;
    uint8_t* at = a.p + offset % (a.size - n + 1);
    uint8_t bytes[8];
    memcpy(bytes, data + i + 6, n);
    i += 6 + n;
    if (a.words) {
      if (n < 4) continue;
      at = a.p + (offset % (a.size / 4)) * 4;
      bytes[0] &= 0xFC;
    }
    const size_t len = a.words ? 4 : n;
    edits.push_back({at, std::vector<uint8_t>(at, at + len)});
    memcpy(at, bytes, len);
  }
  if (work & 1) {
    cmf_shm_read_lock();
    try {
      config::dump(*g_model, std::nullopt);
    } catch (const std::exception&) {
    }
    cmf_shm_read_unlock();
  }
  Json::Value request(Json::arrayValue);
  for (Json::ArrayIndex op = 0; op < g_request.size(); ++op)
    if (work & (2u << (op / 2))) request.append(g_request[op]);
  if (!request.empty() && g_writer->begin() == 0) {
    config::apply(*g_model, *g_writer, request);
    // A rollback that met the damage leaves its change to the next begin().
    if (g_writer->rollback() != 0 && g_writer->begin() == 0) g_writer->rollback();
  }
  for (auto it = edits.rbegin(); it != edits.rend(); ++it) memcpy(it->at, it->old.data(), it->old.size());
  return 0;
}
