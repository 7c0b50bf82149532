// Change events: the shared registration table, and delivery over real AF_UNIX
// sockets (the sender's datagrams byte for byte, the receiver's dispatch,
// hostile datagrams, daemons in processes).
#include <gtest/gtest.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <optional>
#include <string>
#include <vector>

#include "event/event_internal.h"
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
  ev.set_event_log_level(1);
  ASSERT_EQ(0, cmdb_register_event("mta", 7, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("mta", 3, 0x02, 0));
  ASSERT_EQ(0, cmdb_register_event("mta", 7, 0x04, EVENT_WITH_DATA));  // same name: one slot, the new mask
  const cmdb_event_entry_t& r7 = ev.table->rec[1];
  EXPECT_EQ(std::tuple(2u, 3, 7, 0x04, EVENT_WITH_DATA, 0, 1),
            std::tuple(ev.table->count, ev.table->rec[0].obj_gid, r7.obj_gid, r7.procs[0].act, r7.procs[0].flags,
                       cmdb_strempty(r7.procs[0].process), cmdb_strempty(r7.procs[1].process)));

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
  EXPECT_EQ(std::tuple("abcdefghijklmnopqrs", 0x08, 1),
            std::tuple(std::string(r9.procs[0].process), r9.procs[0].act, cmdb_strempty(r9.procs[1].process)));
}

TEST(EventTableTest, RemovalShiftsSlotsThenRecords) {
  EventRegion ev({});
  for (const char* p : {"a", "b", "c"}) ASSERT_EQ(0, cmdb_register_event(p, 5, 1, 0));
  ASSERT_EQ(0, cmdb_register_event("a", 3, 1, 0));
  ASSERT_EQ(0, cmdb_register_event("a", 7, 1, 0));
  ASSERT_EQ(0, cmdb_unregister_event("b", 5));
  EXPECT_EQ(0, cmdb_unregister_event("zzz", 5));  // not registered there: no change
  const cmdb_event_entry_t& r5 = ev.table->rec[1];
  EXPECT_EQ(std::tuple("a", "c"), std::tuple(std::string(r5.procs[0].process), std::string(r5.procs[1].process)));
  const cmdb_event_proc_t zero{};
  for (int i = 2; i < CMDB_EVENT_PROCS; ++i) EXPECT_EQ(0, memcmp(&zero, &r5.procs[i], sizeof zero)) << i;
  EXPECT_EQ(0, cmdb_unregister_event("a", 5) | cmdb_unregister_event("c", 5));
  EXPECT_EQ(std::tuple(2u, 3, 7), std::tuple(ev.table->count, ev.table->rec[0].obj_gid, ev.table->rec[1].obj_gid));
  EXPECT_EQ(std::tuple(-1, -1, 1), (std::tuple{cmdb_unregister_event("a", 5), cmdb_event_entry_act(5, 0, nullptr),
                                              cmdb_event_entry_act(7, 0, nullptr)}));
  for (int g = CMDB_EVENT_MAX; g >= 1; --g) ASSERT_EQ(0, cmdb_register_event("d", static_cast<uint16_t>(g), 1, 0));
  gk::test::clear_log();
  EXPECT_EQ(-1, cmdb_register_event("d", 1000, 1, 0));
  EXPECT_EQ("cmdb event full 128\n", captured_log());
  EXPECT_EQ(0, cmdb_register_event("e", 64, 1, 0));  // a known gid still takes processes
  for (int i = 0; i < CMDB_EVENT_MAX; ++i) ASSERT_EQ(i + 1, ev.table->rec[i].obj_gid);
}

