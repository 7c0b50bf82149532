// Page files in "/dev/cmdb/", the shared page table `page` and this process's
// page map of it.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "alloc/alloc_internal.h"
#include "alloc/page_map.h"
#include "util/util_internal.h"

namespace alloc {
namespace {

// Each thread builds its paths here, so file operations may run in several
// threads at once; messages print the path from this buffer.
thread_local char t_path[65];

PageMap* new_page_map(int64_t count) {
  if (count < 0 || count > INT32_MAX) return nullptr;
  auto* m = static_cast<PageMap*>(calloc(1, sizeof(PageMap) + size_t(count) * sizeof(PageMapSlot)));
  if (m != nullptr) m->count = static_cast<int32_t>(count);
  return m;
}

// Enlarges the page map to `count` slots; the new ones are unmapped. 0 or ENOMEM,
// which leaves the old map in place.
int grow_page_map(int64_t count) {
  PageMap* m = page_map();
  if (m == nullptr || count <= m->count) return 0;
  if (count > INT32_MAX) return ENOMEM;
  auto* grown = static_cast<PageMap*>(realloc(m, sizeof(PageMap) + size_t(count) * sizeof(PageMapSlot)));
  if (grown == nullptr) return ENOMEM;
  for (int64_t i = grown->count; i < count; ++i) grown->slot[i] = PageMapSlot{0, 0, -1, nullptr};
  grown->count = static_cast<int32_t>(count);
  cmdb.page_maps = grown;
  return 0;
}

// Maps `page` again over its whole current length: read-write for the owner,
// read-only for everyone else. On failure the process keeps no mapping of the
// table (cmdb.page null), so nothing reads a stale base; a later translation
// tries again. 0 or an errno value.
int remap_page_table() {
  if (cmdb.page != nullptr && cmdb.page_map_len > 0) ::munmap(cmdb.page, size_t(cmdb.page_map_len));
  cmdb.page = nullptr;
  cmdb.page_map_len = 0;
  const bool owner = (cmdb.flags & CMDB_FLAG_OWNER) != 0;
  util::UniqueFd fd(cmdb_shm_open("page", owner ? 1 : 0));
  if (!fd.valid()) return errno;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) return errno;
  if (st.st_size < table_bytes(0) || st.st_size > INT32_MAX) return EINVAL;
  void* p = ::mmap(nullptr, size_t(st.st_size), owner ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.get(), 0);
  if (p == MAP_FAILED) return errno;
  cmdb.page = p;
  cmdb.page_map_len = static_cast<int32_t>(st.st_size);
  return 0;
}

// Page-map slots this process may use: the table's page_max as far as the
// mapping reaches.
int64_t usable_slots(const cmdb_page_table_t* t) {
  return std::min<int64_t>(std::max<int32_t>(t->page_max, 0), mapped_table_slots());
}

void page_name(uint32_t page, char (&name)[16]) { snprintf(name, sizeof name, "%d", static_cast<int>(page)); }

}  // namespace

void adopt_table_length() {
  if (cmdb.page_map_len > 0 || cmdb.page == nullptr) return;
  const int64_t len = table_bytes(page_table()->page_max);
  cmdb.page_map_len = len < table_bytes(0) ? 0 : len > INT32_MAX ? INT32_MAX : static_cast<int32_t>(len);
}

const char* build_path(const char* name) {
  snprintf(t_path, sizeof t_path, "%s%s", CMDB_DIR, name);
  return t_path;
}

void cmdb_shm_list_dir() {
  struct dirent** list = nullptr;
  int n = ::scandir(CMDB_DIR, &list, nullptr, alphasort);
  if (n < 0) return;
  for (int i = n - 1; i >= 0; --i) {
    const char* name = list[i]->d_name;
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s/%s", CMDB_DIR, name);
    struct stat st;
    if (::lstat(path, &st) != 0) {
      const int err = errno;
      LOG_FILE_ERROR("%-20s errno=%d\n", name, err);
    } else {
      char when[64];
      if (ctime_r(&st.st_atime, when) == nullptr) when[0] = '\0';
      LOG_FILE_ERROR("%-20s %-8ld %s", name, static_cast<long>(st.st_size), when);
    }
    free(list[i]);
  }
  free(list);
}

