#include "writer/names.h"

#include <string.h>

#include "gikraidrum.h"

namespace writer {
namespace {

NodeNamer& namer() {
  static NodeNamer* n = new NodeNamer;  // outlives every Model, whatever the order of exit
  return *n;
}

}  // namespace

NodeNamer set_node_namer(NodeNamer n) {
  NodeNamer old = std::move(namer());
  namer() = std::move(n);
  return old;
}

std::string node_name(uint32_t gid) {
  const auto g = static_cast<uint16_t>(gid);
  if (namer())
    if (std::string name = namer()(g); !name.empty()) return "'" + name + "'";
  return "gid " + std::to_string(g);
}

std::string domain_name(uint32_t id) {
  if (id == 0) return "the global context";
  if (const char* name = cmf_shm_find_domain_name(id))
    return "'" + std::string(name, strnlen(name, sizeof(cmdb_domain_rec_t::name))) + "'";
  return "id " + std::to_string(id);
}

}  // namespace writer
