// The whole-region consistency check shared by the load and kill tests.
#include <stdarg.h>
#include <strings.h>

#include <map>
#include <set>
#include <tuple>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "tests/stress/stress_fixture.h"

namespace gk::stress {
namespace {

const cmdb_node_t* node_of(uint32_t gid) {
  if (gid == 0 || gid >= 1861 || cmdb.cmdb_node_index == nullptr) return nullptr;
  const uint32_t off = static_cast<const uint32_t*>(cmdb.cmdb_node_index)[gid];
  if (off == 0) return nullptr;
  auto* n = reinterpret_cast<const cmdb_node_t*>(static_cast<const char*>(cmdb.cmdb_node) + off);
  return n->gid == gid ? n : nullptr;
}

class Walker {
 public:
  CheckReport report;

  void fail(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (++report.errors > 8) return;
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    report.first += buf;
    report.first += '\n';
  }

  // Every handle must name a live block owned by exactly one place.
  void* block(uint32_t shmid, const char* what) {
    void* p = shmid == 0 ? nullptr : cmf_ptr_from_shmid(shmid, 0);
    if (p == nullptr) {
      fail("%s: handle %#x names no block", what, shmid);
      return nullptr;
    }
    if (!reached_.insert(shmid).second) {
      fail("%s: block %#x reached twice", what, shmid);
      return nullptr;
    }
    return p;
  }

  void root_block(uint32_t shmid, uint32_t domain) {
    auto* rb = static_cast<const cmdb_root_block_t*>(block(shmid, "root block"));
    if (rb == nullptr) return;
    // The capacity word leads the block; entries must fit in it.
    if (rb->count > rb->unused) fail("domain %u: root block holds %u of %u", domain, rb->count, rb->unused);
    for (uint32_t i = 0; i < rb->count && i < rb->unused; ++i) {
      const cmdb_root_entry_t& e = rb->entry[i];
      if (i > 0 && rb->entry[i - 1].gid >= e.gid) fail("domain %u: root entries out of order at %u", domain, i);
      const cmdb_node_t* n = node_of(e.gid);
      if (n == nullptr || n->parent != 0) {
        fail("domain %u: root entry for gid %u, which is no top-level node", domain, e.gid);
        continue;
      }
      const uint32_t* found = cmdb_find_root_entity(domain, e.gid);
      if (found == nullptr || *found != e.shmid) fail("domain %u gid %u: lookup misses the root entry", domain, e.gid);
      instance(e.shmid, n, "top-level instance");
    }
  }

  void instance(uint32_t shmid, const cmdb_node_t* n, const char* what) {
    if (shmid == 0) return;
    void* p = cmf_ptr_from_shmid(shmid, 0);
    const uint32_t kind = p == nullptr ? 0 : *static_cast<const uint32_t*>(p);
    if (kind == CMDB_BLK_TABLE)
      table(shmid, n);
    else if (kind == CMDB_BLK_OBJECT)
      object(shmid, n);
    else if (block(shmid, what) != nullptr)
      fail("%s %#x of gid %u has kind %u", what, shmid, n->gid, kind);
  }

  void object(uint32_t shmid, const cmdb_node_t* n) {
    auto* o = static_cast<const cmdb_object_block_t*>(block(shmid, "object"));
    if (o == nullptr) return;
    if (o->gid != n->gid) fail("object %#x: gid %u, expected %u", shmid, o->gid, n->gid);
    for (uint32_t i = 0; i < o->nchild; ++i) child(o->child[i], "object child");
  }

  void child(uint32_t shmid, const char* what) {
    if (shmid == 0) return;
    void* p = cmf_ptr_from_shmid(shmid, 0);
    const uint16_t gid = p == nullptr ? 0 : static_cast<const cmdb_table_block_t*>(p)->gid;
    const cmdb_node_t* n = node_of(gid);
    if (n == nullptr) {
      if (block(shmid, what) != nullptr) fail("%s %#x names gid %u, which has no node", what, shmid, gid);
      return;
    }
    instance(shmid, n, what);
  }

