// The configuration writer, checked only through what readers use: root
// entities, handles, the entry index, child instances, the locator, table
// counts, domain lookups and the datagrams that registrations ask for.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/sample_schema.h"
#include "tests/test_support.h"
#include "writer/config_writer.h"

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
// Everything under /dev/cmdb, to show that a refused call wrote nothing.
std::map<std::string, Bytes> snapshot() {
  std::map<std::string, Bytes> files;
  for (const auto& f : std::filesystem::directory_iterator("/dev/cmdb"))
    files[f.path().string()] = gk::test::read_file(f.path().string());
  return files;
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
  // The table a reader finds for a location (top-level, or one child hop).
  static cmdb_table_block_t* table(uint32_t domain, uint16_t gid, const void* parent_key = nullptr,
                                   uint16_t kid = 0) {
    uint32_t* slot = cmdb_find_root_entity(domain, gid);
    auto* t = slot == nullptr ? nullptr : at<cmdb_table_block_t>(*slot);
    if (t == nullptr || kid == 0) return t;
    slot = cmdb_find_child_obj(t, kid, parent_key, 0);
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
// A randomized run against a model, checked after every step.

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

// Key order as readers have it: version order for strings, little-endian
// integers otherwise.
int key_order(const Shape& s, const uint8_t* a, const uint8_t* b) {
  if (s.string_key) return strverscmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b));
  for (int i = s.key_size - 1; i >= 0; --i)
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  return 0;
}

// Checks one table instance against the model through the reader's calls.
void check_table(const TableM& m, const uint32_t* slot) {
  SCOPED_TRACE("table " + std::to_string(m.gid));
  if (slot == nullptr || *slot == 0) {
    ASSERT_TRUE(m.entries.empty());
    return;
  }
  const Shape& s = kShapes.at(m.gid);
  auto* t = at<cmdb_table_block_t>(*slot);
  ASSERT_EQ(static_cast<int32_t>(m.entries.size()), t->count);
  auto* ix = at<cmdb_entry_index_t>(t->index);
  ASSERT_EQ(t->count, ix->count);
  uint32_t pending = 0;
  for (int pos = 0; pos < t->count; ++pos) {
    const EntryM& e = m.entries[static_cast<size_t>(pos)];
    auto* data = static_cast<const uint8_t*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
    ASSERT_EQ(e.data, Bytes(data, data + s.size)) << pos;
    auto* entry = static_cast<cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
    ASSERT_EQ(e.pending, (entry->flags & CMDB_ENTRY_PENDING) != 0) << pos;
    pending += e.pending;
    ASSERT_EQ(pos, __cmf_svr_find_table_entry(t, data + s.key_off));
    ASSERT_EQ(static_cast<uint32_t>(cmdb_get_table_entry_grp(m.gid)), entry->ngid >> 24);
    const cmdb_locator_rec_t rec = cmdb_entry_from_index(entry->ngid),
                             want = {entry->ngid, *slot, m.gid, static_cast<uint32_t>(pos)};
    ASSERT_EQ(0, memcmp(&want, &rec, sizeof rec)) << pos;
    for (const TableM& k : e.kids) check_table(k, cmdb_find_child_obj(t, k.gid, data + s.key_off, 0));
  }
  ASSERT_EQ(pending, t->pending);
  for (int i = 1; i < ix->count; ++i) {
    auto* a = static_cast<const uint8_t*>(cmf_get_entry_data(t, ix->slot[i - 1])) + s.key_off;
    auto* b = static_cast<const uint8_t*>(cmf_get_entry_data(t, ix->slot[i])) + s.key_off;
    ASSERT_LT(key_order(s, a, b), 0) << "index slot " << i;
  }
}

