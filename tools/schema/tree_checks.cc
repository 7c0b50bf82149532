// Checks that need the whole tree: the builder's walk order and the side
// tables it fills, references between nodes, and where attributes lie.
#include <algorithm>
#include <string>

#include "tools/schema/loader_internal.h"

namespace schema {
namespace {

// The named field of a node, or the node itself when the field is absent.
const Json::Value& field_or_node(const Node* n, std::string_view key) {
  const Json::Value* v = member(*n->json, key);
  return v != nullptr ? *v : *n->json;
}

std::string range(const cmdb_node_desc_t* d) {
  return "bytes " + std::to_string(d->offset) + ".." + std::to_string(d->offset + d->size - 1);
}

// The built-in domain table the builder walks before the schema.
constexpr uint16_t kDomainTableSize = 256;

}  // namespace

// The builder visits the domain table first, then each top-level node as a walk
// of its own, depth first, without descending below kind 10. Its side tables
// are filled in that order, so the limits are counted the same way.
int Loader::walk_and_count() {
  int pos = 0;  // the domain table
  size_t tables = 1, sqls = 0, pairs = 0;
  for (Node* n : top_)
    if (int err = walk(n, &pos, &tables, &sqls, &pairs); err != 0) return err;
  return 0;
}

int Loader::walk(Node* n, int* pos, size_t* tables, size_t* sqls, size_t* pairs) {
  const cmdb_node_desc_t* d = n->desc;
  n->walk_pos = ++*pos;
  if (kind_of(d) == 2 && ++*tables > kMaxTables)
    return fail(field_or_node(n, "kind"), "kind",
                "more than 124 tables of kind 2 (the built-in domain table is one of them)");
  if ((d->flags_b & 1) != 0 && ++*sqls > kMaxSqlDescriptions)
    return fail(field_or_node(n, "sql"), "sql", "more than 85 SQL descriptions");
  if (type_of(d) == 12) {
    for (uint16_t ref : d->refs) *pairs += ref != 0 ? 1 : 0;
    if (*pairs > kMaxRefPairs) return fail(field_or_node(n, "refs"), "refs", "more than 328 reference pairs");
  }
  if (kind_of(d) == 10) return 0;
  for (Node* c : n->children)
    if (int err = walk(c, pos, tables, sqls, pairs); err != 0) return err;
  return 0;
}

// Only nodes that get a record are checked: below a kind-10 node the builder
// reads nothing.
int Loader::check_references() {
  for (const Node& node : nodes_) {
    const Node* n = &node;
    if (n->walk_pos < 0) continue;
    const cmdb_node_desc_t* d = n->desc;
    for (uint16_t ref : d->refs) {
      if (ref == 0 || ref == kDomainTableGid) continue;
      const Node* target = node_of_gid_[ref];
      if (target == nullptr)
        return fail(field_or_node(n, "refs"), "refs", "gid " + std::to_string(ref) + " names no node");
      if (target->walk_pos < 0)
        return fail(field_or_node(n, "refs"), "refs",
                    "gid " + std::to_string(ref) + " lies below a kind-10 node and gets no record");
    }
    uint32_t g = n->default_gid;
    if (g == 0) continue;
    const Json::Value& at = field_or_node(n, "default_gid");
    uint16_t source_size = kDomainTableSize;
    if (g != kDomainTableGid) {
      const Node* target = node_of_gid_[g];
      if (target == nullptr) return fail(at, "default_gid", "gid " + std::to_string(g) + " names no node");
      if (target == n) return fail(at, "default_gid", "a node cannot copy its own defaults");
      if (target->walk_pos < 0)
        return fail(at, "default_gid",
                    quoted(target->desc->name) + " lies below a kind-10 node and gets no record");
      if (target->walk_pos > n->walk_pos)
        return fail(at, "default_gid",
                    quoted(target->desc->name) + " (line " + std::to_string(line_of(*target->json)) +
                        ") is built after this node; defaults are copied from nodes built before");
      if (!has_default_block(target->desc))
        return fail(at, "default_gid",
                    quoted(target->desc->name) + " is kind " + std::to_string(kind_of(target->desc)) +
                        " and has no default block");
      source_size = target->desc->size;
    }
    if (source_size < d->size)
      return fail(at, "default_gid",
                  "gid " + std::to_string(g) + " has a " + std::to_string(source_size) +
                      "-byte default block; this node copies " + std::to_string(d->size) + " bytes");
  }
  return 0;
}

// Each attribute lies inside the data part of its entries (or object), apart
// from the others. A table's entry node is itself the key, an attribute of the
// table's data part, and its children are the rest of the entry.
int Loader::check_placement(const Node* n) {
  const cmdb_node_desc_t* d = n->desc;
  if (kind_of(d) == 10) return 0;
  if (!is_entry_node(n) && !n->children.empty()) {
    std::vector<const Node*> members;
    data_members(n, &members);
    for (const Node* m : members) {
      const cmdb_node_desc_t* a = m->desc;
      if (a->offset + a->size > d->size)
        return fail(field_or_node(m, "offset"), "offset",
                    "offset " + std::to_string(a->offset) + " and size " + std::to_string(a->size) +
                        " pass the " + std::to_string(d->size) + "-byte data part of " +
                        quoted(n->desc->name));
    }
    std::erase_if(members, [](const Node* m) { return m->desc->size == 0; });
    std::stable_sort(members.begin(), members.end(),
                     [](const Node* a, const Node* b) { return a->desc->offset < b->desc->offset; });
    const Node* reach = nullptr;  // the member that reaches furthest so far
    for (const Node* m : members) {
      if (reach != nullptr && m->desc->offset < reach->desc->offset + reach->desc->size) {
        bool m_later = line_of(*m->json) > line_of(*reach->json);
        const Node* later = m_later ? m : reach;
        const Node* earlier = m_later ? reach : m;
        return fail(field_or_node(later, "offset"), "offset",
                    quoted(later->desc->name) + " (" + range(later->desc) + ") overlaps " +
                        quoted(earlier->desc->name) + " (" + range(earlier->desc) + ")");
      }
      if (reach == nullptr || m->desc->offset + m->desc->size > reach->desc->offset + reach->desc->size)
        reach = m;
    }
  }
  for (const Node* c : n->children)
    if (int err = check_placement(c); err != 0) return err;
  return 0;
}

}  // namespace schema
