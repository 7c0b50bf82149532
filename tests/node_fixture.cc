#include "tests/node_fixture.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace gk::test {
namespace {
constexpr size_t kIndexBytes = 7444;
constexpr size_t kNodeBytes = 1 << 18;
}  // namespace

void* map_region_file(const char* name, size_t len) {
  std::string path = std::string(CMDB_DIR) + name;
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(len)) != 0) abort();
  void* p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) abort();
  return p;
}

NodeTable::NodeTable(std::initializer_list<NodeDef> nodes)
    : index_(map_region_file("cmdb_node_index", kIndexBytes)),
      nodes_(map_region_file("cmdb_node", kNodeBytes)) {
  uint32_t off = 8;
  for (const NodeDef& s : nodes) {
    bool has_defaults = s.kind == 2 || s.kind == 3 || s.kind == 4 || s.kind == 8;
    uint32_t len = (sizeof(cmdb_node_t) + (has_defaults ? s.size : 0) + 3) & ~3u;
    if (s.gid == 0 || s.gid > 1860 || off + len > kNodeBytes) abort();
    auto* n = reinterpret_cast<cmdb_node_t*>(static_cast<char*>(nodes_) + off);
    n->gid = s.gid;
    n->kind = s.kind;
    n->type = s.type;
    n->size = s.size;
    n->offset = s.offset;
    static_cast<uint32_t*>(index_)[s.gid] = off;
    off += len;
  }
  cmdb.cmdb_node_index = index_;
  cmdb.cmdb_node = nodes_;
}

NodeTable::~NodeTable() {
  cmdb.cmdb_node_index = nullptr;
  cmdb.cmdb_node = nullptr;
  ::munmap(index_, kIndexBytes);
  ::munmap(nodes_, kNodeBytes);
}

cmdb_node_t* NodeTable::node(uint16_t gid) const {
  uint32_t off = static_cast<uint32_t*>(index_)[gid];
  return off == 0 ? nullptr : reinterpret_cast<cmdb_node_t*>(static_cast<char*>(nodes_) + off);
}

}  // namespace gk::test
