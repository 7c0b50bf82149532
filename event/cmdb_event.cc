// Change events, table and sender side. The registration table in the
// `cmdb_event` sub-region says which process wants which gid's changes; an
// announced change goes to each interested process as one AF_UNIX datagram.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <optional>

#include "event/event_internal.h"
#include "tree/tree_internal.h"
#include "util/util_internal.h"

namespace event {
namespace {

struct ActRow {
  uint8_t act;
  ActClass cls;
};
// Which act announces which class; every act not listed announces nothing.
// The results name the missing block by the class that needed it.
constexpr ActRow kActRows[] = {
    {CMDB_ACT_INSERT, {CMDB_EV_INSERT, kSecondBlock, -3}},
    {CMDB_ACT_UPDATE, {CMDB_EV_UPDATE, kBothBlocks, -4}},
    {CMDB_ACT_19, {CMDB_EV_UPDATE, kBothBlocks, -4}},
    {CMDB_ACT_DELETE, {CMDB_EV_DELETE, kFirstBlock, -5}},
    {CMDB_ACT_13, {CMDB_EV_ACT13_17, kSecondBlock, -6}},
    {CMDB_ACT_13 + 1, {CMDB_EV_ACT13_17, kSecondBlock, -6}},
    {CMDB_ACT_13 + 2, {CMDB_EV_ACT13_17, kSecondBlock, -6}},
    {CMDB_ACT_13 + 3, {CMDB_EV_ACT13_17, kSecondBlock, -6}},
    {CMDB_ACT_17, {CMDB_EV_ACT13_17, kSecondBlock, -6}},
    {CMDB_ACT_12, {CMDB_EV_ACT12, kNoBlock, 0}},
    {CMDB_ACT_27, {CMDB_EV_ACT27, kSecondBlock, -6}},
};
constexpr auto kActTable = [] {
  std::array<ActClass, CMDB_ACT_27 + 1> t{};
  for (const ActRow& r : kActRows) t[r.act] = r.cls;
  return t;
}();
static_assert(kActTable[18].cls == 0 && kActTable[19].cls == CMDB_EV_UPDATE && kActTable[27].missing == -6);
static_assert(kActTable[0].cls == 0 && kActTable[12].blocks == kNoBlock && kActTable[16].cls == CMDB_EV_ACT13_17);

cmdb_event_table_t* table() { return static_cast<cmdb_event_table_t*>(cmdb.cmdb_event); }

// Bytes that a descriptor contributes to a message: those of the last element
// of its array. The element layout belongs to the host's configuration layer.
struct DescBytes {
  const void* bytes = nullptr;
  uint32_t len = 0;
  bool present = false;
};
DescBytes desc_bytes(const void* desc) {
  DescBytes out;
  if (desc == nullptr) return out;
  const auto* d = static_cast<const cmdb_host_desc_t*>(desc);
  const unsigned count = d->elem_count >> CMDB_HOST_DESC_COUNT_SHIFT;
  if (count == 0 || d->elems == nullptr) return out;
  const cmdb_host_desc_elem_t& last = d->elems[count - 1];
  out.bytes = last.bytes;
  out.present = true;
  // A negative or pointerless element carries no bytes; the message still says a descriptor came.
  out.len = (last.len > 0 && out.bytes != nullptr) ? static_cast<uint32_t>(last.len) : 0;
  return out;
}

bool events_off() {
  auto* dz = static_cast<cmdb_debug_zone_t*>(nCfg_debug_zone);
  if (dz == nullptr) return true;
  return std::atomic_ref<uint32_t>(dz->event_switch).load(std::memory_order_relaxed) != 0;
}

// A local copy of a gid's record, names forced to end inside their slots.
// REQUIRES: event table lock held.
std::optional<cmdb_event_entry_t> copy_record(uint16_t gid) {
  cmdb_event_entry_t rec;
  if (cmdb_event_entry_act(gid, CMDB_ENTRY_LOOKUP, &rec) < 0) return std::nullopt;
  for (cmdb_event_proc_t& s : rec.procs) s.process[CMDB_EVENT_NAME - 1] = '\0';
  return rec;
}

}  // namespace

ActClass class_of_act(uint8_t act) { return act < kActTable.size() ? kActTable[act] : ActClass{}; }

size_t socket_path(char* path, const char* process) {
  int n = snprintf(path, kSocketPathBytes, "%s%.*s", kSocketPrefix, CMDB_EVENT_NAME, process);
  if (n < 0) n = 0;
  return static_cast<size_t>(n) < kSocketPathBytes ? static_cast<size_t>(n) : kSocketPathBytes - 1;
}

int sendto_daemon(const char* process, uint16_t gid, uint8_t cls, const void* data1, const void* data2,
                  uint32_t size, const void* desc) {
  const pid_t pid = util::self_pid();
  util::log_event("%d:%s process=[%s],act=[%d],size=[%d], obj_gid=[%d]\n", pid, "sendto_daemon", process, cls,
                  static_cast<int>(size), gid);
  util::UniqueFd sock(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock.valid()) {
    const util::Site& at = util::site::kSendSocket;
    util::log_event("%d:%s %s:%d: Can not open socket\n", pid, at.function, at.source, at.line);
    return -1;
  }
  const DescBytes d = desc_bytes(desc);
  const uint64_t total = uint64_t{sizeof(cmdb_event_msg_t)} + (data1 != nullptr ? size : 0) +
                         (data2 != nullptr ? size : 0) + d.len;
  // One allocation per message: the header and every block go out in one datagram.
  auto* msg = total <= UINT32_MAX ? static_cast<cmdb_event_msg_t*>(calloc(1, total)) : nullptr;
  if (msg == nullptr) {
    const util::Site& at = util::site::kSendMalloc;
    util::log_event("%d:%s %s:%d: malloc failed\n", pid, at.function, at.source, at.line);
    return -1;
  }
  msg->gid = gid;
  msg->domain_id = cmf_get_cur_domain_id();
  msg->act = cls;
  msg->data_size = size;
  msg->total_size = static_cast<uint32_t>(total);
  msg->data1 = reinterpret_cast<uintptr_t>(data1);
  msg->data2 = reinterpret_cast<uintptr_t>(data2);
  msg->desc = d.present ? reinterpret_cast<uintptr_t>(desc) : 0;
  auto* cursor = reinterpret_cast<uint8_t*>(msg + 1);
  if (data1 != nullptr) cursor = static_cast<uint8_t*>(mempcpy(cursor, data1, size));
  if (data2 != nullptr) cursor = static_cast<uint8_t*>(mempcpy(cursor, data2, size));
  if (d.len != 0) memcpy(cursor, d.bytes, d.len);

  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  size_t path_len = socket_path(addr.sun_path, process);
  static_assert(sizeof addr.sun_path >= kSocketPathBytes);
  ssize_t sent;
  // MSG_DONTWAIT: a receiver with a full queue must not stall a sender that holds the table lock.
  do {
    sent = ::sendto(sock.get(), msg, total, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_len));
  } while (sent < 0 && errno == EINTR);
  if (sent < 0 && errno != EAGAIN) {
    const int err = errno;
    const util::Site& at = util::site::kSendFailed;
    util::log_event("%d:%s %s:%d: sendto failed process=%s, obj_gid=%d, err=%d\n", pid, at.function,
                    at.source, at.line, process, gid, err);
    // Nobody listens under that name any more: stop trying it on every change.
    _cmdb_unregister_event(process, gid);
  }
  free(msg);
  return 0;
}

