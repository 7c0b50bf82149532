// The configuration writer, checked only through what readers use (root
// entities, handles, the entry index, child instances, domain lookups, the
// datagrams that registrations ask for) and the engine's whole-region check.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/region_files.h"
#include "tests/sample_schema.h"
#include "writer/config_writer.h"
#include "writer/owner_lock.h"
#include "writer/verify.h"

namespace {
using Bytes = std::vector<uint8_t>;
using writer::ConfigWriter;
using writer::Location;

// Gids: per-domain "user" table (string key, g3) whose entries own a "token"
// child table (u32 key, g4) and a "profile" object; "address" table of both
// scopes (case-folding string key) with "port" child tables (u64 key, g1); a
// global kind-3 "log" table keyed by a u32 at offset 4; a global object.
constexpr uint16_t kUser = 346, kToken = 717, kProfile = 720, kAddress = 100, kPort = 711, kLog = 120,
                   kSystem = 200, kDomains = 91;

struct WriterSchema : gk::test::SampleSchema {
  WriterSchema() {
    constexpr uint8_t kAttr = 5, kEntry = 1, kInt = 1, kString = 2;
    auto* token = node("token", kToken, 2, 0, 16, 0,
                       {node("entry", 718, kEntry, 0, 16, 0, {node("id", 719, kAttr, kInt, 4, 0)})});
    auto* profile = node("profile", kProfile, 4, 0, 8, 40, {node("shell", 721, kAttr, kInt, 8, 0)});
    defaults(profile, 0x5A);
    auto* user = node("user", kUser, 2, 0x20, 40, 0,
                      {node("entry", 347, kEntry, 0, 40, 0,
                            {node("name", 348, kAttr, kString, 32, 0), token,
                             node("uid", 349, kAttr, kInt, 4, 32), profile})});
    auto* port = node("port", kPort, 2, 0, 12, 0,
                      {node("entry", 712, kEntry, 0, 12, 0, {node("number", 713, kAttr, kInt, 8, 0)})});
    auto* address =
        node("address", kAddress, 2, 0x30, 36, 0,
             {node("entry", 101, kEntry, 0, 36, 0, {node("name", 102, kAttr, kString, 32, 0), port})});
    address->flags_c = 0x10;
    auto* log = node("log", kLog, 3, 0, 12, 0,
                     {node("entry", 121, kEntry, 0, 12, 4, {node("seq", 122, kAttr, kInt, 4, 4)})});
    auto* sys = node("system", kSystem, 8, 0x00, 16, 0, {node("port", 202, kAttr, kInt, 4, 0)});
    defaults(sys, 0x08);
    root_ = node("root", 0, 0, 0, 0, 0, {user, address, log, sys});
  }
};

struct Shape {
  uint16_t size, key_off, key_size;
  bool string_key;
  uint16_t kid;  // child table of the entries, or 0
};
const std::map<uint16_t, Shape> kShapes = {{kUser, {40, 0, 32, true, kToken}},
                                           {kToken, {16, 0, 4, false, 0}},
                                           {kAddress, {36, 0, 32, true, kPort}},
                                           {kPort, {12, 0, 8, false, 0}},
                                           {kLog, {12, 4, 4, false, 0}}};

template <class T>
T* at(uint32_t shmid) {
  return static_cast<T*>(cmf_ptr_from_shmid(shmid, 0));
}
Bytes name256(const std::string& s) {
  Bytes b(256, 0);
  memcpy(b.data(), s.data(), s.size());
  return b;
}
// One datagram as text: gid/class/domain, then both data blocks when sent.
std::string event_text(uint16_t gid, uint8_t cls, uint32_t domain, bool data, const Bytes& a,
                       const Bytes& b) {
  std::string s = std::to_string(gid) + "/" + std::to_string(cls) + "/" + std::to_string(domain);
  return data ? s + "/" + std::string(a.begin(), a.end()) + "/" + std::string(b.begin(), b.end()) : s;
}
std::vector<std::string> received(int fd) {
  std::vector<std::string> out;
  uint8_t buf[4096];
  while (::recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    cmdb_event_msg_t h;
    memcpy(&h, buf, sizeof h);
    const uint8_t* p = buf + sizeof h;
    const Bytes a = h.data1 ? Bytes(p, p + h.data_size) : Bytes(),
                b = h.data2 ? Bytes(p + a.size(), p + a.size() + h.data_size) : Bytes();
    out.push_back(event_text(h.gid, h.act, h.domain_id, h.data_size > 0, a, b));
  }
  return out;
}

class WriterTest : public ::testing::Test {
 protected:
  void attach(uint32_t platform) {
    gk::test::capture_stdout([&] { ASSERT_EQ(0, gk::test::create_region(schema_, platform)); });
    ASSERT_EQ(0, init_cmdb_app_core(2));
  }
  void SetUp() override { attach(3); }
  void TearDown() override { cleanup_cmdb_app_core(); }
  // The table a reader finds for a top-level location.
  static cmdb_table_block_t* table(uint32_t domain, uint16_t gid) {
    uint32_t* slot = cmdb_find_root_entity(domain, gid);
    return slot == nullptr ? nullptr : at<cmdb_table_block_t>(*slot);
  }
  static Bytes user(const std::string& name, uint32_t uid) {
    Bytes d(40, 0);
    memcpy(d.data(), name.c_str(), name.size() + 1);
    memcpy(d.data() + 32, &uid, 4);
    return d;
  }

