// Read-only views of the region: header, sub-regions, allocator pages, locks,
// event registrations, domains and table limits; `locks --prune` and
// `events --prune` clear what dead processes left behind.
#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <set>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "tools/common/sha256.h"
#include "tools/schema/schema_loader.h"
#include "writer/engine.h"
#include "writer/json_text.h"
#include "writer/model.h"
#include "writer/reader.h"

namespace cmdbctl {

void print(const Options& o, const Table& t) {
  if (o.json)
    printf("%s\n", t.json_text().c_str());
  else
    fputs(t.text().c_str(), stdout);
}

namespace {

void print_json(const JsonObject& v) { printf("%s\n", v.text().c_str()); }

// Names for the views when the schema is at hand; the views work without it.
std::unique_ptr<Model> optional_model(const Options& o) {
  try {
    return Model::load(o.schema);
  } catch (const config::Error&) {
    if (!o.schema.empty()) throw;
    return nullptr;
  }
}

std::string name_or_gid(const Model* m, uint16_t gid) { return m != nullptr ? m->name_of(gid) : format("%u", gid); }

std::string lock_state(int v) {
  if (v < 0) return "absent";
  if (v == CMDB_RWLOCK_FULL) return "free";
  if (v == 0) return "write-locked";
  return format("read-locked by %d", CMDB_RWLOCK_FULL - v);
}

bool alive(uint32_t pid) { return pid != 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

std::string classes(uint8_t act) {
  static const char* names[] = {"insert", "update", "delete", "act13-17", "act12", "act27", "reload"};
  if (act == 0x7F) return "all";
  std::string s;
  for (int b = 0; b < 7; ++b)
    if (act & (1u << b)) s.append(s.empty() ? "" : ",").append(names[b]);
  return s.empty() ? "-" : s;
}

// A page file mapped read-only for the moment of the view.
class PageFile {
 public:
  PageFile(uint32_t page, size_t len) : len_(len) {
    int fd = cmdb_shm_open(std::to_string(page).c_str(), 0);
    if (fd < 0) return;
    void* p = ::mmap(nullptr, len, PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p != MAP_FAILED) base_ = p;
  }
  ~PageFile() {
    if (base_ != nullptr) ::munmap(base_, len_);
  }
  PageFile(const PageFile&) = delete;
  PageFile& operator=(const PageFile&) = delete;
  const void* base() const { return base_; }

 private:
  void* base_ = nullptr;
  size_t len_;
};

// The schema copy beside the region: its hash and node count, when readable.
struct SchemaCopy {
  bool present = false;
  std::string sha256;
  size_t nodes = 0;
  std::string error;
};

SchemaCopy read_schema_copy() {
  SchemaCopy c;
  std::string text;
  try {
    text = read_file(kSchemaCopy);
  } catch (const Failure& f) {
    c.error = f.what();
    return c;
  }
  c.present = true;
  c.sha256 = gk::sha256_hex(text);
  schema::Schema s;
  if (schema::load_string(text, kSchemaCopy, &s, &c.error) == 0) c.nodes = s.node_count();
  return c;
}

std::string group_name(uint32_t gid) {
  struct group g, *found = nullptr;
  char buf[1024];
  if (getgrgid_r(static_cast<gid_t>(gid), &g, buf, sizeof buf, &found) == 0 && found != nullptr) return g.gr_name;
  return format("%u", gid);
}

}  // namespace

int cmd_create(const Options& o, const std::string& schema_file, int platform, const std::string& write_group) {
  std::optional<gid_t> gid;
  if (!write_group.empty()) gid = group_id(write_group);
  CreateResult r = create_region(schema_file, platform, !o.json, gid);
  if (o.json) {
    print_json(JsonObject()
                   .add("created", CMDB_DIR)
                   .add("schema", schema_file)
                   .add("sha256", r.sha256)
                   .add("platform", r.platform)
                   .add("schema_nodes", static_cast<Json::UInt64>(r.nodes))
                   .add("node_records", r.node_records)
                   .add("access", r.write_gid ? "restricted" : "open"));
  } else {
    printf("created the region in " CMDB_DIR " for platform %u from %s: %s in a table of %u node records\n",
           r.platform, schema_file.c_str(), count(r.nodes, "schema node").c_str(), r.node_records);
    if (r.write_gid) printf("access restricted to root and group %s\n", write_group.c_str());
  }
  return 0;
}

int cmd_destroy(const Options& o) {
  destroy_region();
  if (o.json)
    print_json(JsonObject().add("removed", CMDB_DIR));
  else
    printf("removed the region in " CMDB_DIR " and its main lock\n");
  return 0;
}

int cmd_info(const Options& o) {
  Attachment a(Mode::kReader);
  const cmdb_header_t* h = get_cmdb_header();
  SchemaCopy copy = read_schema_copy();
  bool restricted = (h->ext_flags & CMDB_EXT_RESTRICTED) != 0, managed = (h->ext_flags & CMDB_EXT_MANAGED) != 0;
  std::string magic = format("0x%08X", h->magic);
  Table files({"sub_region", "bytes"});
  for (const char* name : kSubRegions) {
    struct stat st;
    if (cmdb_shm_stat(name, &st) == 0)
      files.add({name, static_cast<Json::Int64>(st.st_size)});
    else
      files.add({name, Json::Value()});
  }
  if (o.json) {
    JsonObject schema;
    schema.add("file", kSchemaCopy)
        .add("sha256", copy.present ? Json::Value(copy.sha256) : Json::Value())
        .add("nodes", copy.nodes != 0 ? Json::Value(static_cast<Json::UInt64>(copy.nodes)) : Json::Value());
    JsonObject v;
    v.add("magic", magic)
        .add("magic_ok", h->magic == CMDB_HEADER_MAGIC)
        .add("version", h->version)
        .add("last_writer", h->owner)
        .add("log_level", h->log_level)
        .add("platform", h->platform)
        .add("schema", schema)
        .add("node_records", h->nodes)
        .add("max_gid", h->max_gid)
        .add("sql_slots", h->sql)
        .add("access", restricted ? "restricted" : "open")
        .add("write_group", restricted ? Json::Value(group_name(h->write_gid)) : Json::Value())
        .add("managed", managed)
        .add("revision", managed ? Json::Value(h->revision) : Json::Value())
        .add("change_pid", h->change_pid != 0 ? Json::Value(h->change_pid) : Json::Value())
        .add("sub_regions", files);
    print_json(v);
    return 0;
  }
  printf("magic         %s%s\n", magic.c_str(),
         h->magic == CMDB_HEADER_MAGIC ? "" : "  (foreign: not a region of this library)");
  printf("version       %u\n", h->version);
  printf("last writer   %u\n", h->owner);
  printf("log level     %u\n", h->log_level);
  printf("platform      %u\n", h->platform);
  if (copy.present)
    printf("schema        %s, sha256 %s\n",
           copy.nodes != 0 ? (count(copy.nodes, "node") + " in " + kSchemaCopy).c_str() : kSchemaCopy,
           copy.sha256.c_str());
  else
    printf("schema        no copy beside the region (%s)\n", copy.error.c_str());
  printf("node records  %u, gids up to %u, %u SQL slots\n", h->nodes, h->max_gid, h->sql);
  if (restricted)
    printf("access        restricted to root and group %s (gid %u)\n", group_name(h->write_gid).c_str(),
           h->write_gid);
  else
    printf("access        open to every local user\n");
  if (managed) printf("managed       by cmdbd, store revision %u\n", h->revision);
  if (h->change_pid != 0)
    printf("unfinished    a change by pid %u%s\n", h->change_pid,
           alive(h->change_pid) ? " is in progress" : ", which died: run 'cmdbctl verify'");
  printf("\n%s", files.text().c_str());
  return 0;
}

int cmd_log_level(const Options& o, std::optional<int> level) {
  Attachment a(Mode::kReader);
  // Every process polls the level without a lock.
  std::atomic_ref<uint32_t> word(get_cmdb_header()->log_level);
  if (level) word.store(static_cast<uint32_t>(*level));
  if (o.json)
    print_json(JsonObject().add("log_level", word.load()));
  else
    printf("%u\n", word.load());
  return 0;
}

int cmd_pages(const Options& o, bool raw) {
  Attachment a(Mode::kReader);
  ReadLock lock;
  if (raw) {
    fflush(stdout);
    cmf_slab_display_page();
    fflush(stdout);
    return 0;
  }
  const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
  const auto* caches = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches);
  Table t({"page", "gen", "bytes", "kind", "cache", "objsize", "inuse", "num", "first_free"});
  int32_t max = pt->page_max;
  // The table may have grown since this process mapped it; read only what is mapped.
  int32_t mapped = (cmdb.page_map_len - 8) / 8;
  if (max > mapped) max = mapped;
  for (int32_t i = 0; i < max; ++i) {
    const cmdb_page_slot_t& s = pt->slot[i];
    if (s.size == -1) continue;
    PageFile f(static_cast<uint32_t>(i), static_cast<size_t>(s.size));
    const auto* hdr = static_cast<const cmdb_slab_header_t*>(f.base());
    if (hdr == nullptr || static_cast<size_t>(s.size) < sizeof *hdr) {
      t.add({i, s.gen, s.size, "unreadable"});
      continue;
    }
    if (hdr->cache == -1) {
      t.add({i, s.gen, s.size, "large", Json::Value(), s.size - 8});
    } else if (hdr->cache >= 0 && hdr->cache < caches->count && hdr->cache < CMDB_SLAB_CACHES) {
      const cmdb_slab_cache_t& c = caches->cache[hdr->cache];
      t.add({i, s.gen, s.size, "slab", hdr->cache, c.objsize, hdr->inuse, c.num, hdr->free});
    } else {
      t.add({i, s.gen, s.size, "corrupt", hdr->cache});
    }
  }
  if (o.json) {
    print_json(JsonObject().add("page_cnt", pt->page_cnt).add("page_max", pt->page_max).add("pages", t));
  } else {
    printf("%s in use of %d slots\n", count(static_cast<uint64_t>(pt->page_cnt), "page").c_str(), pt->page_max);
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

int cmd_locks(const Options& o, bool prune) {
  Attachment a(Mode::kReader);
  // The bookkeeping is read without the main lock: taking it would list this
  // process among the readers it reports.
  Table sems({"lock", "key", "value", "state"});
  int main_val = cmf_shm_lock_val();
  sems.add({"main", CMDB_SEM_KEY, main_val, lock_state(main_val)});
  for (int i = 0; i < 2; ++i) {
    int id = ::semget(DBGZ_SEM_KEY + i, 1, 0);
    int v = id < 0 ? -1 : ::semctl(id, 0, GETVAL);
    sems.add({format("debug-zone %d", i), DBGZ_SEM_KEY + i, v, lock_state(v)});
  }
  auto* dz = static_cast<cmdb_debug_zone_t*>(get_cmdb_dzone());
  uint32_t* reader_pids = dz->reader_pids;
  cmdb_lock_stat_t* stat_recs = dz->lock_stats;
  int pruned = 0;
  Table readers({"slot", "pid", "alive"});
  for (int i = 0; i < 256; ++i) {
    std::atomic_ref<uint32_t> slot(reader_pids[i]);
    uint32_t pid = slot.load();
    if (pid == 0) continue;
    bool live = alive(pid);
    // A dead reader's hold on the semaphore went with it (SEM_UNDO); only its slot stayed.
    if (prune && !live && slot.compare_exchange_strong(pid, 0)) {
      ++pruned;
      continue;
    }
    readers.add({i, pid, live});
  }
  Table stats({"pid", "reads", "writes", "last", "age_s", "alive"});
  time_t now = ::time(nullptr);
  for (int i = 0; i < 256; ++i) {
    cmdb_lock_stat_t s;
    memcpy(&s, &stat_recs[i], sizeof s);
    if (s.pid == 0) continue;
    bool live = alive(s.pid);
    if (prune && !live) {
      // Counts first, then the pid: a process that claims the freed record
      // starts from zero.
      std::atomic_ref<uint32_t>(stat_recs[i].read_count).store(0);
      std::atomic_ref<uint32_t>(stat_recs[i].write_count).store(0);
      std::atomic_ref<int64_t>(stat_recs[i].last_time).store(0);
      uint32_t expected = s.pid;
      if (std::atomic_ref<uint32_t>(stat_recs[i].pid).compare_exchange_strong(expected, 0)) {
        ++pruned;
        continue;
      }
    }
    char when[32] = "-";
    time_t t = static_cast<time_t>(s.last_time);
    struct tm tm;
    if (localtime_r(&t, &tm) != nullptr) strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);
    stats.add({s.pid, s.read_count, s.write_count, when, static_cast<Json::Int64>(now - t), live});
  }
  if (o.json) {
    JsonObject v;
    v.add("semaphores", sems).add("readers", readers).add("lock_stats", stats);
    if (prune) v.add("pruned", pruned);
    print_json(v);
    return 0;
  }
  if (prune) printf("pruned %s of dead processes\n\n", count(static_cast<uint64_t>(pruned), "record").c_str());
  fputs(sems.text().c_str(), stdout);
  printf("\nreaders holding the main lock: %zu\n", readers.rows());
  if (readers.rows() > 0) fputs(readers.text().c_str(), stdout);
  printf("\nmain lock requests by process\n");
  fputs(stats.text().c_str(), stdout);
  return 0;
}

namespace {

// Whether a receiver still owns its socket: a datagram socket connects to a
// bound name and is refused by one left behind; nothing is sent.
enum class Listener { kListening, kDead, kNoSocket };

Listener probe_socket(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return Listener::kNoSocket;
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Listener::kListening;  // cannot tell: assume it lives
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  int r = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int err = errno;
  ::close(fd);
  return r != 0 && err == ECONNREFUSED ? Listener::kDead : Listener::kListening;
}

struct Registration {
  uint16_t gid;
  std::string process;
  uint8_t act, flags;
};

}  // namespace

namespace {

// The registration table, copied under its lock; *records is its count.
std::vector<Registration> read_registrations(uint32_t* records) {
  std::vector<Registration> regs;
  if (cmdb_event_read_lock() != 0) fail("cannot take the event table lock");
  // EVENT TABLE LOCK (shared)
  const auto* et = static_cast<const cmdb_event_table_t*>(cmdb.cmdb_event);
  *records = et->count < CMDB_EVENT_MAX ? et->count : CMDB_EVENT_MAX;
  for (uint32_t i = 0; i < *records; ++i) {
    const cmdb_event_entry_t& r = et->rec[i];
    for (const cmdb_event_proc_t& p : r.procs) {
      if (p.process[0] == '\0') break;
      regs.push_back({r.obj_gid, std::string(p.process, strnlen(p.process, sizeof p.process)), p.act, p.flags});
    }
  }
  cmdb_event_read_unlock();
  // EVENT TABLE UNLOCK
  return regs;
}

std::string socket_of(const std::string& process) { return "/tmp/EVENT_D_" + process.substr(0, 16); }

// Removes the registrations whose process no longer listens, and the sockets
// they left; returns how many registrations went.
size_t prune_registrations(const std::vector<Registration>& regs, std::set<std::string>* dead) {
  size_t removed = 0;
  for (const Registration& r : regs) {
    Listener l = probe_socket(socket_of(r.process));
    if (l == Listener::kListening) continue;
    dead->insert(r.process);
    if (cmdb_unregister_event(r.process.c_str(), r.gid) == 0) ++removed;
    if (l == Listener::kDead) ::unlink(socket_of(r.process).c_str());
  }
  return removed;
}

}  // namespace

int cmd_events(const Options& o, bool prune) {
  std::unique_ptr<Model> m = optional_model(o);
  Attachment a(Mode::kReader);
  uint32_t records = 0;
  std::vector<Registration> regs = read_registrations(&records);
  std::set<std::string> pruned_procs, dead;
  size_t pruned = 0;
  if (prune) {
    pruned = prune_registrations(regs, &pruned_procs);
    regs = read_registrations(&records);
  }
  Table t({"gid", "object", "process", "classes", "act", "data", "socket"});
  for (const Registration& r : regs) {
    Listener l = probe_socket(socket_of(r.process));
    if (l != Listener::kListening) dead.insert(r.process);
    const char* state = l == Listener::kListening ? "listening" : l == Listener::kDead ? "dead" : "missing";
    t.add({r.gid, name_or_gid(m.get(), r.gid), r.process, classes(r.act), format("0x%02x", r.act),
           (r.flags & EVENT_WITH_DATA) != 0, state});
  }
  const auto* dz = static_cast<const cmdb_debug_zone_t*>(get_cmdb_dzone());
  bool on = dz->event_switch == 0;
  if (o.json) {
    JsonObject v;
    v.add("events_on", on).add("records", records);
    if (prune) v.add("pruned", static_cast<Json::UInt64>(pruned));
    v.add("registrations", t);
    print_json(v);
    return 0;
  }
  if (prune)
    printf("pruned %s of %s\n", count(pruned, "registration").c_str(),
           count(pruned_procs.size(), "dead process", "dead processes").c_str());
  std::string dead_note = dead.empty() ? ""
                                       : format("; %s gone ('cmdbctl events --prune' removes them)",
                                                count(dead.size(), "process", "processes").c_str());
  printf("events %s, %s registered%s\n", on ? "on" : "off (debug zone switch set)",
         count(records, "object").c_str(), dead_note.c_str());
  fputs(t.text().c_str(), stdout);
  return 0;
}

int cmd_domains(const Options& o) {
  Attachment a(Mode::kReader);
  ReadLock lock;
  Table t({"id", "name", "root", "elements"});
  auto add = [&](uint32_t id, const std::string& name) {
    cmdb_root_block_t* root = cmdb_find_domain_by_id(id);
    uint32_t shmid = 0;
    if (id == 0) shmid = static_cast<const cmdb_domain_table_t*>(cmdb.domain)->global_root;
    else if (int i = __cmdb_find_domain_by_id(id, 0); i >= 0)
      shmid = static_cast<const cmdb_domain_table_t*>(cmdb.domain)->rec[i].root;
    t.add({id, name, shmid == 0 ? Json::Value() : Json::Value(format("0x%08x", shmid)),
           root == nullptr ? 0 : root->count});
  };
  add(0, "(global)");
  std::vector<DomainName> ds = list_domains();
  for (const DomainName& d : ds) add(d.id, d.name);
  uint32_t capacity = cmf_get_max_table_entry(91);
  if (o.json) {
    print_json(JsonObject()
                   .add("capacity", capacity)
                   .add("count", static_cast<Json::UInt64>(ds.size()))
                   .add("domains", t));
  } else {
    printf("%s of %u\n", count(ds.size(), "domain").c_str(), capacity);
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

namespace {

// Entries in the fullest instance of a top-level table over the global
// context and every domain, or -1 for a nested table, whose instances hang
// below entries. REQUIRES: main lock (shared).
int64_t largest_instance(uint16_t gid, const std::vector<DomainName>& domains) {
  std::set<uint32_t*> seen;
  int64_t largest = -1;
  auto visit = [&](uint32_t domain) {
    uint32_t* slot = cmdb_find_root_entity(domain, gid);
    if (slot == nullptr || !seen.insert(slot).second) return;
    largest = std::max<int64_t>(largest, 0);
    const auto* t = *slot != 0 ? static_cast<const cmdb_table_block_t*>(cmf_ptr_from_shmid(*slot, 0)) : nullptr;
    if (t != nullptr) largest = std::max<int64_t>(largest, t->count);
  };
  visit(0);
  for (const DomainName& d : domains) visit(d.id);
  return largest;
}

// Whether the library's compiled-in size table has a row for the gid; a table
// without one gets the defaults (256 entries, 256 in all, no warning).
bool has_size_row(uint32_t gid) {
  for (const cmdb_size_rec_t& r : size_table)
    if (r.gid == gid) return true;
  return false;
}

}  // namespace

int cmd_limits(const Options& o) {
  std::unique_ptr<Model> m = optional_model(o);
  Attachment a(Mode::kReader);
  ReadLock lock;
  const auto* tl = static_cast<const cmdb_table_limits_t*>(cmdb.table_limits);
  std::vector<DomainName> domains = list_domains();
  Table t({"gid", "table", "count", "total", "largest", "size", "warning", "state", "source"});
  int warnings = 0;
  for (unsigned i = 0; i < tl->count && i < CMDB_TABLE_LIMITS_MAX; ++i) {
    const cmdb_table_limit_t& r = tl->rec[i];
    // The domain table is one instance: the domains themselves.
    int64_t largest = r.gid == 91 || r.tcnt == 0 ? r.tcnt : largest_instance(static_cast<uint16_t>(r.gid), domains);
    // Like with like: the total count against the total limit, the fullest
    // instance against the per-instance size and warning.
    std::string state = "ok";
    if (r.tsize != 0 && r.tcnt >= r.tsize) state = "FULL (total)";
    else if (r.size != 0 && largest >= r.size) state = "FULL (instance)";
    else if (r.sz_warning != 0 && largest >= r.sz_warning) state = "WARNING";
    if (state != "ok") ++warnings;
    t.add({r.gid, name_or_gid(m.get(), static_cast<uint16_t>(r.gid)), r.tcnt, r.tsize,
           largest < 0 ? Json::Value() : Json::Value(static_cast<Json::Int64>(largest)), r.size, r.sz_warning,
           state, has_size_row(r.gid) ? "built-in" : "default"});
  }
  if (o.json) {
    print_json(JsonObject().add("platform", get_cmdb_header()->platform).add("warnings", warnings).add("tables", t));
  } else {
    printf("table limits for platform %u, %d at or over the warning\n", get_cmdb_header()->platform, warnings);
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

int cmd_dump(const Options& o, const std::optional<std::string>& only) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Attachment a(Mode::kReader);
  std::string text;
  {
    ReadLock lock;
    text = config::get_text(*m, "", only.value_or(""));
  }
  printf("%s\n", text.c_str());
  return 0;
}

namespace {

// What a cell shows of a child table or object of an entry.
Json::Value child_cell(const Element& c, const Json::Value& v) {
  if (v.isNull()) return Json::Value();
  return c.table ? Json::Value(count(v.size(), "entry", "entries")) : Json::Value("{...}");
}

}  // namespace

int cmd_get(const Options& o, const std::string& path_text, const std::string& domain) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Path p = parse_path(*m, path_text);
  Attachment a(Mode::kReader);
  if (o.json) {
    std::string text;
    {
      ReadLock lock;
      text = config::get_text(*m, path_text, domain);
    }
    printf("%s\n", text.c_str());
    return 0;
  }
  Json::Value v;
  bool defaults = false;
  {
    ReadLock lock;
    v = read_path(*m, p, domain_id(domain), &defaults);
  }
  const Element& e = *p.steps.back().element;
  if (p.field != nullptr) {
    printf("%s\n", v.isString() ? v.asCString() : json_text(v, true).c_str());
  } else if (v.isArray()) {
    // A whole table reads best as one: a column per attribute, child tables counted.
    std::vector<std::string> cols;
    for (const Field& f : e.fields) cols.push_back(f.name);
    for (const Element* c : e.children) cols.push_back(c->name);
    Table t(cols);
    for (const Json::Value& entry : v) {
      std::vector<Json::Value> row;
      for (const Field& f : e.fields) row.push_back(entry[f.name]);
      for (const Element* c : e.children) row.push_back(child_cell(*c, entry[c->name]));
      t.add(std::move(row));
    }
    fputs(t.text().c_str(), stdout);
  } else {
    // An object or entry: one row per attribute, then its child tables and
    // objects; an object never written says where its values come from (a
    // row's cell past the last column is dropped).
    Table t(defaults ? std::vector<std::string>{"attribute", "value", "from"}
                     : std::vector<std::string>{"attribute", "value"});
    for (const Field& f : e.fields)
      t.add({f.name, v[f.name].isObject() ? Json::Value(json_text(v[f.name], true)) : v[f.name],
             "schema default"});
    for (const Element* c : e.children) t.add({c->name, child_cell(*c, v[c->name]), "schema default"});
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

}  // namespace cmdbctl
