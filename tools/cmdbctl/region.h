// How cmdbctl reaches the region. Only the owner can allocate, and cmdbctl has
// no long-lived owner: a writing command attaches in the owner mode
// (init_cmdb_app_core(2)) and serialises with every other writer through the
// main write lock; a reading command attaches as an ordinary reader (mode 1).
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "gikraidrum.h"
#include "writer/model.h"

namespace cmdbctl {

// The names of the fifteen sub-region files, in the library's table order.
inline constexpr const char* kSubRegions[] = {
    "cmdb_node", "cmdb_sql_node", "cmdb_datasource", "cmdb_node_index", "page",
    "cmdb_global", "cmdb_global_rw", "cmdb_event", "debug_zone", "domain",
    "domid_index", "domname_index", "devices", "admin_login_status", "daemon_status"};

using config::kSchemaCopy;

// The lock files every attached process opens read-write.
inline constexpr const char* kEventLockFile = "/tmp/cmdb_lock";
inline constexpr const char* kShmLockFile = "/tmp/shm_lock";

std::string region_path(const char* name);
bool region_exists();

// Why this process may not use the region ("permission denied on FILE (owner,
// mode): run as ..."), or "" when nothing refuses it. `write`: as a writer.
std::string permission_problem(bool write);

enum class Mode { kReader, kOwner };

// Attaches for the life of the object; throws Failure when the region is absent
// or cannot be attached.
class Attachment {
 public:
  explicit Attachment(Mode mode);
  ~Attachment();
  Attachment(const Attachment&) = delete;
  Attachment& operator=(const Attachment&) = delete;
};

class ReadLock {
 public:
  ReadLock() { cmf_shm_read_lock(); }
  ~ReadLock() { cmf_shm_read_unlock(); }
  ReadLock(const ReadLock&) = delete;
  ReadLock& operator=(const ReadLock&) = delete;
};

// Reads a whole file; throws Failure naming the path.
std::string read_file(const std::string& path);
// Writes a file through a temporary name and rename, so readers never see half of it.
void write_file_atomically(const std::string& path, const std::string& text);

// Figures of a created region for the caller's report.
struct CreateResult {
  uint32_t platform = 0;
  size_t nodes = 0;            // descriptors in the schema file
  uint32_t node_records = 0;   // the region's node table, the header's `nodes`
  std::string sha256;          // of the schema file, as kept beside the region
  std::optional<gid_t> write_gid;  // set when restricted to root and this group
};

// A group by name or number; a usage error when there is none.
gid_t group_id(const std::string& text);

// Lays out the region from the schema file as the owner does: daemon_status as
// the init process would, then the rest, then the owner's first attachment,
// which sets up the allocator's locator blocks. The library prints a creation
// summary line; it goes to standard output, or to standard error when
// `summary_to_stdout` is false (standard output then stays for JSON). Throws
// Failure, leaving nothing behind.
CreateResult create_region(const std::string& schema_path, int platform /* -1: the schema's */,
                           bool summary_to_stdout, std::optional<gid_t> restrict_to);

// Removes the region's files, its schema copy and the main lock.
void destroy_region();

}  // namespace cmdbctl
