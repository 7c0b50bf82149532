// cmdbd from outside: what a client is told, what the region and the store
// hold afterwards, and what a restart brings back.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <thread>

#include "client/wire.h"
#include "gikraidrum.h"
#include "daemon/config_doc.h"
#include "daemon/store.h"
#include "tests/daemon/cmdbd_fixture.h"

namespace gk::cmdbd_test {
namespace {

std::string set_op(const std::string& path, const std::string& values, const std::string& domain = "global") {
  return R"({"op": "set", "path": ")" + path + R"(", "domain": ")" + domain + R"(", "values": )" + values + "}";
}

class CmdbdTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(d.start()) << d.log(); }
  gk_client* connect() {
    gk_client* c = gk_client_open(nullptr);
    EXPECT_NE(nullptr, c) << strerror(errno);
    return c;
  }
  Cmdbd d;
};

TEST_F(CmdbdTest, CommitsAreDurableInOrderAndComeBackAfterRestart) {
  std::string out = run(std::string(CLIENT_CHECK_PATH) + " " + kSocket, nullptr, true);
  ASSERT_EQ("1 2\n", out);  // the refused transaction took no revision
  Json::Value before = dump();
  EXPECT_EQ("from-c", before["global"]["system"]["hostname"].asString());
  EXPECT_EQ(1400, before["global"]["interface"][0]["mtu"].asInt());
  EXPECT_EQ(0u, before["domains"].size());

  // Past the snapshot interval, so that a restart replays from a snapshot.
  gk_client* c = connect();
  for (int i = 0; i < 40; ++i) {
    uint64_t rev = 0;
    std::string ops = "[" + set_op("interface[" + std::to_string(10 + i % 5) + "]", R"({"mtu": )" + std::to_string(1000 + i) + "}") + "]";
    ASSERT_EQ(0, commit(c, ops, &rev));
    EXPECT_EQ(3u + i, rev);
  }
  uint64_t same = 0;  // nothing to change: no revision
  ASSERT_EQ(0, commit(c, "[" + set_op("interface[14]", R"({"mtu": 1039})") + "]", &same));
  EXPECT_EQ(42u, same);
  gk_client_close(c);
  before = dump();
  EXPECT_EQ(0, d.stop());

  std::string error;
  std::unique_ptr<cmdbd::Store> s = cmdbd::Store::open("/var/lib/cmdb", &error);
  ASSERT_NE(nullptr, s) << error;
  EXPECT_EQ(42u, s->last_revision());
  EXPECT_EQ(32u, s->last_snapshot());
  s.reset();

  ASSERT_TRUE(d.start()) << d.log();
  EXPECT_EQ(before, dump());
  EXPECT_EQ(std::string::npos, d.log().find("brought the region back")) << d.log();
  c = connect();
  EXPECT_EQ(42u, status(c)["revision"].asUInt64());
  gk_client_close(c);
}

TEST_F(CmdbdTest, OneOwnerWhoseStartBringsTheRegionBackToTheStore) {
  const std::string ctl = CMDBCTL_PATH;
  int st = 0;
  std::string out = run(CMDBD_PATH " --write-group 0 --schema " GK_SOURCE_DIR "/examples/appliance.json", &st, true);
  EXPECT_EQ(1, st);
  EXPECT_NE(std::string::npos, out.find("held by pid " + std::to_string(d.pid()) + " (cmdbd)")) << out;
  EXPECT_EQ("set system (revision 1)\n", run(ctl + " set system hostname=kept", &st, true));
  Json::Value kept = dump();
  EXPECT_EQ(128 + SIGKILL, d.stop(SIGKILL));
  EXPECT_EQ("cmdbctl: cmdbd is not running: start it, or write with --direct, which is not saved\n",
            run(ctl + " delete 'interface[3]'", &st, true));
  EXPECT_EQ(1, st);
  EXPECT_EQ(0u, run(ctl + " status", &st).find("cmdbd is not running"));
  EXPECT_EQ(1, st);
  run(ctl + " --direct set system hostname=direct && " + ctl + " set --direct 'interface[3]' name=eth3", &st);
  ASSERT_EQ(0, st);
  ASSERT_NE(kept, dump());
  ASSERT_TRUE(d.start()) << d.log();
  EXPECT_TRUE(cmdbd::same_config(kept, dump()));
  EXPECT_NE(std::string::npos, d.log().find("brought the region back to revision 1"));
  ASSERT_EQ(0, init_cmdb_app_core(1));
  EXPECT_EQ(CMDB_EXT_MANAGED, cmdb.header->ext_flags & CMDB_EXT_MANAGED);
  EXPECT_EQ(1u, cmdb.header->revision);
  cleanup_cmdb_app_core();
  EXPECT_NE(std::string::npos, run(ctl + " status", &st).find("revision   1 (oldest kept 1)"));
  EXPECT_EQ(0, st);

  // Damaged while cmdbd was down: rebuilt in place from the store.
  EXPECT_EQ(128 + SIGKILL, d.stop(SIGKILL));
  ASSERT_EQ(0, init_cmdb_app_core(2));
  static_cast<cmdb_domain_table_t*>(cmdb.domain)->count = -1;
  cleanup_cmdb_app_core();
  ASSERT_TRUE(d.start()) << d.log();
  EXPECT_NE(std::string::npos, d.log().find("rebuilt the region; sending reload events")) << d.log();
  EXPECT_TRUE(cmdbd::same_config(kept, dump()));
}