  WriterSchema schema_;
  ConfigWriter w_;
};

// ---------------------------------------------------------------------------
// A randomized run against a model, checked after every transaction; a tenth
// of the transactions roll back to a mark, a twentieth roll back whole.

struct TableM;
struct EntryM {
  Bytes data;
  bool pending = true;
  std::vector<TableM> kids;  // at most the one child table of its shape
};
struct TableM {
  uint16_t gid = 0;
  std::vector<EntryM> entries;  // by position
};
struct Model {
  std::map<uint32_t, std::string> domains;               // id -> name
  std::map<std::pair<uint32_t, uint16_t>, TableM> tops;  // (domain, gid)

  static Bytes key_of(uint16_t gid, const Bytes& d) {
    const Shape& s = kShapes.at(gid);
    return Bytes(d.begin() + s.key_off, d.begin() + s.key_off + s.key_size);
  }
  // Keys compare whole: string keys carry zeros after their end.
  static int find(const TableM& t, const Bytes& key) {
    for (size_t i = 0; i < t.entries.size(); ++i)
      if (key_of(t.gid, t.entries[i].data) == key) return static_cast<int>(i);
    return -1;
  }
  uint32_t total(uint16_t gid) const {
    uint32_t n = 0;
    std::function<void(const TableM&)> walk = [&](const TableM& t) {
      n += t.gid == gid ? static_cast<uint32_t>(t.entries.size()) : 0;
      for (const EntryM& e : t.entries)
        for (const TableM& k : e.kids) walk(k);
    };
    for (const auto& [where, t] : tops) walk(t);
    return n;
  }
};

// Small key ranges, so that keys collide; string keys in both cases.
Bytes random_data(std::mt19937& rng, const Shape& s) {
  Bytes d(s.size);
  for (auto& b : d) b = static_cast<uint8_t>(rng());
  memset(d.data() + s.key_off, 0, s.key_size);
  const std::string k = (rng() % 2 ? "Host" : "host") + std::to_string(rng() % 150);
  if (s.string_key)
    memcpy(d.data() + s.key_off, k.c_str(), k.size());
  else
    d[s.key_off] = static_cast<uint8_t>(rng() % 120);
  return d;
}

// The content a reader finds, entry by entry; the structure is verify_region's.
void check_table(const TableM& m, const uint32_t* slot) {
  SCOPED_TRACE("table " + std::to_string(m.gid));
  if (slot == nullptr || *slot == 0) {
    ASSERT_TRUE(m.entries.empty());
    return;
  }
  const Shape& s = kShapes.at(m.gid);
  auto* t = at<cmdb_table_block_t>(*slot);
  ASSERT_EQ(static_cast<int32_t>(m.entries.size()), t->count);
  for (int pos = 0; pos < t->count; ++pos) {
    const EntryM& e = m.entries[static_cast<size_t>(pos)];
    auto* data = static_cast<const uint8_t*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
    ASSERT_EQ(e.data, Bytes(data, data + s.size)) << pos;
    ASSERT_EQ(e.pending, (static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, uint32_t(pos)))->flags & CMDB_ENTRY_PENDING) != 0);
    for (const TableM& k : e.kids) check_table(k, cmdb_find_child_obj(t, k.gid, data + s.key_off, 0));
  }
}