int open_quiet(const char* name, int flags) {
  if (name == nullptr) {
    errno = EINVAL;
    return -1;
  }
  int fd = ::open(build_path(name), flags | O_NOFOLLOW, 0644);
  if (fd < 0 && errno == EISDIR) errno = EINVAL;
  if (fd >= 0) {
    const int fdflags = ::fcntl(fd, F_GETFD);
    if (fdflags == -1 || ::fcntl(fd, F_SETFD, fdflags | FD_CLOEXEC) == -1) {
      util::UniqueFd doomed(fd);  // closes, keeping errno
      fd = -1;
    }
  }
  return fd;
}

int open_in_dir(const char* name, int flags) {
  const int fd = open_quiet(name, flags);
  if (fd < 0 && name != nullptr) {
    const int err = errno;
    const int line = __LINE__;
    const char* path = build_path(name);
    LOG_FILE_ERROR("%s,%s,%d, name=%s, errno=%d, %s.\n", util::progname(), kSrc, line, path, err,
                   strerror(err));
    cmdb_shm_list_dir();
    print_trace(0);
    errno = err;
  }
  return fd;
}

void write_page_table_image(cmdb_page_table_t* t) {
  t->page_cnt = 0;
  t->page_max = CMDB_PAGE_SLOTS_STEP;
  for (int i = 0; i < CMDB_PAGE_SLOTS_STEP; ++i) t->slot[i] = cmdb_page_slot_t{1, -1};
}
static_assert(table_bytes(CMDB_PAGE_SLOTS_STEP) == kPageTableImageSize);

void page_map_init(const cmdb_page_table_t* table) {
  const bool mapped = table == nullptr;
  if (mapped) table = page_table();
  if (table == nullptr) return;
  int64_t count = std::max<int32_t>(table->page_max, 0);
  if (mapped) count = std::min(count, mapped_table_slots());
  page_map_release();
  cmdb.page_maps = new_page_map(count);
}

void page_map_release() {
  PageMap* m = page_map();
  if (m == nullptr) return;
  for (int32_t i = 0; i < m->count; ++i) {
    PageMapSlot& s = m->slot[i];
    if (s.addr != nullptr && s.len > 0) ::munmap(s.addr, size_t(s.len));
  }
  free(m);
  cmdb.page_maps = nullptr;
}

namespace {

// Brings this process's page map (and its mapping of `page`) up to a table that
// another process may have grown. The table, or null when `page` has no slot.
const cmdb_page_table_t* sync_with_table(uint32_t page) {
  adopt_table_length();
  cmdb_page_table_t* t = page_table();
  if (t == nullptr) {
    // Only a process that lost its table while remapping it tries again.
    if (page_map() == nullptr || remap_page_table() != 0) return nullptr;
    t = page_table();
  }
  if (page >= static_cast<uint32_t>(std::max<int32_t>(t->page_max, 0))) {
    util::log_alarm("Error", kSrc, "cmf_update_page");
    return nullptr;
  }
  if (page_map() == nullptr) page_map_init(nullptr);
  if (page_map() == nullptr) return nullptr;
  if (page < static_cast<uint32_t>(page_map()->count)) return t;
  // Another process has grown the table since this one last looked.
  if (cmdb.page_map_len != table_bytes(t->page_max)) {
    if (remap_page_table() != 0) {
      util::log_alarm("Error", kSrc, "cmf_update_page");
      return nullptr;
    }
    t = page_table();
  }
  if (grow_page_map(usable_slots(t)) != 0) {
    util::log_alarm("Error", kSrc, "cmf_update_page");
    return nullptr;
  }
  // A table file shorter than its page_max says leaves the page without a slot.
  if (page >= static_cast<uint32_t>(page_map()->count) || page >= static_cast<uint32_t>(t->page_max))
    return nullptr;
  return t;
}

// Maps `size` bytes of the page's file, near `hint`. A page the table lists
// must be there: anything else ends the process.
void* map_page_file(uint32_t page, int32_t size, int write, void* hint) {
  char name[16];
  page_name(page, name);
  util::UniqueFd fd(cmdb_shm_open(name, write));
  if (!fd.valid()) {
    const int err = errno;
    util::log(3, "%s,%s,%d, idx=%d, errno=%d, %s.\n", kSrc, "cmf_update_page", __LINE__,
              static_cast<int>(page), err, strerror(err));
    abort();
  }
  void* p = ::mmap(hint, size_t(size), write ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.get(), 0);
  if (p == MAP_FAILED) {
    const int err = errno;
    util::log(3, "%s,%s,%d, errno=%d, %s.\n", kSrc, "cmf_update_page", __LINE__, err, strerror(err));
    abort();
  }
  return p;
}

}  // namespace

