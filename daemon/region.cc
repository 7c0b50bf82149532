#include "daemon/region.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "tools/common/sha256.h"

namespace cmdbd {
namespace {

bool exists(const char* name) {
  struct stat st;
  return ::stat((std::string(CMDB_DIR) + name).c_str(), &st) == 0;
}

int write_all(const std::string& path, const std::string& text, std::string* error) {
  std::string tmp = path + ".tmp";
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) {
    *error = tmp + ": " + strerror(errno);
    return -1;
  }
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    done += static_cast<size_t>(n);
  }
  int err = done == text.size() ? 0 : errno;
  ::close(fd);
  if (err == 0 && ::rename(tmp.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(tmp.c_str());
    *error = path + ": " + strerror(err);
    return -1;
  }
  return 0;
}

// Page files are named by their decimal page number; removing the region leaves them.
void remove_page_files() {
  DIR* d = ::opendir(CMDB_DIR);
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (dirent* e = ::readdir(d))
    if (e->d_name[0] != '\0' && strspn(e->d_name, "0123456789") == strlen(e->d_name)) names.emplace_back(e->d_name);
  ::closedir(d);
  for (const std::string& n : names) cmdb_shm_remove(n.c_str());
}

}  // namespace

bool region_exists() { return exists("cmdb_global_rw"); }

std::string region_schema_hash() {
  int fd = ::open(kSchemaCopy, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return "";
  std::string text;
  char buf[65536];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0) text.append(buf, static_cast<size_t>(n));
  ::close(fd);
  return n < 0 ? "" : gk::sha256_hex(text);
}

int ensure_daemon_status(std::string* error) {
  if (exists("daemon_status")) return 0;
  if (int r = cmf_shm_create_init(); r != 0) {
    *error = "cannot create " CMDB_DIR "daemon_status (cmf_shm_create_init returned " + std::to_string(r) + ")";
    return -1;
  }
  return 0;
}

void remove_region() {
  cmf_lock_init();
  cmf_shm_destroy();
  remove_page_files();
  ::unlink(kSchemaCopy);
  cmf_lock_cleanup();
}

int create_region(const schema::Schema& s, const std::string& schema_text, int platform, bool restricted,
                  gid_t group, std::string* summary, std::string* error) {
  // The host's service table: a schema file describes none, so every slot is empty.
  static std::array<uint8_t, CMDB_SERVICES * CMDB_SERVICE_SIZE> services{};
  uint32_t host_total = 0;
  for (uint32_t gid = 1; gid <= schema::kMaxGid; ++gid)
    if (const cmdb_node_desc_t* d = s.find(gid); d != nullptr && (d->kind == 2 || d->kind == 3 || d->kind == 4 ||
                                                                  d->kind == 8))
      host_total += d->size;
  cmdb.platform = platform >= 0 ? static_cast<uint32_t>(platform) : s.platform().value_or(0);
  cmdb.schema = s.root();
  cmdb.service_table = services.data();
  cmdb.host_total = host_total;
  // The library prints its creation summary on standard output; the daemon's
  // output is its log, so the summary is caught and logged.
  fflush(stdout);
  int saved = ::dup(1);
  int caught = ::memfd_create("creation", MFD_CLOEXEC);
  if (saved >= 0 && caught >= 0) ::dup2(caught, 1);
  int r = cmf_shm_create();
  fflush(stdout);
  if (saved >= 0) ::dup2(saved, 1);
  if (caught >= 0 && summary != nullptr) {
    char buf[512];
    ssize_t n = ::pread(caught, buf, sizeof buf - 1, 0);
    summary->assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
    while (!summary->empty() && summary->back() == '\n') summary->pop_back();
  }
  for (int fd : {saved, caught})
    if (fd >= 0) ::close(fd);
  if (r != 0) {
    *error = "cannot create the region in " CMDB_DIR " (cmf_shm_create returned " + std::to_string(r) + ")";
  } else if (restricted && (r = cmf_shm_restrict(group)) != 0) {
    *error = "cannot restrict the region to root and group " + std::to_string(group) + " (cmf_shm_restrict returned " +
             std::to_string(r) + ")";
  }
  if (r == 0 && write_all(kSchemaCopy, schema_text, error) != 0) r = -1;
  if (r != 0) {
    remove_region();
    return -1;
  }
  return 0;
}

int attach_owner(std::string* error) {
  if (int r = init_cmdb_app_core(2); r != 0) {
    cleanup_cmdb_app_core();
    *error = "cannot attach the region in " CMDB_DIR " as its owner (init_cmdb_app_core(2) returned " +
             std::to_string(r) + ")";
    return -1;
  }
  // The size-limit lookups of a writer read the platform from the record.
  cmdb.platform = cmdb.header->platform;
  return 0;
}

}  // namespace cmdbd