void check_region(const Model& m) {
  cmf_shm_read_lock();
  for (const auto& [where, t] : m.tops) check_table(t, cmdb_find_root_entity(where.first, where.second));
  ASSERT_EQ(static_cast<int>(m.domains.size()), static_cast<cmdb_domain_table_t*>(cmdb.domain)->count);
  for (const auto& [id, name] : m.domains) {
    EXPECT_EQ(id, cmf_shm_find_domain_id(name.c_str()));
    EXPECT_STREQ(name.c_str(), cmf_shm_find_domain_name(id));
  }
  const writer::RegionReport r = writer::verify_region();
  EXPECT_TRUE(r.ok()) << r.faults[0];
  cmf_shm_read_unlock();
}

// Every class of every table, with the data: the datagrams this process hears.
constexpr uint16_t kHeard[] = {kUser, kToken, kAddress, kPort, kLog, kDomains};
constexpr uint8_t kAdded = 0x01, kChanged = 0x02, kRemoved = 0x04;

TEST_F(WriterTest, RandomizedChangesAndRollbacksKeepEveryReaderStructureRight) {
  const int fd = cmdb_event_init("wtest", 1);
  ASSERT_GE(fd, 0);
  for (uint16_t gid : kHeard) ASSERT_EQ(0, cmdb_register_event("wtest", gid, 0x07, EVENT_WITH_DATA));
  std::mt19937 rng(20240611);
  Model m;
  m.tops[{0, kLog}].gid = kLog;
  m.tops[{0, kAddress}].gid = kAddress;
  int rolled_back = 0;

  for (int step = 0; step < 3000; ++step) {
    SCOPED_TRACE("transaction " + std::to_string(step));
    const uint32_t version = cmdb_get_version();
    const int fate = static_cast<int>(rng() % 20);  // 0, 1: back to a mark; 2: back whole
    const Model start = m;
    Model at_mark = m;
    std::vector<std::string> ch;  // the datagrams wanted
    auto heard = [&](uint16_t gid, uint8_t cls, uint32_t domain, const Bytes& old_data, const Bytes& new_data) {
      ch.push_back(event_text(gid, cls, domain, true, old_data, new_data));
    };
    size_t mark = 0, ch_at_mark = 0;  // mark 0 is the transaction's start
    ASSERT_EQ(0, w_.begin());
    for (int n = 1 + static_cast<int>(rng() % 3), done = 0; done < n; ++done) {
      if (fate < 2 && done == 1) mark = w_.mark(), at_mark = m, ch_at_mark = ch.size();
      // Phases of growth and of shrinking, so that tables also give room back.
      const int op = static_cast<int>(rng() % 100), inserts = step % 1200 < 840 ? 60 : 15;
      if (op < 1 || m.domains.empty()) {  // domains come, get renamed and go
        auto it = m.domains.empty() ? m.domains.end()
                                    : std::next(m.domains.begin(), static_cast<long>(rng() % m.domains.size()));
        if (m.domains.size() < 3 || (rng() % 2 && m.domains.size() < 4)) {
          uint32_t id = 0;
          while (id == 0 || m.domains.count(id) != 0) id = rng() % 1000 + 1;
          const std::string name = (id % 2 ? "Dom" : "dom") + std::to_string(id);
          ASSERT_EQ(0, w_.add_domain(name.c_str(), id)) << w_.error();
          m.domains[id] = name;
          m.tops[{id, kUser}].gid = kUser;
          m.tops[{id, kAddress}].gid = kAddress;
          heard(kDomains, kAdded, id, {}, name256(name));
        } else if (rng() % 3 == 0) {
          ASSERT_EQ(0, w_.remove_domain(it->first)) << w_.error();
          heard(kDomains, kRemoved, it->first, name256(it->second), {});
          m.tops.erase({it->first, kUser});
          m.tops.erase({it->first, kAddress});
          m.domains.erase(it);
        } else {
          const std::string name = "renamed" + std::to_string(step);
          ASSERT_EQ(0, w_.rename_domain(it->first, name.c_str())) << w_.error();
          heard(kDomains, kChanged, it->first, name256(it->second), name256(name));
          it->second = name;
        }
        continue;
      }
      // A table instance: a top-level one, or the child table of one of its entries.
      auto top = std::next(m.tops.begin(), static_cast<long>(rng() % m.tops.size()));
      const uint32_t domain = top->first.first;
      TableM* t = &top->second;
      Location loc(domain, t->gid);
      Bytes parent_key;
      if (!t->entries.empty() && kShapes.at(t->gid).kid != 0 && rng() % 2) {
        EntryM& parent = t->entries[rng() % t->entries.size()];
        parent_key = Model::key_of(t->gid, parent.data);
        if (parent.kids.empty()) parent.kids.push_back(TableM{kShapes.at(t->gid).kid, {}});
        t = &parent.kids[0];
        loc = loc.child(parent_key.data(), t->gid);
      }
      const Bytes d = random_data(rng, kShapes.at(t->gid));
      const size_t count = t->entries.size(), any = count == 0 ? 0 : rng() % count;
      if (op < inserts) {  // insert somewhere
        const int pos = rng() % 3 ? static_cast<int>(rng() % (count + 1)) : writer::kAppend;
        const cmdb_table_limit_t* lim = cmf_get_tablesize(t->gid);
        const int r = w_.insert(loc, d.data(), pos);
        if (Model::find(*t, Model::key_of(t->gid, d)) >= 0) {
          ASSERT_EQ(-EEXIST, r);
        } else if (lim != nullptr && (count >= lim->size || m.total(t->gid) >= lim->tsize)) {
          ASSERT_EQ(-ENOSPC, r);
        } else {
          ASSERT_EQ(0, r) << w_.error();
          t->entries.insert(t->entries.begin() + (pos == writer::kAppend ? static_cast<long>(count) : pos),
                            EntryM{d, true, {}});
          heard(t->gid, kAdded, domain, {}, d);
        }
      } else if (count > 0 && op < inserts + 25) {  // update, half the time with a new key
        EntryM& e = t->entries[any];
        Bytes nd = d;
        const Bytes old_key = Model::key_of(t->gid, e.data);
        if (rng() % 2) std::copy(old_key.begin(), old_key.end(), nd.begin() + kShapes.at(t->gid).key_off);
        const int clash = Model::find(*t, Model::key_of(t->gid, nd));
        const int r = w_.update(loc, old_key.data(), nd.data());
        if (clash >= 0 && static_cast<size_t>(clash) != any) {
          ASSERT_EQ(-EEXIST, r);
        } else {
          ASSERT_EQ(0, r) << w_.error();
          heard(t->gid, kChanged, domain, e.data, nd);
          e = EntryM{nd, true, e.kids};
        }
      } else if (count > 0 && op < 95) {  // delete
        ASSERT_EQ(0, w_.remove(loc, Model::key_of(t->gid, t->entries[any].data).data())) << w_.error();
        heard(t->gid, kRemoved, domain, t->entries[any].data, {});
        t->entries.erase(t->entries.begin() + static_cast<long>(any));
      } else if (count > 0 && fate > 2) {  // a consumer takes an entry for commit
        uint32_t* home = cmdb_find_root_entity(domain, top->first.second);
        if (!parent_key.empty()) home = cmdb_find_child_obj(at<cmdb_table_block_t>(*home), t->gid, parent_key.data(), 0);
        cmf_commit_get_entry_data(at<cmdb_table_block_t>(*home), static_cast<uint32_t>(any));
        t->entries[any].pending = false;
      }
    }
    if (fate < 2) {
      ASSERT_EQ(0, w_.rollback_to(mark));
      m = at_mark, ch.resize(ch_at_mark);
    }
    if (fate == 2) {
      ASSERT_EQ(0, w_.rollback());
      m = start, ch.clear();
    } else {
      ASSERT_EQ(0, w_.commit());
    }
    rolled_back += fate <= 2;
    EXPECT_EQ(version + (ch.empty() ? 0 : 1), cmdb_get_version());
    check_region(m);
    ASSERT_EQ(ch, received(fd));
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(rolled_back, 300);
  EXPECT_EQ(0u, w_.failed_announcements());
  cmdb_event_cleanup();
}

// ---------------------------------------------------------------------------

TEST_F(WriterTest, RefusedCallsChangeNothing) {
  ASSERT_EQ(0, w_.add_domain("Sales", 5));
  const Bytes alice = user("alice", 1), bob = user("bob", 2);
  ASSERT_EQ(0, w_.insert(Location(5, kUser), alice.data()));
  ASSERT_EQ(0, w_.insert(Location(5, kUser), bob.data()));
  Bytes unterminated(40, 'x'), token(16, 0);
  // A duplicate key, an update onto another's key, a missing entry, a missing
  // parent entry, a parent without its key, a per-domain table in domain 0, an
  // unterminated key, an object call on a table, a domain name taken in
  // another case.
  const std::pair<int, std::function<int()>> cases[] = {
      {-EEXIST, [&] { return w_.insert(Location(5, kUser), alice.data()); }},
      {-EEXIST, [&] { return w_.update(Location(5, kUser), "bob", user("alice", 3).data()); }},
      {-ENOENT, [&] { return w_.remove(Location(5, kUser), "carol"); }},
      {-ENOENT, [&] { return w_.insert(Location(5, kUser).child("carol", kToken), token.data()); }},
      {-EINVAL, [&] { return w_.insert(Location(5, kUser).child(nullptr, kToken), token.data()); }},
      {-EINVAL, [&] { return w_.insert(Location(0, kUser), alice.data()); }},
      {-EINVAL, [&] { return w_.insert(Location(5, kUser), unterminated.data()); }},
      {-EINVAL, [&] { return w_.set_object(Location(5, kUser), alice.data()); }},
      {-EEXIST, [&] { return w_.add_domain("SALES", 6); }},
  };
  ASSERT_EQ(0, w_.begin());
  const uint32_t version = cmdb_get_version();
  const auto before = gk::test::region_files();
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(cases[i].first, cases[i].second()) << "case " << i;
    EXPECT_FALSE(w_.error().empty()) << i;
    EXPECT_TRUE(before == gk::test::region_files()) << i;
  }
  EXPECT_EQ(-EALREADY, w_.begin());
  ASSERT_EQ(0, w_.commit());
  EXPECT_EQ(version, cmdb_get_version());  // nothing changed, nothing counted
  EXPECT_EQ(-EPROTO, w_.commit());
}

