/* A C99 host linked against the shared library that defines some platform
 * functions itself: the library must reach the host's definitions, and keep
 * its own defaults for the ones the host leaves out (here b64_decode). */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "gikraidrum.h"

static char g_seen[4096];
static unsigned char g_block[20];
static const char *g_text;

#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: %s [%s]\n", __FILE__, __LINE__, #cond, g_seen); \
      return 1;                                                  \
    }                                                            \
  } while (0)

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

int cmf_do_backup_conf(uintptr_t first, const char *text, const void *block) {
  g_text = text;
  memcpy(g_block, block, sizeof g_block);
  return first == 0 ? 40 : -1;
}

/* Not base64 at all: proves the buffer calls the host's encoder. */
int b64_encode(const unsigned char *src, int srclen, char *dst, int dstlen) {
  (void)src;
  return snprintf(dst, (size_t)dstlen, "<%d bytes>", srclen);
}

int main(void) {
  cmf_buf_t buf;
  dbg_cmdb(5, "host sees %s %d\n", "level", 5);
  CHECK(strcmp(g_seen, "host sees level 5\n") == 0);
  g_seen[0] = '\0';
  cmf_restore_unlock(1000); /* not an open descriptor: the failure goes to message() */
  CHECK(strstr(g_seen, "cmf_restore_unlock:402 => proc ") != NULL);

  CHECK(cmf_backup_system_conf("running", 9) == 40);
  CHECK(strcmp(g_text, "running") == 0 && g_block[0] == 0 && g_block[2] == 9);

  memset(&buf, 0, sizeof buf);
  CHECK(cmf_buf_snprintf(&buf, "%s-%d", "ok", 7) == 0 && strcmp(buf.data, "ok-7") == 0);
  CHECK(cmf_buf_base64_encode(&buf) == 9 && strcmp(buf.data, "<4 bytes>") == 0);
  CHECK(cmf_buf_reset(&buf, "YWJj", 0) == 4 && cmf_buf_base64_decode(&buf) == 3);
  CHECK(memcmp(buf.data, "abc", 4) == 0);
  cmf_buf_free(&buf);

  /* The boot values of an init process: daemon_status mapped only per access. */
  CHECK(cmf_shm_create_init() == 0);
  set_init0_reload_value(42);
  CHECK(get_init0_reload_value() == 42 && cmdb.daemon_status == NULL);
  return 0;
}
