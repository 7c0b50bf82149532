// Event delivery over real AF_UNIX sockets: the sender's datagrams byte for
// byte, the receiver's dispatch, hostile datagrams, and daemons in processes.
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

// gid 42: a 4-byte attribute at offset 8; gids 60 to 62: a table, a table and an object
// of kinds 2, 3 and 4, which send their whole 6-byte data part.
constexpr std::initializer_list<gk::test::NodeSpec> kNodes = {
    {42, 5, 0, 4, 8}, {60, 2, 0, 6, 3}, {61, 3, 0, 6, 3}, {62, 4, 0, 6, 3}, {70, 5, 0, 1, 0}};

std::string fmt(const char* f, auto... args) {
  char buf[512];
  snprintf(buf, sizeof buf, f, args...);
  return buf;
}

sockaddr_un event_addr(const char* name) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  snprintf(a.sun_path, sizeof a.sun_path, "/tmp/EVENT_D_%s", name);
  return a;
}

// A receiver bound where the sender looks for `name`, read raw.
struct RawReceiver {
  explicit RawReceiver(const char* name) : fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_un a = event_addr(name);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) abort();
  }
  ~RawReceiver() { ::close(fd); }
  std::optional<std::string> next() const {
    static char buf[1 << 16];
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0) return std::nullopt;
    return std::string(buf, static_cast<size_t>(n));
  }
  int fd;
};

std::string header(uint16_t gid, uint32_t domain, uint8_t act, uint32_t size, uint32_t total, const void* d1,
                   const void* d2, const void* desc) {
  cmdb_event_msg_t m{};
  m.gid = gid, m.domain_id = domain, m.act = act, m.data_size = size, m.total_size = total;
  m.data1 = reinterpret_cast<uintptr_t>(d1), m.data2 = reinterpret_cast<uintptr_t>(d2);
  m.desc = reinterpret_cast<uintptr_t>(desc);
  return std::string(reinterpret_cast<char*>(&m), sizeof m);
}

// A host schema descriptor whose last element carries `bytes`.
struct HostDesc {
  explicit HostDesc(const char* bytes) {
    raw[134] = 2 << 4;
    void* b = const_cast<char*>(bytes);
    int32_t len = static_cast<int32_t>(strlen(bytes));
    memcpy(elems + 24 + 8, &b, sizeof b);
    memcpy(elems + 24 + 16, &len, sizeof len);
    uint8_t* e = elems;
    memcpy(raw + 144, &e, sizeof e);
  }
  uint8_t raw[152] = {};
  uint8_t elems[48] = {};
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

}  // namespace

// This test binary is the host: its configuration layer knows one descriptor.
extern "C" void* nCfg_query(int gid) noexcept { return gid == 42 ? g_reload_desc.raw : nullptr; }

