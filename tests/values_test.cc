// Configuration by name: the value codec, paths and JSON documents against the
// example schema, reads over a region that cmdbctl made and this test then
// damages, and the cmdbctl runs where only the tool shows the behaviour.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "writer/config_writer.h"
#include "writer/json_text.h"
#include "writer/model.h"
#include "writer/reader.h"

namespace {
using namespace config;

const std::string kSchema = GK_SOURCE_DIR "/examples/appliance.json";

// "STATUS OUTPUT" of a cmdbctl run, its standard error included.
std::string cmdbctl(const std::string& args) {
  std::string out;
  FILE* p = popen((CMDBCTL_PATH " " + args + " 2>&1").c_str(), "r");
  char buf[4096];
  for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  const int st = p != nullptr ? pclose(p) : -1;
  return std::to_string(WIFEXITED(st) ? WEXITSTATUS(st) : -1) + " " + out;
}

// The text of the Error that fn throws, or "" when it throws none.
std::string error_of(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const Error& e) {
    return e.what();
  }
  return "";
}

// What a JSON literal or a command-line text stores in a field, read back:
// the value as compact JSON, or the error.
std::string round_trip(const Field& f, const std::string& in, bool text) {
  std::vector<uint8_t> data(f.offset + f.size);
  std::string err = error_of([&] {
    const Json::Value v = text ? parse_text_value(f, in) : JsonDocument("in", "[" + in + "]").root()[0];
    if (std::string e = encode_value(f, v, data.data()); !e.empty()) fail(e);
  });
  return err.empty() ? json_text(decode_value(f, data.data()), true) : err;
}

TEST(Values, OneNotationForSetKeysAndLoad) {
  const auto m = Model::load(kSchema);
  const Element& ifc = *m->top("interface");
  struct {
    const char* field;
    const char* in;
    bool text;  // as set and keys give it, else as a JSON value of load
    const char* want;
  } cases[] = {
      {"mtu", "010", true, "10"},
      {"mtu", "0x1F", true, "31"},
      {"mtu", "-1", true, "'mtu' takes no negative number, not -1"},
      {"mtu", "65536", true, "65536 does not fit 'mtu' (2 bytes)"},
      {"mtu", "1e3", true, "'mtu' is a number (decimal, or hex after 0x) or true/false, not '1e3'"},
      {"index", "99999999999999999999", true, "99999999999999999999 does not fit 'index' (4 bytes)"},
      {"enabled", "on", true, "1"},
      {"enabled", "no", true, "0"},
      {"address", "10.0.0.1", true, "\"10.0.0.1\""},
      {"address", "3232235777", true,
       "'address' is an IPv4 address in dotted form such as 192.0.2.1, not \"3232235777\""},
      {"name", "hex:6869", true, "\"hi\""},
      {"mtu", "-1", false, "'mtu' takes no negative number, not -1"},
      {"mtu", "1.5", false, "'mtu' takes a whole number, not 1.5"},
      {"mtu", "18446744073709551616", false, "18446744073709551616 does not fit 'mtu' (2 bytes)"},
      {"mtu", "\"0x10\"", false, "16"},
      {"enabled", "true", false, "1"},
      {"enabled", "\"off\"", false, "0"},
      {"address", "167772161", false,
       "'address' is an IPv4 address in dotted form such as 192.0.2.1, not 167772161"},
      {"name", "\"\\u00e9t\\u00e9\"", false, "\"\u00e9t\u00e9\""},
      {"name", "{\"hex\": \"ff\"}", false, "{\"hex\": \"ff000000000000000000000000000000\"}"},  // not UTF-8
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.field) + " " + c.in);
    EXPECT_EQ(c.want, round_trip(*ifc.field(c.field), c.in, c.text));
  }
  EXPECT_EQ("bad path 'interface[]': the key in 'interface[]' is empty",
            error_of([&] { parse_path(*m, "interface[]"); }));
  EXPECT_EQ("'index' takes no negative number, not -1", error_of([&] { key_bytes(ifc, "-1"); }));
  EXPECT_EQ("'mtu' is given twice", error_of([&] { parse_assignments(ifc, {"mtu=1", "name=a", "mtu=2"}); }));
}

