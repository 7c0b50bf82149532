/* A reader: looks an interface up by its key, under the shared lock.
 * Getting started, step 2 (docs/getting-started.md).   reader 1
 * appliance_schema.h is generated from the schema, so no gid or byte offset is
 * written here by hand:
 *   cmdbctl schema header examples/appliance.json -o appliance_schema.h */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "appliance_schema.h"
#include "gikraidrum.h"

int main(int argc, char **argv) {
  uint32_t index = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 1;
  char name[APPLIANCE_INTERFACE_NAME_SIZE] = "";
  uint16_t mtu = 0;
  int pos = -1;
  uint32_t *slot;
  void *table;

  if (init_cmdb_app_core(1) != 0) { /* attach as an ordinary reader */
    fprintf(stderr, "reader: no region to attach\n");
    return 1;
  }
  cmf_shm_read_lock();
  slot = cmdb_find_root_entity(0, APPLIANCE_INTERFACE_GID); /* the global context's instance */
  table = slot != NULL && *slot != 0 ? cmf_ptr_from_shmid(*slot, 0) : NULL;
  if (table != NULL) pos = __cmf_svr_find_table_entry(table, &index); /* by key, through the index */
  if (pos >= 0) {
    const void *entry = cmf_get_entry_data(table, (uint32_t)pos);
    appliance_interface_get_name(entry, name); /* copies, so nothing points into the region */
    mtu = appliance_interface_get_mtu(entry);
  }
  cmf_shm_read_unlock(); /* pointers into the region are not kept past here */
  cmdb_save_version();   /* later, cmdb_version_changed() tells whether to read again */
  cleanup_cmdb_app_core();

  if (pos < 0) {
    printf("interface %u: none\n", index);
    return 1;
  }
  printf("interface %u: %s\n  mtu %u\n", index, name, mtu);
  return 0;
}
