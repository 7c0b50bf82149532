// What the writer reads in the region, checked before it is used: the
// sub-regions' extents, node records, allocator blocks, and the domain table,
// indexes, table limits and locator directory that each transaction starts from.
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>

#include "writer/writer_internal.h"

namespace writer::detail {
namespace {

// Lengths of this process's mappings, measured at each transaction's start.
uint32_t g_size[static_cast<int>(Sub::kCount)];
uint32_t g_node_size;

uint32_t file_size(const char* name) {
  struct stat st;
  return cmdb_shm_stat(name, &st) == 0 && st.st_size > 0 && st.st_size <= INT32_MAX ? static_cast<uint32_t>(st.st_size)
                                                                                     : 0;
}

uint8_t* base_of(Sub s) {
  switch (s) {
    case Sub::kHeader: return static_cast<uint8_t*>(cmdb.cmdb_global_rw);
    case Sub::kGlobal: return static_cast<uint8_t*>(cmdb.cmdb_global);
    case Sub::kDomain: return static_cast<uint8_t*>(cmdb.domain);
    case Sub::kDomainIds: return static_cast<uint8_t*>(cmdb.domid_index);
    case Sub::kDomainNames: return static_cast<uint8_t*>(cmdb.domname_index);
    default: return nullptr;
  }
}

bool fits(uint64_t limit, uint64_t offset, uint64_t len) { return offset <= limit && len <= limit - offset; }

}  // namespace

bool measure_region(std::string* why) {
  struct Want {
    Sub sub;
    const char* name;
  } const want[] = {{Sub::kGlobal, "cmdb_global"},
                    {Sub::kDomain, "domain"},
                    {Sub::kDomainIds, "domid_index"},
                    {Sub::kDomainNames, "domname_index"}};
  g_size[static_cast<int>(Sub::kHeader)] = CMDB_GLOBAL_RW_SIZE;
  for (const Want& w : want) {
    g_size[static_cast<int>(w.sub)] = base_of(w.sub) == nullptr ? 0 : file_size(w.name);
    if (g_size[static_cast<int>(w.sub)] == 0) {
      *why = std::string("the sub-region ") + w.name + " is missing";
      return false;
    }
  }
  g_node_size = cmdb.cmdb_node == nullptr ? 0 : file_size("cmdb_node");
  if (g_node_size == 0 || cmdb.cmdb_node_index == nullptr || cmdb.header == nullptr || cmdb.page == nullptr ||
      cmdb.slab_caches == nullptr) {
    *why = "the region is not mapped whole";
    return false;
  }
  return true;
}

Span sub_region(Sub s) {
  // The page table grows while the writer allocates: its length is this
  // process's mapping of it.
  if (s == Sub::kPages) return {static_cast<uint8_t*>(cmdb.page), static_cast<uint32_t>(std::max(cmdb.page_map_len, 0))};
  if (s == Sub::kBlock || s == Sub::kPageHead) return {};
  return {base_of(s), g_size[static_cast<int>(s)]};
}
uint32_t node_region_size() { return g_node_size; }

int32_t domain_slots() {
  const uint32_t records = (std::max(g_size[static_cast<int>(Sub::kDomain)], kDomainHead) - kDomainHead) /
                           sizeof(cmdb_domain_rec_t);
  const uint32_t ids = g_size[static_cast<int>(Sub::kDomainIds)] / 4, names = g_size[static_cast<int>(Sub::kDomainNames)] / 4;
  return static_cast<int32_t>(std::min({records, ids, names, uint32_t{INT32_MAX}}));
}

// ---- Node records ------------------------------------------------------------

const Node* node_at(uint32_t offset) {
  if (offset == 0 || cmdb.cmdb_node == nullptr || !fits(g_node_size, offset, sizeof(Node))) return nullptr;
  const auto* n = reinterpret_cast<const Node*>(static_cast<const uint8_t*>(cmdb.cmdb_node) + offset);
  const uint64_t len = sizeof(Node) + 4u * n->nchild + (has_default_block(n) ? n->size : 0);
  return fits(g_node_size, offset, len) ? n : nullptr;
}

const Node* node_of(uint32_t gid) {
  const uint16_t g = static_cast<uint16_t>(gid);
  // The node index has 1861 slots, so gid 1861 has none: it is no node here.
  if (g == 0 || g >= CMDB_NODE_INDEX_SLOTS || cmdb.cmdb_node_index == nullptr) return nullptr;
  const Node* n = node_at(static_cast<const uint32_t*>(cmdb.cmdb_node_index)[g]);
  return n != nullptr && n->gid == g ? n : nullptr;
}

const Node* slot_owner(const Node* node) {
  if (!is_table(node)) return node;
  return node->nchild > 0 ? node_at(node->child[0]) : nullptr;
}

std::vector<const Node*> slot_nodes(const Node* node) {
  std::vector<const Node*> out;
  const Node* owner = slot_owner(node);
  if (owner == nullptr) return out;
  for (int i = 0; i < owner->nchild; ++i) {
    const Node* c = node_at(owner->child[i]);
    if (c == nullptr) break;
    if (takes_slot(c)) out.push_back(c);
  }
  return out;
}

const Node* key_node(const Node* table) {
  const Node* entry = slot_owner(table);
  if (entry == nullptr) return nullptr;
  for (int i = 0; i < entry->nchild; ++i) {
    const Node* c = node_at(entry->child[i]);
    if (c == nullptr) break;
    if (c->offset == entry->offset && c->size > 0 && !takes_slot(c) && !has_default_block(c) && c->kind != CMDB_KIND_OPAQUE)
      return c->offset + c->size <= table->size ? c : nullptr;
  }
  return entry->offset + entry->size <= table->size ? entry : nullptr;
}

int compare_values(const Node* n, const uint8_t* a, const uint8_t* b) {
  if (is_string(n)) {
    // Fields hold their text NUL-terminated; a damaged one is cut at its end.
    const std::string x(reinterpret_cast<const char*>(a), strnlen(reinterpret_cast<const char*>(a), n->size));
    const std::string y(reinterpret_cast<const char*>(b), strnlen(reinterpret_cast<const char*>(b), n->size));
    return strverscmp(x.c_str(), y.c_str());
  }
  for (int i = n->size - 1; i >= 0; --i)
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  return 0;
}

int entry_group(uint16_t gid) {
  const int g = cmdb_get_table_entry_grp(gid);
  return g >= 0 && g < CMDB_LOCATOR_GROUPS ? g : 0;
}

// ---- Allocator blocks ------------------------------------------------------------

bool find_block(uint32_t shmid, Block* b, std::string* why, bool write) {
  const uint32_t page = CMF_SHMID_PAGE(shmid), blk = CMF_SHMID_BLKNO(shmid);
  auto damaged = [&](const char* what) {
    *why = "block " + std::to_string(shmid >> 16) + ":" + std::to_string(blk) + " " + what;
    return false;
  };
  const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
  const int64_t slots = (int64_t{cmdb.page_map_len} - 8) / 8;
  if (page == 0 || pt == nullptr || int64_t{page} >= std::min<int64_t>(pt->page_max, slots))
    return damaged("is on no page of the page table");
  const int32_t page_size = pt->slot[page].size;
  if (page_size < static_cast<int32_t>(sizeof(cmdb_slab_header_t))) return damaged("is on a page that is not allocated");
  // Handle 0xFFFF of a page is its address + 8 whatever the page holds, so the
  // header is reached without trusting the cache index it holds.
  auto* base = static_cast<uint8_t*>(cmf_ptr_from_shmid(CMF_SHMID(page, CMF_SHMID_LARGE), write ? 1 : 0));
  if (base == nullptr) return damaged("is on a page that cannot be mapped");
  base -= 8;
  const auto* h = reinterpret_cast<const cmdb_slab_header_t*>(base);
  if (h->page != page) return damaged("is on a page whose header names another page");
  if (h->cache == -1) {
    if (blk != CMF_SHMID_LARGE) return damaged("names a slab block on a large-block page");
    *b = {shmid, base + 8, static_cast<uint32_t>(page_size) - 8};
    return true;
  }
  const auto* ct = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches);
  if (h->cache < 0 || h->cache >= std::min(ct->count, CMDB_SLAB_CACHES)) return damaged("is on a page of no cache");
  const cmdb_slab_cache_t& c = ct->cache[h->cache];
  const uint64_t objects = 24 + 4 * uint64_t{c.num};
  if (c.slab_size != static_cast<uint32_t>(page_size) || objects + uint64_t{c.num} * c.objsize > c.slab_size)
    return damaged("is on a slab that does not fit its page");
  if (blk >= c.num) return damaged("lies past the last block of its slab");
  *b = {shmid, base + objects + uint64_t{blk} * c.objsize, c.objsize};
  return true;
}

