// Domains: separate configuration contexts, each a record with a name, an id and
// a root block, found through two sorted index arrays of record numbers. The
// writers keep both indexes in order; this library only re-sorts the id index.
// Callers hold the main lock shared (exclusive for cmf_shm_resolve_alldomain).
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>
#include <cstddef>

#include "alloc/alloc_internal.h"
#include "tree/tree_internal.h"
#include "util/util_internal.h"

namespace tree {
namespace {

constexpr size_t kNameBytes = sizeof(cmdb_domain_rec_t::name);

cmdb_domain_table_t* domains() { return static_cast<cmdb_domain_table_t*>(cmdb.domain); }

// How many records this process's mapping of `domain` can hold, learned from
// the kernel once per base and again when a count says more, so that a count in
// shared memory never sends a read past the mapping. 0 bytes: nothing known.
std::atomic<const void*> g_mapped_base{nullptr};
std::atomic<size_t> g_mapped_bytes{0};

int64_t records_room(const cmdb_domain_table_t* t, bool refresh) {
  size_t bytes;
  if (!refresh && g_mapped_base.load(std::memory_order_acquire) == t) {
    bytes = g_mapped_bytes.load(std::memory_order_relaxed);
  } else {
    bytes = mapped_bytes_from(t);
    g_mapped_bytes.store(bytes, std::memory_order_relaxed);
    g_mapped_base.store(t, std::memory_order_release);
  }
  if (bytes == 0) return INT32_MAX;
  return bytes < offsetof(cmdb_domain_table_t, rec) ? 0
                                                    : static_cast<int64_t>((bytes - offsetof(cmdb_domain_table_t, rec)) /
                                                                           sizeof(cmdb_domain_rec_t));
}

int32_t domain_count(const cmdb_domain_table_t* t) {
  if (t == nullptr || t->count < 0) return 0;
  const int32_t count = t->count;
  if (count <= records_room(t, false)) return count;
  const int64_t room = records_room(t, true);
  return count <= room ? count : static_cast<int32_t>(room);
}

// Case-insensitive order of a sought name against a record's name, the record's
// field ending at its 256th byte even without a NUL.
int compare_name(const char* sought, const char* stored) {
  if (int r = strncasecmp(sought, stored, kNameBytes); r != 0) return r;
  return strnlen(sought, kNameBytes + 1) > kNameBytes ? 1 : 0;
}

enum class Search { kRecord, kPosition, kInsertion };
Search search_mode(int mode) { return mode == 0 ? Search::kRecord : mode >= 2 ? Search::kInsertion : Search::kPosition; }

// The halving search over an index array of record numbers. `order` compares
// the sought key with a record. A record number outside the table means the
// index is damaged, and the search fails rather than read a stranger.
template <class Order>
int search_index(const uint32_t* index, int mode, Order order) {
  const cmdb_domain_table_t* t = domains();
  if (t == nullptr || index == nullptr) return -1;
  const int32_t count = domain_count(t);
  int lo = 0, hi = count - 1;
  while (lo <= hi) {
    const int mid = (lo + hi) / 2;
    const uint32_t rec = index[mid];
    if (rec >= static_cast<uint32_t>(count)) return -1;
    const int c = order(t->rec[rec]);
    if (c == 0) return search_mode(mode) == Search::kRecord ? static_cast<int>(rec) : mid;
    if (c > 0)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return search_mode(mode) == Search::kInsertion ? lo : -1;
}

cmdb_root_block_t* root_block(uint32_t shmid) { return static_cast<cmdb_root_block_t*>(cmf_ptr_from_shmid(shmid, 0)); }

// Copies the name as strncpy would into len bytes and ends them with a NUL.
void copy_name(char* dst, int len, const char* name) {
  if (dst == nullptr || len < 1) return;
  const size_t n = static_cast<size_t>(len);
  const size_t used = strnlen(name, n < kNameBytes ? n : kNameBytes);
  memcpy(dst, name, used);
  memset(dst + used, 0, n - used);
  dst[n - 1] = '\0';
}

int iterate(cmdb_domain_visitor visitor, uintptr_t arg, bool until_nonzero) {
  if (visitor == nullptr) return -1;
  const uint32_t saved = cmf_get_cur_domain_id();
  int result = 0;
  // The table is read afresh each step: a visitor may add or remove domains.
  for (int32_t i = 0; domains() != nullptr && i < domain_count(domains()); ++i) {
    const uint32_t id = domains()->rec[i].id;
    cmf_set_cur_domain_id(id);
    result = visitor(id, arg);
    if (until_nonzero && result != 0) break;
  }
  cmf_set_cur_domain_id(saved);
  return result;
}

}  // namespace
}  // namespace tree

extern "C" {

GK_API int __cmdb_find_domain_by_id(uint32_t id, int mode) noexcept {
  return tree::search_index(static_cast<const uint32_t*>(cmdb.domid_index), mode, [id](const cmdb_domain_rec_t& r) {
    return static_cast<int32_t>(id - r.id);
  });
}

GK_API int __cmdb_find_domain_by_name(const char* name, int mode) noexcept {
  if (name == nullptr) return -1;
  return tree::search_index(static_cast<const uint32_t*>(cmdb.domname_index), mode,
                            [name](const cmdb_domain_rec_t& r) { return tree::compare_name(name, r.name); });
}

GK_API int __cmdb_find_find_last_domain_index(void) noexcept {
  const int32_t count = tree::domain_count(tree::domains());
  return count < 1 ? -1 : count - 1;
}

GK_API int cmf_shm_domain_size(void) noexcept {
  const cmdb_domain_table_t* t = tree::domains();
  return t == nullptr ? 0 : t->count;
}

GK_API uint32_t cmf_shm_find_last_domain_id(uint32_t* count) noexcept {
  const int last = __cmdb_find_find_last_domain_index();
  if (count != nullptr) *count = last < 0 ? 0 : static_cast<uint32_t>(last + 1);
  return last < 0 ? 0 : tree::domains()->rec[last].id;
}

GK_API char* cmf_shm_find_domain_name(uint32_t id) noexcept {
  const int rec = __cmdb_find_domain_by_id(id, 0);
  return rec < 0 ? nullptr : tree::domains()->rec[rec].name;
}

GK_API uint32_t cmf_shm_find_domain_id(const char* name) noexcept {
  const int rec = __cmdb_find_domain_by_name(name, 0);
  return rec < 0 ? 0 : tree::domains()->rec[rec].id;
}

GK_API int cmf_shm_get_domain_name(char* dst, int len, uint32_t id) noexcept {
  const int rec = __cmdb_find_domain_by_id(id, 0);
  if (rec < 0) return -1;
  tree::copy_name(dst, len, tree::domains()->rec[rec].name);
  return 0;
}

GK_API int cmf_shm_domain_info(int recno, char* dst, int len, uint32_t* id) noexcept {
  const cmdb_domain_table_t* t = tree::domains();
  if (recno < 0 || recno >= tree::domain_count(t)) return -1;
  tree::copy_name(dst, len, t->rec[recno].name);
  if (id != nullptr) *id = t->rec[recno].id;
  return 0;
}

GK_API cmdb_root_block_t* cmdb_find_domain_by_id(uint32_t id) noexcept {
  const cmdb_domain_table_t* t = tree::domains();
  if (t == nullptr) return nullptr;
  if (id == 0) return tree::root_block(t->global_root);
  const int rec = __cmdb_find_domain_by_id(id, 0);
  return rec < 0 ? nullptr : tree::root_block(t->rec[rec].root);
}

GK_API cmdb_root_block_t* cmdb_find_domain_by_name(const char* name) noexcept {
  const cmdb_domain_table_t* t = tree::domains();
  if (t == nullptr) return nullptr;
  if (name == nullptr) return tree::root_block(t->global_root);
  const int rec = __cmdb_find_domain_by_name(name, 0);
  return rec < 0 ? nullptr : tree::root_block(t->rec[rec].root);
}

GK_API uint32_t* cmdb_find_domain_entity(cmdb_root_block_t* root, const cmdb_node_t* node) noexcept {
  if (root == nullptr || node == nullptr) return nullptr;
  // A count past the allocator block that holds the root block is damage.
  int count = root->count;
  if (const size_t bytes = alloc::block_bytes_from(root); bytes != 0) {
    constexpr size_t kHead = offsetof(cmdb_root_block_t, entry);
    const size_t room = bytes < kHead ? 0 : (bytes - kHead) / sizeof(cmdb_root_entry_t);
    if (static_cast<size_t>(count) > room) count = static_cast<int>(room);
  }
  int lo = 0, hi = count - 1;
  while (lo <= hi) {
    const int mid = (lo + hi) / 2;
    const int c = static_cast<int>(node->gid) - static_cast<int>(root->entry[mid].gid);
    if (c == 0) return &root->entry[mid].shmid;
    if (c > 0)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return nullptr;
}

// The root entry of element gid in domain domain_id: global elements always
// resolve in the global context; a per-domain element resolves there only when
// its scope allows it.
GK_API uint32_t* cmdb_find_root_entity(uint32_t domain_id, uint32_t gid) noexcept {
  const cmdb_node_t* node = tree::find_node(gid);
  if (node == nullptr) return nullptr;
  if ((node->scope & CMDB_SCOPE_DOMAIN) == 0) {
    domain_id = 0;
  } else if (domain_id == 0 && (node->scope & CMDB_SCOPE_GLOBAL_TOO) == 0) {
    util::log(4, "domain_id is not set for domain setting %d. pid=%d,%s\n", node->gid, util::self_pid(),
              util::progname());
    return nullptr;
  }
  return cmdb_find_domain_entity(cmdb_find_domain_by_id(domain_id), node);
}

GK_API int cmf_iterate_all_domain(cmdb_domain_visitor visitor, uintptr_t arg) noexcept {
  return tree::iterate(visitor, arg, false);
}

GK_API int cmf_iterate_all_domain_until_nz(cmdb_domain_visitor visitor, uintptr_t arg) noexcept {
  return tree::iterate(visitor, arg, true);
}

// REQUIRES: main lock held exclusive.
GK_API void cmf_shm_resolve_alldomain(void) noexcept {
  cmdb_domain_table_t* t = tree::domains();
  auto* index = static_cast<uint32_t*>(cmdb.domid_index);
  if (t == nullptr || index == nullptr || cmdb.domname_index == nullptr) return;
  const int32_t count = tree::domain_count(t);
  // A damaged index (a record number outside the table) is left as it is.
  for (int32_t i = 0; i < count; ++i)
    if (index[i] >= static_cast<uint32_t>(count)) return;
  qsort_r(index, static_cast<size_t>(count), sizeof *index,
          [](const void* a, const void* b, void* recs) {
            const auto* r = static_cast<const cmdb_domain_rec_t*>(recs);
            return static_cast<int>(r[*static_cast<const uint32_t*>(a)].id - r[*static_cast<const uint32_t*>(b)].id);
          },
          t->rec);
}

}  // extern "C"