void check_region(const Model& m) {
  cmf_shm_read_lock();
  for (const auto& [where, t] : m.tops) check_table(t, cmdb_find_root_entity(where.first, where.second));
  for (uint16_t gid : {kUser, kToken, kAddress, kPort})
    EXPECT_EQ(m.total(gid), cmf_get_table_tcnt(gid)) << gid;
  EXPECT_EQ(m.domains.size(), cmf_get_table_tcnt(kDomains));
  uint32_t located = 0;
  for (int g = 0; g < 5; ++g) {
    auto* l = at<cmdb_locator_block_t>(cmdb.index_roots[1 + g]);
    located += l->count;
    for (uint32_t i = 1; i < l->count; ++i) ASSERT_LT(l->rec[i - 1].ngid, l->rec[i].ngid);
  }
  EXPECT_EQ(m.total(kUser) + m.total(kToken) + m.total(kAddress) + m.total(kPort) + m.total(kLog), located);
  // Both domain indexes sorted, and each domain found by id and by name.
  auto* dt = static_cast<cmdb_domain_table_t*>(cmdb.domain);
  auto* ids = static_cast<uint32_t*>(cmdb.domid_index);
  auto* names = static_cast<uint32_t*>(cmdb.domname_index);
  ASSERT_EQ(static_cast<int>(m.domains.size()), dt->count);
  for (int i = 1; i < dt->count; ++i) {
    EXPECT_LT(dt->rec[ids[i - 1]].id, dt->rec[ids[i]].id);
    EXPECT_LT(strcasecmp(dt->rec[names[i - 1]].name, dt->rec[names[i]].name), 0);
  }
  for (const auto& [id, name] : m.domains) {
    EXPECT_EQ(id, cmf_shm_find_domain_id(name.c_str()));
    EXPECT_STREQ(name.c_str(), cmf_shm_find_domain_name(id));
    EXPECT_NE(nullptr, cmdb_find_domain_by_id(id));
  }
  EXPECT_EQ(0, cmf_shm_verify());
  cmf_shm_read_unlock();
}

// This process's registrations: class mask, and whether data comes along.
struct Registration {
  uint16_t gid;
  uint8_t mask, flags;
};
const Registration kRegistrations[] = {{kUser, 0x07, EVENT_WITH_DATA},
                                       {kAddress, 0x05, 0},
                                       {kToken, 0x02, EVENT_WITH_DATA},
                                       {kPort, 0x04, EVENT_WITH_DATA},
                                       {kDomains, 0x07, EVENT_WITH_DATA}};

struct Change {
  uint16_t gid;
  uint8_t act;
  uint32_t domain;
  Bytes first, second;
};
// The datagrams the registrations make of a step's changes.
std::vector<std::string> wanted(const std::vector<Change>& changes) {
  std::vector<std::string> out;
  for (const Change& c : changes)
    for (const Registration& r : kRegistrations) {
      const uint8_t cls = c.act == 1 ? 0x01 : c.act == 2 ? 0x02 : 0x04;
      if (r.gid == c.gid && (r.mask & cls) != 0)
        out.push_back(event_text(c.gid, cls, c.domain, r.flags & EVENT_WITH_DATA, c.first, c.second));
    }
  return out;
}

