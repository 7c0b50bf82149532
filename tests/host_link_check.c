/* A host program linked against the shared library that defines the platform
 * logging functions itself: every message of the library must reach them. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "gikraidrum.h"

static char g_seen[4096];

void do_message(const char *fmt, va_list ap) {
  size_t used = strlen(g_seen);
  vsnprintf(g_seen + used, sizeof g_seen - used, fmt, ap);
}

void message(const char *fmt, ...) {
  va_list ap;
  size_t used = strlen(g_seen);
  va_start(ap, fmt);
  vsnprintf(g_seen + used, sizeof g_seen - used, fmt, ap);
  va_end(ap);
}

int main(void) {
  cmf_buf_t buf;
  dbg_cmdb(5, "host sees %s %d\n", "level", 5);
  if (strcmp(g_seen, "host sees level 5\n") != 0) {
    fprintf(stderr, "do_message was not the host's: [%s]\n", g_seen);
    return 1;
  }
  g_seen[0] = '\0';
  cmf_restore_unlock(1000); /* not an open descriptor: the failure goes to message() */
  if (strstr(g_seen, "cmf_restore_unlock:402 => proc ") == NULL) {
    fprintf(stderr, "message was not the host's: [%s]\n", g_seen);
    return 1;
  }
  memset(&buf, 0, sizeof buf);
  if (cmf_buf_snprintf(&buf, "%s-%d", "ok", 7) != 0 || strcmp(buf.data, "ok-7") != 0) return 1;
  cmf_buf_free(&buf);
  return 0;
}