TEST_F(WriterTest, ObjectsStartFromDefaultsAndAnnounceOldAndNew) {
  const int fd = cmdb_event_init("wobj", 1);
  ASSERT_EQ(0, cmdb_register_event("wobj", kProfile, 0x02, EVENT_WITH_DATA));
  const Bytes shell(8, 0x11);
  ASSERT_EQ(0, w_.add_domain("d", 4));
  ASSERT_EQ(0, w_.insert(Location(4, kUser), user("alice", 1).data()));
  const uint32_t v = cmdb_get_version();
  const Location profile = Location(4, kUser).child("alice", kProfile);
  ASSERT_EQ(0, w_.set_object(profile, shell.data()));
  EXPECT_EQ(0, w_.set_object(profile, shell.data()));  // the same data: no change
  EXPECT_EQ(v + 1, cmdb_get_version());
  const uint32_t* slot = cmdb_find_child_obj(table(4, kUser), kProfile, "alice", 0);
  EXPECT_EQ(0, memcmp(shell.data(), cmf_get_obj_data(at<void>(*slot)), 8));
  // The old data of a new object is its node's default block.
  EXPECT_EQ(std::vector<std::string>{event_text(kProfile, kChanged, 4, true, Bytes(8, 0x5A), shell)}, received(fd));
  cmdb_event_cleanup();
}