TEST_F(CmdbdTest, RefusedRequestsChangeNothing) {
  gk_client* c = connect();
  ASSERT_EQ(0, commit(c, "[" + set_op("interface[1]", R"({"mtu": 1500})") + "]"));
  Json::Value before = dump();
  std::pair<std::string, std::string> cases[] = {
      {R"([{"op": "set", "path": "interface[2]", "values": {"mtu": 9000}}, {"op": "delete", "path": "interface[1]"},
          {"op": "set", "path": "interface[9]", "values": {"mtu": "lots"}}])", "interface[9]: "},
      {R"([{"op": "domain-add", "name": "east"}, {"op": "set", "path": "policy[p]", "domain": "east",
          "values": {"action": 1}}, {"op": "domain-remove", "name": "west"}])", "no domain 'west'"},
      {R"([{"op": "frobnicate"}])", "no operation 'frobnicate'"},
      {"[" + set_op("interface[2]", R"({"mtu": -1})") + "]", "'mtu' takes no negative number"},
      // Longer than a packet each way.
      {"[" + set_op("system", R"({"hostname": ")" + std::string(200000, 'h') + R"("})") + "]", "hostname"},
  };
  for (const auto& [ops, error] : cases) {
    ASSERT_EQ(1, commit(c, ops)) << ops.substr(0, 200);
    EXPECT_NE(nullptr, strstr(gk_client_error(c), error.c_str())) << gk_client_error(c);
    EXPECT_EQ(before, dump()) << ops.substr(0, 200);
  }
  char* answer = nullptr;
  ASSERT_EQ(0, gk_client_request(c, R"({"request": "commit", "id": 9})", &answer));
  EXPECT_STREQ(R"({"error":"bad request: 'operations' is a non-empty array","id":9,"ok":false})", answer);
  free(answer);
  ASSERT_EQ(0, gk_client_request(c, R"({"request": "status",})", &answer));  // strict JSON
  EXPECT_NE(nullptr, strstr(answer, "bad request: bad JSON")) << answer;
  free(answer);
  EXPECT_EQ(-1, commit(c, R"([{"op": "delete", "path": "interface[1]"},])"));  // the client is as strict
  EXPECT_EQ(1u, status(c)["revision"].asUInt64());
  gk_client_close(c);
}

int open_and_commit() {
  gk_client* c = gk_client_open(kSocket);
  if (c == nullptr) return errno == EACCES ? 10 : 11;
  int r = commit(c, R"([{"op": "set", "path": "system", "values": {"hostname": "member"}}])");
  bool denied = r == 1 && strcmp(gk_client_error(c), "permission denied") == 0;
  gk_client_close(c);
  return r == 0 ? 0 : denied ? 20 : 21;
}