TEST(Values, JsonErrorsNameTheirPlace) {
  struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"{\"a\": 1,}", "f:1:8: trailing comma before '}'"},
      {"[1,\r\n 2,\n]", "f:2:3: trailing comma before ']'"},
      {"{\"a\": 1} x", "f:1:10: text after the end of the JSON value"},
      {"{\"a\": 1, \"a\": 2}", "f:1:10: key 'a' appears twice in this object"},
      {" \n", "f:1:1: no JSON value: the input is empty"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.error, error_of([&] { JsonDocument("f", c.text); }));
  const JsonDocument d(
      "f", "{\"domains\": [{\"name\": \"east\",\n \"config\": {\"policy\": [{\"action\": 300}]}}]}");
  EXPECT_EQ("f:2:35: domains.east.policy[0].action: 300 does not fit",
            d.locate("domains.east.policy[0].action: 300 does not fit"));
  EXPECT_EQ("f:1:13: domains[1]: no such domain", d.locate("domains[1]: no such domain"));
  EXPECT_EQ("f: the file names 3 domains", d.locate("the file names 3 domains"));
}

TEST(Values, DocumentsPrintInSchemaOrder) {
  const auto m = Model::load(kSchema);
  const JsonDocument d("f", R"({"domains": [], "global": {"system": {"timezone": "UTC", "hostname": "h"},
                               "interface": [{"mtu": 1, "index": 2}], "dns": {}}})");
  EXPECT_EQ(
      "{\n  \"global\": {\n    \"system\": {\n      \"hostname\": \"h\",\n      \"timezone\": \"UTC\"\n    "
      "},\n"
      "    \"dns\": {},\n    \"interface\": [\n      {\n        \"index\": 2,\n        \"mtu\": 1\n      }\n"
      "    ]\n  },\n  \"domains\": []\n}",
      document_text(*m, d.root()));
  EXPECT_EQ("[{\"index\": 2, \"mtu\": 1}]",
            element_text(*m->top("interface"), d.root()["global"]["interface"], true));
}

// A region that cmdbctl created and loaded with the demo configuration,
// attached here as owner so that the test can damage it.
class NamedReads : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0u, cmdbctl("create --schema " + kSchema).rfind("0 ", 0));
    ASSERT_EQ(0u, cmdbctl("load " GK_SOURCE_DIR "/examples/demo-config.json").rfind("0 ", 0));
    ASSERT_EQ(0, init_cmdb_app_core(2));
    m_ = Model::load("");
  }
  void TearDown() override { cleanup_cmdb_app_core(); }

  template <class T>
  static T* block(uint32_t shmid) {
    return static_cast<T*>(cmf_ptr_from_shmid(shmid, 1));
  }
  // The word of the context's root block that holds the element's handle.
  static uint32_t* root(uint32_t domain, uint16_t gid) {
    const auto* t = static_cast<const cmdb_domain_table_t*>(cmdb.domain);
    auto* r = block<cmdb_root_block_t>(domain == 0 ? t->global_root
                                                   : t->rec[__cmdb_find_domain_by_id(domain, 0)].root);
    for (int i = 0; i < r->count; ++i)
      if (r->entry[i].gid == gid) return &r->entry[i].shmid;
    return nullptr;
  }
  std::string read_error() {
    cmf_shm_read_lock();
    const std::string error = error_of([&] { read_all(*m_, std::nullopt); });
    cmf_shm_read_unlock();
    return error;
  }
  std::unique_ptr<Model> m_;
};

