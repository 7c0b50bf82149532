// The whole-region check. It walks the tree from the domain table down as
// readers do, but checks each structure before it follows or searches it:
// every handle against the allocator's records, every count against its block
// or sub-region, every index for order and for naming each entry once, the
// locator records against the entries, and the blocks reached against the
// blocks the allocator has handed out.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <map>
#include <set>
#include <tuple>

#include "writer/names.h"
#include "writer/verify.h"
#include "writer/writer_internal.h"

namespace writer {
namespace {
using namespace detail;

// What cmf_shm_verify's codes say.
const char* allocator_fault(int code) {
  static const char* const kText[] = {"the page table or cache table is not mapped",
                                      "the page table's slot count is out of range",
                                      "a page slot's size or generation is impossible",
                                      "the page count differs from the allocated slots",
                                      "a slab list links the wrong pages",
                                      "a slab is on the list that does not match its free blocks",
                                      "a slab's free chain does not match its count",
                                      "an allocated page is on no list and holds no large block",
                                      "a page is listed twice",
                                      "a cache's size class does not fit its slab"};
  return code <= -1 && code >= -10 ? kText[-code - 1] : "unknown damage";
}

class Walker {
 public:
  explicit Walker(size_t max) : max_(max) {}

  void fault(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    ++faults_;
    if (report.faults.size() >= max_) return;
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    report.faults.emplace_back(buf);
  }
  size_t faults() const { return faults_; }
  // A fault that keeps part of the tree from being walked: what is counted
  // over the whole tree is not compared then, so one fault is not reported as
  // a dozen.
  template <class... Args>
  void partial(const char* fmt, Args... args) {
    walked_whole_ = false;
    fault(fmt, args...);
  }
  bool walked_whole() const { return walked_whole_; }

  void domains() {
    const auto* dt = reinterpret_cast<const cmdb_domain_table_t*>(sub_region(Sub::kDomain).p);
    const auto* ids = reinterpret_cast<const uint32_t*>(sub_region(Sub::kDomainIds).p);
    const auto* names = reinterpret_cast<const uint32_t*>(sub_region(Sub::kDomainNames).p);
    root(dt->global_root, 0, "global");
    const int32_t count = dt->count, slots = domain_slots();
    if (count < 0 || count > slots) return partial("domain table: count %d, room for %d", count, slots);
    report.domains = static_cast<uint32_t>(count);
    std::vector<uint8_t> by_id(static_cast<size_t>(count)), by_name(static_cast<size_t>(count));
    bool usable = true;
    for (int32_t i = 0; i < count; ++i) {
      if (memchr(dt->rec[i].name, 0, sizeof dt->rec[i].name) == nullptr) {
        fault("domain record %d: the name is not terminated", i);
        usable = false;
      }
      if (ids[i] >= uint32_t(count) || by_id[ids[i]]++ || names[i] >= uint32_t(count) || by_name[names[i]]++) {
        fault("domain indexes: slot %d names no record or one named before", i);
        usable = false;
      }
    }
    if (!usable) return void(walked_whole_ = false);  // the library's searches would read past the records
    for (int32_t i = 1; i < count; ++i) {
      if (static_cast<int32_t>(dt->rec[ids[i - 1]].id - dt->rec[ids[i]].id) >= 0)
        fault("domain id index: out of order at slot %d", i);
      if (strcasecmp(dt->rec[names[i - 1]].name, dt->rec[names[i]].name) >= 0)
        fault("domain name index: out of order at slot %d", i);
    }
    for (int32_t i = 0; i < count; ++i) {
      const cmdb_domain_rec_t& r = dt->rec[i];
      if (r.id == 0 || cmf_shm_find_domain_id(r.name) != r.id || __cmdb_find_domain_by_id(r.id, 0) != i)
        fault("domain '%s' (id %u): not found by its name and id", r.name, r.id);
      root(r.root, r.id, std::string("domain '") + r.name + "'");
    }
  }

