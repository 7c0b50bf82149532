#include "tools/cmdbctl/region.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "tools/cmdbctl/output.h"
#include "tools/schema/schema_loader.h"

namespace cmdbctl {

std::string region_path(const char* name) { return std::string(CMDB_DIR) + name; }

bool region_exists() {
  struct stat st;
  return ::stat(region_path("cmdb_global_rw").c_str(), &st) == 0;
}

Attachment::Attachment(Mode mode) {
  if (!region_exists()) fail("no region in " CMDB_DIR " (create one with 'cmdbctl create --schema FILE')");
  // Mode 1 maps daemon_status too; a region whose init process never ran has
  // none, and mode 3 is the same reader without it.
  struct stat st;
  int m = mode == Mode::kOwner ? 2 : (::stat(region_path("daemon_status").c_str(), &st) == 0 ? 1 : 3);
  if (int r = init_cmdb_app_core(m); r != 0) {
    cleanup_cmdb_app_core();
    fail(format("cannot attach the region in " CMDB_DIR " (init_cmdb_app_core(%d) returned %d%s)", m, r,
                r == -1 ? ": its locks are missing" : ""));
  }
  // The owner mode keeps whatever the record held; the table-size lookups of a
  // writer read the platform from it.
  if (mode == Mode::kOwner && cmdb.header != nullptr) cmdb.platform = cmdb.header->platform;
}

Attachment::~Attachment() { cleanup_cmdb_app_core(); }

std::string read_file(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(path + ": " + strerror(errno));
  std::string text;
  char buf[65536];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int err = errno;
      ::close(fd);
      fail(path + ": " + strerror(err));
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return text;
}

void write_file_atomically(const std::string& path, const std::string& text) {
  std::string tmp = path + ".tmp";
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) fail(tmp + ": " + strerror(errno));
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int err = errno;
      ::close(fd);
      ::unlink(tmp.c_str());
      fail(tmp + ": " + strerror(err));
    }
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    int err = errno;
    ::unlink(tmp.c_str());
    fail(path + ": " + strerror(err));
  }
}

namespace {

// Page files are named by their decimal page number; the library's removal of
// the region leaves them, and a later region would find them stale.
void remove_page_files() {
  DIR* d = ::opendir(CMDB_DIR);
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (dirent* e = ::readdir(d)) {
    const char* n = e->d_name;
    if (*n == '\0' || strspn(n, "0123456789") != strlen(n)) continue;
    names.emplace_back(n);
  }
  ::closedir(d);
  for (const auto& n : names) cmdb_shm_remove(n.c_str());
}

void remove_everything() {
  cmf_lock_init();
  cmf_shm_destroy();
  cmdb_shm_remove("daemon_status");
  remove_page_files();
  ::unlink(kSchemaCopy);
  cmdb_destroy_lock();
  cmf_lock_cleanup();
}

}  // namespace

CreateResult create_region(const std::string& schema_path, int platform) {
  std::string text = read_file(schema_path);
  schema::Schema s;
  std::string error;
  if (schema::load_string(text, schema_path, &s, &error) != 0) fail(error);
  if (region_exists()) fail("a region already exists in " CMDB_DIR " (remove it with 'cmdbctl destroy')");
  if (platform > static_cast<int>(schema::kMaxPlatform))
    fail(format("platform %d is out of range 0..%u", platform, schema::kMaxPlatform));

  CreateResult result;
  result.platform = platform >= 0 ? static_cast<uint32_t>(platform) : s.platform().value_or(0);
  result.nodes = s.node_count();
  // The host's service table; a schema file describes none, so every slot is empty.
  static std::array<uint8_t, CMDB_SERVICES * CMDB_SERVICE_SIZE> services{};

  uint32_t host_total = 0;  // the bytes of default data the host knows of, printed beside the builder's
  for (uint32_t gid = 1; gid <= schema::kMaxGid; ++gid)
    if (const cmdb_node_desc_t* d = s.find(gid); d != nullptr && (d->kind == 2 || d->kind == 3 || d->kind == 4 ||
                                                                  d->kind == 8))
      host_total += d->size;

  if (int r = cmf_shm_create_init(); r != 0) {
    remove_everything();
    fail(format("cannot create daemon_status in " CMDB_DIR " (cmf_shm_create_init returned %d)", r));
  }
  cmdb.platform = result.platform;
  cmdb.schema = s.root();
  cmdb.service_table = services.data();
  cmdb.host_total = host_total;
  fflush(stdout);
  int r = cmf_shm_create();
  fflush(stdout);
  if (r != 0) {
    memset(&cmdb, 0, sizeof cmdb);
    remove_everything();
    fail(format("cannot create the region in " CMDB_DIR " (cmf_shm_create returned %d)", r));
  }
  r = init_cmdb_app_core(2);
  cleanup_cmdb_app_core();
  if (r != 0) {
    remove_everything();
    fail(format("the new region cannot be attached (init_cmdb_app_core(2) returned %d)", r));
  }
  write_file_atomically(kSchemaCopy, text);
  return result;
}

void destroy_region() {
  if (!region_exists()) fail("no region in " CMDB_DIR);
  remove_everything();
}

}  // namespace cmdbctl
