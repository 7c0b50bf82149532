// Boot ("init0") values and global flags kept in daemon_status, operation-mode
// names, the configuration backup/execution wrappers, and a masked byte copy.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>

#include "util/util_internal.h"

namespace util {
namespace {

static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);

using StatusField = uint32_t cmdb_daemon_status_t::*;

// Any process may read or write these words at any time and no lock covers
// them, so every access is one aligned 32-bit load or store.
uint32_t load(uint32_t& word) { return std::atomic_ref<uint32_t>(word).load(std::memory_order_relaxed); }
void store(uint32_t& word, uint32_t v) { std::atomic_ref<uint32_t>(word).store(v, std::memory_order_relaxed); }

// Runs op on daemon_status. A process that keeps the sub-region unmapped (the
// init process, most daemons) maps it for this one access. When it cannot be
// mapped there is nothing to touch and the result is 0.
template <typename Op>
uint32_t with_daemon_status(Op op) {
  if (auto* ds = static_cast<cmdb_daemon_status_t*>(cmdb.daemon_status)) return op(*ds);
  attach_cmfshm_for_init();
  uint32_t r = 0;
  if (auto* ds = static_cast<cmdb_daemon_status_t*>(cmdb.daemon_status)) r = op(*ds);
  detach_cmfshm_for_init();  // also harmless when the attach mapped nothing
  return r;
}

uint32_t get_field(StatusField f) {
  return with_daemon_status([f](cmdb_daemon_status_t& ds) { return load(ds.*f); });
}

void set_field(StatusField f, uint32_t v) {
  with_daemon_status([f, v](cmdb_daemon_status_t& ds) {
    store(ds.*f, v);
    return 0u;
  });
}

// The parameter block the platform's backup and execution calls receive.
struct ConfBlock {
  uint8_t scope;      // backup: 1 for the non-HA backups, 0 for a system backup
  uint8_t reserved0;
  uint8_t type;       // backup type
  uint8_t reserved1[5];
  uint32_t arg_a;     // execution: the wrapper's second argument
  uint32_t arg_b;     // execution: the wrapper's third argument
  uint32_t exec;      // execution: always 1
};
static_assert(sizeof(ConfBlock) == 20 && offsetof(ConfBlock, type) == 2 && offsetof(ConfBlock, arg_a) == 8 &&
              offsetof(ConfBlock, arg_b) == 12 && offsetof(ConfBlock, exec) == 16);

// Backup scopes and the two types the non-HA wrappers ask for; the platform knows what they mean.
enum : uint8_t { kSystemScope = 0, kNonHaScope = 1, kNonHaconfType = 2, kNonHaType = 3 };

int backup(uint8_t scope, uint8_t type, const char* text) {
  ConfBlock block{};
  block.scope = scope;
  block.type = type;
  return cmf_do_backup_conf(0, text, &block);
}

// "Unknown %d" of the most negative int needs 19 bytes with its NUL.
char g_unknown_mode_name[32];

}  // namespace
}  // namespace util

