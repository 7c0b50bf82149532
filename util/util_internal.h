// Small owners and helpers shared by every subsystem.
#pragma once

#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

#include <utility>

#include "gikraidrum.h"

namespace util {

// Move-only descriptor owner; closing preserves errno so callers can report it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The program's short name, as messages print it.
const char* progname();

// ---- Logging ---------------------------------------------------------------
// Every message of the library goes through log() or log_event(). Hosts'
// log readers match the texts, so formats, the source names and the fixed
// sites below stay exactly as they are. The other sinks, each for one reason:
//   message()    the host's platform log, whatever log_level says: notices about
//                the lock files and a full event table, which operators watch there;
//   log_crash()  the host's crash log: file errors in "/dev/cmdb/" (LOG_FILE_ERROR),
//                followed there by the directory listing and a back trace;
//   perror()     a failed record lock ("lockerr" on standard error), for the
//                scripts that run the host programs;
//   printf()     not a log: the allocator display and the creation summary,
//                which a person or a parser reads on standard output.

// The library log (dbg_cmdb): dropped above the header's log_level while the
// header is mapped; standard output under the debug bit, else do_message.
void log(uint32_t level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void vlog(uint32_t level, const char* fmt, va_list ap);
// The short alarms, "<what> <source>,<function>,<line>." at level 3 ("Critical
// error", "No memory", "Error"): the line is the caller's, a location only.
// (__builtin_LINE: clang 14 with this libstdc++ has no std::source_location.)
void log_alarm(const char* what, const char* source, const char* function, int line = __builtin_LINE());
// The events subsystem's trace (dbg_cmdb_event at level 0): written only while
// the debug zone's event log level is above 0, so events can be watched alone.
void log_event(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void vlog_event(int level, const char* fmt, va_list ap);
// A file error: the library log at level 3, then the same format and arguments
// to the host's crash log. Arguments are evaluated twice: pass errno in a local.
#define LOG_FILE_ERROR(...) (::util::log(3, __VA_ARGS__), ::log_crash(__VA_ARGS__))

// The source names messages carry: the names hosts know the subsystems by.
namespace src {
inline constexpr char kLock[] = "cmf_lock";
inline constexpr char kRegion[] = "cmf_shm_init";
inline constexpr char kAlloc[] = "cmf_shm_slab";
inline constexpr char kTree[] = "cmf_shm_api";
inline constexpr char kUtil[] = "cmf_util";
inline constexpr char kEvent[] = "cmdb_event";
inline constexpr char kReceiver[] = "cmdb_event_daemon";
}  // namespace src

// Messages whose line numbers hosts match: fixed here, so no edit of the
// library moves them. Every other message prints its own line (__LINE__, or the
// caller's __builtin_LINE() in helpers such as log_alarm), a location only.
struct Site {
  const char* source;
  const char* function;
  int line;
};
namespace site {
inline constexpr Site kSemaphoreLost{src::kLock, "__cmdb_rwlock_lock", 235};
inline constexpr Site kEventLockFile{src::kLock, "cmf_lock_init", 184};
inline constexpr Site kShmLockFile{src::kLock, "cmf_lock_init", 193};
inline constexpr Site kShmLockAccess{src::kLock, "valid_shm_lock_file", 356};
inline constexpr Site kShmLockReopen{src::kLock, "valid_shm_lock_file", 353};
inline constexpr Site kRestoreUnlock{src::kLock, "cmf_restore_unlock", 402};
inline constexpr Site kIndexDuplicate{src::kTree, "__cmf_svr_binary_find_index", 353};
inline constexpr Site kIndexOverflow{src::kTree, "__cmf_svr_binary_find_index", 364};
inline constexpr Site kTableIndexBad{src::kTree, "__cmf_svr_find_table_entry", 160};
inline constexpr Site kChildPosition{src::kTree, "cmdb_find_child_obj", 205};
inline constexpr Site kSendSocket{src::kEvent, "sendto_daemon", 168};
inline constexpr Site kSendMalloc{src::kEvent, "sendto_daemon", 178};
inline constexpr Site kSendFailed{src::kEvent, "sendto_daemon", 217};
inline constexpr Site kRegisterUnmapped{src::kEvent, "_cmdb_register_event", 366};
inline constexpr Site kUnregisterUnmapped{src::kEvent, "_cmdb_unregister_event", 388};
inline constexpr Site kReceiverSocket{src::kReceiver, "cmdb_event_init", 76};
inline constexpr Site kReceiverBind{src::kReceiver, "cmdb_event_init", 82};
inline constexpr Site kBufAppend{src::kUtil, "cmf_buf_append", 589};
inline constexpr Site kBufCat{src::kUtil, "cmf_buf_cat", 614};
inline constexpr Site kBufFormatGrow{src::kUtil, "cmf_buf_vsnprintf", 777};
inline constexpr Site kBufFormatLong{src::kUtil, "cmf_buf_vsnprintf", 785};
}  // namespace site

// The caller's pid without a system call: cached, and refreshed in a forked child.
pid_t self_pid();

// Restricted regions (cmf_shm_restrict). Files only the owner writes get
// kOwnerWritesMode, files every attached process writes kAllWriteMode.
inline constexpr mode_t kOwnerWritesMode = 0640, kAllWriteMode = 0660;
// The group of a restricted region, or -1 while no header is mapped or the region is open.
int64_t restricted_group();
// Gives an open file the group gid and the mode: 0 or an errno value.
int restrict_file(int fd, uint32_t gid, mode_t mode);

}  // namespace util

namespace util {

// Heap calls of the text buffer. Tests swap an entry to make one call fail;
// nothing else changes them.
struct BufHeap {
  void* (*zalloc)(size_t count, size_t size);
  void* (*resize)(void* block, size_t bytes);
  void* (*alloc)(size_t bytes);
};
extern BufHeap g_buf_heap;

// RFC 4648 codec behind the exported b64_encode / b64_decode defaults (same
// contracts), reachable here even when a host replaces those defaults.
int base64_encode(const unsigned char* src, int srclen, char* dst, int dstlen);
int base64_decode(const char* src, unsigned char* dst, int dstlen);

}  // namespace util
