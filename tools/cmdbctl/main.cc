// cmdbctl: create, inspect and change the shared configuration region from the
// command line. Every subcommand is a short-lived process; see region.h for how
// each one attaches.
//
// A subcommand is one row of kCommands: its name, its group and summary for
// `cmdbctl help`, and a define_* function that declares its arguments and
// returns what runs it. Global options are accepted before and after the
// subcommand's name.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string_view>

#include <CLI/CLI.hpp>

#include "gikraidrum.h"
#include "gikraidrum/client.h"
#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/common/sandbox.h"

#ifndef GK_VERSION
#define GK_VERSION "unknown"
#endif

namespace {

bool g_verbose = false;
// Set once main has its status; an exit before that came from inside the library.
bool g_finished = false;
// The library's last log line, kept even when not shown: the fatal semaphore
// path logs its reason just before it exits.
char g_last_message[256];

}  // namespace

// The library reports through the host's logging; at the command line that is
// standard error, and only when asked for, so that a failure stays one line.
extern "C" void do_message(const char* fmt, va_list ap) noexcept {
  va_list copy;
  va_copy(copy, ap);
  vsnprintf(g_last_message, sizeof g_last_message, fmt, copy);
  va_end(copy);
  if (!g_verbose) return;
  fputs("cmdbctl: library: ", stderr);
  vfprintf(stderr, fmt, ap);
}

extern "C" void message(const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  do_message(fmt, ap);
  va_end(ap);
}

extern "C" void log_crash(const char* fmt, ...) noexcept {
  va_list ap;
  va_start(ap, fmt);
  do_message(fmt, ap);
  va_end(ap);
}

extern "C" void print_trace(int) noexcept {}