namespace {

// Records the table may hold, whatever its count says: a count beyond the
// capacity can only come from a damaged region, and is never indexed past.
int record_count(const cmdb_event_table_t* t) {
  return static_cast<int>(t->count < CMDB_EVENT_MAX ? t->count : CMDB_EVENT_MAX);
}

}  // namespace

Probe search(const cmdb_event_table_t* t, uint16_t gid) {
  int low = 0, high = record_count(t) - 1;
  while (low <= high) {
    const int mid = (low + high) / 2;
    const uint16_t g = t->rec[mid].obj_gid;
    if (g == gid) return {true, mid};
    if (gid > g)
      low = mid + 1;
    else
      high = mid - 1;
  }
  return {false, low};
}

int insert_record(cmdb_event_table_t* t, int at, uint16_t gid, const cmdb_event_entry_t& rec) {
  const int count = record_count(t);
  if (count >= CMDB_EVENT_MAX) {
    message("cmdb event full %d\n", count);  // the host's log: see util_internal.h
    return -1;
  }
  memmove(&t->rec[at + 1], &t->rec[at], sizeof(cmdb_event_entry_t) * static_cast<size_t>(count - at));
  t->rec[at] = rec;
  t->rec[at].obj_gid = gid;  // the search order depends on it, whatever the caller filled in
  t->count = static_cast<uint32_t>(count + 1);
  return at;
}

void remove_record(cmdb_event_table_t* t, int at) {
  const int count = record_count(t);
  memmove(&t->rec[at], &t->rec[at + 1], sizeof(cmdb_event_entry_t) * static_cast<size_t>(count - 1 - at));
  t->count = static_cast<uint32_t>(count - 1);
}

