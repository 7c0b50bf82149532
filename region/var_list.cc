// Var-list steps: create, fill, map; the first content of each sub-region;
// the after-map hooks; and the one growable var list, admin_login_status.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>

#include "alloc/alloc_internal.h"
#include "gikraidrum.h"
#include "region/region_internal.h"
#include "util/util_internal.h"

namespace region {
namespace {

VarListState g_state[kMaxVarListId + 1];
int32_t g_domain_capacity = 0;
// Capacity of admin_login_status as this process last remapped it: one value
// for the process, since only one var list grows.
uint32_t g_known_capacity = 0;

constexpr char kGrowableName[] = "admin_login_status";

const VarList* find_by_id(const Group& g, uint32_t id) {
  for (const VarList& vl : lists(g))
    if (vl.id == id) return &vl;
  return nullptr;
}

const VarList* find_by_name(const char* name) {
  for (const Group& g : kVarListTable)
    for (const VarList& vl : lists(g))
      if (strcmp(vl.name, name) == 0) return &vl;
  return nullptr;
}

const VarList& growable() {
  static const VarList* vl = find_by_name(kGrowableName);
  return *vl;
}

// Private image of a sub-region's first content, written in one call.
struct Image {
  explicit Image(size_t n) : bytes(static_cast<uint8_t*>(calloc(n, 1))), len(n) {}
  ~Image() { free(bytes); }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;
  int write_to(int fd) const { return static_cast<int>(::write(fd, bytes, len)); }
  template <typename T>
  T* as() {
    return reinterpret_cast<T*>(bytes);
  }
  uint8_t* bytes;
  size_t len;
};

// Length of this process's mapping of the growable var list at `base`. Sizing
// the remap from the mapping itself, rather than from a capacity, leaves no
// tail of an older, longer mapping behind when the remap moves it.
size_t mapped_length(void* base, uint32_t unit) {
  const VarListState& st = g_state[growable().id];
  if (st.mapped == base && st.mapped_len != 0) return st.mapped_len;
  return static_cast<size_t>(g_known_capacity) * unit + kGrowableHeadSize;
}

uint32_t load_shared(const uint32_t& word) {
  return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(word)).load(std::memory_order_acquire);
}

}  // namespace

VarListState& state_of(uint32_t id) { return g_state[id <= kMaxVarListId ? id : 0]; }

void set_domain_capacity(int32_t d) { g_domain_capacity = d; }
void forget_known_capacity() { g_known_capacity = 0; }

int open_for_attach(const char* name, int prot) {
  if ((prot & PROT_WRITE) != 0) return cmdb_shm_open(name, 1);
  // The file is opened read-write whatever the mapping, as creation left it for
  // the lists that grow. In a restricted region a member of the group may only
  // read what the owner writes: a refused read-write open falls back to reading.
  if (int fd = alloc::open_quiet(name, O_RDWR); fd >= 0) return fd;
  return cmdb_shm_open(name, errno == EACCES ? 0 : 1);
}

int create_step(const VarList& vl) {
  VarListState& st = state_of(vl.id);
  st.fd = cmdb_shm_create(vl.name, 0);
  return st.fd;
}

int fill_step(const VarList& vl) {
  VarListState& st = state_of(vl.id);
  if (st.fd >= 0 && st.size > 0 && ::ftruncate(st.fd, st.size) != 0) st.size = -1;
  if (vl.fill != nullptr) {
    int r = vl.fill(vl);
    if (r < 0) return r;
    if (r > 0 && st.size == 0) st.size = r;
  }
  return st.size;
}

int map_step(const VarList& vl) {
  VarListState& st = state_of(vl.id);
  if (vl.field == nullptr || cmdb.*vl.field != nullptr || st.size <= 0) return 0;
  size_t len = static_cast<size_t>(st.size);
  void* base = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, st.fd, 0);
  if (base == MAP_FAILED) return 0;
  st.walk_mapped = true;
  publish_mapping(vl, base, len, true);
  return 0;
}

void* allocate_and_map(const Group& g, uint32_t id, int32_t length) {
  const VarList* vl = find_by_id(g, id);
  if (vl == nullptr) return nullptr;
  VarListState& st = state_of(id);
  if (st.fd < 0) return nullptr;
  if (st.size == 0) st.size = length;
  if (st.size <= 0 || ::posix_fallocate(st.fd, 0, st.size) != 0) return nullptr;
  size_t len = static_cast<size_t>(st.size);
  void* base = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, st.fd, 0);
  if (base == MAP_FAILED) {
    int err = errno;
    util::log(3, "%s,%d, name=%s, errno=%d.\n", kSource, __LINE__, vl->name, err);
    return nullptr;
  }
  memset(base, 0, len);
  st.walk_mapped = true;
  publish_mapping(*vl, base, len, true);
  return base;
}