TEST_F(CmdbdTest, OnlyRootAndTheWriteGroupWriteAndStoreFailuresChangeNothing) {
  d.stop();
  ASSERT_TRUE(d.start({"--write-group", "65534"}, {"LD_PRELOAD=" FAULT_SHIM_PATH, "GK_FAULT_FILE=/tmp/fault"}))
      << d.log();
  gk_client* c = connect();
  ASSERT_EQ(0, commit(c, "[" + set_op("system", R"({"hostname": "one"})") + "]"));
  Json::Value before = dump();
  for (const char* fault : {"sync EIO", "write ENOSPC"}) {
    std::ofstream("/tmp/fault") << fault;
    ASSERT_EQ(1, commit(c, "[" + set_op("system", R"({"hostname": "two"})") + "]")) << fault;
    EXPECT_NE(nullptr, strstr(gk_client_error(c), "the store could not save the change")) << gk_client_error(c);
    EXPECT_EQ(before, dump());
    std::ofstream("/tmp/fault") << "";
    EXPECT_EQ(1u, status(c)["revision"].asUInt64());
  }
  uint64_t rev = 0;
  ASSERT_EQ(0, commit(c, "[" + set_op("dns", R"({"primary": "192.0.2.9"})") + "]", &rev));
  EXPECT_EQ(2u, rev);
  Json::Value after = dump();
  gk_client_close(c);
  d.stop(SIGKILL);
  ASSERT_TRUE(d.start({"--write-group", "65534"})) << d.log();
  EXPECT_EQ(after, dump());

  if (as_user(65534, 65534, {}, [] { return 0; }) == 99) GTEST_SKIP() << "cannot take another uid here";
  EXPECT_EQ(10, as_user(65534, 65533, {}, open_and_commit));      // the socket is 0660 root:65534
  EXPECT_EQ(0, as_user(65534, 65533, {65534}, open_and_commit));  // a member
  ASSERT_EQ(0, chmod(kSocket, 0666));                             // cmdbd checks each request too
  EXPECT_EQ(20, as_user(65534, 65533, {}, open_and_commit));
  EXPECT_EQ("member", dump()["global"]["system"]["hostname"].asString());
}

TEST_F(CmdbdTest, ConcurrentClientsAreEachCommittedOnce) {
  constexpr int kClients = 8, kEach = 25;
  std::vector<std::thread> threads;
  std::vector<std::vector<uint64_t>> revs(kClients);
  for (int t = 0; t < kClients; ++t)
    threads.emplace_back([t, &revs] {
      gk_client* c = gk_client_open(nullptr);
      for (int i = 0; c != nullptr && i < kEach; ++i) {
        uint64_t rev = 0;
        std::string key = std::to_string(100 + t * kEach + i);
        if (commit(c, "[" + set_op("interface[" + key + "]", R"({"mtu": 1280})") + "]", &rev) == 0) revs[t].push_back(rev);
      }
      gk_client_close(c);
    });
  for (std::thread& t : threads) t.join();
  std::set<uint64_t> all;
  for (const auto& r : revs) all.insert(r.begin(), r.end());
  ASSERT_EQ(size_t{kClients * kEach}, all.size());
  EXPECT_EQ(1u, *all.begin());
  EXPECT_EQ(uint64_t{kClients * kEach}, *all.rbegin());
  EXPECT_EQ(Json::ArrayIndex{kClients * kEach}, dump()["global"]["interface"].size());
}

TEST(WireTest, JoinsThePacketsOfOneObject) {
  struct Case {
    std::vector<std::string> packets;
    gk::wire::Joiner::Result last;
  } cases[] = {
      {{R"( {"a": [1, {"b": "}]\"{"}]} )"}, gk::wire::Joiner::kDone},
      {{R"({"a": "x\)", R"(\", "b": {)", "}}"}, gk::wire::Joiner::kDone},
      {{"[1]"}, gk::wire::Joiner::kBad},
      {{"{}{}"}, gk::wire::Joiner::kBad},
      {{"{", R"("a": ")", "}"}, gk::wire::Joiner::kMore},
  };
  for (const Case& k : cases) {
    gk::wire::Joiner j;
    gk::wire::Joiner::Result r = gk::wire::Joiner::kMore;
    for (const std::string& p : k.packets) r = j.feed(p.data(), p.size());
    EXPECT_EQ(k.last, r) << k.packets[0];
  }
  std::string big = R"({"pad": ")" + std::string(3 * gk::wire::kPacketMax, 'x') + R"("})";
  EXPECT_EQ(4u, gk::wire::packet_count(big));
}

}  // namespace
}  // namespace gk::cmdbd_test
