// The region as cmdbd finds or makes it: created from the schema as the init
// process and the owner would, or adopted when the copy of the schema kept
// beside it is the same file.
#pragma once

#include <sys/types.h>

#include <string>

#include "gikraidrum.h"
#include "tools/schema/schema_loader.h"

namespace cmdbd {

// Beside the region, the schema it was built from (cmdbctl reads it too).
inline constexpr const char* kSchemaCopy = CMDB_DIR "cmdbctl.schema.json";

bool region_exists();
// SHA-256 of the schema copy beside the region; "" when there is none.
std::string region_schema_hash();
// daemon_status as the init process makes it, when it is absent. 0 or -1.
int ensure_daemon_status(std::string* error);
// Lays out the region from `s` (platform -1: the schema's, else 0), restricted
// to `group` when asked, and keeps the schema's text beside it; *summary gets
// the library's line about what it built. On failure nothing is left behind.
// 0 or -1.
int create_region(const schema::Schema& s, const std::string& schema_text, int platform, bool restricted,
                  gid_t group, std::string* summary, std::string* error);
// Removes the region's files and page files (daemon_status and the locks stay),
// for a region rebuilt from another schema.
void remove_region();
// Attaches as the owner, the one process that allocates. 0 or -1.
int attach_owner(std::string* error);

}  // namespace cmdbd