PageMapSlot* cmf_update_page_slow(uint32_t page, int write) {
  write = write != 0;
  const cmdb_page_table_t* t = sync_with_table(page);
  if (t == nullptr) return nullptr;
  PageMapSlot& s = page_map()->slot[page];
  const uint32_t gen = t->slot[page].gen;
  const int32_t size = t->slot[page].size;
  if (s.addr != nullptr && s.gen == gen && s.len == size && static_cast<uint32_t>(write) <= s.mode) return &s;
  // The old address as a hint keeps a re-mapped page where it was, usually.
  void* hint = s.addr;
  if (s.addr != nullptr && s.len > 0) ::munmap(s.addr, size_t(s.len));
  s = PageMapSlot{0, 0, -1, nullptr};
  if (size <= 0) return &s;  // free slot: the page is not allocated
  s = PageMapSlot{gen, static_cast<uint32_t>(write), size, map_page_file(page, size, write, hint)};
  return &s;
}

namespace {

// The lowest free slot from 1 up, or -1 when every slot is in use.
int32_t lowest_free_slot(const cmdb_page_table_t* t) {
  if (t->page_cnt >= t->page_max - 1) return -1;
  const int64_t n = std::min<int64_t>(usable_slots(t), page_map()->count);
  for (int64_t i = 1; i < n; ++i)
    if (t->slot[i].size == -1) return static_cast<int32_t>(i);
  return -1;
}

// Grows `page` by CMDB_PAGE_SLOTS_STEP free slots and maps it again, this
// process's page map with it: the first new slot, or -1 with the table as it was.
int32_t grow_table() {
  const int32_t old_max = page_table()->page_max;
  if (old_max < 0 || static_cast<uint32_t>(old_max) > CMF_SHMID_MAX_PAGE) {
    util::log(3, "Error %s,%s,%d, no page number left below %u.\n", kSrc, "__cmf_alloc_page", __LINE__,
              CMF_SHMID_MAX_PAGE + 1);
    return -1;
  }
  util::UniqueFd fd(cmdb_shm_open("page", 1));
  if (!fd.valid()) {
    const int err = errno;
    util::log(3, "Error %s,%s,%d, errno=%d, %s.\n", kSrc, "__cmf_alloc_page", __LINE__, err, strerror(err));
    return -1;
  }
  const int64_t new_len = table_bytes(int64_t{old_max} + CMDB_PAGE_SLOTS_STEP);
  const int r = ::ftruncate(fd.get(), new_len);
  void* p =
      r == 0 ? ::mmap(nullptr, size_t(new_len), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0) : MAP_FAILED;
  if (r != 0 || p == MAP_FAILED) {
    const int err = errno;
    if (r == 0) (void)::ftruncate(fd.get(), table_bytes(old_max));  // the file stays as long as page_max says
    util::log(3, "Error %s,%s,%d, r=%d, errno=%d, %s.\n", kSrc, "__cmf_alloc_page", __LINE__, r, err,
              strerror(err));
    return -1;
  }
  if (cmdb.page_map_len > 0) ::munmap(cmdb.page, size_t(cmdb.page_map_len));
  cmdb.page = p;
  cmdb.page_map_len = static_cast<int32_t>(new_len);
  cmdb_page_table_t* t = page_table();
  for (int32_t i = old_max; i < old_max + CMDB_PAGE_SLOTS_STEP; ++i) t->slot[i] = cmdb_page_slot_t{1, -1};
  t->page_max = old_max + CMDB_PAGE_SLOTS_STEP;
  if (grow_page_map(t->page_max) != 0) {
    util::log_alarm("No memory", kSrc, "__cmf_alloc_page");
    return -1;
  }
  return old_max;
}

// Creates the file of `page` with `len` zero bytes and maps it read-write; the
// mapping, or MAP_FAILED after a log line with no file left behind.
void* create_page_file(uint32_t page, uint32_t len) {
  char name[16];
  page_name(page, name);
  util::UniqueFd fd(cmdb_shm_create(name, static_cast<int32_t>(len)));
  // A reservation that failed leaves the file short; touching the mapping past
  // its end would fault, so such a file counts as not created.
  struct stat st;
  if (fd.valid() && (::fstat(fd.get(), &st) != 0 || st.st_size < static_cast<off_t>(len))) {
    fd.reset();
    cmdb_shm_remove(name);
    errno = ENOSPC;
  }
  // A restricted region's pages are the owner's to write and its group's to read;
  // a page that cannot be closed to everyone else is not made.
  if (const int64_t g = util::restricted_group(); fd.valid() && g >= 0) {
    if (const int err = util::restrict_file(fd.get(), static_cast<uint32_t>(g), util::kOwnerWritesMode);
        err != 0) {
      fd.reset();
      cmdb_shm_remove(name);
      errno = err;
    }
  }
  void* p = fd.valid() ? ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0) : MAP_FAILED;
  if (p == MAP_FAILED) {
    const int err = errno;
    if (fd.valid()) cmdb_shm_remove(name);
    util::log(3, "Error %s,%s,%d errno=%d, %s.\n", kSrc, "__cmf_alloc_page", __LINE__, err, strerror(err));
  }
  return p;
}

}  // namespace