// Null names and gid 0 are ignored; without the table every call fails with
// its message; the events log has its own level and follows the debug bit.
TEST(EventTableTest, IgnoredInputsUnmappedTableAndTheEventLog) {
  EventRegion ev({});
  for (auto [process, gid] : {std::pair{static_cast<const char*>(nullptr), 5}, {"d", 0}}) {
    EXPECT_EQ(0, cmdb_register_event(process, static_cast<uint16_t>(gid), 1, 0));
    EXPECT_EQ(0, cmdb_unregister_event(process, static_cast<uint16_t>(gid)));
  }
  EXPECT_EQ(0u, ev.table->count);
  cmdb.cmdb_event = nullptr;
  get_cmdb_header()->log_level = 4;
  gk::test::clear_log();
  cmdb_event_entry_t buf{};
  EXPECT_EQ(std::tuple(-1, -1, -1), (std::tuple{cmdb_register_event("d", 5, 1, 0), cmdb_unregister_event("d", 5),
                                                cmdb_event_entry_act(5, 1, &buf)}));
  const char* prog = program_invocation_short_name;
  EXPECT_EQ(strf("Error, cmdb_event, _cmdb_register_event, 366! pid=%d, %s\n", getpid(), prog) +
                strf("Error, cmdb_event, _cmdb_unregister_event, 388! pid=%d, %s\n", getpid(), prog),
            captured_log());
  cmdb.cmdb_event = ev.table;
  struct { int32_t level; uint32_t debug; const char *log, *out; } rows[] = {{0, 0, "", ""}, {-5, 0, "", ""}, {1, 0, "x 7\n", ""}, {1, CMDB_FLAG_DEBUG, "", "x 7\n"}};
  for (auto& r : rows) {
    ev.set_event_log_level(r.level);
    cmdb.flags = r.debug;
    gk::test::clear_log();
    EXPECT_EQ(r.out, gk::test::capture_stdout([] { dbg_cmdb_event(0, "x %d\n", 7); })) << r.level;
    EXPECT_EQ(r.log, captured_log()) << r.level;
  }
  cmdb.flags = 0;
}

TEST(EventTableTest, ConcurrentWritersKeepTheTableSorted) {
  EventRegion ev({});
  constexpr int kWriters = 4, kGidsEach = 24, kRounds = 40;
  gk::test::Signal go;
  std::vector<pid_t> kids;
  for (int w = 0; w < kWriters; ++w)
    kids.push_back(gk::test::start_child([w, &go] {
      if (!go.wait()) return 9;
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
  for (int w = 0; w < kWriters; ++w) go.post();
  for (pid_t k : kids) EXPECT_EQ(0, gk::test::wait_child(k));
  ASSERT_EQ(static_cast<uint32_t>(kWriters * kGidsEach + 1), ev.table->count);
  for (uint32_t i = 0; i < ev.table->count; ++i) {
    EXPECT_EQ(i + 1 < ev.table->count ? i + 1 : 1500, ev.table->rec[i].obj_gid);
    EXPECT_EQ(1, cmdb_strempty(ev.table->rec[i].procs[i + 1 < ev.table->count ? 1 : kWriters].process));
  }
}

// gid 42: a 4-byte attribute at offset 8; gids 60 to 62 (kinds 2, 3, 4) send
// their whole 6-byte data part; gid 70 stops the daemons.
constexpr std::initializer_list<gk::test::NodeSpec> kNodes = {
    {42, 5, 0, 4, 8}, {60, 2, 0, 6, 3}, {61, 3, 0, 6, 3}, {62, 4, 0, 6, 3}, {70, 5, 0, 1, 0}};

// A receiver bound where the sender looks for `name`, read raw.
struct RawReceiver {
  explicit RawReceiver(const char* name) : fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un a{AF_UNIX, {}};
    snprintf(a.sun_path, sizeof a.sun_path, "/tmp/EVENT_D_%s", name);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) abort();
  }
  ~RawReceiver() { ::close(fd); }
  std::optional<std::string> next() const {
    static char buf[1 << 16];
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    return n < 0 ? std::nullopt : std::optional(std::string(buf, static_cast<size_t>(n)));
  }
  int fd;
};

// The receiver fed by hand through a socket pair.
struct Injector {
  Injector() {
    if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sp) != 0) abort();
    event::adopt_receiver_socket("rcv", sp[1]);
  }
  ~Injector() {
    ::close(event::adopt_receiver_socket("", -1));
    ::close(sp[0]);
  }
  void send(const std::string& m) const {
    if (::send(sp[0], m.data(), m.size(), 0) != static_cast<ssize_t>(m.size())) abort();
  }
  int sp[2];
};