  void locators() {
    for (int g = 0; g < CMDB_LOCATOR_GROUPS; ++g) {
      const uint32_t shmid = cmdb.index_roots[1 + g];
      if (shmid == 0) {
        if (!located_[g].empty()) fault("entry group %d: %zu entries and no locator block", g, located_[g].size());
        continue;
      }
      Block b;
      if (!reach(shmid, "locator block", &b)) continue;
      const auto* l = b.as<cmdb_locator_block_t>();
      if (b.size < kLocatorHead || l->kind != CMDB_BLK_LOCATOR || l->count > l->capacity ||
          kLocatorHead + 16 * uint64_t{l->capacity} > b.size) {
        fault("locator block of entry group %d: kind %u, %u records, room for %u", g, l->kind, l->count, l->capacity);
        continue;
      }
      if (!walked_whole_) continue;
      if (l->count != located_[g].size())
        fault("locator block of entry group %d: %u records for %zu entries", g, l->count, located_[g].size());
      for (uint32_t i = 0; i < l->count; ++i) {
        const cmdb_locator_rec_t& r = l->rec[i];
        if (i > 0 && static_cast<int32_t>(l->rec[i - 1].ngid - r.ngid) >= 0)
          fault("locator block of entry group %d: out of order at record %u", g, i);
        const auto it = located_[g].find(r.ngid);
        if (it == located_[g].end() || it->second != std::make_tuple(r.shmid, r.w2, r.w3))
          fault("locator block of entry group %d: record %u (ngid %#x) names no such entry", g, i, r.ngid);
      }
    }
  }

  void totals() {
    if (!walked_whole_) return;
    const auto* lim = static_cast<const cmdb_table_limits_t*>(cmdb.table_limits);
    if (lim->count > CMDB_TABLE_LIMITS_MAX) return fault("table limits: %u records", lim->count);
    for (uint32_t i = 0; i < lim->count; ++i) {
      const cmdb_table_limit_t& r = lim->rec[i];
      const uint32_t held = r.gid == CMDB_DOMAIN_GID ? report.domains : totals_[static_cast<uint16_t>(r.gid)];
      if (r.tcnt != held)
        fault("table limits of %s: the live count says %u, the tables hold %u", node_name(r.gid).c_str(),
              r.tcnt, held);
    }
  }

  // Blocks in use by the allocator's own account: one per large page, the
  // slab's count for slab pages.
  void allocation() {
    report.blocks = static_cast<uint32_t>(reached_.size());
    const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
    const auto* ct = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches);
    const int64_t slots = std::min<int64_t>(pt->page_max, (int64_t{cmdb.page_map_len} - 8) / 8);
    for (int64_t p = 1; p < slots; ++p) {
      if (pt->slot[p].size == -1) continue;
      auto* at = static_cast<const uint8_t*>(cmf_ptr_from_shmid(CMF_SHMID(p, CMF_SHMID_LARGE), 0));
      if (at == nullptr) continue;  // cmf_shm_verify has named it
      const auto* h = reinterpret_cast<const cmdb_slab_header_t*>(at - 8);
      report.allocated += h->cache == -1 ? 1 : std::min(h->inuse, h->cache < CMDB_SLAB_CACHES ? ct->cache[h->cache].num : 0);
    }
    if (report.allocated != report.blocks)
      fault("%u blocks are allocated and %u reached from the tree: %s", report.allocated, report.blocks,
            report.allocated > report.blocks ? "some are lost (a writer's pending frees, or a leak)"
                                             : "some are reached but not allocated");
  }

  RegionReport report;

 private:
  bool reach(uint32_t shmid, const std::string& what, Block* b) {
    std::string why;
    if (!find_block(shmid, b, &why, false)) {
      partial("%s: %s", what.c_str(), why.c_str());
      return false;
    }
    if (!reached_.insert(shmid).second) {
      fault("%s: block %#x is reached twice", what.c_str(), shmid);
      return false;
    }
    return true;
  }