TEST_F(WriterTest, RandomizedChangesKeepEveryReaderStructureRight) {
  const int fd = cmdb_event_init("wtest", 1);
  ASSERT_GE(fd, 0);
  for (const Registration& r : kRegistrations)
    ASSERT_EQ(0, cmdb_register_event("wtest", r.gid, r.mask, r.flags));
  std::mt19937 rng(20240611);
  Model m;
  m.tops[{0, kLog}].gid = kLog;
  m.tops[{0, kAddress}].gid = kAddress;
  int refused = 0;

  for (int step = 0; step < 5000; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const uint32_t version = cmdb_get_version();
    std::vector<Change> ch;
    // Phases of growth and of shrinking, so that tables also give room back.
    const int op = static_cast<int>(rng() % 100), inserts = step % 2000 < 1400 ? 60 : 15;
    int r = 0;
    if (step % 5 == 0) {
      ASSERT_EQ(0, w_.begin());  // the same, in a transaction of the caller's
    }
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
        ch.push_back({kDomains, 1, id, {}, name256(name)});
      } else if (rng() % 3 == 0) {
        ASSERT_EQ(0, w_.remove_domain(it->first)) << w_.error();
        ch.push_back({kDomains, 11, it->first, name256(it->second), {}});
        m.tops.erase({it->first, kUser});
        m.tops.erase({it->first, kAddress});
        m.domains.erase(it);
      } else {
        const std::string name = "renamed" + std::to_string(step);
        ASSERT_EQ(0, w_.rename_domain(it->first, name.c_str())) << w_.error();
        ch.push_back({kDomains, 2, it->first, name256(it->second), name256(name)});
        it->second = name;
      }
    } else {
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
      const size_t n = t->entries.size(), any = n == 0 ? 0 : rng() % n;
      if (op < inserts) {  // insert somewhere
        const int pos = rng() % 3 ? static_cast<int>(rng() % (n + 1)) : writer::kAppend;
        const cmdb_table_limit_t* lim = cmf_get_tablesize(t->gid);
        r = w_.insert(loc, d.data(), pos);
        if (Model::find(*t, Model::key_of(t->gid, d)) >= 0) {
          ASSERT_EQ(-EEXIST, r);
        } else if (lim != nullptr && (n >= lim->size || m.total(t->gid) >= lim->tsize)) {
          ASSERT_EQ(-ENOSPC, r);
        } else {
          ASSERT_EQ(0, r) << w_.error();
          t->entries.insert(t->entries.begin() + (pos == writer::kAppend ? static_cast<long>(n) : pos),
                            EntryM{d, true, {}});
          ch.push_back({t->gid, 1, domain, {}, d});
        }
      } else if (n > 0 && op < inserts + 25) {  // update, half the time with a new key
        EntryM& e = t->entries[any];
        Bytes nd = d;
        const Bytes old_key = Model::key_of(t->gid, e.data);
        if (rng() % 2) std::copy(old_key.begin(), old_key.end(), nd.begin() + kShapes.at(t->gid).key_off);
        const int clash = Model::find(*t, Model::key_of(t->gid, nd));
        r = w_.update(loc, old_key.data(), nd.data());
        if (clash >= 0 && static_cast<size_t>(clash) != any) {
          ASSERT_EQ(-EEXIST, r);
        } else {
          ASSERT_EQ(0, r) << w_.error();
          ch.push_back({t->gid, 2, domain, e.data, nd});
          e = EntryM{nd, true, e.kids};
        }
      } else if (n > 0 && op < 95) {  // delete
        ASSERT_EQ(0, w_.remove(loc, Model::key_of(t->gid, t->entries[any].data).data())) << w_.error();
        ch.push_back({t->gid, 11, domain, t->entries[any].data, {}});
        t->entries.erase(t->entries.begin() + static_cast<long>(any));
      } else if (n > 0 && !w_.in_transaction()) {  // a consumer takes an entry for commit
        cmf_shm_write_lock();
        cmf_commit_get_entry_data(
            table(domain, top->first.second, parent_key.data(), parent_key.empty() ? 0 : t->gid),
            static_cast<uint32_t>(any));
        cmf_shm_write_unlock();
        t->entries[any].pending = false;
      }
    }
    if (w_.in_transaction()) {
      ASSERT_EQ(0, w_.commit());
    }
    refused += r != 0;
    EXPECT_EQ(version + (ch.empty() ? 0 : 1), cmdb_get_version());
    check_region(m);
    ASSERT_EQ(wanted(ch), received(fd));
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(refused, 100);  // duplicates and full tables were tried
  EXPECT_EQ(0u, w_.failed_announcements());
  cmdb_event_cleanup();
}

// ---------------------------------------------------------------------------

TEST_F(WriterTest, RefusedCallsChangeNothing) {
  ASSERT_EQ(0, w_.add_domain("Sales", 5));
  const Bytes alice = user("alice", 1), bob = user("bob", 2);
  ASSERT_EQ(0, w_.insert(Location(5, kUser), alice.data()));
  ASSERT_EQ(0, w_.insert(Location(5, kUser), bob.data()));
  Bytes unterminated(40, 'x');
  const uint32_t tok = 9;
  Bytes token(16, 0);
  struct Case {
    const char* what;
    int want;
    std::function<int()> call;
  } cases[] = {
      {"duplicate key", -EEXIST, [&] { return w_.insert(Location(5, kUser), alice.data()); }},
      {"update onto another key", -EEXIST,
       [&] { return w_.update(Location(5, kUser), "bob", user("alice", 3).data()); }},
      {"missing entry", -ENOENT, [&] { return w_.remove(Location(5, kUser), "carol"); }},
      {"missing parent entry", -ENOENT,
       [&] { return w_.insert(Location(5, kUser).child("carol", kToken), token.data()); }},
      {"parent without key", -EINVAL,
       [&] { return w_.insert(Location(5, kUser).child(nullptr, kToken), token.data()); }},
      {"no such domain", -ENOENT, [&] { return w_.insert(Location(6, kUser), alice.data()); }},
      {"per-domain table in domain 0", -EINVAL, [&] { return w_.insert(Location(0, kUser), alice.data()); }},
      {"position past the end", -EINVAL,
       [&] { return w_.insert(Location(5, kUser), user("eve", 4).data(), 3); }},
      {"unterminated key", -EINVAL, [&] { return w_.insert(Location(5, kUser), unterminated.data()); }},
      {"not a table", -EINVAL, [&] { return w_.insert(Location(0, kSystem), alice.data()); }},
      {"not an object", -EINVAL, [&] { return w_.set_object(Location(5, kUser), alice.data()); }},
      {"not a child", -ENOENT, [&] { return w_.insert(Location(5, kUser).child("alice", kPort), &tok); }},
      {"domain id taken", -EEXIST, [&] { return w_.add_domain("other", 5); }},
      {"domain name taken in other case", -EEXIST, [&] { return w_.add_domain("SALES", 6); }},
      {"domain id 0", -EINVAL, [&] { return w_.add_domain("zero", 0); }},
      {"empty domain name", -EINVAL, [&] { return w_.add_domain("", 7); }},
      {"rename of a missing domain", -ENOENT, [&] { return w_.rename_domain(8, "x"); }},
      {"removal of a missing domain", -ENOENT, [&] { return w_.remove_domain(8); }},
  };
  ASSERT_EQ(0, w_.begin());
  const uint32_t version = cmdb_get_version();
  const auto before = snapshot();
  for (const Case& c : cases) {
    EXPECT_EQ(c.want, c.call()) << c.what;
    EXPECT_FALSE(w_.error().empty()) << c.what;
    EXPECT_TRUE(before == snapshot()) << c.what;
  }
  ASSERT_EQ(0, w_.commit());
  EXPECT_EQ(version, cmdb_get_version());  // nothing changed, nothing counted
  EXPECT_EQ(-EPROTO, w_.commit());
}

