// Private mount and IPC namespaces with fresh tmpfs on /dev/cmdb, /tmp,
// /run/cmdb and /var/lib/cmdb, so the library's fixed paths and IPC keys and the
// owner daemon's socket and store never reach the host's. A folder under /tmp
// that holds the working directory is bound back in. Shared by the
// tests, the benchmarks and cmdbctl --sandbox.
#pragma once

#include <string>
#include <vector>

namespace gk::sandbox {

// True when this process (or an ancestor that exec'ed it) already entered one.
bool inside();

// Enters a sandbox. Inside one already, `fresh` makes a new one nested in it
// (a private region of its own); otherwise the call keeps the one it is in, as
// test programs that re-exec themselves need. With `own_pids` the process's
// next child starts a PID namespace (see run()). Returns 0, or the errno value
// of the step that failed with *what naming it. Must run while the process has
// one thread.
int enter(std::string* what, bool fresh = false, bool own_pids = false);

// After enter(..., own_pids = true): runs `argv` as the only child of a small
// init process, the first of the new PID namespace, and waits for it. When the
// command ends, the init ends and the kernel ends everything else started in
// the sandbox. SIGTERM and SIGHUP are passed on to the command; SIGINT and
// SIGQUIT from the terminal reach it directly. Returns the command's exit
// status, 128 + N for a signal N, 127 when it cannot be found and 126 when it
// cannot be run; or -1 with errno set when the init cannot be started.
int run(const std::vector<std::string>& argv);

// What to tell a person whose machine refuses the namespaces.
const char* requirements();

}  // namespace gk::sandbox
