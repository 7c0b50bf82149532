// cmdbctl: create, inspect and change the shared configuration region from the
// command line. Every subcommand is a short-lived process; see region.h for how
// each one attaches.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "gikraidrum.h"
#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/common/sandbox.h"

namespace {
bool g_verbose = false;
}  // namespace

// The library reports through the host's logging; at the command line that is
// standard error, and only when asked for, so that a failure stays one line.
extern "C" void do_message(const char* fmt, va_list ap) noexcept {
  if (!g_verbose) return;
  fputs("cmdbctl: library: ", stderr);
  vfprintf(stderr, fmt, ap);
}

extern "C" void message(const char* fmt, ...) noexcept {
  if (!g_verbose) return;
  va_list ap;
  va_start(ap, fmt);
  do_message(fmt, ap);
  va_end(ap);
}

extern "C" void log_crash(const char* fmt, ...) noexcept {
  if (!g_verbose) return;
  va_list ap;
  va_start(ap, fmt);
  do_message(fmt, ap);
  va_end(ap);
}

extern "C" void print_trace(int) noexcept {}

namespace {

using namespace cmdbctl;

[[noreturn]] void run_in_sandbox(std::vector<std::string> command) {
  std::string what;
  if (int err = gk::sandbox::enter(&what, true); err != 0) {
    fprintf(stderr, "cmdbctl: %s failed: %s\n%s", what.c_str(), strerror(err), gk::sandbox::requirements());
    exit(2);
  }
  if (command.empty()) {
    const char* shell = getenv("SHELL");
    command.push_back(shell != nullptr && *shell != '\0' ? shell : "/bin/sh");
  }
  std::vector<char*> argv;
  for (std::string& a : command) argv.push_back(a.data());
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  fprintf(stderr, "cmdbctl: %s: %s\n", command[0].c_str(), strerror(errno));
  exit(127);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Create, inspect and change the shared configuration region in " CMDB_DIR "."};
  app.require_subcommand(1);
  app.fallthrough();
  Options o;
  bool sandbox = false;
  app.add_flag("--json", o.json, "Print JSON instead of text tables");
  app.add_flag("-v,--verbose", o.verbose, "Show the library's log messages on standard error");
  app.add_option("--schema", o.schema,
                 "Schema file that names the tables and attributes (default: the copy kept beside the region)");
  app.add_flag("--sandbox", sandbox,
               "Run in fresh private mount and IPC namespaces (a private, empty " CMDB_DIR ", /tmp and IPC keys)");

  std::string schema_file;
  int platform = -1;
  auto* create = app.add_subcommand("create", "Create the region from a schema file, as its owner");
  create->add_option("--schema", schema_file, "Schema file (JSON)")->required();
  create->add_option("--platform", platform, "Platform index 0-29 (default: the schema's, else 0)")
      ->check(CLI::Range(0, 29));
  auto* destroy = app.add_subcommand("destroy", "Remove the region's files and its main lock");

  app.add_subcommand("info", "Header, version, last writer, log level and sub-region sizes");
  std::optional<int> level;
  auto* log_level = app.add_subcommand("log-level", "Show or set the library's log level");
  log_level->add_option("level", level, "New level (messages above it are dropped)")->check(CLI::Range(0, 255));
  bool raw = false;
  auto* pages = app.add_subcommand("pages", "Allocator pages and slabs");
  pages->add_flag("--raw", raw, "The library's own display (cmf_slab_display_page), text even with --json");
  app.add_subcommand("locks", "Semaphore values, readers by pid, lock statistics");
  app.add_subcommand("events", "Event registrations: which process hears of which object");
  app.add_subcommand("domains", "Domains with their ids and root blocks");
  app.add_subcommand("limits", "Table size limits with live counts and warnings");

  std::optional<std::string> only;
  auto* dump = app.add_subcommand("dump", "Print the configuration as JSON (load takes it back)");
  dump->add_option("--domain", only, "Only this domain ('global' for the global context)");

  std::string path, domain;
  auto* get = app.add_subcommand("get", "Print what a path names: TABLE, TABLE[KEY], TABLE[KEY].ATTR, OBJECT.ATTR");
  get->add_option("path", path, "Path such as policy[p1].rule[10].port")->required();
  get->add_option("--domain", domain, "Domain to read in (default: the global context)");

  std::string load_file;
  auto* load = app.add_subcommand("load", "Replace the configuration of the contexts a JSON file names");
  load->add_option("file", load_file, "JSON as dump prints it ('-' for standard input)")->required();

  std::vector<std::string> assignments;
  auto* set = app.add_subcommand("set", "Set attributes of an object or entry; a missing entry is created");
  set->add_option("path", path, "OBJECT or TABLE[KEY], e.g. policy[p1]")->required();
  set->add_option("assignments", assignments, "ATTR=VALUE ...")->required();
  set->add_option("--domain", domain, "Domain to change (default: the global context)");

  auto* del = app.add_subcommand("delete", "Delete an entry and everything below it");
  del->add_option("path", path, "TABLE[KEY], e.g. policy[p1].rule[10]")->required();
  del->add_option("--domain", domain, "Domain to change (default: the global context)");

  std::vector<std::string> targets;
  std::string process;
  bool no_data = false;
  int count = 0;
  auto* watch = app.add_subcommand("watch", "Register for changes and print each event until SIGINT/SIGTERM");
  watch->add_option("objects", targets, "Tables or objects by name or gid")->required();
  watch->add_option("--name", process, "Event process name (default: watch<pid>), at most 19 bytes");
  watch->add_flag("--no-data", no_data, "Register without the changed data");
  watch->add_option("--count", count, "Stop after this many events")->check(CLI::NonNegativeNumber);

  std::vector<std::string> command;
  auto* box = app.add_subcommand("sandbox", "Run a command (default: a shell) in fresh private namespaces");
  box->add_option("command", command, "Command and its arguments (after --)");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  g_verbose = o.verbose;
  if (box->parsed()) run_in_sandbox(command);
  if (sandbox) {
    std::string what;
    if (int err = gk::sandbox::enter(&what, true); err != 0) {
      fprintf(stderr, "cmdbctl: %s failed: %s\n%s", what.c_str(), strerror(err), gk::sandbox::requirements());
      return 2;
    }
  }
  try {
    if (create->parsed()) return cmd_create(o, schema_file, platform);
    if (destroy->parsed()) return cmd_destroy(o);
    if (app.got_subcommand("info")) return cmd_info(o);
    if (log_level->parsed()) return cmd_log_level(o, level);
    if (pages->parsed()) return cmd_pages(o, raw);
    if (app.got_subcommand("locks")) return cmd_locks(o);
    if (app.got_subcommand("events")) return cmd_events(o);
    if (app.got_subcommand("domains")) return cmd_domains(o);
    if (app.got_subcommand("limits")) return cmd_limits(o);
    if (dump->parsed()) return cmd_dump(o, only);
    if (get->parsed()) return cmd_get(o, path, domain);
#ifdef GK_CMDBCTL_WRITES
    if (load->parsed()) return cmd_load(o, load_file);
    if (set->parsed()) return cmd_set(o, path, assignments, domain);
    if (del->parsed()) return cmd_delete(o, path, domain);
#else
    if (load->parsed() || set->parsed() || del->parsed()) fail("this cmdbctl was built without the writer");
#endif
    if (watch->parsed()) return cmd_watch(o, targets, process, !no_data, count);
  } catch (const Failure& f) {
    fflush(stdout);
    fprintf(stderr, "cmdbctl: %s\n", f.what());
    return f.status();
  } catch (const std::exception& e) {
    fflush(stdout);
    fprintf(stderr, "cmdbctl: %s\n", e.what());
    return 1;
  }
  return 0;
}