bool block_in_use(uint32_t shmid) {
  Block b;
  std::string why;
  if (!find_block(shmid, &b, &why)) return false;
  if (CMF_SHMID_BLKNO(shmid) == CMF_SHMID_LARGE) return true;
  const auto* h = reinterpret_cast<const cmdb_slab_header_t*>(
      static_cast<uint8_t*>(cmf_ptr_from_shmid(CMF_SHMID(CMF_SHMID_PAGE(shmid), CMF_SHMID_LARGE), 0)) - 8);
  const uint32_t num = static_cast<const cmdb_slab_cache_table_t*>(cmdb.slab_caches)->cache[h->cache].num;
  uint32_t steps = 0;
  for (int32_t f = h->free; f >= 0 && static_cast<uint32_t>(f) < num && steps <= num; f = h->next_free[f], ++steps)
    if (static_cast<uint32_t>(f) == CMF_SHMID_BLKNO(shmid)) return false;
  return true;
}

// ---- The heads of a transaction -----------------------------------------------

int check_heads(Tx& tx) {
  const auto* dt = reinterpret_cast<const cmdb_domain_table_t*>(sub_region(Sub::kDomain).p);
  const auto* ids = reinterpret_cast<const uint32_t*>(sub_region(Sub::kDomainIds).p);
  const auto* names = reinterpret_cast<const uint32_t*>(sub_region(Sub::kDomainNames).p);
  const int32_t count = dt->count, slots = domain_slots();
  if (count < 0 || count > slots)
    return tx.fail(-EIO, "the region is damaged: the domain table counts %d domains, room for %d", count, slots);
  std::vector<uint8_t> by_id(static_cast<size_t>(count)), by_name(static_cast<size_t>(count));
  for (int32_t i = 0; i < count; ++i) {
    if (ids[i] >= uint32_t(count) || by_id[ids[i]]++ || names[i] >= uint32_t(count) || by_name[names[i]]++)
      return tx.fail(-EIO, "the region is damaged: the domain indexes are no permutation at %d", i);
    if (memchr(dt->rec[i].name, 0, sizeof dt->rec[i].name) == nullptr)
      return tx.fail(-EIO, "the region is damaged: domain record %d has an unterminated name", i);
  }
  for (int32_t i = 1; i < count; ++i) {
    if (static_cast<int32_t>(dt->rec[ids[i - 1]].id - dt->rec[ids[i]].id) >= 0)
      return tx.fail(-EIO, "the region is damaged: the domain id index is out of order at %d", i);
    if (strcasecmp(dt->rec[names[i - 1]].name, dt->rec[names[i]].name) >= 0)
      return tx.fail(-EIO, "the region is damaged: the domain name index is out of order at %d", i);
  }
  const auto* limits = static_cast<const cmdb_table_limits_t*>(cmdb.table_limits);
  if (limits == nullptr || limits->count > CMDB_TABLE_LIMITS_MAX)
    return tx.fail(-EIO, "the region is damaged: the table limits count %u records", limits == nullptr ? 0 : limits->count);
  for (int g = 0; g < CMDB_LOCATOR_GROUPS; ++g) {
    if (cmdb.index_roots[1 + g] == 0) continue;  // made again when first needed
    Block b;
    if (int r = locator(tx, g, &b); r != 0) return r;
  }
  return 0;
}

}  // namespace writer::detail
