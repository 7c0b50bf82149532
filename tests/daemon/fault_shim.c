/* Preloaded into cmdbd by the tests: makes writes or syncs of the store fail
 * while the file named by GK_FAULT_FILE says so ("write ENOSPC", "sync EIO"). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The errno a call of kind `what` on `fd` must fail with, or 0. */
static int fault(int fd, const char *what) {
  const char *control = getenv("GK_FAULT_FILE");
  char link[64], path[512], rule[64] = {0};
  if (control == NULL) return 0;
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, path, sizeof path - 1);
  if (n <= 0) return 0;
  path[n] = '\0';
  if (strstr(path, "cmdb.sqlite") == NULL) return 0;
  int c = open(control, O_RDONLY | O_CLOEXEC);
  if (c < 0) return 0;
  n = read(c, rule, sizeof rule - 1);
  close(c);
  if (n <= 0 || strncmp(rule, what, strlen(what)) != 0) return 0;
  return strstr(rule, "ENOSPC") != NULL ? ENOSPC : EIO;
}

#define PASS(name, ret, params, args, kind, fd)            \
  ret name params {                                         \
    static ret(*real) params;                               \
    int err = fault(fd, kind);                              \
    if (err != 0) {                                         \
      errno = err;                                          \
      return -1;                                            \
    }                                                       \
    if (real == NULL) *(void **)&real = dlsym(RTLD_NEXT, #name); \
    return real args;                                       \
  }

PASS(write, ssize_t, (int fd, const void *b, size_t n), (fd, b, n), "write", fd)
PASS(pwrite, ssize_t, (int fd, const void *b, size_t n, off_t o), (fd, b, n, o), "write", fd)
PASS(pwrite64, ssize_t, (int fd, const void *b, size_t n, off_t o), (fd, b, n, o), "write", fd)
PASS(fsync, int, (int fd), (fd), "sync", fd)
PASS(fdatasync, int, (int fd), (fd), "sync", fd)
