// Private mount and IPC namespaces with fresh tmpfs on /dev/cmdb and /tmp.
#pragma once

namespace gk::test {
// Enters the sandbox or ends the process with status 2 and the reason why.
// Must run while the process has one thread.
void enter_sandbox();
}  // namespace gk::test
