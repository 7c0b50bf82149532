// Read-only views of the region: header, sub-regions, allocator pages, locks,
// event registrations, domains and table limits.
#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/model.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/reader.h"
#include "tools/cmdbctl/region.h"

namespace cmdbctl {

void print(const Options& o, const Table& t) {
  if (o.json)
    printf("%s\n", to_json_text(t.json()).c_str());
  else
    fputs(t.text().c_str(), stdout);
}

namespace {

void print_json(const Json::Value& v) { printf("%s\n", to_json_text(v).c_str()); }

// Names for the views when the schema is at hand; the views work without it.
std::unique_ptr<Model> optional_model(const Options& o) {
  try {
    return Model::load(o.schema);
  } catch (const Failure&) {
    if (!o.schema.empty()) throw;
    return nullptr;
  }
}

std::string name_or_gid(const Model* m, uint16_t gid) { return m != nullptr ? m->name_of(gid) : format("%u", gid); }

template <typename T>
T load_u(const void* base, size_t off) {
  T v;
  memcpy(&v, static_cast<const uint8_t*>(base) + off, sizeof v);
  return v;
}

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

}  // namespace

int cmd_create(const Options& o, const std::string& schema_file, int platform) {
  CreateResult r = create_region(schema_file, platform);
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["created"] = CMDB_DIR;
    v["platform"] = r.platform;
    v["schema_nodes"] = static_cast<Json::UInt64>(r.nodes);
    print_json(v);
  } else {
    printf("created the region in " CMDB_DIR " for platform %u from %s (%zu schema nodes)\n", r.platform,
           schema_file.c_str(), r.nodes);
  }
  return 0;
}

int cmd_destroy(const Options& o) {
  destroy_region();
  if (!o.json) printf("removed the region in " CMDB_DIR " and its main lock\n");
  return 0;
}

int cmd_info(const Options& o) {
  Attachment a(Mode::kReader);
  const cmdb_header_t* h = get_cmdb_header();
  Json::Value v(Json::objectValue);
  v["magic"] = format("0x%08X", h->magic);
  v["magic_ok"] = h->magic == CMDB_HEADER_MAGIC;
  v["version"] = h->version;
  v["last_writer"] = h->owner;
  v["log_level"] = h->log_level;
  v["platform"] = h->platform;
  v["nodes"] = h->nodes;
  v["max_gid"] = h->max_gid;
  v["sql"] = h->sql;
  Table files({"sub_region", "bytes"});
  for (const char* name : kSubRegions) {
    struct stat st;
    if (cmdb_shm_stat(name, &st) == 0)
      files.add({name, static_cast<Json::Int64>(st.st_size)});
    else
      files.add({name, Json::Value()});
  }
  if (o.json) {
    v["sub_regions"] = files.json();
    print_json(v);
    return 0;
  }
  printf("magic        %s%s\n", v["magic"].asCString(), h->magic == CMDB_HEADER_MAGIC ? "" : "  (foreign: not a region of this library)");
  printf("version      %u\n", h->version);
  printf("last writer  %u\n", h->owner);
  printf("log level    %u\n", h->log_level);
  printf("platform     %u\n", h->platform);
  printf("schema       %u nodes, max gid %u, %u SQL slots\n\n", h->nodes, h->max_gid, h->sql);
  fputs(files.text().c_str(), stdout);
  return 0;
}

int cmd_log_level(const Options& o, std::optional<int> level) {
  Attachment a(Mode::kReader);
  // Every process polls the level without a lock.
  std::atomic_ref<uint32_t> word(get_cmdb_header()->log_level);
  if (level) {
    if (*level < 0) fail("the log level is 0 or more");
    word.store(static_cast<uint32_t>(*level));
  }
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["log_level"] = word.load();
    print_json(v);
  } else {
    printf("%u\n", word.load());
  }
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
    Json::Value v(Json::objectValue);
    v["page_cnt"] = pt->page_cnt;
    v["page_max"] = pt->page_max;
    v["pages"] = t.json();
    print_json(v);
  } else {
    printf("%d pages in use of %d slots\n", pt->page_cnt, pt->page_max);
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

int cmd_locks(const Options& o) {
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
  const uint8_t* dz = static_cast<const uint8_t*>(get_cmdb_dzone());
  Table readers({"slot", "pid", "alive"});
  for (int i = 0; i < 256; ++i) {
    uint32_t pid = load_u<uint32_t>(dz, DZ_READER_PIDS + 4 * i);
    if (pid != 0) readers.add({i, pid, alive(pid)});
  }
  Table stats({"pid", "reads", "writes", "last", "age_s", "alive"});
  time_t now = ::time(nullptr);
  for (int i = 0; i < 256; ++i) {
    cmdb_lock_stat_t s;
    memcpy(&s, dz + DZ_LOCK_STATS + i * sizeof s, sizeof s);
    if (s.pid == 0) continue;
    char when[32] = "-";
    time_t t = static_cast<time_t>(s.last_time);
    struct tm tm;
    if (localtime_r(&t, &tm) != nullptr) strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);
    stats.add({s.pid, s.read_count, s.write_count, when, static_cast<Json::Int64>(now - t), alive(s.pid)});
  }
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["semaphores"] = sems.json();
    v["readers"] = readers.json();
    v["lock_stats"] = stats.json();
    print_json(v);
    return 0;
  }
  fputs(sems.text().c_str(), stdout);
  printf("\nreaders holding the main lock: %zu\n", readers.rows());
  if (readers.rows() > 0) fputs(readers.text().c_str(), stdout);
  printf("\nmain lock requests by process\n");
  fputs(stats.text().c_str(), stdout);
  return 0;
}

