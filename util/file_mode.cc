// The files of a restricted region: root and one group only.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "util/util_internal.h"

namespace util {

int64_t restricted_group() {
  cmdb_header_t* h = cmdb.header;
  if (h == nullptr) return -1;
  // Written once, by the creator, before anyone attaches.
  if ((std::atomic_ref<uint32_t>(h->ext_flags).load(std::memory_order_relaxed) & CMDB_EXT_RESTRICTED) == 0)
    return -1;
  return std::atomic_ref<uint32_t>(h->write_gid).load(std::memory_order_relaxed);
}

int restrict_file(int fd, uint32_t gid, mode_t mode) {
  // Only files: a name that led to a directory (the region's folder, its
  // parent) must never close it to everyone else.
  struct stat st;
  if (::fstat(fd, &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return EINVAL;
  // The owner stays: the creator is root, and a process may not give a file away.
  if (::fchown(fd, static_cast<uid_t>(-1), static_cast<gid_t>(gid)) != 0) return errno;
  if (::fchmod(fd, mode) != 0) return errno;
  return 0;
}

}  // namespace util