namespace {

TEST(EventDeliveryTest, DatagramsByteForByte) {
  EventRegion ev(kNodes);
  RawReceiver with("withdata"), without("nodata");
  ASSERT_EQ(0, cmdb_register_event("withdata", 42, 0x02, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("nodata", 42, 0x02, 0));
  for (uint16_t g : {60, 61, 62}) ASSERT_EQ(0, cmdb_register_event("withdata", g, 0x02, EVENT_WITH_DATA));
  cmf_set_cur_domain_id(7);
  uint8_t a[16], b[16];
  for (int i = 0; i < 16; ++i) a[i] = static_cast<uint8_t>(i), b[i] = static_cast<uint8_t>(100 + i);
  HostDesc desc("XYZ");

  ASSERT_EQ(0, cmdb_event_call_daemon(42, 2, a, b, desc.raw));
  // An attribute's blocks start at its offset in the caller's buffers.
  EXPECT_EQ(header(42, 7, 2, 4, 59, a + 8, b + 8, desc.raw) + std::string((char*)a + 8, 4) +
                std::string((char*)b + 8, 4) + "XYZ",
            with.next());
  EXPECT_EQ(header(42, 7, 2, 0, 51, nullptr, nullptr, desc.raw) + "XYZ", without.next());
  // Tables and objects send their whole data part, from the buffers' start.
  for (uint16_t g : {60, 61, 62}) {
    ASSERT_EQ(0, cmdb_event_call_daemon(g, 19, a, b, nullptr));
    EXPECT_EQ(header(g, 7, 2, 6, 60, a, b, nullptr) + std::string((char*)a, 6) + std::string((char*)b, 6), with.next());
  }
  EXPECT_EQ(std::nullopt, with.next());
  EXPECT_EQ(std::nullopt, without.next());
  cmf_set_cur_domain_id(0);
}

TEST(EventDeliveryTest, ActClassesBlocksAndMasks) {
  EventRegion ev(kNodes);
  RawReceiver lo("lo"), hi("hi");
  ASSERT_EQ(0, cmdb_register_event("lo", 42, 0x01, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("hi", 42, 0x3E, EVENT_WITH_DATA));
  uint8_t a[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, b[12] = {0};
  struct {
    uint8_t act;
    bool first, second;
    int rc;
    uint8_t cls;   // 0: nothing sent
    bool carries_first, carries_second;
  } rows[] = {
      {1, false, true, 0, 0x01, false, true}, {1, true, false, -3, 0, false, false},
      {2, true, true, 0, 0x02, true, true},   {2, false, true, -4, 0, false, false},
      {19, true, true, 0, 0x02, true, true},  {19, true, false, -4, 0, false, false},
      {11, true, true, 0, 0x04, true, false}, {11, false, true, -5, 0, false, false},
      {12, false, false, 0, 0x10, false, false}, {13, true, true, 0, 0x08, false, true},
      {17, false, true, 0, 0x08, false, true}, {15, true, false, -6, 0, false, false},
      {27, false, true, 0, 0x20, false, true}, {27, true, false, -6, 0, false, false},
      {18, true, true, 0, 0, false, false},   {0, true, true, 0, 0, false, false},
      {3, true, true, 0, 0, false, false},    {28, true, true, 0, 0, false, false},
  };
  for (auto& r : rows) {
    SCOPED_TRACE(r.act);
    EXPECT_EQ(r.rc, cmdb_event_call_daemon(42, r.act, r.first ? a : nullptr, r.second ? b : nullptr, nullptr));
    const RawReceiver& want = r.cls == 0x01 ? lo : hi;
    const RawReceiver& other = r.cls == 0x01 ? hi : lo;
    if (r.cls != 0) {
      std::optional<std::string> m = want.next();
      ASSERT_TRUE(m.has_value());
      int blocks = r.carries_first + r.carries_second;
      EXPECT_EQ(header(42, 0, r.cls, 4, 48 + 4 * blocks, r.carries_first ? a + 8 : nullptr,
                       r.carries_second ? b + 8 : nullptr, nullptr),
                m->substr(0, 48));
      EXPECT_EQ(std::string(r.carries_first ? "\x09\x0a\x0b\x0c" : "") + std::string(r.carries_second ? 4 : 0, '\0'),
                m->substr(48));
    }
    EXPECT_EQ(std::nullopt, want.next());
    EXPECT_EQ(std::nullopt, other.next());
  }
}

TEST(EventDeliveryTest, ReloadSkipsDataReceivers) {
  EventRegion ev(kNodes);
  RawReceiver d("d"), p("p"), q("q");
  ASSERT_EQ(0, cmdb_register_event("d", 42, 0x7F, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("p", 42, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("q", 42, 0x00, 0));
  ASSERT_EQ(0, cmdb_send_reload_event(42));
  std::string want = header(42, 0, 0x40, 0, 50, nullptr, nullptr, g_reload_desc.raw) + "R!";
  EXPECT_EQ(want, p.next());
  EXPECT_EQ(want, q.next());
  EXPECT_EQ(std::nullopt, d.next());
  EXPECT_EQ(-1, cmdb_send_reload_event(43));
}

TEST(EventDeliveryTest, GoneReceiverDroppedFullReceiverKept) {
  EventRegion ev(kNodes);
  EventRegion::set_event_log_level(1);
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
  EXPECT_EQ(1, gk::test::count_occurrences(
                   captured_log(),
                   fmt("%d:sendto_daemon cmdb_event:217: sendto failed process=ghost, obj_gid=42, err=%d\n", getpid(), ENOENT)));
  EXPECT_EQ(0, gk::test::count_occurrences(captured_log(), "failed process=slow"));
  int queued = 0;
  while (slow.next()) ++queued;
  EXPECT_GT(queued, 0);
  EXPECT_LT(queued, qlen + 5);  // the rest were dropped, silently
  cmdb_event_entry_t rec;
  ASSERT_EQ(0, cmdb_event_entry_act(42, 0, &rec));
  EXPECT_STREQ("slow", rec.procs[0].process);
  EXPECT_EQ(1, cmdb_strempty(rec.procs[1].process));
}

TEST(EventDeliveryTest, SwitchedOffUnknownGidsAndMissingNodes) {
  EventRegion ev(kNodes);
  RawReceiver r("r");
  uint8_t b[8] = {};
  ASSERT_EQ(0, cmdb_register_event("r", 42, 0x01, 0));
  ASSERT_EQ(0, cmdb_register_event("r", 43, 0x01, 0));  // registered, but no node has gid 43
  EventRegion::set_events_switch(1);
  EXPECT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, b, nullptr));
  EXPECT_EQ(0, cmdb_send_reload_event(42));
  EventRegion::set_events_switch(0);
  void* dz = nCfg_debug_zone;
  nCfg_debug_zone = nullptr;
  EXPECT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, b, nullptr));
  nCfg_debug_zone = dz;
  EXPECT_EQ(std::nullopt, r.next());
  EXPECT_EQ(-1, cmdb_event_call_daemon(43, 1, nullptr, b, nullptr));
  EXPECT_EQ(0, cmdb_event_call_daemon(44, 1, nullptr, b, nullptr));
  EXPECT_EQ(std::nullopt, r.next());
}

TEST(EventDeliveryTest, HandlersRunByClassInSlotOrder) {
  EventRegion ev(kNodes);
  ASSERT_GE(cmdb_event_init("rcv", 1), 0);
  ASSERT_EQ(0, register_cmdb_event(42, 0x04, EVENT_WITH_DATA, record_handler<1>));
  ASSERT_EQ(0, register_cmdb_event(42, 0x06, EVENT_WITH_DATA, record_handler<2>));
  ASSERT_EQ(0, register_cmdb_event(42, 0x01, EVENT_WITH_DATA, record_handler<3>));
  EXPECT_EQ(0, do_cmdb_event_handling());  // nothing queued on a non-blocking socket
  uint8_t a[12] = {};
  // The table holds the latest handler's mask (0x01): announce what it asks for, then a class 0x04 by hand.
  ASSERT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, a, nullptr));
  ASSERT_EQ(0, cmdb_register_event("rcv", 42, 0x04, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_event_call_daemon(42, 11, a, nullptr, nullptr));
  g_calls.clear();
  EXPECT_EQ(0, do_cmdb_event_handling());
  EXPECT_EQ(std::vector<int>{3}, g_calls);
  g_calls.clear();
  EXPECT_EQ(0, do_cmdb_event_handling());
  EXPECT_EQ((std::vector<int>{1, 2}), g_calls);
  cmdb_event_cleanup();
}

TEST(EventDeliveryTest, RegisterResults) {
  EventRegion ev(kNodes);
  EventRegion::set_event_log_level(1);
  EXPECT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<1>));  // before init: nothing happens
  EXPECT_EQ(0u, ev.table->count);
  const int ev_fd = cmdb_event_init("rcv", 1);
  ASSERT_GE(ev_fd, 0);
  EXPECT_EQ(0, register_cmdb_event(0, 1, 0, record_handler<1>));
  EXPECT_EQ(0, register_cmdb_event(42, 1, 0, nullptr));
  EXPECT_EQ(0u, ev.table->count);
  ASSERT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<1>));
  EXPECT_EQ(-2, register_cmdb_event(42, 1, 0, record_handler<1>));
  ASSERT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<2>));
  ASSERT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<3>));
  ASSERT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<4>));
  EXPECT_EQ(-4, register_cmdb_event(42, 1, 0, record_handler<5>));
  for (uint16_t g = 1; g < 40; ++g) ASSERT_EQ(0, register_cmdb_event(static_cast<uint16_t>(100 + g), 1, 0, record_handler<1>));
  gk::test::clear_log();
  EXPECT_EQ(-1, register_cmdb_event(999, 1, 0, record_handler<1>));
  EXPECT_EQ(fmt("%d:register_cmdb_event no event_cb available!\n", getpid()), captured_log());
  // A datagram for a gid that none of the 40 entries holds.
  std::string m = header(999, 0, 1, 0, 48, nullptr, nullptr, nullptr);
  sockaddr_un to = event_addr("rcv");
  ASSERT_EQ(48, ::sendto(ev_fd, m.data(), m.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
  gk::test::clear_log();
  EXPECT_EQ(-1, do_cmdb_event_handling());
  EXPECT_NE(std::string::npos, captured_log().find(fmt("%d:do_cmdb_event_handling 3: Fail to find event for gid 999\n", getpid())));
  cmdb.cmdb_event = nullptr;
  gk::test::clear_log();
  EXPECT_EQ(-3, register_cmdb_event(101, 1, 0, record_handler<5>));
  EXPECT_NE(std::string::npos, captured_log().find(fmt("%d:register_cmdb_event register failed 101\n", getpid())));
  cmdb.cmdb_event = ev.table;
  cmdb_event_cleanup();
  EXPECT_EQ(0u, ev.table->count);
}

TEST(EventDeliveryTest, UnregisterFirstOrSecondHandler) {
  EventRegion ev(kNodes);
  int fd = cmdb_event_init("rcv", 1);
  ASSERT_GE(fd, 0);
  auto announce = [] {
    uint8_t b[4] = {};
    // The shared registration may be gone: put it back so the sender still reaches this process.
    cmdb_register_event("rcv", 42, 0x01, 0);
    return cmdb_event_call_daemon(42, 1, nullptr, b, nullptr);
  };
  for (bool first : {false, true}) {
    SCOPED_TRACE(first);
    ASSERT_EQ(0, register_cmdb_event(42, 0x01, 0, record_handler<1>));
    ASSERT_EQ(0, register_cmdb_event(42, 0x01, 0, record_handler<2>));
    unregister_cmdb_event(42, first ? record_handler<1> : record_handler<2>);
    EXPECT_EQ(-1, cmdb_event_entry_act(42, 0, nullptr));  // withdrawn either way
    ASSERT_EQ(0, announce());
    g_calls.clear();
    gk::test::clear_log();
    EventRegion::set_event_log_level(1);
    EXPECT_EQ(first ? -1 : 0, do_cmdb_event_handling());
    EventRegion::set_event_log_level(0);
    EXPECT_EQ(first ? std::vector<int>{} : std::vector<int>{1}, g_calls);
    if (first)
      EXPECT_NE(std::string::npos, captured_log().find(fmt("%d:do_cmdb_event_handling 2: Fail to find event for gid 42\n", getpid())));
    else
      unregister_cmdb_event(42, record_handler<1>);
  }
  cmdb_event_cleanup();
}

TEST(EventDeliveryTest, HostileDatagramsAreConsumedAndDropped) {
  EventRegion ev(kNodes);
  EventRegion::set_event_log_level(1);
  int sp[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sp));
  event::adopt_receiver_socket("rcv", sp[1]);
  ASSERT_EQ(0, register_cmdb_event(42, 0x04, 0, record_handler<1>));
  auto msg = [](uint32_t total, uint32_t size, bool d1, bool d2, uint16_t gid = 42) {
    return header(gid, 0, 0x04, size, total, d1 ? "x" : nullptr, d2 ? "y" : nullptr, nullptr) + "abcd";
  };
  struct {
    std::string bytes;
    int rc;
    std::string line;
  } rows[] = {
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
    ASSERT_EQ(static_cast<ssize_t>(r.bytes.size()), ::send(sp[0], r.bytes.data(), r.bytes.size(), 0));
    gk::test::clear_log();
    g_calls.clear();
    EXPECT_EQ(r.rc, do_cmdb_event_handling());
    EXPECT_NE(std::string::npos, captured_log().find(r.line)) << captured_log();
    EXPECT_EQ(r.rc == 0 ? std::vector<int>{1} : std::vector<int>{}, g_calls);
    EXPECT_EQ(0, do_cmdb_event_handling());  // consumed: nothing left
  }
  // Shorter than a header: left queued, untouched.
  const char short_msg[20] = "short";
  ASSERT_EQ(20, ::send(sp[0], short_msg, sizeof short_msg, 0));
  EXPECT_EQ(0, do_cmdb_event_handling());
  char buf[64];
  EXPECT_EQ(20, ::recv(sp[1], buf, sizeof buf, 0));
  ::close(event::adopt_receiver_socket("", -1));
  ::close(sp[0]);
}