  void root(uint32_t shmid, uint32_t domain, const std::string& where) {
    if (shmid == 0) return;  // nothing was ever written to the context
    Block b;
    if (!reach(shmid, where + ": root block", &b)) return;
    const auto* rb = b.as<cmdb_root_block_t>();
    if (kRootHead + 8 * uint64_t{rb->count} > b.size)
      return partial("%s: the root block counts %u entries past its end", where.c_str(), rb->count);
    for (uint32_t i = 0; i < rb->count; ++i) {
      const cmdb_root_entry_t& e = rb->entry[i];
      const std::string at = where + ", gid " + std::to_string(e.gid);
      if (i > 0 && rb->entry[i - 1].gid >= e.gid) fault("%s: root entries out of order", at.c_str());
      const Node* n = node_of(e.gid);
      if (n == nullptr || n->parent != 0) {
        partial("%s: a root entry for no top-level node", at.c_str());
        continue;
      }
      const uint32_t* found = cmdb_find_root_entity(domain, e.gid);
      if (found == nullptr || *found != e.shmid) fault("%s: the root entry is not found by its gid", at.c_str());
      instance(e.shmid, n, at);
    }
  }

  void instance(uint32_t shmid, const Node* n, const std::string& where) {
    if (shmid == 0) return;
    if (++depth_ > 64) {
      partial("%s: the instances loop", where.c_str());
    } else if (n->kind == CMDB_KIND_LIST) {
      Block b;
      reach(shmid, where, &b);
    } else if (is_table(n)) {
      table(shmid, n, where);
    } else {
      object(shmid, n, where);
    }
    --depth_;
  }

  void object(uint32_t shmid, const Node* n, const std::string& where) {
    Block b;
    if (!reach(shmid, where + ": object", &b)) return;
    const auto* o = b.as<cmdb_object_block_t>();
    const std::vector<const Node*> kids = slot_nodes(n);
    if (b.size < kObjectHead || o->kind != CMDB_BLK_OBJECT || o->gid != n->gid || o->nchild != kids.size() ||
        kObjectHead + 4 * uint64_t{o->nchild} + n->size > b.size)
      return partial("%s: the object block (%#x) is not one of %s", where.c_str(), shmid,
                     node_name(n->gid).c_str());
    for (size_t i = 0; i < kids.size(); ++i) instance(o->child[i], kids[i], where + ".gid " + std::to_string(kids[i]->gid));
  }