std::string header(uint16_t gid, uint32_t domain, uint8_t act, uint32_t size, uint32_t total, const void* d1,
                   const void* d2, const void* desc) {
  auto addr = [](const void* p) { return reinterpret_cast<uintptr_t>(p); };
  cmdb_event_msg_t m{gid, 0, domain, act, {}, size, total, 0, addr(d1), addr(d2), addr(desc)};
  return std::string(reinterpret_cast<char*>(&m), sizeof m);
}
std::string bytes(const uint8_t* p, size_t n) { return std::string(reinterpret_cast<const char*>(p), n); }

// A host schema descriptor of two elements; the last carries `text`.
struct HostDesc {
  explicit HostDesc(const char* text) {
    raw[134] = 2 << 4;
    int32_t len = static_cast<int32_t>(strlen(text));
    uint8_t* e = elems;
    memcpy(elems + 24 + 8, &text, sizeof text);
    memcpy(elems + 24 + 16, &len, sizeof len);
    memcpy(raw + 144, &e, sizeof e);
  }
  uint8_t raw[152] = {}, elems[48] = {};
};
HostDesc g_reload_desc("R!");

std::vector<int> g_calls;
template <int N>
int record_handler(cmdb_event_msg_t* m) {
  // Every pointer the receiver hands over lies inside the message it received.
  auto base = reinterpret_cast<uintptr_t>(m);
  bool inside = (m->data1 == 0 || m->data1 - base + m->data_size <= m->total_size) &&
                (m->data2 == 0 || m->data2 - base + m->data_size <= m->total_size) &&
                (m->desc == 0 || m->desc - base <= m->total_size);
  g_calls.push_back(inside ? N : -N);
  return 0;
}
std::vector<int> handled() {
  g_calls.clear();
  int rc = do_cmdb_event_handling();
  if (rc != 0) g_calls.push_back(rc * 100);
  return g_calls;
}

}  // namespace

// This test binary is the host: its configuration layer knows one descriptor.
extern "C" void* nCfg_query(int gid) noexcept { return gid == 42 ? g_reload_desc.raw : nullptr; }

