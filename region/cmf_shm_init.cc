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
#include "util/util_internal.h"

namespace region {

// Ten groups in the order every walk relies on: the node group before
// `cmdb_global` (whose image copies the table limits the builder collects),
// `page` before `cmdb_global` (whose hook allocates), the header early.
constexpr Group kVarListTable[kGroupCount] = {
    {{{kIdNode, "cmdb_node", &cmdb_record_t::cmdb_node, 0},
      {kIdSqlNode, "cmdb_sql_node", &cmdb_record_t::cmdb_sql_node, CMDB_SQL_NODE_SIZE},
      {kIdDatasource, "cmdb_datasource", &cmdb_record_t::cmdb_datasource, CMDB_DATASOURCE_SIZE},
      {kIdNodeIndex, "cmdb_node_index", &cmdb_record_t::cmdb_node_index, CMDB_NODE_INDEX_SIZE}},
     kOrdinarySet, kOwnerWrites, build_nodes},
    {{{kIdPage, "page", &cmdb_record_t::page, alloc::kPageTableImageSize, fill_page_table, nullptr,
       forget_page_map, &cmdb_record_t::page_map_len}},
     kOrdinarySet, kOwnerWrites, nullptr},
    {{{kIdGlobal, "cmdb_global", &cmdb_record_t::cmdb_global, CMDB_GLOBAL_SIZE, fill_global, global_hook,
       forget_global}},
     kOrdinarySet, kOwnerWrites, nullptr},
    {{{kIdGlobalRw, "cmdb_global_rw", &cmdb_record_t::cmdb_global_rw, CMDB_GLOBAL_RW_SIZE, fill_header, header_hook,
       forget_header}},
     kOrdinarySet, kAllWrite, nullptr},
    {{{kIdEvent, "cmdb_event", &cmdb_record_t::cmdb_event, CMDB_EVENT_SIZE}}, kOrdinarySet, kAllWrite, nullptr},
    {{{kIdDebugZone, "debug_zone", &cmdb_record_t::debug_zone, 0, fill_debug_zone}},
     kOrdinarySet, kAllWrite, nullptr},
    {{{kIdDomain, "domain", &cmdb_record_t::domain, 0},
      {kIdDomidIndex, "domid_index", &cmdb_record_t::domid_index, 0},
      {kIdDomnameIndex, "domname_index", &cmdb_record_t::domname_index, 0}},
     kOrdinarySet, kOwnerWrites, build_domains},
    {{{kIdDevices, "devices", &cmdb_record_t::devices, CMDB_DEVICES_SIZE}}, kOrdinarySet, kOwnerWrites, nullptr},
    {{{kIdAdminLogin, "admin_login_status", &cmdb_record_t::admin_login_status, kGrowableHeadSize}},
     kOrdinarySet, kAllWrite, nullptr},
    {{{kIdDaemonStatus, "daemon_status", &cmdb_record_t::daemon_status, CMDB_DAEMON_STATUS_SIZE}},
     kInitSet, kOwnerWrites, nullptr},
};

namespace {

constexpr bool ids_are_a_permutation() {
  bool seen[kMaxVarListId + 1] = {};
  int n = 0;
  for (const Group& g : kVarListTable)
    for (const VarList& vl : lists(g)) {
      if (vl.id > kMaxVarListId || seen[vl.id]) return false;
      seen[vl.id] = true;
      ++n;
    }
  return n == static_cast<int>(kMaxVarListId);
}
static_assert(ids_are_a_permutation());

// Start-up modes: which groups they map and how each access class is protected.
struct StartupMode {
  uint8_t mask;
  int prot_owner_writes;
  int prot_all_write;
};
constexpr int kRO = PROT_READ, kRW = PROT_READ | PROT_WRITE;
// Indexed by mode.
constexpr StartupMode kModes[] = {
    {kInitSet, kRW, kRW},      // CMDB_MODE_INIT
    {kOrdinarySet, kRO, kRW},  // CMDB_MODE_READER
    {kEverySet, kRW, kRW},     // CMDB_MODE_OWNER
    {kOrdinarySet, kRO, kRW},  // CMDB_MODE_QUIET
};
static_assert(CMDB_MODE_INIT == 0 && CMDB_MODE_READER == 1 && CMDB_MODE_OWNER == 2 && CMDB_MODE_QUIET == 3);
constexpr int kModeCount = sizeof kModes / sizeof kModes[0];

int g_once = 0;   // set on entry to init_cmdb_app_core, cleared by cleanup

// The groups a walk with `mask` takes part in, in table order or reverse.
template <typename Fn>
void for_each_group(uint8_t mask, bool reverse, Fn&& fn) {
  for (int k = 0; k < kGroupCount; ++k) {
    const Group& g = kVarListTable[reverse ? kGroupCount - 1 - k : k];
    if ((g.modes & mask) != 0) fn(g);
  }
}

// One group of the creation walk: its files are created; while `result` says
// all went well they are filled (or built) and mapped. The walk's new result.
int create_group(const Group& g, int result) {
  for (const VarList& vl : lists(g)) {
    VarListState& st = state_of(vl.id);
    st.fd = -1;
    st.size = vl.fixed_size;
    st.walk_mapped = false;
  }
  for (const VarList& vl : lists(g))
    if (create_step(vl) < 0) {
      util::log(3, "%s,%d, create file error", kSource, __LINE__);
      return -3;
    }
  if (result < 0) return result;
  if (g.build != nullptr) {
    result = g.build(g);
  } else {
    for (const VarList& vl : lists(g))
      if (fill_step(vl) < 0) {
        util::log(3, "%s,%d, update file error", kSource, __LINE__);
        return -4;
      }
  }
  if (result >= 0)
    for (const VarList& vl : lists(g)) map_step(vl);
  return result;
}

// The creator keeps nothing of the creation: it attaches afresh later, and
// pointers derived from these bases go with them.
void close_group(const Group& g) {
  for (const VarList& vl : lists(g)) {
    VarListState& st = state_of(vl.id);
    if (st.fd >= 0) ::close(st.fd);
    st.fd = -1;
    if (st.walk_mapped) release_mapping(vl);
    st.walk_mapped = false;
  }
}

int creation_walk(uint8_t mask) {
  int result = 0;
  for_each_group(mask, false, [&](const Group& g) { result = create_group(g, result); });
  for_each_group(mask, true, close_group);
  // The page-table fill builds a page map even when `page` then fails to map.
  if (cmdb.page == nullptr && cmdb.page_maps != nullptr) alloc::page_map_release();
  return result;
}

// Maps one var list's whole file with `prot`. 0, or -1/-2/-3 as the step fails.
int attach_one(const VarList& vl, int prot) {
  VarListState& st = state_of(vl.id);
  st.size = 0;
  util::UniqueFd fd(open_for_attach(vl.name, prot));
  if (!fd.valid()) return -1;
  struct stat sb;
  if (::fstat(fd.get(), &sb) != 0) {
    const int err = errno;
    util::log(3, "%s,%d, stat: %s, errno=%d.\n", kSource, __LINE__, vl.name, err);
    return -2;
  }
  const auto len = static_cast<size_t>(sb.st_size);
  void* base = ::mmap(nullptr, len, prot, MAP_SHARED, fd.get(), 0);
  if (base == MAP_FAILED) {
    const int err = errno;
    util::log(3, "%s,%d, mmap: %s, errno=%d.\n", kSource, __LINE__, vl.name, err);
    return -3;
  }
  // A second attach of the same var list replaces the first mapping.
  if (st.mapped != nullptr) release_mapping(vl);
  publish_mapping(vl, base, len, (prot & PROT_WRITE) != 0);
  return 0;
}

int attach_walk(int mode) {
  if (mode < 0 || mode >= kModeCount) return 0;
  const StartupMode& m = kModes[mode];
  int result = 0;
  for_each_group(m.mask, false, [&](const Group& g) {
    const int prot = g.access == kAllWrite ? m.prot_all_write : m.prot_owner_writes;
    for (const VarList& vl : lists(g))
      if (result == 0 && attach_one(vl, prot) < 0) {
        util::log(3, "%s,%d, create file error", kSource, __LINE__);
        result = -4;
      }
  });
  return result;
}

int detach_walk(uint8_t mask) {
  int result = 0;
  for_each_group(mask, true, [&](const Group& g) {
    for (const VarList& vl : lists(g)) {
      if (result != 0 || cmdb.*vl.field == nullptr) continue;
      struct stat sb;
      if (cmdb_shm_stat(vl.name, &sb) != 0) {
        const int err = errno;
        util::log(3, "%s,%d, stat: %s, errno=%d.\n", kSource, __LINE__, vl.name, err);
        util::log(3, "%s,%d, create file error", kSource, __LINE__);
        result = -3;
        continue;
      }
      release_mapping(vl);
    }
  });
  return result;
}

// What a failed detach left mapped still belongs to this process: cleanup
// releases it rather than forget it when the record is zeroed.
void release_leftovers() {
  for (const Group& g : kVarListTable)
    for (const VarList& vl : lists(g))
      if (state_of(vl.id).mapped != nullptr) release_mapping(vl);
}

}  // namespace
}  // namespace region