int add_process(cmdb_event_entry_t* rec, const cmdb_event_proc_t& add) {
  int i = 0;
  while (i < CMDB_EVENT_PROCS && !slot_free(rec->procs[i]) &&
         cmdb_strcmp(rec->procs[i].process, add.process) != 0)
    ++i;
  if (i == CMDB_EVENT_PROCS) {
    util::log_event("%d:%s add process %d:%s on event for %d fail!\n", util::self_pid(),
                    "cmdb_event_entry_act", CMDB_EVENT_PROCS, add.process, rec->obj_gid);
    return -1;
  }
  rec->procs[i] = add;  // a second registration of a name replaces its act and flags
  return 0;
}

void remove_process(cmdb_event_entry_t* rec, const char* process) {
  for (int i = 0; i < CMDB_EVENT_PROCS && !slot_free(rec->procs[i]); ++i) {
    if (cmdb_strcmp(rec->procs[i].process, process) != 0) continue;
    memmove(&rec->procs[i], &rec->procs[i + 1], sizeof(cmdb_event_proc_t) * (CMDB_EVENT_PROCS - 1 - i));
    rec->procs[CMDB_EVENT_PROCS - 1] = cmdb_event_proc_t{};
    return;
  }
}

}  // namespace event

extern "C" {

GK_API int cmdb_strempty(const char* s) noexcept { return s == nullptr || s[0] == '\0' ? 1 : 0; }

// A null name reads as the empty one: hosts pass names straight from their own configuration.
GK_API char* cmdb_strcpy(char* dst, const char* src) noexcept {
  if (dst == nullptr) return nullptr;
  strncpy(dst, src != nullptr ? src : "", CMDB_EVENT_NAME);
  dst[CMDB_EVENT_NAME - 1] = '\0';
  return dst;
}

GK_API int cmdb_strcmp(const char* a, const char* b) noexcept {
  return strncmp(a != nullptr ? a : "", b != nullptr ? b : "", CMDB_EVENT_NAME);
}

// REQUIRES: event table lock held exclusive (shared for CMDB_ENTRY_LOOKUP).
GK_API int cmdb_event_entry_act(uint16_t gid, int act, cmdb_event_entry_t* buf) noexcept {
  cmdb_event_table_t* t = event::table();
  if (t == nullptr) return -1;
  const event::Probe probe = event::search(t, gid);
  if (buf == nullptr) return probe.found ? probe.at : -1;
  if (!probe.found) return act == CMDB_ENTRY_ADD ? event::insert_record(t, probe.at, gid, *buf) : -1;
  cmdb_event_entry_t& rec = t->rec[probe.at];
  switch (act) {
    case CMDB_ENTRY_LOOKUP:
      *buf = rec;
      return probe.at;
    case CMDB_ENTRY_ADD:
      if (event::add_process(&rec, buf->procs[0]) != 0) return -1;
      *buf = rec;
      return probe.at;
    case CMDB_ENTRY_REMOVE:
      event::remove_process(&rec, buf->procs[0].process);
      if (event::slot_free(rec.procs[0]))
        event::remove_record(t, probe.at);  // a record lives while somebody listens
      return probe.at;
    default:
      return probe.at;
  }
}

// REQUIRES: event table lock held exclusive.
GK_API int _cmdb_register_event(const char* process, uint16_t gid, uint8_t act, uint8_t flags) noexcept {
  cmdb_event_entry_t rec{};
  rec.obj_gid = gid;
  if (process != nullptr) cmdb_strcpy(rec.procs[0].process, process);
  rec.procs[0].act = act;
  rec.procs[0].flags = flags;
  const pid_t pid = util::self_pid();
  util::log_event("%d:%s register: %s process=[%s],obj_gid=[%d]\n", pid, "_cmdb_register_event",
                  util::progname(), process != nullptr ? process : "(null)", gid);
  if (cmdb.cmdb_event == nullptr) {
    const util::Site& at = util::site::kRegisterUnmapped;
    util::log(3, "Error, %s, %s, %d! pid=%d, %s\n", at.source, at.function, at.line, pid, util::progname());
    return -1;
  }
  if (gid == 0 || process == nullptr) return 0;
  return cmdb_event_entry_act(gid, CMDB_ENTRY_ADD, &rec) == -1 ? -1 : 0;
}

// REQUIRES: event table lock held exclusive.
GK_API int _cmdb_unregister_event(const char* process, uint16_t gid) noexcept {
  cmdb_event_entry_t rec{};
  rec.obj_gid = gid;
  if (process != nullptr) cmdb_strcpy(rec.procs[0].process, process);
  const pid_t pid = util::self_pid();
  util::log_event("%d:%s unregister: process=[%s],obj_gid=[%d]\n", pid, "_cmdb_unregister_event",
                  process != nullptr ? process : "(null)", gid);
  if (cmdb.cmdb_event == nullptr) {
    const util::Site& at = util::site::kUnregisterUnmapped;
    util::log(4, "Error, %s, %s, %d! pid=%d, %s\n", at.source, at.function, at.line, pid, util::progname());
    return -1;
  }
  if (gid == 0 || process == nullptr) return 0;
  return cmdb_event_entry_act(gid, CMDB_ENTRY_REMOVE, &rec) == -1 ? -1 : 0;
}

// The lock's result is not checked: without the lock file the table is still
// usable by a single writer, which is better than losing the registration.
GK_API int cmdb_register_event(const char* process, uint16_t gid, uint8_t act, uint8_t flags) noexcept {
  cmdb_event_write_lock();  // EVENT LOCK
  int rc = _cmdb_register_event(process, gid, act, flags);
  cmdb_event_write_unlock();  // EVENT UNLOCK
  return rc;
}

GK_API int cmdb_unregister_event(const char* process, uint16_t gid) noexcept {
  cmdb_event_write_lock();  // EVENT LOCK
  int rc = _cmdb_unregister_event(process, gid);
  cmdb_event_write_unlock();  // EVENT UNLOCK
  return rc;
}

}  // extern "C"

