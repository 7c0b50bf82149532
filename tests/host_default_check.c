/* A C99 host that defines no platform function: every call of the library
 * lands on its exported defaults, which must work on their own. */
#include <stdio.h>
#include <string.h>

#include "gikraidrum.h"

#define CHECK(cond)                                          \
  do {                                                       \
    if (!(cond)) {                                           \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                              \
    }                                                        \
  } while (0)

static int see_current(uint32_t id, uintptr_t arg) {
  uint32_t *seen = (uint32_t *)arg;
  seen[id - 1] = cmf_get_cur_domain_id();
  return 0;
}

int main(void) {
  static const unsigned char bytes[5] = {'a', 0, 'b', 0xff, 'c'};
  static uint32_t area[(sizeof(cmdb_domain_table_t) + 2 * sizeof(cmdb_domain_rec_t)) / 4];
  cmdb_domain_table_t *domains = (cmdb_domain_table_t *)area;
  uint32_t seen[2] = {0, 0};
  unsigned char out[8];
  char text[16];
  cmf_buf_t buf;

  /* The defaults report through dbg_cmdb; keep them out of the system log. */
  cmdb.flags |= CMDB_FLAG_DEBUG;

  CHECK(b64_encode(bytes, 5, text, sizeof text) == 8 && strcmp(text, "YQBi/2M=") == 0);
  CHECK(b64_decode(text, out, sizeof out) == 5 && memcmp(out, bytes, 5) == 0);
  CHECK(b64_decode("YQ=B", out, sizeof out) == -1);
  memset(&buf, 0, sizeof buf);
  CHECK(cmf_buf_append(&buf, bytes, 5) == 5 && cmf_buf_base64_encode(&buf) == 8);
  CHECK(cmf_buf_base64_decode(&buf) == 5 && memcmp(buf.data, bytes, 5) == 0);
  CHECK(cmf_buf_reset(&buf, "Y*==", 0) == 4 && cmf_buf_base64_decode(&buf) == -152);
  cmf_buf_free(&buf);

  CHECK(cmf_backup_non_ha_conf() < 0 && cmf_ha_exec_conf(NULL, 1, 2) < 0);
  CHECK(nCfg_query(5) == NULL);

  /* The default current domain is the library's own, and iteration switches it. */
  CHECK(cmf_get_cur_domain_id() == 0);
  cmf_set_cur_domain_id(9);
  domains->count = 2;
  domains->rec[0].id = 1;
  domains->rec[1].id = 2;
  cmdb.domain = domains;
  CHECK(cmf_iterate_all_domain(see_current, (uintptr_t)seen) == 0);
  CHECK(seen[0] == 1 && seen[1] == 2 && cmf_get_cur_domain_id() == 9);
  return 0;
}
