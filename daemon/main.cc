// cmdbd: the owner daemon of the configuration region. Runs in the foreground,
// logs to standard error (the journal under systemd), and reports readiness
// to systemd once it serves requests.
#include <errno.h>
#include <grp.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <systemd/sd-daemon.h>

#include "daemon/daemon.h"
#include "daemon/log.h"
#include "tools/common/group.h"

// The library's messages join the daemon's log.
extern "C" void do_message(const char* fmt, va_list ap) noexcept {
  char line[1024];
  vsnprintf(line, sizeof line, fmt, ap);
  size_t n = strlen(line);
  while (n > 0 && line[n - 1] == '\n') line[--n] = '\0';
  cmdbd::log(cmdbd::kInfo, "library: %s", line);
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

// A group by name or number.
bool resolve_group(const std::string& text, gid_t* gid, std::string* error) {
  const std::optional<gid_t> g = gk::find_group(text);
  if (g) *gid = *g;
  else *error = "no group '" + text + "': create it (cmdbd's sysusers.d entry does), or name another with --write-group";
  return g.has_value();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"cmdbd: the owner of the configuration region; every change it acknowledges is on disk."};
  cmdbd::Options o;
  std::string group = cmdbd::kDefaultGroup;
  bool verbose = false;
  app.add_option("--schema", o.schema, "Schema file (JSON) the region is built from")->required();
  app.add_option("--state-dir", o.state_dir, "Directory of the store")->capture_default_str();
  app.add_option("--socket", o.socket, "Request socket")->capture_default_str();
  app.add_option("--platform", o.platform, "Platform index 0-29 for a new region (default: the schema's, else 0)")
      ->check(CLI::Range(0, 29));
  app.add_option("--write-group", group, "Group (name or gid) whose members may change the configuration")
      ->capture_default_str();
  app.add_option("--keep", o.keep, "Revisions to keep")->capture_default_str()->check(CLI::Range(1u, 1000000u));
  app.add_flag("--migrate", o.migrate, "Carry the configuration over to a schema that differs from the store's");
  app.add_flag("--restricted", o.restricted, "Create the region closed to all but root and the write group");
  app.add_flag("-v,--verbose", verbose, "Log debugging detail");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  cmdbd::set_log_level(verbose ? cmdbd::kDebug : cmdbd::kInfo);

  std::string error;
  if (!resolve_group(group, &o.write_gid, &error)) {
    cmdbd::log(cmdbd::kError, "%s", error.c_str());
    return 1;
  }
  // Signals arrive through a descriptor the request loop polls, so that a
  // batch in hand always finishes.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  signal(SIGPIPE, SIG_IGN);
  int stop_fd = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
  if (stop_fd < 0) {
    cmdbd::log(cmdbd::kError, "signalfd: %s", strerror(errno));
    return 1;
  }
  ::umask(027);

  cmdbd::Daemon d(o);
  if (d.start(&error) != 0) {
    cmdbd::log(cmdbd::kError, "%s", error.c_str());
    sd_notifyf(0, "STATUS=failed: %s", error.c_str());
    return 1;
  }
  sd_notifyf(0, "READY=1\nSTATUS=serving %s\nMAINPID=%d", o.socket.c_str(), static_cast<int>(getpid()));
  int status = d.serve(stop_fd);
  sd_notify(0, "STOPPING=1");
  return status;
}
