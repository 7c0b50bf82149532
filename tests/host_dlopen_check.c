/* A host linked with -rdynamic that dlopens the library: the library's calls to
 * the platform functions must reach the definitions of the executable. */
#include <dlfcn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

static char g_seen[1024];
static uint32_t g_domain = 77;

void do_message(const char *fmt, va_list ap) { vsnprintf(g_seen, sizeof g_seen, fmt, ap); }
uint32_t cmf_get_cur_domain_id(void) { return g_domain; }
void cmf_set_cur_domain_id(uint32_t id) { g_domain = id; }

int main(int argc, char **argv) {
  void *lib;
  void (*log_fn)(uint32_t, const char *, ...);
  if (argc < 2) return 2;
  lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 1;
  }
  *(void **)(&log_fn) = dlsym(lib, "dbg_cmdb");
  if (log_fn == NULL) return 1;
  log_fn(3, "from the library %d\n", 3);
  if (strcmp(g_seen, "from the library 3\n") != 0) {
    fprintf(stderr, "do_message was not the host's: [%s]\n", g_seen);
    return 1;
  }
  dlclose(lib);
  return 0;
}
