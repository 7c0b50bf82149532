/* A reader: looks an interface up by its key, under the shared lock.
 * Getting started, step 2 (docs/getting-started.md).   reader 1 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "gikraidrum.h"

#define INTERFACE_GID 120 /* table "interface" of examples/appliance.json */

int main(int argc, char **argv) {
  uint32_t index = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 1;
  char name[17] = "";
  int pos = -1;
  uint32_t *slot;
  void *table;

  if (init_cmdb_app_core(1) != 0) { /* attach as an ordinary reader */
    fprintf(stderr, "reader: no region to attach\n");
    return 1;
  }
  cmf_shm_read_lock();
  slot = cmdb_find_root_entity(0, INTERFACE_GID); /* the global context's instance */
  table = slot != NULL && *slot != 0 ? cmf_ptr_from_shmid(*slot, 0) : NULL;
  if (table != NULL) pos = __cmf_svr_find_table_entry(table, &index); /* by key, through the index */
  if (pos >= 0) {
    const char *data = cmf_get_entry_data(table, (uint32_t)pos);
    memcpy(name, data + 4, 16); /* "name": offset 4, 16 bytes */
  }
  cmf_shm_read_unlock(); /* pointers into the region are not kept past here */
  cmdb_save_version();   /* later, cmdb_version_changed() tells whether to read again */
  cleanup_cmdb_app_core();

  if (pos < 0) {
    printf("interface %u: none\n", index);
    return 1;
  }
  printf("interface %u: %s\n", index, name);
  return 0;
}
