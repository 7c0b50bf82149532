// Offsets and sizes a schema file leaves out: each attribute follows the one
// before it in file order at its natural alignment, and a data part ends at
// its last attribute, rounded up to its largest alignment, as a C struct does.
#include <string>
#include <vector>

#include "tools/schema/loader_internal.h"

namespace schema {
namespace {

size_t round_up(size_t n, size_t align) { return (n + align - 1) / align * align; }

}  // namespace

int Loader::assign_layout(Node* n) {
  cmdb_node_desc_t* d = n->desc;
  if (kind_of(d) == 10 || is_entry_node(n) || n->children.empty()) return 0;
  // A table's entry: the key, the entry node's attributes, then the table's own.
  std::vector<Node*> members;
  auto attributes = [&members](const Node* p, const Node* skip) {
    for (Node* c : p->children)
      if (c != skip && !has_own_instance(c->desc)) members.push_back(c);
  };
  if (is_table(d)) {
    members.push_back(n->children.front());
    attributes(n->children.front(), nullptr);
    attributes(n, n->children.front());
  } else {
    attributes(n, nullptr);
  }
  size_t end = 0, widest = 1;
  for (Node* m : members) {
    cmdb_node_desc_t* a = m->desc;
    size_t align = natural_alignment(type_of(a), a->size);
    widest = std::max(widest, align);
    if (!m->offset_given) {
      size_t at = round_up(end, align);
      if (at > 0xFFFF) return fail(*m->json, "offset", "the computed offset " + std::to_string(at) + " is above 65535");
      a->offset = static_cast<uint16_t>(at);
    }
    end = std::max(end, size_t{a->offset} + a->size);
  }
  if (!n->size_given) {
    size_t size = round_up(end, widest);
    if (size > 0xFFFF) return fail(*n->json, "size", "the computed size " + std::to_string(size) + " is above 65535");
    d->size = static_cast<uint16_t>(size);
  }
  return 0;
}

}  // namespace schema
