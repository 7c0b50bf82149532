// A minimal allocator region for tests that run before (or without) the region
// lifecycle: "page" and "cmdb_global" as creation lays them out, mapped and
// recorded in `cmdb` the way an attached process has them.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "alloc/alloc_internal.h"
#include "gikraidrum.h"

namespace gk::test {

inline constexpr size_t kCmdbGlobalSize = 38216;

class AllocRegion {
 public:
  // Creates the two files (replacing any) and attaches as the owner: both
  // mapped read-write, owner bit set, a page map built from the table.
  AllocRegion() {
    alignas(cmdb_page_table_t) unsigned char page_image[alloc::kPageTableImageSize];
    alloc::write_page_table_image(reinterpret_cast<cmdb_page_table_t*>(page_image));
    unsigned char* global = static_cast<unsigned char*>(calloc(1, kCmdbGlobalSize));
    if (global == nullptr) abort();
    alloc::write_cache_table_image(reinterpret_cast<cmdb_slab_cache_table_t*>(global));
    write_file("/dev/cmdb/page", page_image, sizeof page_image);
    write_file("/dev/cmdb/cmdb_global", global, kCmdbGlobalSize);
    free(global);
    if (!attach(true)) abort();
  }
  ~AllocRegion() { detach(); }
  AllocRegion(const AllocRegion&) = delete;
  AllocRegion& operator=(const AllocRegion&) = delete;

  // Maps both files again at their current lengths, with a fresh page map; a
  // forked child that is not the owner attaches as a reader does (mode 1):
  // "page" and "cmdb_global" read-only, no owner bit.
  static bool reattach(bool owner) {
    detach();
    return attach(owner);
  }

  // Drops this process's mappings and page map and clears the fields.
  static void detach() {
    alloc::page_map_release();
    if (cmdb.page != nullptr) ::munmap(cmdb.page, size_t(cmdb.page_map_len));
    if (cmdb.cmdb_global != nullptr) ::munmap(cmdb.cmdb_global, kCmdbGlobalSize);
    cmdb.page = nullptr;
    cmdb.page_map_len = 0;
    cmdb.cmdb_global = nullptr;
    cmdb.slab_caches = nullptr;
    cmdb.index_roots = nullptr;
    cmdb.table_limits = nullptr;
    cmdb.services = nullptr;
    cmdb.flags &= ~CMDB_FLAG_OWNER;
  }

  static cmdb_page_table_t* table() { return static_cast<cmdb_page_table_t*>(cmdb.page); }
  static cmdb_slab_cache_table_t* caches() { return static_cast<cmdb_slab_cache_table_t*>(cmdb.slab_caches); }

 private:
  static void write_file(const char* path, const void* data, size_t len) {
    int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::write(fd, data, len) != static_cast<ssize_t>(len)) abort();
    ::close(fd);
  }

  static void* map_whole(const char* path, bool writable, size_t* len) {
    int fd = ::open(path, writable ? O_RDWR | O_CLOEXEC : O_RDONLY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st;
    void* p = MAP_FAILED;
    if (::fstat(fd, &st) == 0)
      p = ::mmap(nullptr, size_t(st.st_size), writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED) return nullptr;
    *len = size_t(st.st_size);
    return p;
  }

  static bool attach(bool owner) {
    size_t page_len = 0, global_len = 0;
    void* page = map_whole("/dev/cmdb/page", owner, &page_len);
    void* global = map_whole("/dev/cmdb/cmdb_global", owner, &global_len);
    if (page == nullptr || global == nullptr || global_len != kCmdbGlobalSize) return false;
    if (owner) cmdb.flags |= CMDB_FLAG_OWNER;
    cmdb.page = page;
    cmdb.page_map_len = static_cast<int32_t>(page_len);
    cmdb.cmdb_global = global;
    cmdb.slab_caches = global;
    cmdb.index_roots = reinterpret_cast<uint32_t*>(static_cast<char*>(global) + 0x11C);
    cmdb.table_limits = static_cast<char*>(global) + 0x134;
    cmdb.services = static_cast<char*>(global) + 0xAE8;
    alloc::page_map_init(nullptr);
    return cmdb.page_maps != nullptr;
  }
};

}  // namespace gk::test
