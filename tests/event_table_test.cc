// The shared registration table: order, slots, capacity, removal, and its log.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/event_fixture.h"

namespace {
using gk::test::captured_log;
using gk::test::EventRegion;
using gk::test::pid_line;
using gk::test::strf;

std::string reg_line(const char* process, int gid) {
  return pid_line("_cmdb_register_event register: %s process=[%s],obj_gid=[%d]\n",
                  program_invocation_short_name, process, gid);
}

TEST(EventTableTest, RecordsSortedSlotsReplacedSeventeenthRefused) {
  EventRegion ev({});
  EventRegion::set_event_log_level(1);
  ASSERT_EQ(0, cmdb_register_event("mta", 7, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("mta", 3, 0x02, 0));
  ASSERT_EQ(0, cmdb_register_event("mta", 7, 0x04, EVENT_WITH_DATA));  // same name: one slot, the new mask
  ASSERT_EQ(2u, ev.table->count);
  EXPECT_EQ(3, ev.table->rec[0].obj_gid);
  const cmdb_event_entry_t& r7 = ev.table->rec[1];
  EXPECT_EQ(7, r7.obj_gid);
  EXPECT_EQ(0x04, r7.procs[0].act);
  EXPECT_EQ(EVENT_WITH_DATA, r7.procs[0].flags);
  EXPECT_EQ(0, cmdb_strempty(r7.procs[0].process));
  EXPECT_EQ(1, cmdb_strempty(r7.procs[1].process));

  for (int i = 1; i < CMDB_EVENT_PROCS; ++i)
    ASSERT_EQ(0, cmdb_register_event(strf("p%02d", i).c_str(), 7, 1, 0));
  cmdb_event_entry_t before = r7;
  gk::test::clear_log();
  EXPECT_EQ(-1, cmdb_register_event("p16", 7, 1, 0));
  EXPECT_EQ(0, memcmp(&before, &r7, sizeof before));
  EXPECT_EQ(
      reg_line("p16", 7) + pid_line("cmdb_event_entry_act add process 16:p16 on event for %d fail!\n", 7),
      captured_log());

  // Names count with their first 19 characters only.
  ASSERT_EQ(0, cmdb_register_event("abcdefghijklmnopqrsTUVWXY", 9, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("abcdefghijklmnopqrsZZZZZ", 9, 0x08, 0));
  const cmdb_event_entry_t& r9 = ev.table->rec[2];
  EXPECT_STREQ("abcdefghijklmnopqrs", r9.procs[0].process);
  EXPECT_EQ(0x08, r9.procs[0].act);
  EXPECT_EQ(1, cmdb_strempty(r9.procs[1].process));
}

TEST(EventTableTest, HundredTwentyNinthGidRefused) {
  EventRegion ev({});
  for (int g = CMDB_EVENT_MAX; g >= 1; --g)
    ASSERT_EQ(0, cmdb_register_event("d", static_cast<uint16_t>(g), 1, 0));
  gk::test::clear_log();
  EXPECT_EQ(-1, cmdb_register_event("d", 1000, 1, 0));
  EXPECT_EQ("cmdb event full 128\n", captured_log());
  EXPECT_EQ(0, cmdb_register_event("e", 64, 1, 0));  // a known gid still takes processes
  ASSERT_EQ(128u, ev.table->count);
  for (int i = 0; i < CMDB_EVENT_MAX; ++i) ASSERT_EQ(i + 1, ev.table->rec[i].obj_gid);
}

TEST(EventTableTest, RemovalShiftsSlotsThenRecords) {
  EventRegion ev({});
  for (const char* p : {"a", "b", "c"}) ASSERT_EQ(0, cmdb_register_event(p, 5, 1, 0));
  ASSERT_EQ(0, cmdb_register_event("a", 3, 1, 0));
  ASSERT_EQ(0, cmdb_register_event("a", 7, 1, 0));
  ASSERT_EQ(0, cmdb_unregister_event("b", 5));
  const cmdb_event_entry_t& r5 = ev.table->rec[1];
  EXPECT_STREQ("a", r5.procs[0].process);
  EXPECT_STREQ("c", r5.procs[1].process);
  const cmdb_event_proc_t zero{};
  for (int i = 2; i < CMDB_EVENT_PROCS; ++i) EXPECT_EQ(0, memcmp(&zero, &r5.procs[i], sizeof zero)) << i;

  EXPECT_EQ(0, cmdb_unregister_event("zzz", 5));  // not registered there: no change
  EXPECT_STREQ("c", r5.procs[1].process);
  EXPECT_EQ(0, cmdb_unregister_event("a", 5));
  EXPECT_EQ(0, cmdb_unregister_event("c", 5));
  ASSERT_EQ(2u, ev.table->count);
  EXPECT_EQ(3, ev.table->rec[0].obj_gid);
  EXPECT_EQ(7, ev.table->rec[1].obj_gid);
  EXPECT_EQ(-1, cmdb_unregister_event("a", 5));
  EXPECT_EQ(-1, cmdb_event_entry_act(5, 0, nullptr));
  EXPECT_EQ(1, cmdb_event_entry_act(7, 0, nullptr));
}

TEST(EventTableTest, IgnoredInputsAndUnmappedTable) {
  EventRegion ev({});
  struct {
    const char* process;
    uint16_t gid;
  } rows[] = {{nullptr, 5}, {"d", 0}, {nullptr, 0}};
  for (auto& r : rows) {
    EXPECT_EQ(0, cmdb_register_event(r.process, r.gid, 1, 0));
    EXPECT_EQ(0, cmdb_unregister_event(r.process, r.gid));
  }
  EXPECT_EQ(0u, ev.table->count);

  cmdb.cmdb_event = nullptr;
  get_cmdb_header()->log_level = 4;
  gk::test::clear_log();
  EXPECT_EQ(-1, cmdb_register_event("d", 5, 1, 0));
  EXPECT_EQ(-1, cmdb_unregister_event("d", 5));
  cmdb_event_entry_t buf{};
  EXPECT_EQ(-1, cmdb_event_entry_act(5, 1, &buf));
  const char* prog = program_invocation_short_name;
  EXPECT_EQ(strf("Error, cmdb_event, _cmdb_register_event, 366! pid=%d, %s\n", getpid(), prog) +
                strf("Error, cmdb_event, _cmdb_unregister_event, 388! pid=%d, %s\n", getpid(), prog),
            captured_log());
  cmdb.cmdb_event = ev.table;
}

TEST(EventTableTest, ConcurrentWritersKeepTheTableSorted) {
  EventRegion ev({});
  constexpr int kWriters = 4, kGidsEach = 24, kRounds = 40;
  int go[2];
  ASSERT_EQ(0, ::pipe(go));
  std::vector<pid_t> kids;
  for (int w = 0; w < kWriters; ++w)
    kids.push_back(gk::test::start_child([w, &go] {
      char c;
      if (::read(go[0], &c, 1) != 1) return 9;
      std::string name = strf("w%d", w);
      for (int round = 0; round < kRounds; ++round)
        for (int i = 0; i < kGidsEach; ++i) {
          // Interleaved gids, and a record that comes and goes, move the others' records under them.
          if (cmdb_register_event(name.c_str(), static_cast<uint16_t>(1 + i * kWriters + w), 1, 0) != 0)
            return 1;
          if (cmdb_register_event(name.c_str(), 1500, 2, 0) != 0) return 2;
          if (cmdb_register_event(name.c_str(), static_cast<uint16_t>(1000 + w), 2, 0) != 0) return 3;
          if (cmdb_unregister_event(name.c_str(), static_cast<uint16_t>(1000 + w)) != 0) return 4;
        }
      return 0;
    }));
  ASSERT_EQ(kWriters, ::write(go[1], "gogo", kWriters));
  for (pid_t k : kids) EXPECT_EQ(0, gk::test::wait_child(k));
  ::close(go[0]);
  ::close(go[1]);
  ASSERT_EQ(static_cast<uint32_t>(kWriters * kGidsEach + 1), ev.table->count);
  for (uint32_t i = 0; i < ev.table->count; ++i) {
    EXPECT_EQ(i + 1 < ev.table->count ? i + 1 : 1500, ev.table->rec[i].obj_gid);
    EXPECT_EQ(1, cmdb_strempty(ev.table->rec[i].procs[i + 1 < ev.table->count ? 1 : kWriters].process));
  }
}

TEST(EventTableTest, EventLogLevelAndDebugBit) {
  EventRegion ev({});
  struct {
    int32_t level;
    uint32_t debug;
    const char* log;
    const char* out;
  } rows[] = {{0, 0, "", ""}, {-5, 0, "", ""}, {1, 0, "x 7\n", ""}, {1, CMDB_FLAG_DEBUG, "", "x 7\n"}};
  for (auto& r : rows) {
    EventRegion::set_event_log_level(r.level);
    cmdb.flags = r.debug;
    gk::test::clear_log();
    std::string out = gk::test::capture_stdout([] { dbg_cmdb_event(0, "x %d\n", 7); });
    EXPECT_EQ(r.log, captured_log()) << r.level;
    EXPECT_EQ(r.out, out) << r.level;
  }
  cmdb.flags = 0;
}

}  // namespace