  void table(uint32_t shmid, const cmdb_node_t* n) {
    auto* t = static_cast<cmdb_table_block_t*>(block(shmid, "table"));
    if (t == nullptr) return;
    ++report.tables;
    report.large_tables += CMF_SHMID_BLKNO(shmid) == CMF_SHMID_LARGE;
    const uint32_t room = t->unused0;
    const uint32_t esize = cmf_get_entry_size(t);
    const int32_t cap = alloc::size_from_shmid(shmid);
    if (t->gid != n->gid) fail("table %#x: gid %u, expected %u", shmid, t->gid, n->gid);
    if (t->count < 0 || static_cast<uint32_t>(t->count) > room)
      fail("table %#x: count %d, room %u", shmid, t->count, room);
    if (cap < 0 || 32 + uint64_t(esize) * room > uint64_t(cap))
      fail("table %#x: room %u of %u bytes in a block of %d", shmid, room, esize, cap);
    if (report.errors > 0 && (t->count < 0 || static_cast<uint32_t>(t->count) > room)) return;
    auto* ix = static_cast<const cmdb_entry_index_t*>(block(t->index, "entry index"));
    if (ix == nullptr) return;
    const cmdb_node_t* key = node_of(ix->key_gid);
    if (ix->kind != CMDB_BLK_INDEX || key == nullptr || ix->count != t->count || ix->capacity < ix->count ||
        4 * uint64_t(ix->capacity) + 16 > uint64_t(alloc::size_from_shmid(t->index))) {
      fail("table %#x: index kind %u key %u count %d capacity %d, table count %d", shmid, ix->kind, ix->key_gid,
           ix->count, ix->capacity, t->count);
      return;
    }
    std::vector<uint8_t> seen(static_cast<size_t>(t->count));
    uint32_t pending = 0;
    for (int32_t i = 0; i < t->count; ++i) {
      const uint32_t s = ix->slot[i];
      if (s >= static_cast<uint32_t>(t->count) || seen[s]++) {
        fail("table %#x: index slot %d holds %u", shmid, i, s);
        return;
      }
      if (i > 0) {
        auto* a = static_cast<const uint8_t*>(cmf_get_entry_data(t, ix->slot[i - 1])) + key->offset;
        auto* b = static_cast<const uint8_t*>(cmf_get_entry_data(t, s)) + key->offset;
        if (cmdb_compare_attr_data(a, b, key) >= 0) fail("table %#x: index out of order at slot %d", shmid, i);
      }
    }
    for (int32_t pos = 0; pos < t->count; ++pos) {
      auto* e = static_cast<const cmdb_entry_t*>(cmf_get_table_entry(t, static_cast<uint32_t>(pos)));
      auto* data = static_cast<const uint8_t*>(cmf_get_entry_data(t, static_cast<uint32_t>(pos)));
      ++report.entries;
      pending += (e->flags & CMDB_ENTRY_PENDING) != 0;
      if (__cmf_svr_find_table_entry(t, data + key->offset) != pos) fail("table %#x: entry %d not found by key", shmid, pos);
      if (n->gid == kItem && !sum_ok(*reinterpret_cast<const Item*>(data)))
        fail("table %#x: entry %d fails its checksum", shmid, pos);
      const uint32_t group = e->ngid >> 24;
      if (group > 4 || !locators_[group].emplace(e->ngid, std::make_tuple(shmid, uint32_t(t->gid), uint32_t(pos))).second)
        fail("table %#x: entry %d has ngid %#x, bad or not unique", shmid, pos, e->ngid);
      totals_[t->gid]++;
      for (uint32_t c = 0; c < t->nchild; ++c) child(e->child[c], "entry child");
    }
    if (pending != t->pending) fail("table %#x: %u entries pending, counted %u", shmid, pending, t->pending);
  }

  void locators() {
    if (cmdb.index_roots == nullptr) return fail("no locator roots");
    for (uint32_t g = 0; g < 5; ++g) {
      auto* lb = static_cast<const cmdb_locator_block_t*>(block(cmdb.index_roots[1 + g], "locator block"));
      if (lb == nullptr) continue;
      const int32_t cap = alloc::size_from_shmid(cmdb.index_roots[1 + g]);
      if (lb->kind != CMDB_BLK_LOCATOR || lb->count > lb->capacity || 12 + 16 * uint64_t(lb->capacity) > uint64_t(cap)) {
        fail("locator group %u: kind %u count %u capacity %u", g, lb->kind, lb->count, lb->capacity);
        continue;
      }
      if (lb->count != locators_[g].size())
        fail("locator group %u: %u records for %zu entries", g, lb->count, locators_[g].size());
      for (uint32_t i = 0; i < lb->count; ++i) {
        const cmdb_locator_rec_t& r = lb->rec[i];
        if (i > 0 && lb->rec[i - 1].ngid >= r.ngid) fail("locator group %u: out of order at %u", g, i);
        auto it = locators_[g].find(r.ngid);
        if (it == locators_[g].end() || it->second != std::make_tuple(r.shmid, r.w2, r.w3))
          fail("locator group %u: record %u (ngid %#x) names no such entry", g, i, r.ngid);
      }
    }
  }

