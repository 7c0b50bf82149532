// Reader/writer locks shared by every attached process. Each lock is one System V
// semaphore that starts at kFull: a reader takes one unit, a writer takes them
// all. Every step carries SEM_UNDO, so the kernel hands back whatever a dying
// process held; nothing else recovers a dead holder.
//
// The main lock also leaves a trace in the debug zone for diagnostic tools: which
// process read-locks now (reader_pids) and per-process request counts
// (lock_stats). Those words are written without a lock; they are diagnostics and
// may lose a count under contention.
#include <errno.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>

#include <atomic>

#include "lock/lock_internal.h"
#include "util/util_internal.h"

namespace lock {

int cmdb_semid = -1;
int dbgz_semid[2] = {-1, -1};

namespace {

constexpr short kUndo = SEM_UNDO;
static_assert(SEM_UNDO == 0x1000);
static_assert(std::atomic_ref<uint8_t>::is_always_lock_free && std::atomic_ref<int64_t>::is_always_lock_free);

// Depth of this thread's read locks on the main lock; only the outermost level
// touches the semaphore. Initial-exec keeps the nested path to one fs-relative
// access instead of a __tls_get_addr call per lock; when the library is dlopened
// these 4 bytes come from the static TLS surplus. A forked child inherits the
// forking thread's depth but none of its semaphore units.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t shm_read_depth = 0;

// reader_pids slot of this process's last outermost read lock. One per process:
// when two threads read-lock at once, the later one's slot is the one cleared.
std::atomic<uint8_t> reader_slot{0};

// Index of this process's lock_stats record. Checked against the record's pid on
// every use, so a fork, a fresh region or a remapped debug zone just costs one
// rescan instead of a wrong record.
std::atomic<int> stat_index{-1};

cmdb_debug_zone_t* debug_zone() { return static_cast<cmdb_debug_zone_t*>(cmdb.debug_zone); }

// The caller's lock_stats record, claimed on first use; null when 256 other
// processes own every record (records are never given back).
cmdb_lock_stat_t* own_stat_record(cmdb_debug_zone_t* zone, uint32_t pid) {
  cmdb_lock_stat_t* rec = zone->lock_stats;
  int i = stat_index.load(std::memory_order_relaxed);
  if (i >= 0 && std::atomic_ref<uint32_t>(rec[i].pid).load(std::memory_order_relaxed) == pid) return &rec[i];
  for (i = 0; i < CMDB_DZ_READERS; ++i) {
    std::atomic_ref<uint32_t> owner(rec[i].pid);
    uint32_t cur = owner.load(std::memory_order_relaxed);
    // A compare-and-swap keeps two processes that claim at once from sharing one record.
    if (cur == 0) owner.compare_exchange_strong(cur, pid, std::memory_order_relaxed);
    if (cur == 0 || cur == pid) {
      stat_index.store(i, std::memory_order_relaxed);
      return &rec[i];
    }
  }
  return nullptr;
}

// Counts a request before the semaphore step, so last_time is when the caller
// asked, not when it got the lock.
void cmf_lock_stat(cmdb_debug_zone_t* zone, uint32_t pid, bool write) {
  cmdb_lock_stat_t* rec = own_stat_record(zone, pid);
  if (rec == nullptr) return;
  std::atomic_ref<int64_t>(rec->last_time).store(::time(nullptr), std::memory_order_relaxed);
  std::atomic_ref<uint32_t> count(write ? rec->write_count : rec->read_count);
  count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void dbgz_step(int idx, int op) {
  if (idx == 0 || idx == 1) rwlock_step(dbgz_semid[idx], op);
}

}  // namespace

void rwlock_step(int semid, int op) {
  if (semid < 0) return;  // not attached: locking is a no-op
  struct sembuf step = {0, static_cast<short>(op), kUndo};
  while (::semop(semid, &step, 1) != 0) {
    if (errno == EINTR) continue;
    // The set was removed (EIDRM), the id is stale (EINVAL) or an unlock had no
    // matching lock (ERANGE): the lock can no longer protect anything.
    int err = errno;
    const util::Site& at = util::site::kSemaphoreLost;
    util::log(2, "Critial error, %s, %s, %d, semid=%d, pid=%d, errno=%d exiting...\n", at.source, at.function,
              at.line, semid, static_cast<int>(util::self_pid()), err);
    ::exit(-1);
  }
}

int cmdb_sem_create(key_t key) {
  constexpr int kCreate = IPC_CREAT | IPC_EXCL | 0666;
  static_assert(kCreate == 0x7B6);
  int id = ::semget(key, 1, kCreate);
  if (id < 0) {
    if (errno != EEXIST) return -1;
    // Waiters on the old set fail with EIDRM and end on the fatal path.
    if (int old = ::semget(key, 1, 0666); old >= 0) ::semctl(old, 0, IPC_RMID);
    id = ::semget(key, 1, kCreate);
    if (id < 0) return -1;
  }
  // No SEM_UNDO: the initial value belongs to nobody and must outlive its creator.
  struct sembuf fill = {0, static_cast<short>(kFull), 0};
  while (::semop(id, &fill, 1) != 0) {
    if (errno == EINTR) continue;
    ::semctl(id, 0, IPC_RMID);
    return -2;
  }
  return id;
}

}  // namespace lock

extern "C" {

GK_API void cmf_shm_read_lock(void) noexcept {
  if (lock::shm_read_depth++ != 0) return;  // nested: this thread already holds a unit
  cmdb_debug_zone_t* zone = lock::debug_zone();
  auto pid = static_cast<uint32_t>(util::self_pid());
  if (zone != nullptr) lock::cmf_lock_stat(zone, pid, false);
  lock::rwlock_step(lock::cmdb_semid, -1);
  if (zone != nullptr) {
    // fetch_add on the byte wraps 255 -> 0 and hands concurrent processes distinct slots.
    uint8_t slot = std::atomic_ref<uint8_t>(zone->reader_slot_next).fetch_add(1);
    lock::reader_slot.store(slot, std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(zone->reader_pids[slot]).store(pid, std::memory_order_relaxed);
  }
}

GK_API void cmf_shm_read_unlock(void) noexcept {
  if (--lock::shm_read_depth != 0) return;
  if (cmdb_debug_zone_t* zone = lock::debug_zone(); zone != nullptr) {
    uint8_t slot = lock::reader_slot.load(std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(zone->reader_pids[slot]).store(0, std::memory_order_relaxed);
  }
  lock::rwlock_step(lock::cmdb_semid, 1);
}

GK_API void cmf_shm_write_lock(void) noexcept {
  if (cmdb_debug_zone_t* zone = lock::debug_zone(); zone != nullptr)
    lock::cmf_lock_stat(zone, static_cast<uint32_t>(util::self_pid()), true);
  lock::rwlock_step(lock::cmdb_semid, -lock::kFull);
}

GK_API void cmf_shm_write_unlock(void) noexcept { lock::rwlock_step(lock::cmdb_semid, lock::kFull); }

GK_API void dbgz_rlock(int idx) noexcept { lock::dbgz_step(idx, -1); }
GK_API void dbgz_runlock(int idx) noexcept { lock::dbgz_step(idx, 1); }
GK_API void dbgz_wlock(int idx) noexcept { lock::dbgz_step(idx, -lock::kFull); }
GK_API void dbgz_wunlock(int idx) noexcept { lock::dbgz_step(idx, lock::kFull); }
// REQUIRES: the caller holds a read lock on idx; waits until it is the only reader.
GK_API void dbgz_rlock_to_wlock(int idx) noexcept { lock::dbgz_step(idx, -(lock::kFull - 1)); }
// REQUIRES: the caller holds the write lock on idx.
GK_API void dbgz_wlock_to_rlock(int idx) noexcept { lock::dbgz_step(idx, lock::kFull - 1); }

GK_API int cmf_shm_lock_val(void) noexcept {
  if (lock::cmdb_semid < 0) return -1;
  return ::semctl(lock::cmdb_semid, 0, GETVAL);
}

GK_API int debug_zone_rwlock_init(void) noexcept {
  lock::dbgz_semid[0] = ::semget(DBGZ_SEM_KEY, 1, 0666);
  if (lock::dbgz_semid[0] < 0) return -2;
  lock::dbgz_semid[1] = ::semget(DBGZ_SEM_KEY + 1, 1, 0666);
  if (lock::dbgz_semid[1] < 0) return -3;
  return 0;
}

}  // extern "C"
