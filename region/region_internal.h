// The shared region's interface to the other subsystems, and the var-list
// table that drives every lifecycle walk.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>

#include "gikraidrum.h"
#include "util/util_internal.h"

namespace region {

// Messages of this subsystem name this source.
inline constexpr const char* kSource = util::src::kRegion;

inline constexpr int kVarListSlots = 4;   // per group
inline constexpr int kGroupCount = 10;

// Var-list ids: the numbers messages name the files by. Not in table order.
enum VarListId : uint32_t {
  kIdNode = 1, kIdSqlNode, kIdDatasource, kIdNodeIndex, kIdGlobal, kIdEvent, kIdDebugZone, kIdGlobalRw,
  kIdPage, kIdDomain, kIdDomidIndex, kIdDomnameIndex, kIdAdminLogin, kIdDaemonStatus, kIdDevices,
};
inline constexpr uint32_t kMaxVarListId = kIdDevices;
static_assert(kIdPage == 9 && kMaxVarListId == 15);

// Sub-region lengths beyond those the public header fixes.
inline constexpr int32_t kGrowableHeadSize = sizeof(cmdb_var_list_head_t);
inline constexpr int32_t kLocatorBlockSize =
    offsetof(cmdb_locator_block_t, rec) + CMDB_LOCATOR_CAPACITY * sizeof(cmdb_locator_rec_t);
static_assert(kLocatorBlockSize == 268);

// Results of creation beyond the walk's own -3 and -4.
inline constexpr int kErrNoSchema = -1;
inline constexpr int kErrGidRange = -11;
inline constexpr int kErrNodeMap = -13;      // a sub-region of the node group
inline constexpr int kErrSideTable = -14;    // the schema overflows a side table
inline constexpr int kErrDomainMap = -21;
inline constexpr int kErrDomainIndexMap = -22;

struct VarList;
struct Group;

// Writes the first content through the var list's descriptor: bytes written, or < 0.
using FillFn = int (*)(const VarList& vl);
// Runs whenever this process maps the var list; `writable` says how it was mapped.
using MapHookFn = void (*)(void* base, bool writable);
// Runs before this process unmaps the var list: drops what was derived from the base.
using UnmapHookFn = void (*)();
// Lays out a whole group instead of the per-var-list fill.
using BuildFn = int (*)(const Group& g);

struct VarList {
  uint32_t id = 0;                             // 1..15; 0 ends the group
  const char* name = nullptr;                  // file in "/dev/cmdb/"
  void* cmdb_record_t::*field = nullptr;       // this process's base
  int32_t fixed_size = 0;                      // 0: computed at creation
  FillFn fill = nullptr;
  MapHookFn after_map = nullptr;
  UnmapHookFn before_unmap = nullptr;
  int32_t cmdb_record_t::*len_field = nullptr;  // where the mapping's length is published
};

enum Access : uint8_t { kOwnerWrites = 1, kAllWrite = 2 };
enum ModeBit : uint8_t { kInitSet = 1, kOrdinarySet = 2, kEverySet = 0xFF };

struct Group {
  VarList lists[kVarListSlots];
  uint8_t modes;
  uint8_t access;
  BuildFn build;
};

// The var-list table, in table order (defined in cmf_shm_init.cc).
extern const Group kVarListTable[kGroupCount];

// The var lists a group holds: its slots up to the first empty one.
constexpr std::span<const VarList> lists(const Group& g) {
  size_t n = 0;
  while (n < kVarListSlots && g.lists[n].id != 0) ++n;
  return {g.lists, n};
}

// Per-process state of one var list. `size` and `fd` belong to the walk in
// progress; `mapped`/`mapped_len` record what this process has mapped, so that
// every unmap covers exactly its own mapping.
struct VarListState {
  int32_t size = 0;
  int fd = -1;
  void* mapped = nullptr;
  size_t mapped_len = 0;
  bool walk_mapped = false;   // mapped by the creation walk now running
};
VarListState& state_of(uint32_t id);

// Steps the walks run on one var list (var_list.cc).
int create_step(const VarList& vl);   // the new descriptor, or -1
int fill_step(const VarList& vl);     // the var list's length, or < 0
int map_step(const VarList& vl);      // always 0
// A descriptor of the sub-region `name` for a mapping with `prot`, or -1 (logged).
int open_for_attach(const char* name, int prot);
// For builders: maps `length` bytes (or the table's fixed size) of the group's var
// list `id`, zero-filled, and stores the base in its field. Null on failure.
void* allocate_and_map(const Group& g, uint32_t id, int32_t length);
// Records a new mapping of vl in this process (field, tracked length, hook).
void publish_mapping(const VarList& vl, void* base, size_t len, bool writable);
// Unmaps this process's mapping of vl, if any, and clears its field.
void release_mapping(const VarList& vl);
// The growable var list's process-wide known capacity goes back to 0.
void forget_known_capacity();

// Domain capacity D, set by cmf_shm_create before the walk.
void set_domain_capacity(int32_t d);

// Fill functions, hooks and builders named in the table.
int fill_page_table(const VarList& vl);
int fill_global(const VarList& vl);
int fill_header(const VarList& vl);
int fill_debug_zone(const VarList& vl);
void global_hook(void* base, bool writable);
void header_hook(void* base, bool writable);
void forget_global();
void forget_header();
void forget_page_map();
int build_domains(const Group& g);
int build_nodes(const Group& g);   // node_builder.cc

// The table-limits block the node builder fills and the global image copies.
const cmdb_table_limits_t& built_table_limits();

}  // namespace region