namespace {

TEST(EventDeliveryTest, DatagramsByteForByte) {
  EventRegion ev(kNodes);
  RawReceiver with("withdata"), without("nodata");
  for (uint16_t g : {42, 60, 61, 62}) ASSERT_EQ(0, cmdb_register_event("withdata", g, 0x02, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("nodata", 42, 0x02, 0));
  cmf_set_cur_domain_id(7);
  uint8_t a[16], b[16];
  for (int i = 0; i < 16; ++i) a[i] = static_cast<uint8_t>(i), b[i] = static_cast<uint8_t>(100 + i);
  HostDesc desc("XYZ");

  ASSERT_EQ(0, cmdb_event_call_daemon(42, 2, a, b, desc.raw));
  // An attribute's blocks start at its offset in the caller's buffers.
  EXPECT_EQ(header(42, 7, 2, 4, 59, a + 8, b + 8, desc.raw) + bytes(a + 8, 4) + bytes(b + 8, 4) + "XYZ",
            with.next());
  EXPECT_EQ(header(42, 7, 2, 0, 51, nullptr, nullptr, desc.raw) + "XYZ", without.next());
  for (uint16_t g : {60, 61, 62}) {  // tables and objects: the whole data part
    ASSERT_EQ(0, cmdb_event_call_daemon(g, 19, a, b, nullptr));
    EXPECT_EQ(header(g, 7, 2, 6, 60, a, b, nullptr) + bytes(a, 6) + bytes(b, 6), with.next());
  }
  EXPECT_EQ(std::nullopt, with.next());
  EXPECT_EQ(std::nullopt, without.next());
}

TEST(EventDeliveryTest, ActClassesBlocksAndMasks) {
  EventRegion ev(kNodes);
  RawReceiver lo("lo"), hi("hi");
  ASSERT_EQ(0, cmdb_register_event("lo", 42, 0x01, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("hi", 42, 0x3E, EVENT_WITH_DATA));
  uint8_t a[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, b[12] = {0};
  // Blocks given and blocks carried: bit 0 the first, bit 1 the second. Class 0: nothing sent.
  struct { uint8_t act, given; int rc; uint8_t cls, carried; } rows[] = {
      {1, 2, 0, 0x01, 2},  {1, 1, -3, 0, 0},    {2, 3, 0, 0x02, 3},  {2, 2, -4, 0, 0},
              {19, 3, 0, 0x02, 3}, {19, 1, -4, 0, 0},   {11, 3, 0, 0x04, 1}, {11, 2, -5, 0, 0},
              {12, 0, 0, 0x10, 0}, {13, 3, 0, 0x08, 2}, {17, 2, 0, 0x08, 2}, {15, 1, -6, 0, 0},
              {27, 2, 0, 0x20, 2}, {27, 1, -6, 0, 0},   {18, 3, 0, 0, 0},    {0, 3, 0, 0, 0},
              {28, 3, 0, 0, 0}};
  for (auto& r : rows) {
    SCOPED_TRACE(r.act);
    EXPECT_EQ(r.rc, cmdb_event_call_daemon(42, r.act, r.given & 1 ? a : nullptr, r.given & 2 ? b : nullptr,
                                           nullptr));
    if (r.cls != 0) {
      bool c1 = r.carried & 1, c2 = r.carried & 2;
      EXPECT_EQ(
          header(42, 0, r.cls, 4, 48 + 4 * (c1 + c2), c1 ? a + 8 : nullptr, c2 ? b + 8 : nullptr, nullptr) +
              (c1 ? bytes(a + 8, 4) : "") + (c2 ? bytes(b + 8, 4) : ""),
          (r.cls == 0x01 ? lo : hi).next());
    }
    EXPECT_EQ(std::nullopt, lo.next());
    EXPECT_EQ(std::nullopt, hi.next());
  }
}

// A reload reaches every receiver but those taking data; nothing is sent with
// events switched off or without a debug zone, nor for a gid without a node.
TEST(EventDeliveryTest, ReloadSwitchedOffAndUnknownGids) {
  EventRegion ev(kNodes);
  RawReceiver d("d"), p("p"), q("q");
  ASSERT_EQ(0, cmdb_register_event("d", 42, 0x7F, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("p", 42, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("q", 42, 0x00, 0));
  ASSERT_EQ(0, cmdb_register_event("q", 43, 0x01, 0));  // registered, but no node has gid 43
  ASSERT_EQ(0, cmdb_send_reload_event(42));
  std::string want = header(42, 0, 0x40, 0, 50, nullptr, nullptr, g_reload_desc.raw) + "R!";
  EXPECT_EQ(std::tuple(want, want), std::tuple(p.next(), q.next()));
  EXPECT_EQ(-1, cmdb_send_reload_event(44));
  uint8_t b[8] = {};
  ev.set_events_switch(1);
  EXPECT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, b, nullptr) | cmdb_send_reload_event(42));
  ev.set_events_switch(0);
  void* dz = std::exchange(nCfg_debug_zone, nullptr);
  EXPECT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, b, nullptr));
  nCfg_debug_zone = dz;
  EXPECT_EQ(std::tuple(-1, 0), std::tuple(cmdb_event_call_daemon(43, 1, nullptr, b, nullptr),
                                          cmdb_event_call_daemon(44, 1, nullptr, b, nullptr)));
  for (RawReceiver* r : {&d, &p, &q}) EXPECT_EQ(std::nullopt, r->next());
}

TEST(EventDeliveryTest, GoneReceiverDroppedFullReceiverKept) {
  EventRegion ev(kNodes);
  ev.set_event_log_level(1);
  RawReceiver slow("slow");
  ASSERT_EQ(0, cmdb_register_event("ghost", 42, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("slow", 42, 0x01, 0));
  int qlen = 10;
  if (FILE* f = fopen("/proc/sys/net/unix/max_dgram_qlen", "r")) {
    EXPECT_EQ(1, fscanf(f, "%d", &qlen));
    fclose(f);
  }
  uint8_t b[16] = {};
  gk::test::clear_log();
  for (int i = 0; i < qlen + 5; ++i) ASSERT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, b, nullptr));
  const std::string gone = pid_line("sendto_daemon cmdb_event:217: sendto failed process=ghost, obj_gid=42, err=%d\n", ENOENT);
  EXPECT_EQ(std::tuple(1, 0), std::tuple(gk::test::count_occurrences(captured_log(), gone),
                                         gk::test::count_occurrences(captured_log(), "failed process=slow")));
  int queued = 0;
  while (slow.next()) ++queued;
  EXPECT_TRUE(queued > 0 && queued < qlen + 5) << queued;  // the rest were dropped, silently
  cmdb_event_entry_t rec;
  ASSERT_EQ(0, cmdb_event_entry_act(42, 0, &rec));
  EXPECT_EQ(std::tuple("slow", 1), std::tuple(std::string(rec.procs[0].process), cmdb_strempty(rec.procs[1].process)));
}

TEST(EventDeliveryTest, HandlersByClassInSlotOrderAndUnregister) {
  EventRegion ev(kNodes);
  ev.set_event_log_level(1);
  Injector in;
  EXPECT_EQ(0, do_cmdb_event_handling());  // nothing queued on a non-blocking socket
  ASSERT_EQ(0, register_cmdb_event(42, 0x04, 0, record_handler<1>));
  ASSERT_EQ(0, register_cmdb_event(42, 0x06, 0, record_handler<2>));
  ASSERT_EQ(0, register_cmdb_event(42, 0x01, 0, record_handler<3>));
  const std::string c4 = header(42, 0, 0x04, 0, 48, nullptr, nullptr, nullptr);
  const std::string c1 = header(42, 0, 0x01, 0, 48, nullptr, nullptr, nullptr);
  in.send(c4);
  EXPECT_EQ((std::vector<int>{1, 2}), handled());
  in.send(c1);
  EXPECT_EQ(std::vector<int>{3}, handled());
  // Removing the second handler keeps the others here but withdraws the registration.
  unregister_cmdb_event(42, record_handler<2>);
  EXPECT_EQ(-1, cmdb_event_entry_act(42, 0, nullptr));
  in.send(c4);
  EXPECT_EQ(std::vector<int>{1}, handled());
  // Removing the first takes the whole entry, the third handler with it.
  unregister_cmdb_event(42, record_handler<1>);
  in.send(c1);
  gk::test::clear_log();
  EXPECT_EQ(std::vector<int>{-100}, handled());
  EXPECT_TRUE(gk::test::logged(pid_line("do_cmdb_event_handling 2: Fail to find event for gid %d\n", 42)));
  gk::test::clear_log();
  unregister_cmdb_event(42, record_handler<3>);
  EXPECT_EQ(pid_line("%s 1: Fail to find event for gid 42\n", "unregister_cmdb_event"), captured_log());
}

TEST(EventDeliveryTest, RegisterResults) {
  EventRegion ev(kNodes);
  ev.set_event_log_level(1);
  EXPECT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<1>));  // before init: nothing happens
  Injector in;  // then gid 0 and no handler are ignored; a handler once; four per gid
  EXPECT_EQ(std::tuple(0, 0, 0u), (std::tuple{register_cmdb_event(0, 1, 0, record_handler<1>),
                                              register_cmdb_event(42, 1, 0, nullptr), ev.table->count}));
  EXPECT_EQ(std::tuple(0, -2, 0, 0, 0, -4),
            (std::tuple{register_cmdb_event(42, 1, 0, record_handler<1>), register_cmdb_event(42, 1, 0, record_handler<1>),
                        register_cmdb_event(42, 1, 0, record_handler<2>), register_cmdb_event(42, 1, 0, record_handler<3>),
                        register_cmdb_event(42, 1, 0, record_handler<4>), register_cmdb_event(42, 1, 0, record_handler<5>)}));
  for (uint16_t g = 101; g < 140; ++g) ASSERT_EQ(0, register_cmdb_event(g, 1, 0, record_handler<1>));
  gk::test::clear_log();
  EXPECT_EQ(-1, register_cmdb_event(999, 1, 0, record_handler<1>));
  EXPECT_EQ(pid_line("%s no event_cb available!\n", "register_cmdb_event"), captured_log());
  in.send(header(999, 0, 1, 0, 48, nullptr, nullptr, nullptr));  // none of the 40 entries holds it
  EXPECT_EQ(std::vector<int>{-100}, handled());
  EXPECT_TRUE(gk::test::logged(pid_line("do_cmdb_event_handling 3: Fail to find event for gid %d\n", 999)));
  cmdb.cmdb_event = nullptr;
  EXPECT_EQ(-3, register_cmdb_event(101, 1, 0, record_handler<5>));
  EXPECT_TRUE(gk::test::logged(pid_line("register_cmdb_event register failed %d\n", 101)));
  cmdb.cmdb_event = ev.table;
  cmdb_event_cleanup();
  EXPECT_EQ(0u, ev.table->count);
}