TEST_F(NamedReads, DamageIsReportedNeverFollowed) {
  auto* ifc = block<cmdb_table_block_t>(*root(0, 120));
  auto* index = block<cmdb_entry_index_t>(ifc->index);
  auto* policies = block<cmdb_table_block_t>(*root(1, 200));
  const size_t es = m_->top("policy")->size + 8 + 4 * policies->nchild;
  auto rule_slot = [&](int pos) { return reinterpret_cast<uint32_t*>(policies->entries + pos * es + 8); };
  auto* sys = block<cmdb_object_block_t>(*root(0, 101));
  const int ruled = *rule_slot(0) != 0 ? 0 : 1;  // the policy with rules
  auto word = [](void* p) { return static_cast<uint32_t*>(p); };
  const struct {
    uint32_t* at;
    uint32_t value;
    std::string error;
  } cases[] = {
      {word(&ifc->count), 0x7FFFFFFF, "table 'interface' counts 2147483647 entries"},
      {&index->slot[1], 0x7FFFFFFF, "index of 'interface' names position 2147483647 of 2 entries"},
      {&index->slot[1], index->slot[0], "names position " + std::to_string(index->slot[0]) + " twice"},
      {word(&index->count), 1, "index of 'interface' lists 1 of the table's 2 entries"},
      {word(&sys->gid), 0xFFFF0000u | sys->gid, "object 'system' has 65535 child slots"},
      {root(0, 120), *root(0, 101), "'interface' is in block"},
      {root(0, 120), 0x7FFF0001, "'interface' names block 32767:1, which holds no block"},
      {rule_slot(1 - ruled), *rule_slot(ruled), "leads back to block"},
  };
  ASSERT_EQ("", read_error());
  for (const auto& c : cases) {
    const uint32_t saved = *c.at;
    *c.at = c.value;
    const std::string error = read_error();
    *c.at = saved;
    EXPECT_NE(std::string::npos, error.find(c.error)) << error;
    EXPECT_EQ(0u, error.rfind("the region is damaged: ", 0)) << error;
  }
  EXPECT_EQ("", read_error());
}

TEST_F(NamedReads, WriterMessagesNameTablesAndDomains) {
  writer::ConfigWriter w;
  ASSERT_EQ(0, w.begin());
  std::vector<uint8_t> eth0 = m_->top("interface")->defaults;
  eth0[0] = 1;
  EXPECT_EQ(-EEXIST, w.insert(writer::Location(0, 120), eth0.data()));
  EXPECT_EQ("table 'interface' already has an entry with that key", w.error());
  EXPECT_EQ(-EEXIST, w.add_domain("north", 1));
  EXPECT_EQ("domain id 1 is taken by 'east'", w.error());
  EXPECT_EQ(0, w.rollback());
}

TEST_F(NamedReads, ObjectsNeverWrittenReadAsDefaultsMissingEntriesFail) {
  cmf_shm_read_lock();
  bool defaults = false;
  const Json::Value log = read_path(*m_, parse_path(*m_, "log_settings"), 0, &defaults);
  EXPECT_TRUE(defaults);
  EXPECT_EQ(decode_fields(*m_->top("log_settings"), m_->top("log_settings")->defaults.data()), log);
  read_path(*m_, parse_path(*m_, "system"), 0, &defaults);
  EXPECT_FALSE(defaults);
  EXPECT_THROW(read_path(*m_, parse_path(*m_, "interface[3]"), 0), Error);
  cmf_shm_read_unlock();
  EXPECT_NE(std::string::npos, cmdbctl("get log_settings").find("schema default"));
  EXPECT_NE(std::string::npos, cmdbctl("--json get log_settings").find("\"default\": true"));
  EXPECT_EQ("1 cmdbctl: no entry 'interface[3]'\n", cmdbctl("get interface[3]"));
}

TEST_F(NamedReads, LoadInputIsBoundedStrictAndPlaced) {
  FILE* f = fopen("/tmp/bad.json", "w");
  fputs("{\"global\": {\n  \"system\": {\"admin_port\": -1}}}", f);
  fclose(f);
  const char* runs[][2] = {
      {"--max-size 1K /dev/zero", "1 cmdbctl: /dev/zero: longer than 1 KiB (see --max-size)\n"},
      {"--max-size 10 /tmp/bad.json", "1 cmdbctl: /tmp/bad.json: longer than 10 bytes (see --max-size)\n"},
      {"/tmp/bad.json",
       "1 cmdbctl: /tmp/bad.json:2:28: global.system.admin_port: 'admin_port' takes no negative "
       "number, not -1\n"},
      {"--max-size 1X /tmp/bad.json",
       "2 cmdbctl: --max-size takes a byte count such as 1048576, 64K, 256M or 1G, not '1X'\n"},
  };
  for (const auto& r : runs) EXPECT_EQ(r[1], cmdbctl(std::string("load ") + r[0]));
}

}  // namespace
