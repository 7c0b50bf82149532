// Hand-built node records: the `cmdb_node_index` and `cmdb_node` sub-regions
// holding just the nodes a test names, mapped the way an attached process has
// them (cmdb.cmdb_node_index, cmdb.cmdb_node).
#pragma once

#include <stdint.h>

#include <initializer_list>

#include "gikraidrum.h"

namespace gk::test {

struct NodeDef {
  uint16_t gid;
  uint8_t kind;
  uint8_t type;
  uint16_t size;
  uint16_t offset;
};

class NodeTable {
 public:
  // Records follow one another from a non-zero offset (0 in the index means no node).
  explicit NodeTable(std::initializer_list<NodeDef> nodes);
  ~NodeTable();
  NodeTable(const NodeTable&) = delete;
  NodeTable& operator=(const NodeTable&) = delete;
  cmdb_node_t* node(uint16_t gid) const;

 private:
  void* index_ = nullptr;
  void* nodes_ = nullptr;
};

// A new file of `len` zero bytes in /dev/cmdb, mapped shared read-write; aborts on failure.
void* map_region_file(const char* name, size_t len);

}  // namespace gk::test