TEST(EventDeliveryTest, HostileDatagramsAreConsumedAndDropped) {
  EventRegion ev(kNodes);
  ev.set_event_log_level(1);
  Injector in;
  ASSERT_EQ(0, register_cmdb_event(42, 0x04, 0, record_handler<1>));
  auto msg = [](uint32_t total, uint32_t size, bool d1, bool d2, uint16_t gid = 42) {
    return header(gid, 0, 0x04, size, total, d1 ? "x" : nullptr, d2 ? "y" : nullptr, nullptr) + "abcd";
  };
  struct { std::string bytes; int rc; std::string line; } rows[] = {
      {msg(52, 4, true, false), 0, "gid=[42],act=[4],data_size=[4]"},
      {msg(40, 4, true, false), -1, "recv=[52], chk=[40]"},
      {msg(60, 4, true, false), -1, "recv=[52], chk=[60]"},
      {msg(48, 4, true, false), -1, "recv=[52], chk=[48]"},
      {msg(0xFFFFFFFF, 4, true, false), -1, "recv=[52], chk=[-1]"},
      {msg(200000, 4, true, false), -1, "recv=[52], chk=[200000]"},
      {msg(52, 4, true, true), -1, "bad message: data_size=[4], total_size=[52]"},
      {msg(52, 0xFFFFFFF0, true, false), -1, "bad message: data_size=[-16], total_size=[52]"},
      {msg(52, 0, false, false, 99), -1, "2: Fail to find event for gid 99"},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.line);
    in.send(r.bytes);
    gk::test::clear_log();
    EXPECT_EQ(r.rc == 0 ? std::vector<int>{1} : std::vector<int>{-100}, handled());
    EXPECT_NE(std::string::npos, captured_log().find(r.line)) << captured_log();
    EXPECT_EQ(0, do_cmdb_event_handling());  // consumed: nothing left
  }
  // Shorter than a header: dropped too, or the socket would stay readable for ever.
  const char short_msg[20] = "short";
  in.send(std::string(short_msg, sizeof short_msg));
  gk::test::clear_log();
  EXPECT_EQ(std::tuple(-1, true, 0), (std::tuple{do_cmdb_event_handling(),
                                                 gk::test::logged("bad message: recv=[20], header=[48]"),
                                                 do_cmdb_event_handling()}));
}