using region::kSource;

extern "C" {

GK_API int init_cmdb_app_core(int mode) noexcept {
  if (region::g_once != 0) return 0;
  region::g_once = 1;
  if (cmf_lock_init() != 0) {
    util::log(3, "Can not get lock, %s,%s,%d!\n", kSource, "init_cmdb_app_core", __LINE__);
    return -1;
  }
  if (debug_zone_rwlock_init() < 0) {
    util::log(3, "Can not init debug_zone rwlock! %s,%s,%d.\n", kSource, "init_cmdb_app_core", __LINE__);
    return -1;
  }
  if (cmdb.flags & CMDB_FLAG_INITIALIZED) return 0;
  if (mode == CMDB_MODE_OWNER) {
    cmdb.flags |= CMDB_FLAG_OWNER;   // the host filled the record before creating
  } else {
    memset(&cmdb, 0, sizeof cmdb);
    if (mode == CMDB_MODE_READER) cmdb.flags |= CMDB_FLAG_ATTACHED;
  }
  if (int r = region::attach_walk(mode); r < 0) return r;
  nCfg_debug_zone = cmdb.debug_zone;
  if (auto* dz = static_cast<const cmdb_debug_zone_t*>(cmdb.debug_zone); dz != nullptr && (dz->debug & 1) != 0)
    cmdb.flags |= CMDB_FLAG_DEBUG;
  alloc::page_map_init(nullptr);
  cmdb.flags |= CMDB_FLAG_INITIALIZED;
  return 0;
}

GK_API void cleanup_cmdb_app_core(void) noexcept {
  if (cmdb.page_maps != nullptr) alloc::page_map_release();
  region::detach_walk(region::kEverySet);
  region::release_leftovers();
  memset(&cmdb, 0, sizeof cmdb);
  region::forget_known_capacity();
  cmf_lock_cleanup();
  region::g_once = 0;
}

GK_API int cmf_shm_create(void) noexcept {
  region::set_domain_capacity(cmdb_get_table_size(CMDB_DOMAIN_GID, static_cast<int>(cmdb.platform)));
  return region::creation_walk(region::kOrdinarySet);
}

GK_API int cmf_shm_create_init(void) noexcept { return region::creation_walk(region::kInitSet); }

GK_API int attach_cmfshm_for_init(void) noexcept { return region::attach_walk(CMDB_MODE_INIT); }

GK_API int detach_cmfshm_for_init(void) noexcept { return region::detach_walk(region::kInitSet); }

GK_API int cmf_shm_destroy(void) noexcept {
  int result = 0;
  region::for_each_group(region::kOrdinarySet, true, [&](const region::Group& g) {
    for (const region::VarList& vl : region::lists(g)) {
      if (result != 0 || cmdb_shm_remove(vl.name) == 0) continue;
      const int err = errno;
      util::log(3, "%s,%d, file=%d,%s destroy file error %d\n", kSource, __LINE__, static_cast<int>(vl.id),
                vl.name, err);
      result = -3;
    }
  });
  return result;
}

}  // extern "C"