TEST(EventDeliveryTest, InitNamesAndBindFailure) {
  EventRegion ev(kNodes);
  ASSERT_GE(cmdb_event_init("abcdefghijklmnopqrst", 0), 0);
  struct stat st;
  ASSERT_EQ(0, ::stat("/tmp/EVENT_D_abcdefghijklmnop", &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  ASSERT_EQ(0, register_cmdb_event(42, 1, 0, record_handler<1>));
  EXPECT_STREQ("abcdefghijklmnopqrs", ev.table->rec[0].procs[0].process);
  cmdb_event_cleanup();
  ASSERT_EQ(0, ::mkdir("/tmp/EVENT_D_busy", 0755));
  ASSERT_EQ(0, ::mkdir("/tmp/EVENT_D_busy/x", 0755));  // a directory unlink cannot remove
  gk::test::clear_log();
  EXPECT_EQ(-83, cmdb_event_init("busy", 1));
  EXPECT_EQ(fmt("%d,busy, cmdb_event_daemon:82: bind failed\n", getpid()), captured_log());
  EXPECT_EQ(0, do_cmdb_event_handling());
}

// A daemon process: registers, polls its socket, and reports what its handlers saw.
int g_report = -1;
bool g_stop = false;
int report_handler(cmdb_event_msg_t* m) {
  std::string line = fmt("%d %d %u", m->gid, m->act, m->data_size);
  auto* bytes = reinterpret_cast<uint8_t*>(m) + 48;
  for (uint32_t i = 48; i < m->total_size; ++i) line += fmt(" %d", bytes[i - 48]);
  line += "\n";
  return static_cast<int>(::write(g_report, line.data(), line.size()));
}
int stop_handler(cmdb_event_msg_t*) { return g_stop = true; }

struct Reg {
  uint16_t gid;
  uint8_t act, flags;
};
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
  EXPECT_EQ(0, cmdb_event_call_daemon(42, 2, d1, d2, nullptr));
  EXPECT_EQ(0, cmdb_event_call_daemon(42, 1, nullptr, d2, nullptr));
  EXPECT_EQ(0, cmdb_event_call_daemon(60, 12, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, cmdb_event_call_daemon(60, 2, d1, d2, nullptr));
  EXPECT_EQ(0, cmdb_event_call_daemon(70, 12, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, gk::test::wait_child(a));
  EXPECT_EQ(0, gk::test::wait_child(b));
  EXPECT_EQ("42 2 4 8 9 10 11 58 59 60 61\n60 16 0\n", read_all(pa[0]));
  EXPECT_EQ("42 2 0\n42 1 0\n60 2 6 0 1 2 3 4 5 50 51 52 53 54 55\n", read_all(pb[0]));
  EXPECT_EQ(0u, ev.table->count);  // both daemons withdrew every registration
  ::close(pa[0]);
  ::close(pb[0]);
}

}  // namespace
