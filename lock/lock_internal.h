// The locking subsystem's interface to the other subsystems and to its own files.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "gikraidrum.h"

namespace lock {

inline constexpr int kFull = CMDB_RWLOCK_FULL;
inline constexpr const char* kEventLockPath = "/tmp/cmdb_lock";
inline constexpr const char* kShmLockPath = "/tmp/shm_lock";
inline constexpr const char* kRestoreLockPath = "/tmp/cmdb_restore_lock";
inline constexpr int kEventLockByte = 1;  // the event table lock covers this one byte

// Process-local ids and descriptors, -1 until created, attached or opened. Set by
// the lifecycle calls from one thread before any other thread locks; the lock
// paths only read them.
extern int cmdb_semid;         // main lock set
extern int dbgz_semid[2];      // debug-zone lock sets 0 and 1
extern int cmdb_event_lockfd;  // "/tmp/cmdb_lock"
extern int shm_lockfd;         // "/tmp/shm_lock"

// One semaphore step with SEM_UNDO, retried on EINTR; a negative semid makes it a
// no-op. Any other failure is fatal: logged at level 2, then exit(-1).
void rwlock_step(int semid, int op);

// Replaces the set of `key` with a fresh one at kFull. Its id, -1 when no set can
// be made, -2 when the new set cannot be raised to kFull (it is removed again).
int cmdb_sem_create(key_t key);

// Opens a lock file in /tmp with O_NOFOLLOW. Any local user can plant a file
// (or a symlink) there first: a root process takes only a file root owns, or
// it would lock, and write into, a file its planter controls. The descriptor,
// or -1 with errno (EPERM, after a log line, for a file of another owner).
int open_lock_file(const char* path, int flags, mode_t mode);

// One fcntl record lock on byte `pos`: 0, or fcntl's result after a "lockerr"
// line on standard error. No EINTR retry: an interrupted wait fails.
int cmf_file_lock(int fd, int cmd, short type, off_t pos);

// Reopens "/tmp/shm_lock" when shm_lockfd no longer names an open descriptor.
void valid_shm_lock_file();

}  // namespace lock