namespace {

using namespace cmdbctl;

// The library's only exit() is on a semaphore step that failed: the set was
// removed or its value changed under the process. Say so before the process
// ends with the library's status.
void explain_library_exit() {
  if (g_finished) return;
  fflush(stdout);
  int semid = -1, err = 0;
  const char* s = strstr(g_last_message, "semid=");
  const char* e = strstr(g_last_message, "errno=");
  std::string detail = "semop failed";
  if (s != nullptr && e != nullptr && sscanf(s, "semid=%d", &semid) == 1 && sscanf(e, "errno=%d", &err) == 1)
    detail = format("semop on set %d: %s", semid, strerror(err));
  fprintf(stderr, "cmdbctl: semaphore failure (%s): the region's locks were changed or removed\n", detail.c_str());
}

using Runner = std::function<int(const Options&)>;

struct Command {
  const char* name;
  const char* group;  // heading in `cmdbctl help`
  const char* summary;
  // Declares the arguments on `app`; the runner reads them once parsed.
  Runner (*define)(CLI::App* app);
};

[[noreturn]] void usage_error(const std::string& what) { throw Failure(what, kExitUsage); }

// The options of the writing commands, which only cmdbd honours.
struct WriteArgs {
  std::string comment;
  bool dry_run = false;
  uint32_t confirm_s = 0;
};

std::shared_ptr<WriteArgs> write_options(CLI::App* c) {
  auto w = std::make_shared<WriteArgs>();
  c->add_option("-m,--message", w->comment, "Comment kept with the revision (through cmdbd)");
  c->add_flag("--dry-run", w->dry_run, "Validate and print what would change; change nothing (through cmdbd)");
  c->add_option("--confirm", w->confirm_s,
                "cmdbd rolls the change back unless 'cmdbctl confirm' follows within SECONDS (through cmdbd)")
      ->check(CLI::Range(1, 86400));
  return w;
}

// The options with the command's; a direct write has nowhere to keep a
// comment, and nothing that could undo or preview it.
Options with_write_args(const Options& o, const WriteArgs& w, bool managed) {
  if (!managed && (!w.comment.empty() || w.dry_run || w.confirm_s != 0))
    usage_error(std::string(!w.comment.empty() ? "-m" : w.dry_run ? "--dry-run" : "--confirm") +
                ": only cmdbd honours it, and this write does not go through it");
  Options out = o;
  out.comment = w.comment;
  out.dry_run = w.dry_run;
  out.confirm_s = w.confirm_s;
  return out;
}

Runner define_create(CLI::App* c) {
  struct Args {
    std::string schema;
    int platform = -1;
    bool restricted = false;
    std::string group = "cmdb";
  };
  auto a = std::make_shared<Args>();
  c->add_option("--schema", a->schema, "Schema file (JSON) the region is built from");
  c->add_option("--platform", a->platform, "Platform index 1-29, which sizes the tables (default: the schema's)")
      ->check(CLI::Range(1, 29));
  c->add_flag("--restricted", a->restricted, "Close the region to all but root and the write group");
  c->add_option("--write-group", a->group, "The group a restricted region admits (name or gid)")
      ->capture_default_str();
  return [a](const Options& o) {
    std::string file = a->schema.empty() ? o.schema : a->schema;
    if (file.empty()) usage_error("create: --schema FILE is required");
    return cmd_create(o, file, a->platform, a->restricted ? a->group : std::string());
  };
}

Runner define_destroy(CLI::App*) {
  return [](const Options& o) { return cmd_destroy(o); };
}

Runner define_info(CLI::App*) {
  return [](const Options& o) { return cmd_info(o); };
}

Runner define_log_level(CLI::App* c) {
  auto level = std::make_shared<std::optional<int>>();
  c->add_option("level", *level, "New level 0-7: messages above it are dropped")->check(CLI::Range(0, 7));
  return [level](const Options& o) { return cmd_log_level(o, *level); };
}

Runner define_pages(CLI::App* c) {
  auto raw = std::make_shared<bool>(false);
  c->add_flag("--raw", *raw, "The library's own display (cmf_slab_display_page), text even with --json");
  return [raw](const Options& o) { return cmd_pages(o, *raw); };
}

Runner define_locks(CLI::App* c) {
  auto prune = std::make_shared<bool>(false);
  c->add_flag("--prune", *prune, "First clear the reader slots and statistics of dead processes");
  return [prune](const Options& o) { return cmd_locks(o, *prune); };
}

Runner define_events(CLI::App* c) {
  auto prune = std::make_shared<bool>(false);
  c->add_flag("--prune", *prune, "First remove the registrations (and sockets) of dead processes");
  return [prune](const Options& o) { return cmd_events(o, *prune); };
}

Runner define_domains(CLI::App*) {
  return [](const Options& o) { return cmd_domains(o); };
}

Runner define_limits(CLI::App*) {
  return [](const Options& o) { return cmd_limits(o); };
}

Runner define_dump(CLI::App* c) {
  auto only = std::make_shared<std::optional<std::string>>();
  c->add_option("--domain", *only, "Only this domain ('global' for the global context)");
  return [only](const Options& o) { return cmd_dump(o, *only); };
}

struct PathArgs {
  std::string path, domain;
  std::vector<std::string> assignments;
};

std::shared_ptr<PathArgs> path_args(CLI::App* c, const char* path_help) {
  auto a = std::make_shared<PathArgs>();
  c->add_option("path", a->path, path_help)->required();
  c->add_option("--domain", a->domain, "Domain to work in (default: the global context)");
  return a;
}

Runner define_get(CLI::App* c) {
  auto a = path_args(c, "TABLE, TABLE[KEY], TABLE[KEY].ATTR or OBJECT.ATTR, e.g. policy[p1].rule[10].port");
  return [a](const Options& o) { return cmd_get(o, a->path, a->domain); };
}

Runner define_set(CLI::App* c) {
  auto a = path_args(c, "OBJECT or TABLE[KEY], e.g. policy[p1]");
  c->add_option("assignments", a->assignments, "ATTR=VALUE ...")->required();
  auto m = write_options(c);
  return [a, m](const Options& o) {
    if (managed_by_cmdbd(o)) return cmdbd_set(with_write_args(o, *m, true), a->path, a->assignments, a->domain);
    with_write_args(o, *m, false);
#ifdef GK_CMDBCTL_WRITES
    return cmd_set(o, a->path, a->assignments, a->domain);
#else
    (void)o;
    fail("this cmdbctl was built without the writer");
#endif
  };
}

Runner define_delete(CLI::App* c) {
  auto a = path_args(c, "TABLE[KEY], e.g. policy[p1].rule[10]");
  auto m = write_options(c);
  return [a, m](const Options& o) {
    if (managed_by_cmdbd(o)) return cmdbd_delete(with_write_args(o, *m, true), a->path, a->domain);
    with_write_args(o, *m, false);
#ifdef GK_CMDBCTL_WRITES
    return cmd_delete(o, a->path, a->domain);
#else
    (void)o;
    fail("this cmdbctl was built without the writer");
#endif
  };
}

Runner define_load(CLI::App* c) {
  auto file = std::make_shared<std::string>();
  auto merge = std::make_shared<bool>(false);
  auto max_size = std::make_shared<std::string>("256M");
  c->add_option("file", *file, "JSON as dump prints it ('-' for standard input)")->required();
  c->add_flag("--merge", *merge, "Change only what the file names; remove nothing");
  c->add_option("--max-size", *max_size, "Refuse input longer than this (bytes, or with K, M or G)")
      ->capture_default_str();
  auto m = write_options(c);
  return [file, merge, max_size, m](const Options& o) {
    const size_t max_bytes = max_size_option(*max_size);
    if (managed_by_cmdbd(o)) return cmdbd_load(with_write_args(o, *m, true), *file, *merge, max_bytes);
    with_write_args(o, *m, false);
#ifdef GK_CMDBCTL_WRITES
    return cmd_load(o, *file, *merge, max_bytes);
#else
    (void)o;
    fail("this cmdbctl was built without the writer");
#endif
  };
}

// ---- the configuration engine's commands (domain, verify) ----

Runner define_domain(CLI::App* c) {
  auto a = std::make_shared<DomainArgs>();
  c->add_option("action", a->action, "list, add NAME [--id N], rename NAME NEW, remove NAME")->required();
  c->add_option("name", a->name, "The domain's name");
  c->add_option("new", a->to, "Its new name (rename)");
  c->add_option("--id", a->id, "Id of a new domain (default: one past the highest)")->check(CLI::Range(1, INT32_MAX));
  return [a](const Options& o) { return cmd_domain(o, *a); };
}

Runner define_verify(CLI::App*) {
  return [](const Options& o) { return cmd_verify(o); };
}

Runner define_watch(CLI::App* c) {
  auto w = std::make_shared<WatchArgs>();
  auto no_data = std::make_shared<bool>(false);
  c->add_option("objects", w->targets, "Tables or objects by name or gid")->required();
  c->add_option("--name", w->process, "Event process name (default: watch<pid>), at most 19 bytes");
  c->add_option("--domain", w->domain, "Print only the events of this domain ('global' for the global context)");
  c->add_flag("--no-data", *no_data, "Register without the changed data");
  c->add_option("--count", w->count, "Stop after this many events")->check(CLI::NonNegativeNumber);
  return [w, no_data](const Options& o) {
    w->data = !*no_data;
    return cmd_watch(o, *w);
  };
}

Runner define_schema(CLI::App* c) {
  struct Args {
    std::string file, output, prefix;
    bool layout = false;
  };
  auto a = std::make_shared<Args>();
  c->require_subcommand(1);
  c->fallthrough();  // global options after the second word too
  auto* check = c->add_subcommand("check", "Validate a schema file without creating a region");
  check->add_option("file", a->file, "Schema file (JSON)")->required();
  check->add_flag("--layout", a->layout, "List every node with its kind, type, offset and size");
  auto* header = c->add_subcommand("header", "Write a C header: gids, a packed struct per data part, accessors");
  header->add_option("file", a->file, "Schema file (JSON)")->required();
  header->add_option("-o,--output", a->output, "Header file to write (default: standard output)");
  header->add_option("--prefix", a->prefix, "Start of every name (default: the schema file's name)");
  return [a, header](const Options& o) {
    return header->parsed() ? cmd_schema_header(o, a->file, a->output, a->prefix)
                            : cmd_schema_check(o, a->file, a->layout);
  };
}

Runner define_status(CLI::App*) {
  return [](const Options& o) { return cmd_status(o); };
}

Runner define_history(CLI::App* c) {
  auto limit = std::make_shared<uint64_t>(0);
  c->add_option("--limit", *limit, "Only the newest N revisions (default: all kept)");
  return [limit](const Options& o) { return cmd_history(o, *limit); };
}

Runner define_show(CLI::App* c) {
  struct Args {
    uint64_t rev = 0;
    std::string path, domain;
  };
  auto a = std::make_shared<Args>();
  c->add_option("revision", a->rev, "The revision")->required();
  c->add_option("path", a->path, "Only what this path names, e.g. policy[p1] (default: the whole configuration)");
  c->add_option("--domain", a->domain, "Domain of the path (default: the global context)");
  return [a](const Options& o) { return cmd_show(o, a->rev, a->path, a->domain); };
}

Runner define_diff(CLI::App* c) {
  auto from = std::make_shared<std::optional<uint64_t>>();
  auto to = std::make_shared<std::optional<uint64_t>>();
  auto file = std::make_shared<std::string>();
  auto* revs = c->add_option("from", *from, "The older revision (default: the one before the newer)");
  c->add_option("to", *to, "The newer revision (default: the last)");
  c->add_option("--file", *file, "Compare this configuration file (JSON as dump prints it) with the running one")
      ->excludes(revs);
  return [from, to, file](const Options& o) {
    return file->empty() ? cmd_diff(o, *from, *to) : cmd_diff_file(o, *file, max_size_option("256M"));
  };
}

Runner define_rollback(CLI::App* c) {
  auto rev = std::make_shared<uint64_t>(0);
  c->add_option("revision", *rev, "The revision whose configuration comes back")->required();
  auto w = write_options(c);
  return [rev, w](const Options& o) { return cmd_rollback(with_write_args(o, *w, true), *rev); };
}

Runner define_confirm(CLI::App*) {
  return [](const Options& o) { return cmd_confirm(o); };
}

Runner define_sandbox(CLI::App* c) {
  // Everything after the first argument that is not one of ours is the command's.
  c->prefix_command();
  c->footer("COMMAND and its arguments follow the options; -- ends the options.");
  return [c](const Options& o) {
    std::vector<std::string> command = c->remaining();
    if (!command.empty() && command.front() == "--") command.erase(command.begin());
    return cmd_sandbox(o, command);
  };
}

Runner define_completion(CLI::App* c);

const Command kCommands[] = {
    {"create", "Region", "Create the region from a schema file, as its owner", define_create},
    {"destroy", "Region", "Remove the region's files and its main lock", define_destroy},
    {"info", "Region", "Header, version, last writer, log level and sub-region sizes", define_info},
    {"log-level", "Region", "Show or set the library's log level", define_log_level},
    {"status", "Region", "Whether cmdbd runs: its pid, revision, schema and store", define_status},
    {"sandbox", "Region", "Run a command (default: a shell) with a private region of its own", define_sandbox},
    {"verify", "Region", "Check the whole region; exit 1 with each fault named", define_verify},
    {"pages", "Views", "Allocator pages and slabs", define_pages},
    {"locks", "Views", "Semaphore values, readers by pid, lock statistics", define_locks},
    {"events", "Views", "Event registrations: which process hears of which object", define_events},
    {"domains", "Views", "Domains with their ids and root blocks", define_domains},
    {"limits", "Views", "Table size limits with live counts and warnings", define_limits},
    {"dump", "Configuration", "Print the configuration as JSON (load takes it back)", define_dump},
    {"get", "Configuration", "Print what a path names", define_get},
    {"load", "Configuration", "Make the contexts a JSON file names equal to it (--merge: change only what it names)",
     define_load},
    {"set", "Configuration", "Set attributes of an object or entry; a missing entry is created", define_set},
    {"delete", "Configuration", "Delete an entry and everything below it", define_delete},
    {"domain", "Configuration", "List, add, rename or remove domains", define_domain},
    {"history", "Revisions", "The revisions cmdbd keeps: who changed what, when", define_history},
    {"show", "Revisions", "Print the configuration as of a revision (or what a path named then)", define_show},
    {"diff", "Revisions", "Field-level differences between two revisions (default: the last change)", define_diff},
    {"rollback", "Revisions", "Make the configuration that of a revision again, as a new revision", define_rollback},
    {"confirm", "Revisions", "Confirm the change made with --confirm, so that cmdbd keeps it", define_confirm},
    {"watch", "Events", "Register for changes and print each event until SIGINT/SIGTERM", define_watch},
    {"schema", "Schemas", "Validate a schema file (check) or write its C header (header)", define_schema},
    {"completion", "Shell", "Print the bash completion script (bash), or the schema's tables (paths)",
     define_completion},
};

const Command* find_command(std::string_view name) {
  for (const Command& c : kCommands)
    if (name == c.name) return &c;
  return nullptr;
}

void add_global_options(CLI::App* app, Options* o) {
  app->add_flag("--json", o->json, "Print JSON instead of text");
  app->add_flag("-v,--verbose", o->verbose, "Show the library's log messages on standard error");
  // create has a --schema of its own: the file it builds from.
  if (app->get_option_no_throw("--schema") == nullptr)
    app->add_option("--schema", o->schema,
                    "Schema file that names the tables and attributes (default: the copy kept beside the region)");
  app->add_flag("--direct", o->direct, "Write the region itself, not through cmdbd: the change is not saved");
  app->add_option("--socket", o->socket, "cmdbd's socket (default " GK_CLIENT_DEFAULT_SOCKET ")");
  app->add_flag("--sandbox", o->sandbox,
                "Run in private namespaces: the current sandbox, or a fresh one with an empty " CMDB_DIR);
}

// The options a command declares, as the shell completes them.
std::string option_words(const Command& cmd) {
  CLI::App app{cmd.summary, cmd.name};
  cmd.define(&app);
  std::string words;
  for (const CLI::Option* opt : app.get_options()) {
    for (const std::string& n : opt->get_lnames()) words += " --" + n;
    for (const std::string& n : opt->get_snames()) words += " -" + n;
  }
  for (const CLI::App* sub : app.get_subcommands({})) words += " " + sub->get_name();
  return words;
}

// A bash completion script from the command table, so it never lags behind
// it; table and object names come from `cmdbctl completion paths` as typed.
int print_bash_completion() {
  std::string commands, cases;
  for (const Command& c : kCommands) {
    commands += std::string(commands.empty() ? "" : " ") + c.name;
    cases += format("    %s) opts=\"%s\" ;;\n", c.name, option_words(c).c_str());
  }
  printf("# bash completion for cmdbctl, generated by 'cmdbctl completion bash'\n"
         "_cmdbctl() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} cmd= opts= i\n"
         "  local globals='--json -v --verbose --schema --direct --socket --sandbox --help --version'\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    case ${COMP_WORDS[i]} in --schema) ((i++)) ;; -*) ;; *) cmd=${COMP_WORDS[i]}; break ;; esac\n"
         "  done\n"
         "  case $prev in --schema | -o | --output) COMPREPLY=($(compgen -f -- \"$cur\")); return ;; esac\n"
         "  if [[ -z $cmd ]]; then\n"
         "    COMPREPLY=($(compgen -W \"%s help version $globals\" -- \"$cur\")); return\n"
         "  fi\n"
         "  case $cmd in\n%s"
         "    help) COMPREPLY=($(compgen -W \"%s\" -- \"$cur\")); return ;;\n"
         "  esac\n"
         "  if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W \"$opts $globals\" -- \"$cur\")); return; fi\n"
         "  case $cmd in\n"
         "    get | set | delete | watch) COMPREPLY=($(compgen -W \"$(cmdbctl completion paths 2>/dev/null)\" -- \"$cur\")) ;;\n"
         "    schema) COMPREPLY=($(compgen -W \"$opts\" -f -- \"$cur\")) ;;\n"
         "    *) COMPREPLY=($(compgen -f -- \"$cur\")) ;;\n"
         "  esac\n"
         "}\n"
         "complete -F _cmdbctl cmdbctl\n",
         commands.c_str(), cases.c_str(), commands.c_str());
  return kExitOk;
}

Runner define_completion(CLI::App* c) {
  auto what = std::make_shared<std::string>();
  c->add_option("what", *what, "bash: the completion script; paths: the schema's tables and objects")
      ->required()
      ->check(CLI::IsMember({"bash", "paths"}));
  return [what](const Options& o) { return *what == "bash" ? print_bash_completion() : cmd_completion_paths(o); };
}

void print_overview(FILE* to) {
  fputs("usage: cmdbctl [--json] [-v] [--schema FILE] [--direct] [--socket PATH] [--sandbox] COMMAND [ARGS...]\n"
        "       cmdbctl help COMMAND | --version\n\n"
        "Create, inspect and change the shared configuration region in " CMDB_DIR ".\n",
        to);
  const char* group = "";
  for (const Command& c : kCommands) {
    if (strcmp(group, c.group) != 0) fprintf(to, "\n%s:\n", group = c.group);
    fprintf(to, "  %-12s%s\n", c.name, c.summary);
  }
  fputs("\nGlobal options, before or after the command:\n"
        "  --json        print JSON instead of text\n"
        "  -v            show the library's log messages on standard error\n"
        "  --schema FILE name tables and attributes from FILE, not the copy beside the region\n"
        "  --direct      write the region itself when cmdbd keeps it (not saved)\n"
        "  --socket PATH cmdbd's socket\n"
        "  --sandbox     run in private namespaces with a region of their own\n\n"
        "'cmdbctl help COMMAND' describes a command; exit statuses: 0 done, 1 failed, 2 bad usage.\n",
        to);
}

int print_version(const Options& o) {
  if (o.json)
    printf("{\n  \"cmdbctl\": \"%s\"\n}\n", GK_VERSION);
  else
    printf("cmdbctl %s\n", GK_VERSION);
  return kExitOk;
}

size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diag = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diag + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diag = up;
    }
  }
  return row[b.size()];
}