int cmd_events(const Options& o) {
  std::unique_ptr<Model> m = optional_model(o);
  Attachment a(Mode::kReader);
  Table t({"gid", "object", "process", "classes", "act", "data", "socket"});
  if (cmdb_event_read_lock() != 0) fail("cannot take the event table lock");
  // EVENT TABLE LOCK (shared)
  const auto* et = static_cast<const cmdb_event_table_t*>(cmdb.cmdb_event);
  uint32_t n = et->count < CMDB_EVENT_MAX ? et->count : CMDB_EVENT_MAX;
  for (uint32_t i = 0; i < n; ++i) {
    const cmdb_event_entry_t& r = et->rec[i];
    for (const cmdb_event_proc_t& p : r.procs) {
      if (p.process[0] == '\0') break;
      std::string proc(p.process, strnlen(p.process, sizeof p.process));
      struct stat st;
      bool sock = ::stat(("/tmp/EVENT_D_" + proc.substr(0, 16)).c_str(), &st) == 0;
      t.add({r.obj_gid, name_or_gid(m.get(), r.obj_gid), proc, classes(p.act), format("0x%02x", p.act),
             (p.flags & EVENT_WITH_DATA) != 0, sock});
    }
  }
  cmdb_event_read_unlock();
  // EVENT TABLE UNLOCK
  const auto* dz = static_cast<const uint8_t*>(get_cmdb_dzone());
  bool on = load_u<uint32_t>(dz, DZ_EVENT_SWITCH) == 0;
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["events_on"] = on;
    v["records"] = n;
    v["registrations"] = t.json();
    print_json(v);
  } else {
    printf("events %s, %u objects registered\n", on ? "on" : "off (debug zone switch set)", n);
    fputs(t.text().c_str(), stdout);
  }
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
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["capacity"] = cmf_get_max_table_entry(91);
    v["count"] = static_cast<Json::UInt64>(ds.size());
    v["domains"] = t.json();
    print_json(v);
  } else {
    printf("%zu domains of %u\n", ds.size(), cmf_get_max_table_entry(91));
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

int cmd_limits(const Options& o) {
  std::unique_ptr<Model> m = optional_model(o);
  Attachment a(Mode::kReader);
  ReadLock lock;
  const auto* tl = static_cast<const cmdb_table_limits_t*>(cmdb.table_limits);
  Table t({"gid", "table", "count", "size", "total", "warning", "state"});
  int warnings = 0;
  for (unsigned i = 0; i < tl->count && i < CMDB_TABLE_LIMITS_MAX; ++i) {
    const cmdb_table_limit_t& r = tl->rec[i];
    std::string state = "ok";
    if (r.size != 0 && r.tcnt >= r.size) state = "FULL";
    else if (r.sz_warning != 0 && r.tcnt >= r.sz_warning) state = "WARNING";
    if (state != "ok") ++warnings;
    t.add({r.gid, name_or_gid(m.get(), static_cast<uint16_t>(r.gid)), r.tcnt, r.size, r.tsize, r.sz_warning, state});
  }
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["platform"] = get_cmdb_header()->platform;
    v["warnings"] = warnings;
    v["tables"] = t.json();
    print_json(v);
  } else {
    printf("table limits for platform %u, %d at or over the warning\n", get_cmdb_header()->platform, warnings);
    fputs(t.text().c_str(), stdout);
  }
  return 0;
}

int cmd_dump(const Options& o, const std::optional<std::string>& only) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Attachment a(Mode::kReader);
  Json::Value v;
  {
    ReadLock lock;
    v = read_all(*m, only);
  }
  print_json(v);
  return 0;
}

int cmd_get(const Options& o, const std::string& path_text, const std::string& domain) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Path p = parse_path(*m, path_text);
  Attachment a(Mode::kReader);
  Json::Value v;
  {
    ReadLock lock;
    v = read_path(*m, p, domain_id(domain));
  }
  if (!o.json && (v.isString() || v.isNumeric() || v.isBool())) {
    printf("%s\n", v.isString() ? v.asCString() : to_json_text(v).c_str());
  } else if (!o.json && v.isArray() && p.field == nullptr) {
    // A whole table reads best as one: a column per attribute, child tables counted.
    const Element& e = *p.steps.back().element;
    std::vector<std::string> cols;
    for (const Field& f : e.fields) cols.push_back(f.name);
    for (const Element* c : e.children) cols.push_back(c->name);
    Table t(cols);
    for (const Json::Value& entry : v) {
      std::vector<Json::Value> row;
      for (const Field& f : e.fields) row.push_back(entry[f.name]);
      for (const Element* c : e.children) {
        const Json::Value& child = entry[c->name];
        row.push_back(child.isNull() ? Json::Value() : c->table ? Json::Value(format("%u entries", child.size()))
                                                                : Json::Value("{...}"));
      }
      t.add(std::move(row));
    }
    fputs(t.text().c_str(), stdout);
  } else {
    print_json(v);
  }
  return 0;
}

}  // namespace cmdbctl
