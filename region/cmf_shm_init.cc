// Region lifecycle: one table of var lists drives creation, attachment,
// detachment and removal. A process attaches once (init_cmdb_app_core) and
// leaves with cleanup_cmdb_app_core; the owner creates the region first.
#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "alloc/alloc_internal.h"
#include "gikraidrum.h"
#include "region/region_internal.h"

namespace region {

// Ten groups in the order every walk relies on: the node group before
// `cmdb_global` (whose image copies the table limits the builder collects),
// `page` before `cmdb_global` (whose hook allocates), the header early.
constexpr Group kVarListTable[kGroupCount] = {
    {{{1, "cmdb_node", &cmdb_record_t::cmdb_node, 0},
      {2, "cmdb_sql_node", &cmdb_record_t::cmdb_sql_node, kSqlNodeSize},
      {3, "cmdb_datasource", &cmdb_record_t::cmdb_datasource, kDatasourceSize},
      {4, "cmdb_node_index", &cmdb_record_t::cmdb_node_index, kNodeIndexSize}},
     kOrdinarySet, kOwnerWrites, build_nodes},
    {{{9, "page", &cmdb_record_t::page, static_cast<int32_t>(alloc::kPageTableImageSize), fill_page_table, nullptr,
       forget_page_map, &cmdb_record_t::page_map_len}},
     kOrdinarySet, kOwnerWrites, nullptr},
    {{{5, "cmdb_global", &cmdb_record_t::cmdb_global, kGlobalSize, fill_global, global_hook, forget_global}},
     kOrdinarySet, kOwnerWrites, nullptr},
    {{{8, "cmdb_global_rw", &cmdb_record_t::cmdb_global_rw, CMDB_GLOBAL_RW_SIZE, fill_header, header_hook,
       forget_header}},
     kOrdinarySet, kAllWrite, nullptr},
    {{{6, "cmdb_event", &cmdb_record_t::cmdb_event, kEventSize}}, kOrdinarySet, kAllWrite, nullptr},
    {{{7, "debug_zone", &cmdb_record_t::debug_zone, 0, fill_debug_zone}}, kOrdinarySet, kAllWrite, nullptr},
    {{{10, "domain", &cmdb_record_t::domain, 0},
      {11, "domid_index", &cmdb_record_t::domid_index, 0},
      {12, "domname_index", &cmdb_record_t::domname_index, 0}},
     kOrdinarySet, kOwnerWrites, build_domains},
    {{{15, "devices", &cmdb_record_t::devices, kDevicesSize}}, kOrdinarySet, kOwnerWrites, nullptr},
    {{{13, "admin_login_status", &cmdb_record_t::admin_login_status, kGrowableHeadSize}},
     kOrdinarySet, kAllWrite, nullptr},
    {{{14, "daemon_status", &cmdb_record_t::daemon_status, kDaemonStatusSize}}, kInitSet, kOwnerWrites, nullptr},
};

namespace {

constexpr bool ids_are_a_permutation() {
  bool seen[kMaxVarListId + 1] = {};
  int n = 0;
  for (const Group& g : kVarListTable)
    for (const VarList& vl : g.lists) {
      if (vl.id == 0) break;
      if (vl.id > kMaxVarListId || seen[vl.id]) return false;
      seen[vl.id] = true;
      ++n;
    }
  return n == static_cast<int>(kMaxVarListId);
}
static_assert(ids_are_a_permutation());

// Start-up modes 0..3: which groups they map and how each access class is protected.
struct StartupMode {
  uint8_t mask;
  int prot_owner_writes;
  int prot_all_write;
};
constexpr int kRO = PROT_READ, kRW = PROT_READ | PROT_WRITE;
constexpr StartupMode kModes[] = {{kInitSet, kRW, kRW}, {kOrdinarySet, kRO, kRW}, {0xFF, kRW, kRW}, {kOrdinarySet, kRO, kRW}};

int g_once = 0;   // set on entry to init_cmdb_app_core, cleared by cleanup

template <typename Fn>
void for_each_list(const Group& g, Fn&& fn) {
  for (const VarList& vl : g.lists) {
    if (vl.id == 0) break;
    fn(vl);
  }
}

// Creation: create every selected group's files; fill and map them while all
// goes well; then close and unmap everything, so the creator keeps nothing.
int creation_walk(uint8_t mask) {
  int result = 0;
  for (const Group& g : kVarListTable) {
    if ((g.modes & mask) == 0) continue;
    for_each_list(g, [](const VarList& vl) {
      VarListState& st = state_of(vl.id);
      st.fd = -1;
      st.size = vl.fixed_size;
      st.walk_mapped = false;
    });
    bool created = true;
    for (const VarList& vl : g.lists) {
      if (vl.id == 0) break;
      if (create_step(vl) < 0) {
        created = false;
        break;
      }
    }
    if (!created) {
      dbg_cmdb(3, "%s,%d, create file error", kSource, __LINE__);
      result = -3;
      continue;
    }
    if (result < 0) continue;
    if (g.build != nullptr) {
      result = g.build(g);
    } else {
      for (const VarList& vl : g.lists) {
        if (vl.id == 0) break;
        if (fill_step(vl) < 0) {
          dbg_cmdb(3, "%s,%d, update file error", kSource, __LINE__);
          result = -4;
          break;
        }
      }
    }
    if (result >= 0) for_each_list(g, [](const VarList& vl) { map_step(vl); });
  }
  // Closing pass: the creator attaches afresh later; pointers derived from these
  // bases go with them.
  for (int i = kGroupCount - 1; i >= 0; --i) {
    const Group& g = kVarListTable[i];
    if ((g.modes & mask) == 0) continue;
    for_each_list(g, [](const VarList& vl) {
      VarListState& st = state_of(vl.id);
      if (st.fd >= 0) ::close(st.fd);
      st.fd = -1;
      if (st.walk_mapped) release_mapping(vl);
      st.walk_mapped = false;
    });
  }
  // The page-table fill builds a page map even when `page` then fails to map.
  if (cmdb.page == nullptr && cmdb.page_maps != nullptr) alloc::page_map_release();
  return result;
}

// Maps one var list's whole file with `prot`. 0, or -1/-2/-3 as the step fails.
int attach_one(const VarList& vl, int prot) {
  VarListState& st = state_of(vl.id);
  st.size = 0;
  int fd = cmdb_shm_open(vl.name, 1);   // read-write whatever prot: growth needs it
  if (fd < 0) return -1;
  struct stat sb;
  if (::fstat(fd, &sb) != 0) {
    int err = errno;
    dbg_cmdb(3, "%s,%d, stat: %s, errno=%d.\n", kSource, __LINE__, vl.name, err);
    ::close(fd);
    return -2;
  }
  size_t len = static_cast<size_t>(sb.st_size);
  void* base = ::mmap(nullptr, len, prot, MAP_SHARED, fd, 0);
  int err = errno;
  ::close(fd);
  if (base == MAP_FAILED) {
    dbg_cmdb(3, "%s,%d, mmap: %s, errno=%d.\n", kSource, __LINE__, vl.name, err);
    return -3;
  }
  // A second attach of the same var list replaces the first mapping.
  if (st.mapped != nullptr) release_mapping(vl);
  publish_mapping(vl, base, len, (prot & PROT_WRITE) != 0);
  return 0;
}

int attach_walk(int mode) {
  if (mode < 0 || mode > 3) return 0;
  const StartupMode& m = kModes[mode];
  for (const Group& g : kVarListTable) {
    if ((g.modes & m.mask) == 0) continue;
    int prot = g.access == kAllWrite ? m.prot_all_write : m.prot_owner_writes;
    for (const VarList& vl : g.lists) {
      if (vl.id == 0) break;
      if (attach_one(vl, prot) < 0) {
        dbg_cmdb(3, "%s,%d, create file error", kSource, __LINE__);
        return -4;
      }
    }
  }
  return 0;
}

int detach_walk(uint8_t mask) {
  for (int i = kGroupCount - 1; i >= 0; --i) {
    const Group& g = kVarListTable[i];
    if ((g.modes & mask) == 0) continue;
    for (const VarList& vl : g.lists) {
      if (vl.id == 0) break;
      if (cmdb.*vl.field == nullptr) continue;
      struct stat sb;
      if (cmdb_shm_stat(vl.name, &sb) != 0) {
        int err = errno;
        dbg_cmdb(3, "%s,%d, stat: %s, errno=%d.\n", kSource, __LINE__, vl.name, err);
        dbg_cmdb(3, "%s,%d, create file error", kSource, __LINE__);
        return -3;
      }
      release_mapping(vl);
    }
  }
  return 0;
}

// What a failed detach left mapped still belongs to this process: cleanup
// releases it rather than forget it when the record is zeroed.
void release_leftovers() {
  for (const Group& g : kVarListTable)
    for_each_list(g, [](const VarList& vl) {
      if (state_of(vl.id).mapped != nullptr) release_mapping(vl);
    });
}

}  // namespace
}  // namespace region

