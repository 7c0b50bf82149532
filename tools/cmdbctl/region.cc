#include "tools/cmdbctl/region.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <grp.h>
#include <pwd.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "tools/cmdbctl/output.h"
#include "tools/common/group.h"
#include "tools/common/sha256.h"
#include "tools/schema/schema_loader.h"
#include "writer/owner_lock.h"

namespace cmdbctl {

std::string region_path(const char* name) { return std::string(CMDB_DIR) + name; }

bool region_exists() {
  struct stat st;
  return ::stat(region_path("cmdb_global_rw").c_str(), &st) == 0;
}

namespace {

// What to tell someone refused by a file: its owner and mode, and who may use it.
std::string refused(const std::string& what, const struct stat& st) {
  std::string owner = format("%u", st.st_uid), group = format("%u", st.st_gid);
  if (const passwd* pw = ::getpwuid(st.st_uid)) owner = pw->pw_name;
  if (const struct group* gr = ::getgrgid(st.st_gid)) group = gr->gr_name;
  std::string who = st.st_gid == 0 || (st.st_mode & 020) == 0 ? "run as root"
                                                              : "run as root or as a member of group " + group;
  return format("permission denied on %s (%s:%s, mode %04o): %s", what.c_str(), owner.c_str(), group.c_str(),
                st.st_mode & 07777, who.c_str());
}

}  // namespace

std::string permission_problem(bool write) {
  struct stat st;
  for (const char* lock : {kEventLockFile, kShmLockFile})
    if (::stat(lock, &st) == 0 && ::access(lock, R_OK | W_OK) != 0 && errno == EACCES) return refused(lock, st);
  // Every attached process maps these read-write; the rest only the owner does.
  static const std::set<std::string> kSharedWritable = {"cmdb_global_rw", "cmdb_event", "debug_zone",
                                                        "admin_login_status"};
  for (const char* name : kSubRegions) {
    std::string path = region_path(name);
    int need = write || kSharedWritable.count(name) != 0 ? R_OK | W_OK : R_OK;
    if (::stat(path.c_str(), &st) == 0 && ::access(path.c_str(), need) != 0 && errno == EACCES)
      return refused(path, st);
  }
  for (key_t key : {CMDB_SEM_KEY, DBGZ_SEM_KEY, DBGZ_SEM_KEY + 1})
    if (::semget(key, 1, 0) < 0 && errno == EACCES)
      return format("permission denied on the semaphore with key %d: run as root or as a member of the "
                    "region's write group",
                    key);
  return "";
}

Attachment::Attachment(Mode mode) {
  if (!region_exists()) fail("no region in " CMDB_DIR " (create one with 'cmdbctl create --schema FILE')");
  // Mode 1 maps daemon_status too; a region whose init process never ran has
  // none, and mode 3 is the same reader without it.
  struct stat st;
  int m = mode == Mode::kOwner ? 2 : (::stat(region_path("daemon_status").c_str(), &st) == 0 ? 1 : 3);
  if (int r = init_cmdb_app_core(m); r != 0) {
    int err = errno;
    cleanup_cmdb_app_core();
    if (std::string why = permission_problem(mode == Mode::kOwner); !why.empty()) fail(why);
    bool locks_gone = r == -1 && (::access(kEventLockFile, F_OK) != 0 || ::semget(CMDB_SEM_KEY, 1, 0) < 0);
    fail(format("cannot attach the region in " CMDB_DIR " (init_cmdb_app_core(%d) returned %d: %s)", m, r,
                locks_gone ? "its locks are missing" : strerror(err)));
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
  writer::remove_writer_files();
  cmdb_destroy_lock();
  cmf_lock_cleanup();
}

// The library prints its creation summary with printf. While this lives,
// standard output goes to standard error instead.
class StdoutToStderr {
 public:
  StdoutToStderr() {
    fflush(stdout);
    saved_ = ::dup(STDOUT_FILENO);
    if (saved_ >= 0) ::dup2(STDERR_FILENO, STDOUT_FILENO);
  }
  ~StdoutToStderr() {
    fflush(stdout);
    if (saved_ < 0) return;
    ::dup2(saved_, STDOUT_FILENO);
    ::close(saved_);
  }
  StdoutToStderr(const StdoutToStderr&) = delete;
  StdoutToStderr& operator=(const StdoutToStderr&) = delete;

 private:
  int saved_;
};

}  // namespace

gid_t group_id(const std::string& text) {
  const std::optional<gid_t> g = gk::find_group(text);
  if (!g)
    fail(format("no group '%s': create it (cmdbd's sysusers.d entry does), or name another with --write-group",
                text.c_str()));
  return *g;
}

CreateResult create_region(const std::string& schema_path, int platform, bool summary_to_stdout,
                           std::optional<gid_t> restrict_to) {
  std::string text = read_file(schema_path);
  schema::Schema s;
  std::string error;
  if (schema::load_string(text, schema_path, &s, &error) != 0) fail(error);
  if (region_exists()) fail("a region already exists in " CMDB_DIR " (remove it with 'cmdbctl destroy')");
  if (platform > static_cast<int>(schema::kMaxPlatform))
    fail(format("platform %d is out of range 1..%u", platform, schema::kMaxPlatform));

  CreateResult result;
  result.platform = platform >= 0 ? static_cast<uint32_t>(platform) : s.platform().value_or(0);
  // Index 0 names no platform: every table size, the domain table's included, is 0 there.
  if (result.platform == 0)
    fail(format("%s names no platform: give one (1..%u) with --platform or as the schema's \"platform\"",
                schema_path.c_str(), schema::kMaxPlatform));
  result.nodes = s.node_count();
  result.sha256 = gk::sha256_hex(text);
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
  int r;
  {
    std::optional<StdoutToStderr> quiet;
    if (!summary_to_stdout) quiet.emplace();
    fflush(stdout);
    r = cmf_shm_create();
    fflush(stdout);
  }
  if (r != 0) {
    memset(&cmdb, 0, sizeof cmdb);
    remove_everything();
    fail(format("cannot create the region in " CMDB_DIR " (cmf_shm_create returned %d)", r));
  }
  // Before anyone attaches, so nobody outside the group ever holds a descriptor.
  if (restrict_to && (r = cmf_shm_restrict(*restrict_to)) != 0) {
    memset(&cmdb, 0, sizeof cmdb);
    remove_everything();
    fail(format("cannot restrict the region to root and group %u (cmf_shm_restrict returned %d)", *restrict_to, r));
  }
  result.write_gid = restrict_to;
  r = init_cmdb_app_core(2);
  if (r == 0) result.node_records = get_cmdb_header()->nodes;
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
  // Nothing is removed unless everything can be: the files go with their folder's permission.
  struct stat st;
  if (::access(CMDB_DIR, W_OK) != 0 && errno == EACCES && ::stat(CMDB_DIR, &st) == 0) fail(refused(CMDB_DIR, st));
  if (std::string why = permission_problem(true); !why.empty()) fail(why);
  remove_everything();
  if (region_exists()) fail(format("the region in " CMDB_DIR " is still there: %s", strerror(errno)));
  if (::semget(CMDB_SEM_KEY, 1, 0) >= 0) fail("removed the region's files, but its main lock stays");
}

}  // namespace cmdbctl