void publish_mapping(const VarList& vl, void* base, size_t len, bool writable) {
  VarListState& st = state_of(vl.id);
  st.mapped = base;
  st.mapped_len = len;
  cmdb.*vl.field = base;
  if (vl.len_field != nullptr) cmdb.*vl.len_field = static_cast<int32_t>(len);
  if (vl.after_map != nullptr) vl.after_map(base, writable);
}

void release_mapping(const VarList& vl) {
  VarListState& st = state_of(vl.id);
  if (vl.before_unmap != nullptr) vl.before_unmap();
  if (vl.len_field != nullptr) {
    // The allocator remaps `page` when the table grows and publishes the new
    // base and length in the record; those are what this process holds.
    void* base = cmdb.*vl.field;
    int32_t len = cmdb.*vl.len_field;
    if (base != nullptr && len > 0) ::munmap(base, static_cast<size_t>(len));
    cmdb.*vl.len_field = 0;
  } else if (st.mapped != nullptr) {
    ::munmap(st.mapped, st.mapped_len);
  }
  st.mapped = nullptr;
  st.mapped_len = 0;
  cmdb.*vl.field = nullptr;
}

// ---- First content of the sub-regions --------------------------------------

int fill_page_table(const VarList& vl) {
  Image img(alloc::kPageTableImageSize);
  if (img.bytes == nullptr) return -1;
  alloc::write_page_table_image(img.as<cmdb_page_table_t>());
  // The creator allocates (the global hook) before it has attached: its page
  // map starts from this image.
  alloc::page_map_init(img.as<cmdb_page_table_t>());
  return img.write_to(state_of(vl.id).fd);
}

int fill_global(const VarList& vl) {
  Image img(CMDB_GLOBAL_SIZE);
  if (img.bytes == nullptr) return -1;
  auto* g = img.as<cmdb_global_t>();
  alloc::write_cache_table_image(&g->caches);
  g->table_limits = built_table_limits();
  if (cmdb.service_table != nullptr) memcpy(g->services, cmdb.service_table, sizeof g->services);
  return img.write_to(state_of(vl.id).fd);
}

int fill_header(const VarList& vl) {
  Image img(CMDB_GLOBAL_RW_SIZE);
  if (img.bytes == nullptr) return -1;
  auto* h = img.as<cmdb_header_t>();
  h->magic = CMDB_HEADER_MAGIC;
  h->log_level = CMDB_LOG_LEVEL_DEFAULT;
  h->nodes = CMDB_HEADER_NODES;
  h->max_gid = CMDB_MAX_GID;
  h->sql = CMDB_SQL_NODES;
  h->platform = cmdb.platform;
  return img.write_to(state_of(vl.id).fd);
}

int fill_debug_zone(const VarList& vl) {
  // Lock files and semaphores are made here so that they exist before the
  // creator's init_cmdb_app_core opens them.
  cmdb_create_lock();
  const int64_t slots = static_cast<int64_t>(g_domain_capacity) + 1;
  if (slots < 0) return -1;
  Image img(CMDB_DZ_SIZE(slots));
  if (img.bytes == nullptr) return -1;
  img.as<cmdb_debug_zone_t>()->domain_slots = static_cast<uint32_t>(slots);
  return img.write_to(state_of(vl.id).fd);
}

int build_domains(const Group& g) {
  constexpr int64_t kHead = offsetof(cmdb_domain_table_t, rec), kRecord = sizeof(cmdb_domain_rec_t);
  const int64_t d = g_domain_capacity;
  const auto table = static_cast<int32_t>(kHead + d * kRecord);
  const auto index = static_cast<int32_t>(d * int64_t{sizeof(uint32_t)});
  if (allocate_and_map(g, kIdDomain, table) == nullptr) return kErrDomainMap;
  if (allocate_and_map(g, kIdDomidIndex, index) == nullptr) return kErrDomainIndexMap;
  if (allocate_and_map(g, kIdDomnameIndex, index) == nullptr) return kErrDomainIndexMap;
  return 0;
}

// ---- After-map hooks and their undoing -------------------------------------

void global_hook(void* base, bool writable) {
  auto* g = static_cast<cmdb_global_t*>(base);
  cmdb.slab_caches = &g->caches;
  cmdb.index_roots = &g->locators_ready;
  cmdb.table_limits = &g->table_limits;
  cmdb.services = g->services;
  // Only the creator, which maps this first and writable, finds the flag clear;
  // a read-only mapping is never written, whatever the flag says.
  if (!writable || g->locators_ready != 0) return;
  for (uint32_t& locator : g->locator) {
    uint32_t handle = 0;
    auto* blk = static_cast<cmdb_locator_block_t*>(cmf_shm_alloc(kLocatorBlockSize, &handle));
    if (blk == nullptr) continue;
    blk->kind = CMDB_BLK_LOCATOR;
    blk->capacity = CMDB_LOCATOR_CAPACITY;
    locator = handle;
  }
  g->locators_ready = 1;
}