TEST_F(WriterTest, SizeLimitsPerTableTotalAndDomains) {
  cleanup_cmdb_app_core();
  attach(1);  // users: 50 per table, 58 in all; tokens 50; two domains
  ASSERT_EQ(0, w_.add_domain("a", 1));
  ASSERT_EQ(0, w_.add_domain("b", 2));
  EXPECT_EQ(-ENOSPC, w_.add_domain("c", 3));
  ASSERT_EQ(0, w_.begin());
  for (int i = 0; i < 50; ++i)
    ASSERT_EQ(0, w_.insert(Location(1, kUser), user("u" + std::to_string(i), i).data()));
  EXPECT_EQ(-ENOSPC, w_.insert(Location(1, kUser), user("one-more", 0).data()));
  EXPECT_NE(std::string::npos, w_.error().find("full"));
  for (int i = 0; i < 8; ++i)
    ASSERT_EQ(0, w_.insert(Location(2, kUser), user("v" + std::to_string(i), i).data()));
  EXPECT_EQ(-ENOSPC, w_.insert(Location(2, kUser), user("v8", 8).data()));
  EXPECT_NE(std::string::npos, w_.error().find("total"));
  ASSERT_EQ(0, w_.remove(Location(1, kUser), "u7"));
  EXPECT_EQ(0, w_.insert(Location(2, kUser), user("v8", 8).data()));
  // A table without limits record is held to the size lookup's default of 256.
  Bytes log(12, 0);
  for (uint32_t i = 0; i < 256; ++i) {
    memcpy(log.data() + 4, &i, 4);
    ASSERT_EQ(0, w_.insert(Location(0, kLog), log.data()));
  }
  log[4] = 0xEE, log[5] = 0xEE;
  EXPECT_EQ(-ENOSPC, w_.insert(Location(0, kLog), log.data()));
  ASSERT_EQ(0, w_.commit());
  cmf_shm_read_lock();
  EXPECT_EQ(58u, cmf_get_table_tcnt(kUser));
  EXPECT_EQ(256, table(0, kLog)->count);
  EXPECT_EQ(0, cmf_shm_verify());
  cmf_shm_read_unlock();
}

TEST_F(WriterTest, ObjectsStartFromDefaultsAndAnnounceOldAndNew) {
  const int fd = cmdb_event_init("wobj", 1);
  ASSERT_EQ(0, cmdb_register_event("wobj", kSystem, 0x02, EVENT_WITH_DATA));
  ASSERT_EQ(0, cmdb_register_event("wobj", kProfile, 0x02, EVENT_WITH_DATA));
  const Bytes sys(16, 0x33), shell(8, 0x11);
  const uint32_t v = cmdb_get_version();
  ASSERT_EQ(0, w_.set_object(Location(9, kSystem), sys.data()));  // global: the domain is ignored
  EXPECT_EQ(0, w_.set_object(Location(0, kSystem), sys.data()));  // same data: no change
  EXPECT_EQ(v + 1, cmdb_get_version());
  ASSERT_EQ(0, w_.add_domain("d", 4));
  ASSERT_EQ(0, w_.insert(Location(4, kUser), user("alice", 1).data()));
  ASSERT_EQ(0, w_.set_object(Location(4, kUser).child("alice", kProfile), shell.data()));

  cmf_shm_read_lock();
  const uint32_t* slot[] = {cmdb_find_root_entity(0, kSystem),
                            cmdb_find_child_obj(table(4, kUser), kProfile, "alice", 0)};
  ASSERT_TRUE(slot[0] != nullptr && slot[1] != nullptr);
  EXPECT_EQ(0, memcmp(sys.data(), cmf_get_obj_data(at<void>(*slot[0])), 16));
  EXPECT_EQ(0, memcmp(shell.data(), cmf_get_obj_data(at<void>(*slot[1])), 8));
  cmf_shm_read_unlock();
  // The old data of a new object is its node's default block (kind 8 keeps one
  // that creation leaves zero).
  EXPECT_EQ((std::vector<std::string>{event_text(kSystem, 2, 0, true, Bytes(16, 0), sys),
                                      event_text(kProfile, 2, 4, true, Bytes(8, 0x5A), shell)}),
            received(fd));
  cmdb_event_cleanup();
}