int32_t alloc_page(uint32_t len) {
  adopt_table_length();
  if (page_table() == nullptr || cmdb.page_maps == nullptr) page_map_init(nullptr);
  if (page_table() == nullptr || page_map() == nullptr) {
    util::log_alarm("Critical error", kSrc, "__cmf_alloc_page");
    return -1;
  }
  if (len == 0 || len > INT32_MAX || grow_page_map(usable_slots(page_table())) != 0) {
    util::log_alarm("No memory", kSrc, "__cmf_alloc_page");
    return -1;
  }
  int32_t page = lowest_free_slot(page_table());
  if (page < 0 && (page = grow_table()) < 0) return -1;
  if (static_cast<uint32_t>(page) > CMF_SHMID_MAX_PAGE) {
    util::log(3, "Error %s,%s,%d, no page number left below %u.\n", kSrc, "__cmf_alloc_page", __LINE__,
              CMF_SHMID_MAX_PAGE + 1);
    return -1;
  }
  void* p = create_page_file(static_cast<uint32_t>(page), len);
  if (p == MAP_FAILED) return -1;
  PageMapSlot& s = page_map()->slot[page];
  if (s.addr != nullptr && s.len > 0) ::munmap(s.addr, size_t(s.len));
  cmdb_page_table_t* t = page_table();
  cmdb_page_slot_t& ts = t->slot[page];
  ts.gen += 1;
  ts.size = static_cast<int32_t>(len);
  s = PageMapSlot{ts.gen, 1, static_cast<int32_t>(len), p};
  t->page_cnt += 1;
  return page;
}

int free_page(uint32_t page) {
  cmdb_page_table_t* t = page_table();
  PageMap* m = page_map();
  const int32_t count = m != nullptr ? m->count : 0;
  const int32_t max = t != nullptr ? t->page_max : 0;
  // Page 0 and free slots are refused too: releasing them would corrupt page_cnt.
  if (t == nullptr || m == nullptr || page == 0 || page >= static_cast<uint32_t>(std::max(count, 0)) ||
      page >= static_cast<uint32_t>(std::max(max, 0)) || t->slot[page].size == -1) {
    util::log(3, "Critical error %s,%s,%d. page_idx=%d,%d,%d\n", kSrc, "__cmf_free_page", __LINE__,
              static_cast<int>(page), count, max);
    return -1;
  }
  PageMapSlot& s = m->slot[page];
  if (s.addr != nullptr && s.len > 0) ::munmap(s.addr, size_t(s.len));
  t->slot[page].gen += 1;
  t->slot[page].size = -1;
  s = PageMapSlot{0, 0, -1, nullptr};
  char name[16];
  page_name(page, name);
  cmdb_shm_remove(name);
  t->page_cnt -= 1;
  return 0;
}

}  // namespace alloc

extern "C" {

GK_API int cmdb_shm_open(const char* name, int writable) noexcept {
  return alloc::open_in_dir(name, writable ? O_RDWR : O_RDONLY);
}

GK_API int cmdb_shm_create(const char* name, int32_t len) noexcept {
  int fd = alloc::open_in_dir(name, O_RDWR | O_CREAT | O_TRUNC);
  // Region creation passes 0, which the reservation refuses; it fills the file by writing.
  if (fd >= 0) (void)::posix_fallocate(fd, 0, len);
  return fd;
}

GK_API int cmdb_shm_remove(const char* name) noexcept {
  if (name == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return ::unlink(alloc::build_path(name));
}

GK_API int cmdb_shm_stat(const char* name, struct stat* st) noexcept {
  if (name == nullptr || st == nullptr) {
    errno = EINVAL;
    return -1;
  }
  return ::stat(alloc::build_path(name), st);
}

}  // extern "C"
