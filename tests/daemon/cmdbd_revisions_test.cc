// Revisions through cmdbd: history, show, diff and rollback, against what the
// region holds after each.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <random>

#include "daemon/config_doc.h"
#include "tests/daemon/cmdbd_fixture.h"

namespace gk::cmdbd_test {
namespace {

const std::string kCtl = CMDBCTL_PATH;

// An answer of a client call that returns JSON text.
template <typename Fn>
Json::Value answer_of(Fn fn) {
  char* text = nullptr;
  if (fn(&text) != 0) return Json::Value();
  Json::Value v;
  std::string error;
  bool ok = cmdbd::from_text(text, &v, &error);
  free(text);
  return ok ? v : Json::Value();
}

class CmdbdRevisionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(d.start()) << d.log();
    c = gk_client_open(nullptr);
    ASSERT_NE(nullptr, c);
  }
  void TearDown() override { gk_client_close(c); }
  Json::Value show(uint64_t rev) {
    return answer_of([&](char** t) { return gk_client_show(c, rev, nullptr, nullptr, t); });
  }
  Cmdbd d;
  gk_client* c = nullptr;
};

TEST_F(CmdbdRevisionsTest, RollbackGivesTheConfigurationShowSaw) {
  // Revisions of every kind of change, past a snapshot so that some are
  // rebuilt from one.
  std::mt19937 rng(16);
  ASSERT_EQ(0, commit(c, R"([{"op": "domain-add", "name": "east", "id": 3}])"));
  for (int i = 0; i < 80; ++i) {
    std::string key = std::to_string(rng() % 6);
    std::string ops;
    switch (rng() % 4) {
      case 0: ops = R"({"op": "delete", "path": "interface[)" + key + R"(]"})"; break;
      case 1:
        ops = R"({"op": "set", "path": "policy[p)" + key + R"(]", "domain": "east", "values": {"action": )" +
              std::to_string(rng() % 2) + "}}";
        break;
      case 2: ops = R"({"op": "delete", "path": "policy[p)" + key + R"(]", "domain": "east"})"; break;
      default:
        ops = R"({"op": "set", "path": "interface[)" + key + R"(]", "values": {"mtu": )" + std::to_string(1280 + i) + "}}";
    }
    if (i % 15 == 7) ops += std::string(", ") + (i % 2 ? R"({"op": "domain-remove", "name": "west"})"
                                                       : R"({"op": "domain-add", "name": "west", "id": 9})");
    ASSERT_GE(commit(c, "[" + ops + "]"), 0);
  }
  uint64_t last = status(c)["revision"].asUInt64();
  ASSERT_GT(last, 32u);
  uint64_t oldest = answer_of([&](char** t) { return gk_client_history(c, 1, t); })["oldest_kept"].asUInt64();
  ASSERT_LT(oldest, last - 5);
  for (int i = 0; i < 20; ++i) {
    uint64_t target = oldest + rng() % (last - oldest), made = 0;
    Json::Value then = show(target);
    ASSERT_TRUE(then["ok"].asBool()) << then;
    Json::Value before = dump();
    int r = gk_client_rollback(c, target, nullptr, &made);
    ASSERT_EQ(0, r) << gk_client_error(c);
    Json::Value now = dump();
    EXPECT_TRUE(cmdbd::same_config(then["config"], now)) << target << "\n" << then["config"] << "\n" << now;
    // A rollback is a revision of its own, which show rebuilds the same.
    EXPECT_EQ(cmdbd::same_config(before, now) ? last : last + 1, made);
    last = made;
    EXPECT_TRUE(cmdbd::same_config(now, show(last)["config"])) << last;
  }
  Json::Value h = answer_of([&](char** t) { return gk_client_history(c, 1, t); });
  EXPECT_EQ("rollback", h["revisions"][0]["kind"].asString());
  EXPECT_EQ(0u, h["revisions"][0]["comment"].asString().find("rollback to revision "));
}

