// The process's handle on the region and the accessors of the shared header.
#include <atomic>

#include "gikraidrum.h"
#include "util/util_internal.h"

extern "C" {
GK_API cmdb_record_t cmdb;
GK_API void* nCfg_debug_zone;
}

namespace {
uint32_t g_saved_version = 0;  // process-local; compared by cmdb_version_changed

// Without a mapped header there is no counter: reads give 0 rather than fault.
uint32_t load_version() {
  if (cmdb.header == nullptr) return 0;
  return std::atomic_ref<uint32_t>(cmdb.header->version).load(std::memory_order_relaxed);
}
}  // namespace

extern "C" {

GK_API cmdb_header_t* get_cmdb_header(void) noexcept { return cmdb.header; }
GK_API void* get_cmdb_stat_global(void) noexcept { return cmdb.stat_global; }
GK_API void* get_cmdb_dzone(void) noexcept { return cmdb.debug_zone; }
GK_API void* get_shmtree_root(void) noexcept { return cmdb.cmdb_node; }
GK_API void set_shmtree_root(void* root) noexcept { cmdb.cmdb_node = root; }
GK_API uint32_t get_cmdb_updatetime(void) noexcept { return load_version(); }
GK_API uint32_t cmdb_get_version(void) noexcept { return load_version(); }
GK_API uint32_t cmdb_get_owner(void) noexcept {
  if (cmdb.header == nullptr) return 0;
  return std::atomic_ref<uint32_t>(cmdb.header->owner).load(std::memory_order_relaxed);
}
GK_API void cmdb_save_version(void) noexcept { g_saved_version = load_version(); }
GK_API int cmdb_version_changed(void) noexcept { return load_version() != g_saved_version ? 1 : 0; }

// REQUIRES: main lock held exclusive; the increment is a plain read-modify-write.
GK_API uint32_t set_cmdb_nxt_update(void) noexcept {
  cmdb_header_t* h = cmdb.header;
  if (h == nullptr) return 0;
  std::atomic_ref<uint32_t>(h->owner).store(static_cast<uint32_t>(util::self_pid()), std::memory_order_relaxed);
  uint32_t old = load_version();
  std::atomic_ref<uint32_t>(h->version).store(old + 1, std::memory_order_release);
  return old;
}

GK_API void* cmf_shm_statistics(void) noexcept { return cmdb.statistics; }

GK_API uint32_t orv_mail_mode(void) noexcept {
  auto* dz = static_cast<cmdb_debug_zone_t*>(nCfg_debug_zone);
  if (dz == nullptr) return 0;
  return std::atomic_ref<uint32_t>(dz->mail_mode).load(std::memory_order_relaxed);
}

}  // extern "C"
