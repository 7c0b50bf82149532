// The owner lock: one process at a time may allocate in the region. The owner
// daemon holds it for its life; a command that writes the region directly holds
// it for the command. It is an flock on CMDB_DIR "owner.lock", whose content is
// the holder's pid as text, so that a refused process can name the holder.
//
// The lock belongs to the open file description: a child forked while it is
// held holds it too (until both have let go), an exec'd program does not.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "gikraidrum.h"

namespace writer {

inline constexpr const char* kOwnerLockPath = CMDB_DIR "owner.lock";

class OwnerLock {
 public:
  OwnerLock() = default;
  ~OwnerLock() { release(); }
  OwnerLock(const OwnerLock&) = delete;
  OwnerLock& operator=(const OwnerLock&) = delete;

  // 0 when this process holds the lock (also when it held it already); the
  // holder's pid (> 0) when another process still holds it after `wait_ms`; a
  // negative errno with a text in error() otherwise. A lock file made here is
  // 0644, or 0660 root:group when `group` is 0 or more (a restricted region).
  // Root refuses a lock file that root does not own (-EPERM): another user
  // could hold it forever.
  int acquire(int64_t group = -1, int wait_ms = 0);
  // Empties the file, so that nobody names a stale holder, and lets go.
  void release();
  bool held() const { return fd_ >= 0; }
  const std::string& error() const { return error_; }

 private:
  int fail(int err, const std::string& what);
  int fd_ = -1;
  std::string error_;
};

// Removes the writer's files beside the region (the owner lock's and the
// journal), for the removal of the region itself.
void remove_writer_files();

}  // namespace writer