TEST(EventDeliveryTest, InitNamesAndBindFailure) {
  EventRegion ev(kNodes);
  ASSERT_GE(cmdb_event_init("abcdefghijklmnopqrst", 0), 0);
  struct stat st;
  ASSERT_EQ(0, ::stat("/tmp/EVENT_D_abcdefghijklmnop", &st));  // the path takes 16 characters
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  ASSERT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<1>));
  EXPECT_STREQ("abcdefghijklmnopqrs", ev.table->rec[0].procs[0].process);
  cmdb_event_cleanup();
  ASSERT_EQ(0, ::mkdir("/tmp/EVENT_D_busy", 0755));
  ASSERT_EQ(0, ::mkdir("/tmp/EVENT_D_busy/x", 0755));  // a directory unlink cannot remove
  gk::test::clear_log();
  EXPECT_EQ(-83, cmdb_event_init("busy", 1));
  EXPECT_EQ(gk::test::strf("%d,busy, cmdb_event_daemon:82: bind failed\n", getpid()), captured_log());
  EXPECT_EQ(0, do_cmdb_event_handling());
}

// A daemon process: registers, polls its socket, and reports what its handlers saw.
int g_report = -1;
bool g_stop = false;
int report_handler(cmdb_event_msg_t* m) {
  std::string line = gk::test::strf("%d %d %u", m->gid, m->act, m->data_size);
  for (uint32_t i = 48; i < m->total_size; ++i)
    line += gk::test::strf(" %d", reinterpret_cast<uint8_t*>(m)[i]);
  line += "\n";
  return static_cast<int>(::write(g_report, line.data(), line.size()));
}
int stop_handler(cmdb_event_msg_t*) { return g_stop = true; }

