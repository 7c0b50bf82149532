// The owner of the region: creates it from a schema file, and writes one
// interface entry through the configuration writer. Getting started, step 1
// and 3 (docs/getting-started.md).
//   owner create examples/appliance.json
//   owner insert 1 eth0
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "gikraidrum.h"
#include "tools/schema/schema_loader.h"
#include "writer/config_writer.h"

namespace {

constexpr uint16_t kInterfaceGid = 120;  // table "interface" of examples/appliance.json

int create(const char* path) {
  schema::Schema s;  // must outlive cmf_shm_create
  std::string error;
  if (schema::load_file(path, &s, &error) != 0) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  static uint8_t services[CMDB_SERVICES * CMDB_SERVICE_SIZE];  // no services on this appliance
  if (cmf_shm_create_init() != 0) return 1;  // daemon_status, as the init process makes it
  cmdb.platform = s.platform().value_or(0);
  cmdb.schema = s.root();
  cmdb.service_table = services;
  cmdb.host_total = 0;
  if (cmf_shm_create() != 0) return 1;  // prints the creation summary
  // The owner's first attachment sets up the allocator's shared directories.
  if (init_cmdb_app_core(2) != 0) return 1;
  cleanup_cmdb_app_core();
  return 0;
}

int insert(uint32_t index, const char* name) {
  if (init_cmdb_app_core(2) != 0) return 1;  // only the owner mode can allocate
  writer::ConfigWriter w;
  std::vector<uint8_t> entry = w.defaults(kInterfaceGid);  // mtu 1500, enabled, netmask /24
  memcpy(entry.data() + 0, &index, 4);                     // "index": the key, offset 0
  strncpy(reinterpret_cast<char*>(entry.data() + 4), name, 15);  // "name": offset 4, 16 bytes
  int r = w.begin();                                        // main lock, exclusive
  if (r == 0) r = w.insert(writer::Location(0, kInterfaceGid), entry.data());
  int c = w.commit();  // version +1, unlock, then the event to every registered daemon
  if (r != 0 || c != 0) fprintf(stderr, "insert: %s\n", w.error().c_str());
  cleanup_cmdb_app_core();
  return r != 0 || c != 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "create") == 0) return create(argv[2]);
  if (argc == 4 && strcmp(argv[1], "insert") == 0) return insert(static_cast<uint32_t>(atoi(argv[2])), argv[3]);
  fprintf(stderr, "usage: %s create SCHEMA.json | insert INDEX NAME\n", argv[0]);
  return 2;
}
