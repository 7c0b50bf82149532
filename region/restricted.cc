// Restricted mode: a region closed to every user but root and one group. The
// creator chooses it between cmf_shm_create and the first attach; the header
// records it, so the allocator gives the page files it makes later the same
// closure, and everyone can see how the region was set up.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include "alloc/alloc_internal.h"
#include "lock/lock_internal.h"
#include "region/region_internal.h"

namespace region {
namespace {

// The sub-regions whoever maps them maps read-write: those every attached
// process writes, and daemon_status, which each boot-value accessor maps
// read-write for its one access. A member of the group must be able to open
// them for writing, or it could not attach at all.
mode_t mode_of(const Group& g) {
  return g.access == kAllWrite || g.modes == kInitSet ? util::kAllWriteMode : util::kOwnerWritesMode;
}

int restrict_named(const char* name, uint32_t gid, mode_t mode) {
  util::UniqueFd fd(alloc::open_quiet(name, O_RDONLY));
  int err = fd.valid() ? util::restrict_file(fd.get(), gid, mode) : errno;
  if (err != 0)
    util::log(3, "%s,%d, %s%s: cannot restrict, errno=%d.\n", kSource, __LINE__, CMDB_DIR, name, err);
  return err;
}

// Page files are named by their decimal page number.
bool is_page_file(const char* name) {
  if (*name == '\0') return false;
  for (const char* p = name; *p != '\0'; ++p)
    if (*p < '0' || *p > '9') return false;
  return true;
}

int restrict_region_files(uint32_t gid) {
  for (const Group& g : kVarListTable)
    for (const VarList& vl : lists(g)) {
      const int err = restrict_named(vl.name, gid, mode_of(g));
      // The init process makes daemon_status; a region may come without it.
      if (err != 0 && !(err == ENOENT && g.modes == kInitSet)) return -2;
    }
  // The locator blocks' pages, made while the region was laid out.
  struct dirent** list = nullptr;
  const int n = ::scandir(CMDB_DIR, &list, nullptr, alphasort);
  int result = n < 0 ? -2 : 0;
  for (int i = 0; i < n; ++i) {
    if (result == 0 && is_page_file(list[i]->d_name) &&
        restrict_named(list[i]->d_name, gid, util::kOwnerWritesMode) != 0)
      result = -2;
    free(list[i]);
  }
  free(list);
  return result;
}

int restrict_lock_files(uint32_t gid) {
  struct LockFile {
    const char* path;
    int flags;
  };
  // The restore lock is made now, so that nobody else can make it first.
  const LockFile files[] = {{lock::kEventLockPath, O_RDWR},
                            {lock::kShmLockPath, O_RDWR},
                            {lock::kRestoreLockPath, O_RDWR | O_CREAT}};
  for (const LockFile& f : files) {
    util::UniqueFd fd(lock::open_lock_file(f.path, f.flags | O_CLOEXEC, util::kAllWriteMode));
    const int err = fd.valid() ? util::restrict_file(fd.get(), gid, util::kAllWriteMode) : errno;
    if (err == 0) continue;
    util::log(3, "%s,%d, %s: cannot restrict, errno=%d.\n", kSource, __LINE__, f.path, err);
    return -3;
  }
  return 0;
}

int restrict_semaphores(uint32_t gid) {
  for (key_t key : {CMDB_SEM_KEY, DBGZ_SEM_KEY, DBGZ_SEM_KEY + 1}) {
    struct semid_ds ds;
    const int id = ::semget(key, 1, 0);
    if (id >= 0 && ::semctl(id, 0, IPC_STAT, &ds) == 0) {
      ds.sem_perm.gid = static_cast<gid_t>(gid);
      ds.sem_perm.mode = util::kAllWriteMode;
      if (::semctl(id, 0, IPC_SET, &ds) == 0) continue;
    }
    const int err = errno;
    util::log(3, "%s,%d, semaphore key %d: cannot restrict, errno=%d.\n", kSource, __LINE__,
              static_cast<int>(key), err);
    return -4;
  }
  return 0;
}

// Writes the mode into the header, mapping it for the moment when this
// process has not attached (the creator keeps nothing mapped after creation).
int record_in_header(uint32_t gid) {
  cmdb_header_t* h = cmdb.header;
  void* mapped = MAP_FAILED;
  if (h == nullptr) {
    util::UniqueFd fd(cmdb_shm_open("cmdb_global_rw", 1));
    if (fd.valid()) mapped = ::mmap(nullptr, sizeof *h, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) return -1;
    h = static_cast<cmdb_header_t*>(mapped);
  }
  h->ext_flags |= CMDB_EXT_RESTRICTED;
  h->write_gid = gid;
  if (mapped != MAP_FAILED) ::munmap(mapped, sizeof *h);
  return 0;
}

}  // namespace
}  // namespace region

extern "C" GK_API int cmf_shm_restrict(uint32_t write_gid) noexcept {
  if (write_gid == static_cast<uint32_t>(-1)) {
    errno = EINVAL;
    return -1;
  }
  if (int r = region::record_in_header(write_gid); r != 0) return r;
  if (int r = region::restrict_region_files(write_gid); r != 0) return r;
  if (int r = region::restrict_lock_files(write_gid); r != 0) return r;
  return region::restrict_semaphores(write_gid);
}