namespace {

// REQUIRES: event table lock held exclusive.
int call_daemon_locked(uint16_t gid, uint8_t act, const void* data1, const void* data2, const void* desc) {
  if (event::events_off()) return 0;
  // The walk runs over a copy: sendto_daemon may drop an unreachable receiver from the table.
  const std::optional<cmdb_event_entry_t> rec = event::copy_record(gid);
  if (!rec) return 0;
  if (gid == 0 || gid > CMDB_MAX_GID) return -1;
  const cmdb_node_t* node = tree::find_node(gid);
  if (node == nullptr) return -1;

  const event::ActClass c = event::class_of_act(act);
  if (c.cls == 0) return 0;
  if (((c.blocks & event::kFirstBlock) && data1 == nullptr) ||
      ((c.blocks & event::kSecondBlock) && data2 == nullptr))
    return c.missing;
  // Objects and tables hand over their whole data part; an attribute its value only.
  const bool whole =
      node->kind == CMDB_KIND_TABLE || node->kind == CMDB_KIND_SUBTABLE || node->kind == CMDB_KIND_OBJECT;
  const size_t skip = whole ? 0 : node->offset;
  const void* block1 = (c.blocks & event::kFirstBlock) ? static_cast<const char*>(data1) + skip : nullptr;
  const void* block2 = (c.blocks & event::kSecondBlock) ? static_cast<const char*>(data2) + skip : nullptr;

  for (const cmdb_event_proc_t& s : rec->procs) {
    if (event::slot_free(s)) break;
    if ((s.act & c.cls) == 0) continue;
    if (s.flags & EVENT_WITH_DATA)
      event::sendto_daemon(s.process, gid, c.cls, block1, block2, node->size, desc);
    else
      event::sendto_daemon(s.process, gid, c.cls, nullptr, nullptr, 0, desc);
  }
  return 0;
}

// REQUIRES: event table lock held exclusive.
int send_reload_locked(uint16_t gid) {
  if (event::events_off()) return 0;
  const std::optional<cmdb_event_entry_t> rec = event::copy_record(gid);
  if (!rec) return -1;
  for (const cmdb_event_proc_t& s : rec->procs) {
    if (event::slot_free(s)) break;
    // Receivers that get data with every change rebuild from those; a reload means nothing to them.
    if (s.flags & EVENT_WITH_DATA) continue;
    event::sendto_daemon(s.process, gid, CMDB_EV_RELOAD, nullptr, nullptr, 0, nCfg_query(gid));
  }
  return 0;
}

}  // namespace

extern "C" {

GK_API int cmdb_event_call_daemon(uint16_t gid, uint8_t act, const void* data1, const void* data2,
                                  const void* desc) noexcept {
  cmdb_event_write_lock();  // EVENT LOCK
  int rc = call_daemon_locked(gid, act, data1, data2, desc);
  cmdb_event_write_unlock();  // EVENT UNLOCK
  return rc;
}

GK_API int cmdb_send_reload_event(uint16_t gid) noexcept {
  cmdb_event_write_lock();  // EVENT LOCK
  int rc = send_reload_locked(gid);
  cmdb_event_write_unlock();  // EVENT UNLOCK
  return rc;
}

}  // extern "C"