// Announcing takes the event table lock. Another process holds that lock
// through the commit: the writer must wait for it with the main lock already
// released, so that process sees the lock free and the change readable.
TEST_F(WriterTest, AnnouncementsWaitOutsideTheMainLock) {
  ASSERT_EQ(0, w_.add_domain("d", 4));
  gk::test::Signal locked;
  const uint32_t before = cmdb_get_version();
  const pid_t child = gk::test::start_child([&] {
    ::alarm(10);
    if (cmdb_event_write_lock() != 0) return 3;
    locked.post();
    while (cmdb_get_version() == before) ::usleep(1000);
    ::usleep(100 * 1000);  // the writer is blocked on the event lock by now
    cmf_shm_read_lock();  // never granted while the writer keeps the main lock
    const int pos = __cmf_svr_find_table_entry(table(4, kUser), "x");
    cmf_shm_read_unlock();
    cmdb_event_write_unlock();
    return pos == 0 ? 0 : 4;
  });
  ASSERT_TRUE(locked.wait());
  ASSERT_EQ(0, w_.insert(Location(4, kUser), user("x", 0).data()));
  EXPECT_EQ(0, gk::test::wait_child(child));
}


// One owner at a time: a second process is told who holds the lock and gets it
// once the holder lets go or dies; root trusts no lock file another user made.
// Only the owner writes, up to the platform's domains (table limits are met in
// the randomized run).
TEST_F(WriterTest, OnlyTheOwnerWritesAndTheOwnerLockNamesItsHolder) {
  cleanup_cmdb_app_core();
  attach(1);  // two domains
  EXPECT_EQ(0, gk::test::run_child([] {
              cleanup_cmdb_app_core();
              return init_cmdb_app_core(1) == 0 && ConfigWriter().add_domain("x", 1) == -EPERM ? 0 : 3;
            }));
  ASSERT_EQ(0, w_.add_domain("a", 1));
  ASSERT_EQ(0, w_.add_domain("b", 2));
  EXPECT_EQ(-ENOSPC, w_.add_domain("c", 3));
  writer::OwnerLock mine;
  auto text = [] {
    const Bytes b = gk::test::read_file(writer::kOwnerLockPath);
    return std::string(b.begin(), b.end());
  };
  for (const bool killed : {false, true}) {
    writer::OwnerLock theirs;
    gk::test::Holder h([&] { if (theirs.acquire() != 0) _exit(2); }, [&] { theirs.release(); });
    ASSERT_TRUE(h.held());
    EXPECT_EQ(h.pid, mine.acquire());
    EXPECT_EQ(std::to_string(h.pid) + "\n", text());
    EXPECT_EQ(killed ? 128 + SIGKILL : 0, killed ? h.kill() : h.finish());
    ASSERT_EQ(0, mine.acquire()) << mine.error();
    EXPECT_EQ(std::to_string(getpid()) + "\n", text());
    mine.release();
    EXPECT_EQ("", text());
  }
  ASSERT_EQ(0, ::chown(writer::kOwnerLockPath, 65534, 65534));
  EXPECT_EQ(-EPERM, mine.acquire());
  EXPECT_NE(std::string::npos, mine.error().find("not root")) << mine.error();
}


}  // namespace