  void table(uint32_t shmid, const Node* n, const std::string& where) {
    Block b, xb;
    if (!reach(shmid, where + ": table", &b)) return;
    auto* t = b.as<cmdb_table_block_t>();
    const std::vector<const Node*> kids = slot_nodes(n);
    const Node* key = key_node(n);
    if (b.size < kTableHead || t->kind != CMDB_BLK_TABLE || t->gid != n->gid || t->nchild != kids.size() ||
        key == nullptr)
      return partial("%s: the table block (%#x) is not one of %s", where.c_str(), shmid,
                     node_name(n->gid).c_str());
    const uint32_t es = n->size + 4 * t->nchild + 8, room = (b.size - kTableHead) / es;
    if (t->count < 0 || static_cast<uint32_t>(t->count) > room || t->unused0 > room)
      return partial("%s: the table counts %d entries and records room for %u, its block has room for %u", where.c_str(),
                   t->count, t->unused0, room);
    ++report.tables;
    report.large_tables += CMF_SHMID_BLKNO(shmid) == CMF_SHMID_LARGE;
    if (!reach(t->index, where + ": entry index", &xb)) return;
    const auto* ix = xb.as<cmdb_entry_index_t>();
    if (xb.size < kIndexHead || ix->kind != CMDB_BLK_INDEX || ix->key_gid != key->gid || ix->capacity < 0 ||
        ix->count != t->count || ix->count > ix->capacity || kIndexHead + 4 * uint64_t(ix->capacity) > xb.size)
      return partial("%s: the entry index holds %d of %d slots for %d entries", where.c_str(), ix->count, ix->capacity,
                   t->count);
    std::vector<uint8_t> seen(static_cast<size_t>(t->count));
    for (int32_t i = 0; i < t->count; ++i) {
      const uint32_t s = ix->slot[i];
      if (s >= static_cast<uint32_t>(t->count) || seen[s]++)
        return partial("%s: index slot %d holds %u", where.c_str(), i, s);
      if (i > 0 && compare_values(key, static_cast<const uint8_t*>(cmf_get_entry_data(t, ix->slot[i - 1])) + key->offset,
                                  static_cast<const uint8_t*>(cmf_get_entry_data(t, s)) + key->offset) >= 0)
        fault("%s: the index is out of key order at slot %d", where.c_str(), i);
    }
    uint32_t pending = 0;
    for (int32_t pos = 0; pos < t->count; ++pos) {
      const auto* e = static_cast<const cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
      const auto* data = static_cast<const uint8_t*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
      const std::string at = where + "[" + std::to_string(pos) + "]";
      ++report.entries;
      pending += (e->flags & CMDB_ENTRY_PENDING) != 0;
      if (is_string(key) && memchr(data + key->offset, 0, key->size) == nullptr)
        fault("%s: the key is not terminated", at.c_str());
      else if (__cmf_svr_find_table_entry(t, data + key->offset) != pos)
        fault("%s: the entry is not found by its key", at.c_str());
      const int group = static_cast<int>(e->ngid >> 24);
      if (group != entry_group(n->gid) ||
          !located_[group].emplace(e->ngid, std::make_tuple(shmid, uint32_t{n->gid}, uint32_t(pos))).second)
        fault("%s: ngid %#x is of another entry group or not unique", at.c_str(), e->ngid);
      totals_[n->gid]++;
      std::vector<uint32_t> children(e->child, e->child + kids.size());
      for (size_t i = 0; i < kids.size(); ++i)
        instance(children[i], kids[i], at + ".gid " + std::to_string(kids[i]->gid));
    }
    if (pending != t->pending) fault("%s: %u entries are pending, the table counts %u", where.c_str(), pending, t->pending);
  }

  size_t max_, faults_ = 0;
  bool walked_whole_ = true;
  int depth_ = 0;
  std::set<uint32_t> reached_;
  std::map<uint32_t, std::tuple<uint32_t, uint32_t, uint32_t>> located_[CMDB_LOCATOR_GROUPS];
  std::map<uint16_t, uint32_t> totals_;
};

}  // namespace

RegionReport verify_region(size_t max_faults) {
  Walker w(max_faults);
  std::string why;
  if (!measure_region(&why)) {
    w.fault("%s", why.c_str());
    return w.report;
  }
  const int alloc = cmf_shm_verify();
  if (alloc != 0) w.fault("allocator: %s (cmf_shm_verify %d)", allocator_fault(alloc), alloc);
  if (const uint32_t pid = cmdb.header->change_pid; pid == static_cast<uint32_t>(getpid()))
    w.fault("a change of this process is in progress");
  else if (pid != 0)
    w.fault("pid %u died while changing the region: the next writer takes its change back", pid);
  w.domains();
  w.locators();
  w.totals();
  if (alloc == 0 && w.walked_whole()) w.allocation();
  if (w.faults() > max_faults) w.report.faults.push_back("... and " + std::to_string(w.faults() - max_faults) + " more");
  return w.report;
}

RegionReport verify_config(size_t max_faults) {
  Walker w(max_faults);
  std::string why;
  if (!measure_region(&why)) w.fault("%s", why.c_str());
  else w.domains();
  return w.report;
}

}  // namespace writer