using region::kSource;

extern "C" {

GK_API int init_cmdb_app_core(int mode) noexcept {
  if (region::g_once != 0) return 0;
  region::g_once = 1;
  if (cmf_lock_init() != 0) {
    dbg_cmdb(3, "Can not get lock, %s,%s,%d!\n", kSource, "init_cmdb_app_core", __LINE__);
    return -1;
  }
  if (debug_zone_rwlock_init() < 0) {
    dbg_cmdb(3, "Can not init debug_zone rwlock! %s,%s,%d.\n", kSource, "init_cmdb_app_core", __LINE__);
    return -1;
  }
  if (cmdb.flags & CMDB_FLAG_INITIALIZED) return 0;
  if (mode == 2) {
    cmdb.flags |= CMDB_FLAG_OWNER;   // the host filled the record before creating
  } else {
    memset(&cmdb, 0, sizeof cmdb);
    if (mode == 1) cmdb.flags |= CMDB_FLAG_ATTACHED;
  }
  if (int r = region::attach_walk(mode); r < 0) return r;
  nCfg_debug_zone = cmdb.debug_zone;
  if (cmdb.debug_zone != nullptr && (static_cast<const uint8_t*>(cmdb.debug_zone)[DZ_DEBUG_BYTE] & 1) != 0)
    cmdb.flags |= CMDB_FLAG_DEBUG;
  alloc::page_map_init(nullptr);
  cmdb.flags |= CMDB_FLAG_INITIALIZED;
  return 0;
}

GK_API void cleanup_cmdb_app_core(void) noexcept {
  if (cmdb.page_maps != nullptr) alloc::page_map_release();
  region::detach_walk(0xFF);
  region::release_leftovers();
  memset(&cmdb, 0, sizeof cmdb);
  region::forget_known_capacity();
  cmf_lock_cleanup();
  region::g_once = 0;
}

GK_API int cmf_shm_create(void) noexcept {
  region::set_domain_capacity(cmdb_get_table_size(91, static_cast<int>(cmdb.platform)));
  return region::creation_walk(region::kOrdinarySet);
}

GK_API int cmf_shm_create_init(void) noexcept { return region::creation_walk(region::kInitSet); }

GK_API int attach_cmfshm_for_init(void) noexcept { return region::attach_walk(0); }

GK_API int detach_cmfshm_for_init(void) noexcept { return region::detach_walk(region::kInitSet); }

GK_API int cmf_shm_destroy(void) noexcept {
  for (int i = region::kGroupCount - 1; i >= 0; --i) {
    const region::Group& g = region::kVarListTable[i];
    if ((g.modes & region::kOrdinarySet) == 0) continue;
    for (const region::VarList& vl : g.lists) {
      if (vl.id == 0) break;
      if (cmdb_shm_remove(vl.name) != 0) {
        int err = errno;
        dbg_cmdb(3, "%s,%d, file=%d,%s destroy file error %d\n", kSource, __LINE__, static_cast<int>(vl.id),
                 vl.name, err);
        return -3;
      }
    }
  }
  return 0;
}

}  // extern "C"
