// `cmdbctl sandbox`: a shell or command with a private region, a private /tmp
// and IPC keys, and its own PID namespace, so nothing started inside outlives it.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "tools/common/sandbox.h"

namespace cmdbctl {
namespace {

constexpr const char* kPromptMark = "(cmdb sandbox) ";

bool ends_with(const std::string& s, const char* tail) {
  size_t n = strlen(tail);
  return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

// The user's shell with its prompt marked. bash sets PS1 in its rc files, so it
// gets an rc file of our own (in the sandbox's private /tmp) that reads the
// usual one and then adds the mark; other shells take PS1 from the environment.
std::vector<std::string> marked_shell() {
  const char* env = getenv("SHELL");
  std::string shell = env != nullptr && *env != '\0' ? env : "/bin/sh";
  if (ends_with(shell, "/bash") || shell == "bash") {
    const char* rc = "/tmp/.cmdb-sandbox.bashrc";
    write_file_atomically(rc, std::string("[ -f ~/.bashrc ] && . ~/.bashrc\nPS1='") + kPromptMark +
                                  "'\"${PS1-\\s-\\v\\$ }\"\n");
    return {shell, "--rcfile", rc, "-i"};
  }
  const char* ps1 = getenv("PS1");
  setenv("PS1", (std::string(kPromptMark) + (ps1 != nullptr ? ps1 : "$ ")).c_str(), 1);
  return {shell};
}

}  // namespace

int cmd_sandbox(const Options&, std::vector<std::string> command) {
  std::string what;
  if (int err = gk::sandbox::enter(&what, true, true); err != 0) {
    std::string why = gk::sandbox::requirements();
    why.pop_back();  // one trailing newline, main's
    throw Failure(format("%s failed: %s\n%s", what.c_str(), strerror(err), why.c_str()), kExitSandbox);
  }
  bool interactive = command.empty();
  if (interactive) command = marked_shell();
  fflush(stdout);
  int status = gk::sandbox::run(command);
  if (status < 0) throw Failure(format("cannot start the sandbox: %s", strerror(errno)), kExitSandbox);
  // Still in the sandbox's mount namespace: its region is visible until this process ends.
  if (interactive || region_exists())
    fprintf(stderr, "cmdbctl: left the sandbox: its region and every process started in it are gone\n");
  // The PID namespace of this process's children died with the sandbox's
  // init, so no new task can start here, not even an exit handler's thread
  // (a leak checker's tracer): end without them.
  fflush(nullptr);
  _exit(status);
}

}  // namespace cmdbctl
