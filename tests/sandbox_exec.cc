// Runs a program inside the test sandbox, so host programs built against the
// library may use its fixed paths and IPC keys as freely as the test binaries.
#include <stdio.h>
#include <unistd.h>

#include "tests/sandbox.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s program [argument...]\n", argv[0]);
    return 2;
  }
  gk::test::enter_sandbox();
  ::execv(argv[1], argv + 1);
  perror(argv[1]);
  return 127;
}