TEST_F(CmdbdRevisionsTest, HistoryDiffAndHowFarBack) {
  int st = 0;
  run(kCtl + " domain add east --id 4 && " + kCtl + " set policy[allow-web] action=1 priority=7 --domain east && " +
          kCtl + " set interface[2] mtu=1400 && " + kCtl + " set policy[allow-web] action=0 --domain east && " + kCtl +
          " delete interface[2] -m 'drop it'",
      &st);
  ASSERT_EQ(0, st);
  EXPECT_EQ("interface[2]: deleted\n", run(kCtl + " diff", &st, true));
  EXPECT_EQ("policy[allow-web] in east: action 1 -> 0\n", run(kCtl + " diff 3 4", &st, true));
  EXPECT_EQ("policy[allow-web] in east: action 0 -> 1\n", run(kCtl + " diff 4 3", &st, true));
  std::string created = run(kCtl + " diff 1 2", &st, true);
  EXPECT_EQ("policy[allow-web] in east: inserted action=1, comment=\"\", enabled=1, name=\"allow-web\", priority=7, "
            "schedule=0\n",
            created);
  EXPECT_EQ(0, st);

  ASSERT_EQ(0, commit(c, R"([{"op": "set", "path": "system", "values": {"hostname": "h"}}])"));
  ASSERT_EQ(0, gk_client_rollback(c, 4, "back to 4", nullptr)) << gk_client_error(c);
  Json::Value h;
  std::string error;
  ASSERT_TRUE(cmdbd::from_text(run(kCtl + " history --json --limit 3", &st), &h, &error)) << error;
  ASSERT_EQ(3u, h["revisions"].size()) << h;
  const Json::Value& back = h["revisions"][0];
  EXPECT_EQ(7u, back["revision"].asUInt64());
  EXPECT_EQ("back to 4", back["comment"].asString());
  EXPECT_EQ(::getuid(), back["uid"].asUInt());
  EXPECT_FALSE(back["user"].asString().empty());
  EXPECT_EQ(1, back["summary"]["update"].asInt()) << back;  // system
  EXPECT_EQ(1, back["summary"]["insert"].asInt()) << back;  // interface[2]
  const Json::Value& removed = h["revisions"][2];
  EXPECT_EQ(5u, removed["revision"].asUInt64());
  EXPECT_NE(std::string::npos, removed["command"].asString().find("cmdbctl delete interface[2]")) << removed;
  EXPECT_EQ(1, removed["summary"]["delete"].asInt());
  EXPECT_EQ("drop it", removed["comment"].asString());
  EXPECT_TRUE(h["revisions"][1]["comment"].isNull());
  EXPECT_EQ("{\n  \"action\": 0,", run(kCtl + " show 4 policy[allow-web] --domain east", &st).substr(0, 16));
  EXPECT_EQ("appliance", dump()["global"]["system"]["hostname"].asString());  // not written at 4: the default

  // Past a snapshot with --keep 5: what came before it is refused by name.
  gk_client_close(c);
  d.stop();
  ASSERT_TRUE(d.start({"--write-group", "0", "--keep", "5"})) << d.log();
  c = gk_client_open(nullptr);
  for (int i = 0; i < 30; ++i)
    ASSERT_EQ(0, commit(c, R"([{"op": "set", "path": "system", "values": {"session_timeout": )" + std::to_string(i + 1) + "}}]"));
  h = answer_of([&](char** t) { return gk_client_history(c, 0, t); });
  EXPECT_EQ(32u, h["oldest_kept"].asUInt64()) << h["revision"];
  EXPECT_EQ(5u, h["revisions"].size());
  EXPECT_EQ("cmdbctl: revision 31 is no longer kept: the oldest kept is 32\n", run(kCtl + " rollback 31", &st, true));
  EXPECT_EQ(1, st);
  EXPECT_EQ(37u, status(c)["revision"].asUInt64());
  EXPECT_NE(std::string::npos, run(kCtl + " history", &st).find("history reaches back to revision 32"));
}