void header_hook(void* base, bool) {
  cmdb.header = static_cast<cmdb_header_t*>(base);
  cmdb.stat_global = static_cast<uint8_t*>(base) + CMDB_HEADER_STAT_GLOBAL;
}

void forget_global() {
  cmdb.slab_caches = nullptr;
  cmdb.index_roots = nullptr;
  cmdb.table_limits = nullptr;
  cmdb.services = nullptr;
}

void forget_header() {
  cmdb.header = nullptr;
  cmdb.stat_global = nullptr;
}

// The page map's mappings hang off `page`: they go first.
void forget_page_map() {
  if (cmdb.page_maps != nullptr) alloc::page_map_release();
}

}  // namespace region

// ---- The growable var list -------------------------------------------------

using region::kSource;

namespace region {
namespace {

// Remaps this process's mapping of the growable list at *pfield to `capacity`
// entries and records it: the new base, or null after a logged failure (the
// old mapping stays). The message names `function` and the caller's line.
void* remap_growable(void** pfield, uint32_t unit, uint32_t capacity, const char* function,
                     int line = __builtin_LINE()) {
  const size_t want = static_cast<size_t>(capacity) * unit + kGrowableHeadSize;
  void* moved = ::mremap(*pfield, mapped_length(*pfield, unit), want, MREMAP_MAYMOVE);
  if (moved == MAP_FAILED) {
    const int err = errno;
    util::log(3, "mremap error %d size %zd, %s,%s,%d!\n", err, static_cast<ssize_t>(want), kSource, function,
              line);
    return nullptr;
  }
  VarListState& st = state_of(growable().id);
  *pfield = st.mapped = moved;
  st.mapped_len = want;
  return moved;
}

}  // namespace
}  // namespace region

extern "C" {

GK_API void cmf_var_list_set_unit(void* base, uint32_t unit) noexcept {
  if (base == nullptr || unit == 0) return;
  auto* head = static_cast<cmdb_var_list_head_t*>(base);
  std::atomic_ref<uint32_t>(head->unit).store(unit, std::memory_order_release);
}

GK_API int cmf_var_list_update(void** pfield) noexcept {
  if (pfield == nullptr) return -1;
  const region::VarList& vl = region::growable();
  auto* head = static_cast<cmdb_var_list_head_t*>(*pfield);
  if (head == nullptr) return -2;
  // Only admin_login_status carries the growable head; remapping any other
  // sub-region by its "capacity" would read its data as a length.
  if (pfield != &(cmdb.*vl.field)) return -1;
  uint32_t unit = region::load_shared(head->unit);
  if (unit == 0) return -2;
  dbgz_rlock(1);
  uint32_t capacity = region::load_shared(head->capacity);
  if (region::g_known_capacity < capacity &&
      region::remap_growable(pfield, unit, capacity, "cmf_var_list_update") != nullptr)
    region::g_known_capacity = capacity;
  dbgz_runlock(1);
  return 0;
}

GK_API int cmf_var_list_alloc(const char* name) noexcept {
  if (name == nullptr) return -1;
  const region::VarList* vl = region::find_by_name(name);
  // Only the growable list is ever grown; any other is refused like an unknown name.
  if (vl == nullptr || vl->field == nullptr || vl != &region::growable()) return -1;
  void** pfield = &(cmdb.*vl->field);
  if (cmf_var_list_update(pfield) != 0) return -2;
  auto* head = static_cast<cmdb_var_list_head_t*>(*pfield);
  if (head == nullptr || region::load_shared(head->unit) == 0) return -3;
  dbgz_wlock(1);
  // EXCLUSIVE: capacity and the file's length change together.
  uint32_t unit = region::load_shared(head->unit);
  uint32_t capacity = region::load_shared(head->capacity);
  const uint32_t grown = capacity + CMDB_VAR_LIST_STEP;
  void* moved = capacity <= region::load_shared(head->used)
                    ? region::remap_growable(pfield, unit, grown, "cmf_var_list_alloc")
                    : nullptr;
  if (moved != nullptr) {
    head = static_cast<cmdb_var_list_head_t*>(moved);
    // The file is lengthened before the capacity is published: a grower
    // killed in between must not leave a capacity that other processes map
    // and fill past the end of the file (SIGBUS).
    int fd = cmdb_shm_open(region::kGrowableName, 1);
    if (fd >= 0) {
      const size_t bytes = static_cast<size_t>(grown) * unit + region::kGrowableHeadSize;
      int r = ::ftruncate(fd, static_cast<off_t>(bytes));
      (void)r;   // a short file shows up as capacity no reader can map yet
      ::close(fd);
    }
    std::atomic_ref<uint32_t>(head->capacity).store(grown, std::memory_order_release);
  }
  dbgz_wunlock(1);
  return 0;
}

}  // extern "C"
