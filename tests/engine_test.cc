// The configuration engine over a region built from examples/appliance.json:
// requests applied all or nothing, change sets that read backwards undo their
// request, a damaged region found by the check, refused by the writer and
// rebuilt in place under an attached reader (cmdbctl domain and verify:
// check_domains.sh).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <functional>
#include <sstream>

#include "tests/region_files.h"
#include "tools/schema/schema_loader.h"
#include "writer/engine.h"
#include "writer/reader.h"
#include "writer/verify.h"

namespace {

const std::string kSource = GK_SOURCE_DIR;
const std::string kSchema = kSource + "/examples/appliance.json";

Json::Value parse(const std::string& text) {
  Json::Value v;
  std::istringstream(text) >> v;
  return v;
}

Json::Value request(const Json::Value& op) {
  Json::Value r(Json::arrayValue);
  r.append(op);
  return r;
}

// What undoes a change set: the inverse of each change, newest first.
Json::Value inverse(const Json::Value& changes) {
  Json::Value out(Json::arrayValue);
  for (Json::ArrayIndex i = changes.size(); i-- > 0;) {
    const Json::Value& c = changes[i];
    const std::string op = c["op"].asString();
    Json::Value o = c;  // a domain's record names it, its id and its new name
    if (op == "domain-add") o["op"] = "domain-remove", o.removeMember("id");
    else if (op == "domain-remove") o["op"] = "domain-add";
    else if (op == "domain-rename") o["name"] = c["to"], o["to"] = c["name"], o.removeMember("id");
    else if (op == "insert") o = config::delete_op(c["path"].asString(), c["domain"].asString());
    else o = config::set_op(c["path"].asString(), c["domain"].asString(), c["old"]);
    out.append(o);
  }
  return out;
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_EQ(0, schema::load_file(kSchema, &built_, &error)) << error;  // the builder consumes its defaults
    schema::Schema named;
    ASSERT_EQ(0, schema::load_file(kSchema, &named, &error)) << error;
    model_ = std::make_unique<config::Model>(std::move(named));
    static std::array<uint8_t, CMDB_SERVICES * CMDB_SERVICE_SIZE> services{};
    ASSERT_EQ(0, cmf_shm_create_init());
    cmdb.platform = 3, cmdb.schema = built_.root(), cmdb.service_table = services.data();
    gk::test::capture_stdout([&] { ASSERT_EQ(0, cmf_shm_create()); });
    ASSERT_EQ(0, init_cmdb_app_core(2));
    load_demo();
  }
  void TearDown() override { cleanup_cmdb_app_core(); }

  void load_demo() {
    Json::Value op = parse(R"({"op": "load"})");
    std::ifstream(kSource + "/examples/demo-config.json") >> op["config"];
    const config::Applied a = apply(request(op));
    ASSERT_TRUE(a.ok()) << a.error.reason;
  }
  // One request in a transaction of its own, committed when it applied.
  config::Applied apply(const Json::Value& r) {
    EXPECT_EQ(0, w_.begin()) << w_.error();
    config::Applied a = config::apply(*model_, w_, r);
    a.ok() ? w_.commit() : w_.rollback();
    return a;
  }
  Json::Value dump(bool lock = true) {
    if (lock) cmf_shm_read_lock();
    Json::Value v = config::read_all(*model_, std::nullopt);
    if (lock) cmf_shm_read_unlock();
    return v;
  }
  static writer::RegionReport verify() {
    cmf_shm_read_lock();
    writer::RegionReport r = writer::verify_region();
    cmf_shm_read_unlock();
    return r;
  }
  static uint8_t* at(uint32_t shmid) { return static_cast<uint8_t*>(cmf_ptr_from_shmid(shmid, 1)); }

  schema::Schema built_;
  std::unique_ptr<config::Model> model_;
  writer::ConfigWriter w_;
};

TEST_F(EngineTest, ChangeSetsReadBackwardsUndoTheirRequest) {
  const char* requests[] = {
      R"([{"op": "set", "path": "interface[3]", "values": {"name": "eth2", "mtu": 1400}},
          {"op": "set", "path": "policy[allow-web].rule[30]", "domain": "east", "values": {"port": 22}}])",
      R"([{"op": "set", "path": "dns", "values": {"secondary": "192.0.2.54"}},
          {"op": "set", "path": "system", "values": {"hostname": "h2"}}])",
      R"([{"op": "delete", "path": "policy[allow-web]", "domain": "east"}])",
      R"([{"op": "domain-add", "name": "north"},
          {"op": "set", "path": "address[x]", "domain": "north", "values": {"subnet": "10.9.0.0"}},
          {"op": "domain-rename", "name": "west", "to": "Ouest"}, {"op": "domain-remove", "name": "east"}])",
      R"([{"op": "load", "config": {"global": {"interface": [{"index": 2, "name": "eth1"}]},
           "domains": [{"name": "Ouest", "config": {"address": [{"name": "lab", "subnet": "10.9.9.9"}],
           "policy": [{"name": "p9", "rule": [{"seq": 1}, {"seq": 2, "port": 7}]}]}}]}},
          {"op": "load", "merge": true, "config": {"global": {"system": {"timezone": "UTC"},
           "interface": [{"index": 2, "mtu": 1000}, {"index": 5}]}}}])",
  };
  for (const char* text : requests) {
    SCOPED_TRACE(text);
    const Json::Value before = dump();
    ASSERT_EQ(0, w_.begin());
    const config::Applied a = config::apply(*model_, w_, parse(text));
    ASSERT_TRUE(a.ok()) << a.error.path << ": " << a.error.reason;
    const config::Applied undo = config::apply(*model_, w_, inverse(a.changes));
    ASSERT_TRUE(undo.ok()) << undo.error.path << ": " << undo.error.reason;
    EXPECT_EQ(before, dump(false));
    ASSERT_TRUE(config::apply(*model_, w_, parse(text)).ok());  // kept, for the next request to build on
    ASSERT_EQ(0, w_.commit());
  }
  EXPECT_TRUE(verify().ok()) << verify().faults[0];
}