TEST_F(CmdbdRevisionsTest, DryRunsChangeNothingAndSayWhatWould) {
  int st = 0;
  ASSERT_EQ(0, commit(c, R"([{"op": "set", "path": "interface[1]", "values": {"mtu": 1400}},
                             {"op": "set", "path": "interface[2]", "values": {"mtu": 1500}}])"));
  run(kCtl + " dump > /tmp/file.json && sed -i 's/1500/1501/' /tmp/file.json", &st);
  ASSERT_EQ(0, st);
  auto store_bytes = [] { return run("cat /var/lib/cmdb/cmdb.sqlite /var/lib/cmdb/cmdb.sqlite-wal | md5sum"); };
  const Json::Value s0 = status(c), before = dump();
  const std::string bytes = store_bytes();
  EXPECT_EQ("interface[1]: mtu 1400 -> 9000\ndry run: 1 changes, nothing applied (revision 1)\n",
            run(kCtl + " set interface[1] mtu=9000 --dry-run -m no", &st, true));
  EXPECT_EQ("interface[2]: mtu 1500 -> 1501\n", run(kCtl + " diff --file /tmp/file.json", &st, true));
  for (const char* cmd : {" delete interface[1] --dry-run", " load /tmp/file.json --dry-run", " rollback 0 --dry-run"})
    EXPECT_NE(std::string::npos, run(kCtl + cmd, &st, true).find("nothing applied")) << cmd;
  EXPECT_NE(std::string::npos, run(kCtl + " set interface[1] mtu=lots --dry-run", &st, true).find("mtu"));
  EXPECT_EQ(1, st);
  const Json::Value s1 = status(c);
  EXPECT_EQ(s0["revision"], s1["revision"]);
  EXPECT_EQ(s0["region_version"], s1["region_version"]);
  EXPECT_EQ(bytes, store_bytes());
  EXPECT_EQ(before, dump());
}

// Confirmed commits: rolled back by cmdbd within a second of the deadline,
// across a restart before it and one after it; kept once confirmed, or once a
// later confirmed commit arrives.
TEST_F(CmdbdRevisionsTest, UnconfirmedCommitsRollBackByThemselves) {
  using Clock = std::chrono::steady_clock;
  auto mtu = [] { return dump()["global"]["interface"][0]["mtu"].asInt(); };
  auto confirmed_set = [&](int value, uint32_t seconds) {
    gk_txn* t = gk_txn_new();
    uint64_t rev = 0;
    gk_txn_set_uint(t, nullptr, "interface[1]", "mtu", static_cast<uint64_t>(value));
    gk_txn_confirm(t, seconds);
    EXPECT_EQ(0, gk_client_commit(c, t, &rev)) << gk_client_error(c);
    gk_txn_free(t);
    return rev;
  };
  auto restart = [&] {
    gk_client_close(c);
    EXPECT_EQ(128 + SIGKILL, d.stop(SIGKILL));
    EXPECT_TRUE(d.start()) << d.log();
    c = gk_client_open(nullptr);
  };
  ASSERT_EQ(0, commit(c, R"([{"op": "set", "path": "interface[1]", "values": {"mtu": 1400}}])"));

  // Killed and restarted before the deadline.
  const Clock::time_point sent = Clock::now();
  const uint64_t risky = confirmed_set(9000, 2);
  const Clock::time_point answered = Clock::now();
  EXPECT_EQ(risky, status(c)["confirm"]["revision"].asUInt64());
  restart();
  EXPECT_EQ(9000, mtu());
  while (status(c)["revision"].asUInt64() == risky && Clock::now() < answered + std::chrono::seconds(5)) usleep(20000);
  const Clock::time_point back = Clock::now();
  EXPECT_GE(back, sent + std::chrono::seconds(2));
  EXPECT_LE(back, answered + std::chrono::milliseconds(3000));
  EXPECT_EQ(1400, mtu());
  Json::Value h = answer_of([&](char** t) { return gk_client_history(c, 1, t); })["revisions"][0];
  EXPECT_EQ("rollback", h["kind"].asString());
  EXPECT_EQ(0u, h["comment"].asString().find("revision 2 was not confirmed by ")) << h;
  EXPECT_TRUE(status(c)["confirm"].isNull());

  // The deadline passed while cmdbd was down: rolled back before it is ready.
  confirmed_set(9001, 1);
  gk_client_close(c);
  d.stop(SIGKILL);
  usleep(1200000);
  ASSERT_TRUE(d.start()) << d.log();
  c = gk_client_open(nullptr);
  EXPECT_EQ(1400, mtu());

  // A later confirmed commit confirms the one before; `cmdbctl confirm` the last.
  confirmed_set(1500, 1);
  const uint64_t last = confirmed_set(1600, 1);
  int st = 0;
  EXPECT_EQ("confirmed revision " + std::to_string(last) + "\n", run(kCtl + " confirm", &st, true));
  usleep(1200000);
  EXPECT_EQ(1600, mtu());
  EXPECT_EQ(last, status(c)["revision"].asUInt64());
  EXPECT_EQ("cmdbctl: no commit awaits confirmation\n", run(kCtl + " confirm", &st, true));
  EXPECT_EQ(1, st);
}

}  // namespace
}  // namespace gk::cmdbd_test
