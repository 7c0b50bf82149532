// Every test and benchmark process runs in private mount and IPC namespaces
// with fresh tmpfs on /dev/cmdb and /tmp, so the fixed paths and IPC keys of the
// library never reach the host's, and ctest can run tests in parallel.
#include "tests/sandbox.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "tools/common/sandbox.h"

namespace gk::test {

void enter_sandbox() {
  std::string what;
  if (int err = gk::sandbox::enter(&what); err != 0) {
    fprintf(stderr, "test sandbox: %s failed: %s.\nThe tests need them. %s", what.c_str(), strerror(err),
            gk::sandbox::requirements());
    exit(2);
  }
}

}  // namespace gk::test
