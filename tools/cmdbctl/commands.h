// The subcommands. Each returns the exit status; failures throw Failure.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cmdbctl {

struct Options {
  bool json = false;
  bool verbose = false;
  std::string schema;  // overrides the schema copy kept beside the region
};

int cmd_create(const Options& o, const std::string& schema_file, int platform);
int cmd_destroy(const Options& o);
int cmd_info(const Options& o);
int cmd_log_level(const Options& o, std::optional<int> level);
int cmd_pages(const Options& o, bool raw);
int cmd_locks(const Options& o);
int cmd_events(const Options& o);
int cmd_domains(const Options& o);
int cmd_limits(const Options& o);
int cmd_dump(const Options& o, const std::optional<std::string>& only);
int cmd_get(const Options& o, const std::string& path, const std::string& domain);
int cmd_load(const Options& o, const std::string& file);
int cmd_set(const Options& o, const std::string& path, const std::vector<std::string>& assignments,
            const std::string& domain);
int cmd_delete(const Options& o, const std::string& path, const std::string& domain);
int cmd_watch(const Options& o, const std::vector<std::string>& targets, const std::string& process, bool data,
              int count);

// Prints a view: the table as text, or as JSON with --json.
class Table;
void print(const Options& o, const Table& t);

}  // namespace cmdbctl