TEST_F(EngineTest, AFailingOperationLeavesTheRegionAsItWas) {
  const auto before = gk::test::region_files();
  struct {
    const char* request;
    int op;
    const char* path;
    const char* reason;
  } cases[] = {
      {R"([{"op": "set", "path": "interface[7]"}, {"op": "delete", "path": "interface[99]"}])", 1, "interface[99]",
       "no entry 'interface[99]'"},
      {R"([{"op": "domain-add", "name": "n"}, {"op": "set", "path": "policy[p]", "domain": "n",
           "values": {"colour": 1}}])", 1, "policy[p]", "has no attribute 'colour'"},
      {R"([{"op": "domain-rename", "name": "east", "to": "WEST"}])", 0, "east", "is taken"},
      {R"([{"op": "set", "path": "interface[1]", "values": {"index": 2}}])", 0, "interface[1]", "the key of"},
      {R"([{"op": "set", "path": "policy[p]", "values": {"action": 1}}])", 0, "policy[p]", "per domain only"},
      {R"([{"op": "load", "config": {"domains": [{"name": "east", "id": 9}]}}])", 0, "domains[0]", "has id 1, not 9"},
      // The allocator runs out part-way (the next page is blocked below).
      {R"([{"op": "domain-add", "name": "first"}, {"op": "load", "config": {"domains": [{"name": "big"}]}}])", 1,
       nullptr, "no memory"},
  };
  const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
  int next = 1;
  while (pt->slot[next].size != -1) ++next;
  ASSERT_EQ(0, ::mkdir(("/dev/cmdb/" + std::to_string(next)).c_str(), 0700));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    Json::Value r = parse(c.request);
    if (std::string(c.reason) == "no memory") {
      Json::Value& addresses = r[1]["config"]["domains"][0]["config"]["address"] = Json::Value(Json::arrayValue);
      for (int i = 0; i < 200; ++i) addresses.append(Json::Value(Json::objectValue))["name"] = "a" + std::to_string(i);
    }
    const config::Applied a = apply(r);
    EXPECT_EQ(c.op, a.error.op);
    EXPECT_EQ(c.path != nullptr ? c.path : a.error.path, a.error.path);
    EXPECT_NE(std::string::npos, a.error.reason.find(c.reason)) << a.error.reason;
    EXPECT_TRUE(before == gk::test::region_files());
  }
}

TEST_F(EngineTest, DamageIsFoundRefusedAndRebuiltUnderAnAttachedReader) {
  const Json::Value demo = dump();
  gk::test::Holder reader(
      [&] {
        cleanup_cmdb_app_core();
        if (init_cmdb_app_core(1) != 0 || dump() != demo) _exit(2);
      },
      [&] { _exit(dump() == demo ? 0 : 3); });
  ASSERT_TRUE(reader.held());
  auto* dt = static_cast<cmdb_domain_table_t*>(cmdb.domain);
  auto table = [&](uint32_t domain, uint16_t gid) {
    return reinterpret_cast<cmdb_table_block_t*>(at(*cmdb_find_root_entity(domain, gid)));
  };
  // Each damage is met by the check, and by one of these operations at the latest.
  const Json::Value ops = parse(R"([{"op": "set", "path": "system", "values": {"hostname": "x"}},
      {"op": "set", "path": "interface[9]"}, {"op": "delete", "path": "policy[allow-web]", "domain": "east"}])");
  struct {
    std::function<void()> damage;
    const char* fault;
  } cases[] = {
      {[&] { dt->count = -1; }, "domain table: count -1"},
      {[] { reinterpret_cast<cmdb_locator_block_t*>(at(cmdb.index_roots[1]))->count = 0x7fffffff; },
       "locator block of entry group 0"},
      {[&] { table(0, 120)->count = 0x7fffffff; }, "counts 2147483647 entries"},
      {[&] { reinterpret_cast<cmdb_entry_index_t*>(at(table(0, 120)->index))->slot[0] = 0x7fffffff; },
       "index slot 0 holds 2147483647"},
      {[] { reinterpret_cast<cmdb_object_block_t*>(at(*cmdb_find_root_entity(0, 101)))->nchild = 0xffff; },
       "is not one of 'system'"},
      {[&] { static_cast<cmdb_entry_t*>(cmf_get_table_entry(table(1, 200), 0))->child[0] = 0x7fff0003; },
       "on no page of the page table"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fault);
    c.damage();
    const writer::RegionReport r = verify();
    ASSERT_FALSE(r.ok());
    EXPECT_NE(std::string::npos, r.faults[0].find(c.fault)) << r.faults[0];
    // Refused at the start of the transaction, or by the operation that meets it.
    std::string refusal = w_.begin() != 0 ? w_.error() : "";
    for (Json::ArrayIndex i = 0; refusal.empty() && i < ops.size(); ++i) {
      const config::Applied a = config::apply(*model_, w_, request(ops[i]));
      refusal = a.ok() ? "" : a.error.reason;
    }
    if (w_.in_transaction()) w_.rollback();
    EXPECT_NE(std::string::npos, refusal.find("damaged")) << refusal;
    ASSERT_EQ(0, w_.reset()) << w_.error();
    ASSERT_EQ(0, w_.commit());
    EXPECT_EQ(parse(R"({"global": {}, "domains": []})"), dump());
    EXPECT_TRUE(verify().ok());
    load_demo();
  }
  EXPECT_EQ(0, reader.finish());
}

}  // namespace