[[noreturn]] void unknown_command(const std::string& name) {
  if (!name.empty() && name[0] == '-') usage_error(format("unknown option '%s'; see 'cmdbctl help'", name.c_str()));
  std::string close;
  for (const Command& c : kCommands) {
    std::string_view n = c.name;
    bool prefix = name.size() >= 2 && n.substr(0, name.size()) == name;
    if (prefix || edit_distance(name, n) <= std::max<size_t>(1, name.size() / 3))
      close += std::string(close.empty() ? "'" : ", '") + c.name + "'";
  }
  if (close.empty())
    usage_error(format("'%s' is not a command; see 'cmdbctl help' for the list", name.c_str()));
  usage_error(format("'%s' is not a command; did you mean %s?", name.c_str(), close.c_str()));
}

// The global options and the command's name with everything after it.
std::vector<std::string> parse_global(int argc, char** argv, Options* o, bool* version) {
  CLI::App top{"", "cmdbctl"};
  add_global_options(&top, o);
  top.add_flag("--version", *version);
  top.prefix_command();
  try {
    top.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return {"help"};
  } catch (const CLI::ParseError& e) {
    usage_error(e.what());
  }
  return top.remaining();
}

// Parses a command's arguments on `app`; a request for help prints it and
// returns no runner.
Runner parse_command(const Command& cmd, CLI::App* app, std::vector<std::string> args, Options* o) {
  Runner run = cmd.define(app);
  add_global_options(app, o);
  std::reverse(args.begin(), args.end());  // CLI11 takes them last first
  try {
    app->parse(args);
  } catch (const CLI::CallForHelp&) {
    fputs(app->help().c_str(), stdout);
    return nullptr;
  } catch (const CLI::ParseError& e) {
    usage_error(format("%s: %s; see 'cmdbctl help %s'", cmd.name, e.what(), cmd.name));
  }
  return run;
}

