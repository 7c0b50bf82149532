// The subcommands. Each returns the exit status; failures throw Failure.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace Json {
class Value;
}

namespace config {}

namespace cmdbctl {

// The configuration engine's names (model, reader) are the subcommands' own.
using namespace config;

// Exit statuses, as the man page lists them.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;   // the command ran and failed
inline constexpr int kExitUsage = 2;    // bad command line: nothing was done
inline constexpr int kExitSandbox = 3;  // the private namespaces were refused

struct Options {
  bool json = false;
  bool verbose = false;
  bool sandbox = false;
  std::string schema;  // overrides the schema copy kept beside the region
  bool direct = false;  // write the region itself even when cmdbd keeps it
  std::string socket;   // cmdbd's socket, when not the default
  std::string comment;  // -m of a writing command: kept with its revision
  bool dry_run = false;  // --dry-run: cmdbd validates and says what would change
  uint32_t confirm_s = 0;  // --confirm: cmdbd rolls the change back unless confirmed in time
};

// `write_group` non-empty: the region is closed to all but root and that group.
int cmd_create(const Options& o, const std::string& schema_file, int platform, const std::string& write_group);
int cmd_destroy(const Options& o);
int cmd_info(const Options& o);
int cmd_log_level(const Options& o, std::optional<int> level);
int cmd_pages(const Options& o, bool raw);
// With `prune`, records of dead processes are cleared first.
int cmd_locks(const Options& o, bool prune);
int cmd_events(const Options& o, bool prune);
int cmd_domains(const Options& o);
int cmd_limits(const Options& o);
int cmd_dump(const Options& o, const std::optional<std::string>& only);
int cmd_get(const Options& o, const std::string& path, const std::string& domain);
// Without `merge` the contexts the file names become equal to it; with it, only
// what the file names changes. Input longer than `max_bytes` is refused.
int cmd_load(const Options& o, const std::string& file, bool merge, size_t max_bytes);
int cmd_set(const Options& o, const std::string& path, const std::vector<std::string>& assignments,
            const std::string& domain);
int cmd_delete(const Options& o, const std::string& path, const std::string& domain);
struct DomainArgs {
  std::string action;  // list, add, rename, remove
  std::string name, to;
  std::optional<uint32_t> id;
};
int cmd_domain(const Options& o, const DomainArgs& a);
// The whole-region check: 0 when the region is sound, 1 with each fault named.
int cmd_verify(const Options& o);
struct WatchArgs {
  std::vector<std::string> targets;  // tables or objects by path or gid
  std::string process;               // event process name; "" for watch<pid>
  std::string domain;                // only this context's events ("global" for the global one)
  bool data = true;
  int count = 0;  // stop after this many events; 0: until SIGINT/SIGTERM
};
int cmd_watch(const Options& o, const WatchArgs& w);
// A schema file's validity (and with `layout` every node's place), or its C header.
int cmd_schema_check(const Options& o, const std::string& file, bool layout);
int cmd_schema_header(const Options& o, const std::string& file, const std::string& output,
                      const std::string& prefix);
// The schema's tables and objects by path, one a line, for shell completion;
// nothing when no schema is at hand.
int cmd_completion_paths(const Options& o);
// Through cmdbd (tools/cmdbctl/daemon.cc): a region that cmdbd keeps is
// written only through it, unless --direct.
bool managed_by_cmdbd(const Options& o);
int cmdbd_set(const Options& o, const std::string& path, const std::vector<std::string>& assignments,
              const std::string& domain);
int cmdbd_delete(const Options& o, const std::string& path, const std::string& domain);
int cmdbd_load(const Options& o, const std::string& file, bool merge, size_t max_bytes);
// load's --max-size as a byte count: digits, optionally with K, M or G; a usage
// failure otherwise.
size_t max_size_option(const std::string& text);
int cmd_status(const Options& o);
// Revisions, through cmdbd: the newest `limit` (0: all kept), the
// configuration as of one, the differences between two (default: the one
// before the last, and the last), and a rollback as a new revision.
int cmd_history(const Options& o, uint64_t limit);
int cmd_show(const Options& o, uint64_t rev, const std::string& path, const std::string& domain);
int cmd_diff(const Options& o, std::optional<uint64_t> from, std::optional<uint64_t> to);
// What loading `file` would change in the running configuration.
int cmd_diff_file(const Options& o, const std::string& file, size_t max_bytes);
int cmd_rollback(const Options& o, uint64_t rev);
// Confirms the commit that awaits confirmation.
int cmd_confirm(const Options& o);
// Any request of operations through cmdbd; prints `done` and the revision.
int cmdbd_request(const Options& o, const Json::Value& operations, const std::string& done);
// Runs `command` (default: the user's shell) in a fresh sandbox and exits with its status.
int cmd_sandbox(const Options& o, std::vector<std::string> command);

// Prints a view: the table as text, or as JSON with --json.
class Table;
void print(const Options& o, const Table& t);

}  // namespace cmdbctl