  void domains() {
    auto* dt = static_cast<const cmdb_domain_table_t*>(cmdb.domain);
    if (dt == nullptr) return fail("domain table not mapped");
    root_block(dt->global_root, 0);
    const int32_t cap = cmf_shm_domain_size();
    if (dt->count < 0 || dt->count > cap) return fail("domain count %d of %d", dt->count, cap);
    report.domains = static_cast<uint32_t>(dt->count);
    auto* ids = static_cast<const uint32_t*>(cmdb.domid_index);
    auto* names = static_cast<const uint32_t*>(cmdb.domname_index);
    std::vector<uint8_t> by_id(static_cast<size_t>(dt->count)), by_name(static_cast<size_t>(dt->count));
    for (int32_t i = 0; i < dt->count; ++i) {
      if (ids[i] >= uint32_t(dt->count) || by_id[ids[i]]++ || names[i] >= uint32_t(dt->count) || by_name[names[i]]++)
        return fail("domain indexes are no permutation at %d", i);
      if (i > 0 && static_cast<int32_t>(dt->rec[ids[i - 1]].id - dt->rec[ids[i]].id) >= 0)
        fail("domain id index out of order at %d", i);
      if (i > 0 && strcasecmp(dt->rec[names[i - 1]].name, dt->rec[names[i]].name) >= 0)
        fail("domain name index out of order at %d", i);
    }
    for (int32_t i = 0; i < dt->count; ++i) {
      const cmdb_domain_rec_t& r = dt->rec[i];
      if (cmf_shm_find_domain_id(r.name) != r.id || cmdb_find_domain_by_id(r.id) != cmf_ptr_from_shmid(r.root, 0))
        fail("domain %u (%.32s) not found by name or id", r.id, r.name);
      root_block(r.root, r.id);
    }
  }

  void totals() {
    for (const auto& [gid, n] : totals_)
      if (cmf_get_tablesize(gid) != nullptr && cmf_get_table_tcnt(gid) != n)
        fail("gid %u: table count says %u, tables hold %u", gid, cmf_get_table_tcnt(gid), n);
    auto* dt = static_cast<const cmdb_domain_table_t*>(cmdb.domain);
    if (cmf_get_tablesize(91) != nullptr && dt != nullptr && cmf_get_table_tcnt(91) != uint32_t(dt->count))
      fail("domain count %d, table count %u", dt->count, cmf_get_table_tcnt(91));
  }

  // Blocks in use by the allocator's own account: one per large page, the
  // slab's inuse for slab pages.
  void allocation() {
    report.blocks = static_cast<uint32_t>(reached_.size());
    auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
    if (pt == nullptr) return fail("page table not mapped");
    for (int32_t p = 1; p < pt->page_max && p < alloc::mapped_table_slots(); ++p) {
      if (pt->slot[p].size == -1) continue;
      const alloc::PageMapSlot* s = alloc::cmf_update_page(static_cast<uint32_t>(p), 0);
      if (s == nullptr || s->addr == nullptr) {
        fail("page %d is allocated but cannot be mapped", p);
        continue;
      }
      auto* h = static_cast<const cmdb_slab_header_t*>(s->addr);
      report.allocated += h->cache == -1 ? 1 : h->inuse;
    }
    if (report.allocated != report.blocks)
      fail("%u blocks allocated, %u reachable from the tree", report.allocated, report.blocks);
  }

 private:
  std::set<uint32_t> reached_;
  std::map<uint32_t, std::tuple<uint32_t, uint32_t, uint32_t>> locators_[5];
  std::map<uint16_t, uint32_t> totals_;
};

}  // namespace

CheckReport check_region() {
  Walker w;
  if (int r = cmf_shm_verify(); r != 0) w.fail("allocator check: %d", r);
  w.domains();
  w.locators();
  w.totals();
  if (w.report.errors == 0) w.allocation();
  return w.report;
}

}  // namespace gk::stress