struct Reg { uint16_t gid; uint8_t act, flags; };
int run_daemon(const char* name, std::initializer_list<Reg> regs, gk::test::Signal& ready, int report) {
  g_report = report;
  int fd = cmdb_event_init(name, 1);
  if (fd < 0) return 1;
  for (const Reg& r : regs)
    if (register_cmdb_event(r.gid, r.act, r.flags, report_handler) != 0) return 2;
  if (register_cmdb_event(70, 0x10, 0, stop_handler) != 0) return 3;
  ready.post();
  while (!g_stop) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 5000) != 1) return 4;
    if (do_cmdb_event_handling() != 0) return 5;
  }
  cmdb_event_cleanup();
  return 0;
}

std::string read_all(int fd) {
  std::string s;
  char buf[256];
  for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) s.append(buf, static_cast<size_t>(n));
  ::close(fd);
  return s;
}

TEST(EventDeliveryTest, OwnerAndTwoDaemons) {
  EventRegion ev(kNodes);
  gk::test::Signal ready_a, ready_b;
  int pa[2], pb[2];
  ASSERT_EQ(0, ::pipe(pa));
  ASSERT_EQ(0, ::pipe(pb));
  pid_t a = gk::test::start_child([&] {
    return run_daemon("alpha", {{42, 0x02, EVENT_WITH_DATA}, {60, 0x10, 0}}, ready_a, pa[1]);
  });
  pid_t b = gk::test::start_child([&] {
    return run_daemon("beta", {{42, 0x03, 0}, {60, 0x02, EVENT_WITH_DATA}}, ready_b, pb[1]);
  });
  ::close(pa[1]);
  ::close(pb[1]);
  ASSERT_TRUE(ready_a.wait());
  ASSERT_TRUE(ready_b.wait());
  uint8_t d1[16], d2[16];
  for (int i = 0; i < 16; ++i) d1[i] = static_cast<uint8_t>(i), d2[i] = static_cast<uint8_t>(50 + i);
  EXPECT_EQ(std::tuple(0, 0, 0, 0, 0, 0, 0),
            (std::tuple{cmdb_event_call_daemon(42, 2, d1, d2, nullptr), cmdb_event_call_daemon(42, 1, nullptr, d2, nullptr),
                        cmdb_event_call_daemon(60, 12, nullptr, nullptr, nullptr), cmdb_event_call_daemon(60, 2, d1, d2, nullptr),
                        cmdb_event_call_daemon(70, 12, nullptr, nullptr, nullptr), gk::test::wait_child(a),
                        gk::test::wait_child(b)}));
  EXPECT_EQ("42 2 4 8 9 10 11 58 59 60 61\n60 16 0\n", read_all(pa[0]));
  EXPECT_EQ("42 2 0\n42 1 0\n60 2 6 0 1 2 3 4 5 50 51 52 53 54 55\n", read_all(pb[0]));
  EXPECT_EQ(0u, ev.table->count);  // both daemons withdrew every registration
}

}  // namespace