extern "C" {

GK_API void set_init0_mail_mode(uint32_t v) noexcept {
  util::set_field(&cmdb_daemon_status_t::mail_mode, v);
  // orv_mail_mode reads the copy in the debug zone, which needs no mapping.
  if (auto* dz = static_cast<cmdb_debug_zone_t*>(nCfg_debug_zone); dz != nullptr) util::store(dz->mail_mode, v);
}
GK_API uint32_t get_init0_mail_mode(void) noexcept { return util::get_field(&cmdb_daemon_status_t::mail_mode); }

GK_API void set_init0_dbdaemon_flag(uint32_t v) noexcept { util::set_field(&cmdb_daemon_status_t::dbdaemon_flag, v); }
GK_API uint32_t get_init0_dbdaemon_flag(void) noexcept {
  return util::get_field(&cmdb_daemon_status_t::dbdaemon_flag);
}

GK_API void set_init0_fips_mode(uint32_t v) noexcept { util::set_field(&cmdb_daemon_status_t::fips_mode, v); }
GK_API uint32_t get_init0_fips_mode(void) noexcept { return util::get_field(&cmdb_daemon_status_t::fips_mode); }

GK_API void set_init0_entropy_token(uint32_t v) noexcept { util::set_field(&cmdb_daemon_status_t::entropy_token, v); }
GK_API uint32_t get_init0_entropy_token(void) noexcept {
  return util::get_field(&cmdb_daemon_status_t::entropy_token);
}

GK_API void set_init0_reload_type(uint32_t v) noexcept { util::set_field(&cmdb_daemon_status_t::reload_type, v); }
GK_API uint32_t get_init0_reload_type(void) noexcept { return util::get_field(&cmdb_daemon_status_t::reload_type); }

GK_API void set_init0_reload_value(uint32_t v) noexcept { util::set_field(&cmdb_daemon_status_t::reload_value, v); }
GK_API uint32_t get_init0_reload_value(void) noexcept {
  return util::get_field(&cmdb_daemon_status_t::reload_value);
}

// The flag word is changed with atomic read-modify-writes, so two processes
// setting different bits at once both keep their bit.
GK_API void global_flag_set_flag(uint32_t bits) noexcept {
  util::with_daemon_status([bits](cmdb_daemon_status_t& ds) {
    std::atomic_ref<uint32_t> word(ds.global_flags);
    if (bits == 0)
      word.store(0, std::memory_order_relaxed);
    else
      word.fetch_or(bits, std::memory_order_relaxed);
    return 0u;
  });
}

GK_API void global_flag_unset_flag(uint32_t bits) noexcept {
  util::with_daemon_status([bits](cmdb_daemon_status_t& ds) {
    std::atomic_ref<uint32_t>(ds.global_flags).fetch_and(~bits, std::memory_order_relaxed);
    return 0u;
  });
}

GK_API uint32_t global_flag_if_set(uint32_t mask) noexcept {
  return util::with_daemon_status([mask](cmdb_daemon_status_t& ds) { return util::load(ds.global_flags) & mask; });
}

GK_API const char* orv_opmode_name(int mode) noexcept {
  // Without a debug zone there is no current mode to name.
  if (mode == 0 && nCfg_debug_zone != nullptr) mode = static_cast<int>(orv_mail_mode());
  switch (mode) {
    case 1: return "Server";
    case 2: return "Gateway";
    case 4: return "Transparent";
    case 8: return "Management";
    default:
      snprintf(util::g_unknown_mode_name, sizeof util::g_unknown_mode_name, "Unknown %d", mode);
      return util::g_unknown_mode_name;
  }
}

GK_API int cmf_backup_non_haconf_conf(void) noexcept {
  return util::backup(util::kNonHaScope, util::kNonHaconfType, "");
}
GK_API int cmf_backup_non_ha_conf(void) noexcept { return util::backup(util::kNonHaScope, util::kNonHaType, ""); }
GK_API int cmf_backup_system_conf(const char* text, uint8_t type) noexcept {
  return util::backup(util::kSystemScope, type, text);
}

GK_API int cmf_ha_exec_conf(void* value, uint32_t a, uint32_t b) noexcept {
  util::ConfBlock block{};
  block.arg_a = a;
  block.arg_b = b;
  block.exec = 1;
  return cmf_do_exec_conf(reinterpret_cast<uintptr_t>(value), &block);
}

// Takes src's bits where the mask byte has ones and keeps dst's elsewhere.
GK_API int bfcpy(uint8_t* dst, const uint8_t* src, int len, const uint8_t* mask) noexcept {
  if (dst == nullptr || src == nullptr || mask == nullptr) return 0;
  for (int i = 0; i < len; ++i) dst[i] = static_cast<uint8_t>((dst[i] & ~mask[i]) | (src[i] & mask[i]));
  return 0;
}

}  // extern "C"
