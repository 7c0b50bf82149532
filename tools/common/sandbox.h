// Private mount and IPC namespaces with fresh tmpfs on /dev/cmdb and /tmp, so the
// library's fixed paths and IPC keys never reach the host's region. Shared by the
// tests, the benchmarks and cmdbctl --sandbox.
#pragma once

#include <string>

namespace gk::sandbox {

// True when this process (or an ancestor that exec'ed it) already entered one.
bool inside();

// Enters a sandbox. Inside one already, `fresh` makes a new one nested in it
// (a private region of its own); otherwise the call keeps the one it is in, as
// test programs that re-exec themselves need. Returns 0, or the errno value of
// the step that failed with *what naming it. Must run while the process has one
// thread.
int enter(std::string* what, bool fresh = false);

// What to tell a person whose machine refuses the namespaces.
const char* requirements();

}  // namespace gk::sandbox
