/* A host linked with -rdynamic that dlopens the library: the library's calls to
 * the platform functions must reach the definitions of the executable. */
#include <dlfcn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "gikraidrum.h"

static char g_seen[1024];
static uint32_t g_domain = 77;
static int g_domain_calls;

void do_message(const char *fmt, va_list ap) { vsnprintf(g_seen, sizeof g_seen, fmt, ap); }
uint32_t cmf_get_cur_domain_id(void) { return ++g_domain_calls, g_domain; }
void cmf_set_cur_domain_id(uint32_t id) { ++g_domain_calls, g_domain = id; }

static int see_current(uint32_t id, uintptr_t arg) {
  uint32_t *seen = (uint32_t *)arg;
  seen[id - 1] = g_domain;
  return 0;
}

#define LOOKUP(lib, name, fn) (*(void **)(&(fn)) = dlsym(lib, name), (fn) != NULL)

int main(int argc, char **argv) {
  void *lib;
  void (*log_fn)(uint32_t, const char *, ...);
  int (*iterate)(cmdb_domain_visitor, uintptr_t);
  cmdb_record_t *record;
  static uint32_t area[(sizeof(cmdb_domain_table_t) + 2 * sizeof(cmdb_domain_rec_t)) / 4];
  cmdb_domain_table_t *domains = (cmdb_domain_table_t *)area;
  uint32_t seen[2] = {0, 0};
  if (argc < 2) return 2;
  lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  if (!LOOKUP(lib, "dbg_cmdb", log_fn) || !LOOKUP(lib, "cmf_iterate_all_domain", iterate)) return 1;
  log_fn(3, "from the library %d\n", 3);
  if (strcmp(g_seen, "from the library 3\n") != 0) {
    fprintf(stderr, "do_message was not the host's: [%s]\n", g_seen);
    return 1;
  }

  record = (cmdb_record_t *)dlsym(lib, "cmdb");
  if (record == NULL) return 1;
  domains->count = 2;
  domains->rec[0].id = 1;
  domains->rec[1].id = 2;
  record->domain = domains;
  if (iterate(see_current, (uintptr_t)seen) != 0 || seen[0] != 1 || seen[1] != 2 || g_domain != 77 ||
      g_domain_calls != 4) {
    fprintf(stderr, "the current domain was not the host's: %u %u %u (%d calls)\n", seen[0], seen[1], g_domain,
            g_domain_calls);
    return 1;
  }
  record->domain = NULL;
  dlclose(lib);
  return 0;
}