// Announcing takes the event table lock. Another process holds that lock
// through the commit: the writer must wait for it with the main lock already
// released, so that process sees the lock free and the change readable.
TEST_F(WriterTest, AnnouncementsWaitOutsideTheMainLock) {
  ASSERT_EQ(0, w_.add_domain("d", 4));
  gk::test::Signal locked;
  pid_t child = gk::test::start_child([&] {
    ::alarm(10);
    cleanup_cmdb_app_core();
    if (init_cmdb_app_core(1) != 0) return 2;
    const uint32_t before = cmdb_get_version();
    if (cmdb_event_write_lock() != 0) return 3;
    locked.post();
    for (int ms = 0; cmdb_get_version() == before; ++ms) {
      if (ms > 5000) return 4;
      ::usleep(1000);
    }
    ::usleep(100 * 1000);  // the writer is blocked on the event lock by now
    const int main_lock = cmf_shm_lock_val();
    int pos = -1;
    if (main_lock == CMDB_RWLOCK_FULL) {
      cmf_shm_read_lock();
      pos = __cmf_svr_find_table_entry(table(4, kUser), "x");
      cmf_shm_read_unlock();
    }
    cmdb_event_write_unlock();
    return main_lock != CMDB_RWLOCK_FULL ? 5 : pos != 0 ? 6 : 0;
  });
  ASSERT_TRUE(locked.wait());
  ASSERT_EQ(0, w_.insert(Location(4, kUser), user("x", 0).data()));
  EXPECT_EQ(0, gk::test::wait_child(child));
}

// Removal gives every block of the domain back: after a warm-up round (which
// grows the locator blocks for good) a second round ends where the first did.
TEST_F(WriterTest, RemovingADomainFreesItsTree) {
  ASSERT_EQ(0, w_.add_domain("keep", 1));
  auto fill = [&](uint32_t d) {
    for (uint32_t i = 0; i < 60; ++i) {
      const std::string name = "u" + std::to_string(i / 3);
      if (i % 3 == 0) {
        ASSERT_EQ(0, w_.insert(Location(d, kUser), user(name, 0).data()));
      }
      const uint32_t token[4] = {i, 0, 0, 0};  // the key leads the data
      ASSERT_EQ(0, w_.insert(Location(d, kUser).child(name.c_str(), kToken), token));
    }
  };
  auto files = [] { return std::distance(std::filesystem::directory_iterator("/dev/cmdb"), {}); };
  fill(1);
  long after_first = 0;
  for (uint32_t d : {2u, 3u}) {
    ASSERT_EQ(0, w_.add_domain(("gone" + std::to_string(d)).c_str(), d));
    fill(d);
    ASSERT_EQ(0, w_.remove_domain(d));
    if (d == 2) after_first = files();
  }
  EXPECT_EQ(after_first, files());
  cmf_shm_read_lock();
  EXPECT_EQ(nullptr, cmdb_find_domain_by_name("gone3"));
  EXPECT_EQ(60u, cmf_get_table_tcnt(kToken));
  EXPECT_EQ(60u, at<cmdb_locator_block_t>(cmdb.index_roots[1 + 4])->count);
  cmf_shm_read_unlock();
}

TEST_F(WriterTest, OnlyTheOwnerWritesAndTransactionsDoNotNest) {
  ASSERT_EQ(0, w_.begin());
  EXPECT_EQ(-EALREADY, w_.begin());
  ASSERT_EQ(0, w_.commit());
  EXPECT_EQ(0, gk::test::run_child([] {
              cleanup_cmdb_app_core();
              if (init_cmdb_app_core(1) != 0) return 2;
              ConfigWriter w;
              return w.add_domain("x", 1) == -EPERM && cmf_shm_lock_val() == CMDB_RWLOCK_FULL ? 0 : 3;
            }));
}

}  // namespace
