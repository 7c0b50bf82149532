// cmdbd SIGKILLed at random moments while a client streams commits, and
// restarted: after each restart the region holds the last acknowledged
// revision, or that one plus the one in flight, never anything else; an
// attached process that listens for changes goes on hearing them. The number
// of kills comes from GK_DAEMON_KILLS (default 30; `make stress` runs 300).
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "daemon/config_doc.h"
#include "gikraidrum.h"
#include "tests/daemon/cmdbd_fixture.h"
#include "writer/verify.h"

namespace gk::cmdbd_test {
namespace {

constexpr int kKeys = 8;

// What the configuration must be: the mtu of each interface, by index.
using Expected = std::map<int, int>;

struct Change {
  int key = 0, mtu = 0;
};

bool matches(const Json::Value& doc, const Expected& want) {
  Expected have;
  for (const Json::Value& row : doc["global"]["interface"]) have[row["index"].asInt()] = row["mtu"].asInt();
  return have == want;
}

TEST(CmdbdKillTest, NoAcknowledgedCommitIsLostAcrossKills) {
  const char* env = getenv("GK_DAEMON_KILLS");
  const int kills = env != nullptr ? atoi(env) : 30;
  std::mt19937 rng(static_cast<unsigned>(getpid()));
  Cmdbd d;
  ASSERT_TRUE(d.start()) << d.log();
  pid_t watcher = fork();
  if (watcher == 0) {
    freopen("/tmp/watch.out", "w", stdout);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    execl(CMDBCTL_PATH, "cmdbctl", "watch", "--name", "listener", "interface", nullptr);
    _exit(127);
  }
  Expected acked;
  uint64_t acked_rev = 0;
  int seq = 0, in_flight_lost = 0;
  for (int k = 0; k < kills; ++k) {
    // The client streams until the kill; what was answered is acknowledged.
    std::atomic<bool> in_flight{false};
    Change pending;
    std::thread client([&] {
      gk_client* c = gk_client_open(nullptr);
      while (c != nullptr) {
        pending = {++seq % kKeys, 1000 + seq};
        in_flight = true;
        uint64_t rev = 0;
        std::string ops = R"([{"op": "set", "path": "interface[)" + std::to_string(pending.key) +
                          R"(]", "values": {"mtu": )" + std::to_string(pending.mtu) + "}}]";
        if (commit(c, ops, &rev) != 0) break;
        acked[pending.key] = pending.mtu;
        acked_rev = rev;
        in_flight = false;
      }
      gk_client_close(c);
    });
    usleep(static_cast<useconds_t>(rng() % 60000));
    ASSERT_EQ(128 + SIGKILL, d.stop(SIGKILL));
    client.join();

    ASSERT_TRUE(d.start()) << "after kill " << k << ":\n" << d.log();
    Json::Value now = dump();
    Expected with = acked;
    if (in_flight) with[pending.key] = pending.mtu;
    gk_client* c = gk_client_open(nullptr);
    uint64_t rev = status(c)["revision"].asUInt64();
    gk_client_close(c);
    if (matches(now, with) && in_flight) {
      EXPECT_EQ(acked_rev + 1, rev);  // the one in flight reached the disk unanswered
      acked = with;
      acked_rev = rev;
    } else {
      in_flight_lost += in_flight;
      ASSERT_TRUE(matches(now, acked)) << "after kill " << k << ": " << cmdbd::to_text(now);
      EXPECT_EQ(acked_rev, rev);
    }
    ASSERT_EQ(0, init_cmdb_app_core(1));
    cmf_shm_read_lock();
    const writer::RegionReport r = writer::verify_region();
    cmf_shm_read_unlock();
    cleanup_cmdb_app_core();
    ASSERT_TRUE(r.ok()) << "after kill " << k << ": " << r.faults[0];
  }
  // The listener attached before the first kill still hears every change.
  int before = atoi(run("wc -l < /tmp/watch.out").c_str());
  gk_client* c = gk_client_open(nullptr);
  ASSERT_EQ(0, commit(c, R"([{"op": "set", "path": "interface[1]", "values": {"mtu": 77}}])"));
  gk_client_close(c);
  for (int i = 0; i < 100 && atoi(run("wc -l < /tmp/watch.out").c_str()) == before; ++i) usleep(20000);
  EXPECT_EQ(0, waitpid(watcher, nullptr, WNOHANG));
  EXPECT_NE(std::string::npos, run("tail -1 /tmp/watch.out").find("-> 77")) << run("tail -5 /tmp/watch.out");
  kill(watcher, SIGTERM);
  waitpid(watcher, nullptr, 0);
  RecordProperty("kills", kills);
  RecordProperty("in_flight_lost", in_flight_lost);
}

}  // namespace
}  // namespace gk::cmdbd_test