void enter_sandbox() {
  std::string what;
  if (int err = gk::sandbox::enter(&what); err != 0)
    throw Failure(format("%s failed: %s\n%s", what.c_str(), strerror(err), gk::sandbox::requirements()),
                  kExitSandbox);
}

int run(int argc, char** argv) {
  Options o;
  bool version = false;
  std::vector<std::string> rest = parse_global(argc, argv, &o, &version);
  g_verbose = o.verbose;
  if (version) return print_version(o);
  if (rest.empty()) {
    print_overview(stderr);
    return kExitUsage;
  }
  std::string name = rest.front();
  rest.erase(rest.begin());
  if (name == "version") return print_version(o);
  if (name == "help") {
    if (rest.empty()) {
      print_overview(stdout);
      return kExitOk;
    }
    // `help CMD [SUB]` is `CMD [SUB] --help`.
    name = rest.front();
    rest.erase(rest.begin());
    rest.push_back("--help");
  }
  const Command* cmd = find_command(name);
  if (cmd == nullptr) unknown_command(name);
  CLI::App app{cmd->summary, std::string("cmdbctl ") + cmd->name};
  Runner runner = parse_command(*cmd, &app, rest, &o);
  if (runner == nullptr) return kExitOk;
  g_verbose = o.verbose;
  if (o.sandbox) enter_sandbox();
  return runner(o);
}

}  // namespace

int main(int argc, char** argv) {
  atexit(explain_library_exit);
  int status;
  try {
    status = run(argc, argv);
  } catch (const Failure& f) {
    fflush(stdout);
    fprintf(stderr, "cmdbctl: %s\n", f.what());
    status = f.status();
  } catch (const std::exception& e) {
    fflush(stdout);
    fprintf(stderr, "cmdbctl: %s\n", e.what());
    status = kExitFailed;
  }
  g_finished = true;
  return status;
}
