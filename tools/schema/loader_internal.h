// Private to the schema loader: the storage behind Schema and the loader's own
// view of each node while it checks the tree.
#pragma once

#include <json/json.h>
#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/schema/schema_loader.h"

namespace schema {

// Everything the descriptors point at. Deques never move their elements, so
// pointers handed out into them stay valid while the schema grows.
struct Schema::Impl {
  Impl();
  ~Impl();  // frees the defaults blocks the builder has not taken
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  cmdb_node_desc_t* new_desc();
  const char* keep(std::string s);

  std::deque<cmdb_node_desc_t> descs;
  std::deque<std::string> strings;
  std::deque<std::vector<cmdb_node_desc_t*>> child_arrays;
  std::deque<cmdb_sql_desc_t> sql;
  std::deque<uint32_t> source_words;  // the u32 a default_gid's source points at
  cmdb_node_desc_t root;
  std::optional<uint32_t> platform;
  std::vector<cmdb_node_desc_t*> by_gid;  // kMaxGid + 1 slots
};

// The loader's record of one descriptor: where it came from in the text and
// what the tree-wide checks need beyond the descriptor itself.
struct Node {
  cmdb_node_desc_t* desc = nullptr;
  const Json::Value* json = nullptr;
  Node* parent = nullptr;
  std::vector<Node*> children;
  uint32_t default_gid = 0;
  int walk_pos = -1;  // position in the builder's walk; -1: below a kind-10 node, no record
  bool size_given = false, offset_given = false;  // else the layout computes them
};

// Named kinds, types and scopes a schema file may use instead of numbers.
struct TypeName {
  const char* name;
  uint8_t type;
  uint16_t size;  // 0: the file gives it
};
inline constexpr TypeName kTypeNames[] = {
    {"u8", 1, 1},     {"u16", 1, 2},  {"u32", 1, 4},  {"u64", 1, 8},  {"bool", 3, 1},  {"string", 2, 0},
    {"text", 5, 0},   {"ipv4", 4, 4}, {"mac", 6, 6},  {"ref", 12, 4}, {"list", 13, 0}, {"bytes", 0, 0},
};
struct KindName {
  const char* name;
  uint8_t kind;
};
inline constexpr KindName kKindNames[] = {
    {"table", 2},      {"nested_table", 3}, {"object", 4}, {"attribute", 5},
    {"list", 6},       {"data_block", 8},   {"opaque", 10},
};

// Natural alignment of a value: strings and odd-sized values are bytes; an
// integer of 1, 2, 4 or 8 bytes aligns to its size.
inline size_t natural_alignment(int type, size_t size) {
  if (type == 2 || type == 5 || type == 13) return 1;
  return size == 1 || size == 2 || size == 4 || size == 8 ? size : 1;
}

// A member of a JSON object, or null.
inline const Json::Value* member(const Json::Value& obj, std::string_view key) {
  return obj.find(key.data(), key.data() + key.size());
}

// A name in quotes for messages. Built by appending: GCC 12 at -O3 warns
// (-Wrestrict) on "'" + std::string(...).
inline std::string quoted(std::string_view name) {
  std::string s;
  s.reserve(name.size() + 2);
  s += '\'';
  s += name;
  s += '\'';
  return s;
}

inline int kind_of(const cmdb_node_desc_t* d) { return d->kind & 15; }
inline int type_of(const cmdb_node_desc_t* d) { return d->type_scope & 15; }
inline bool is_table(const cmdb_node_desc_t* d) { return kind_of(d) == 2 || kind_of(d) == 3; }
inline bool has_default_block(const cmdb_node_desc_t* d) {
  int k = kind_of(d);
  return k == 2 || k == 3 || k == 4 || k == 8;
}
inline bool is_string_type(int type) { return type == 2 || type == 5 || type == 13; }
// Children with an instance block of their own hold a child slot, not bytes of
// their parent's data part.
inline bool has_own_instance(const cmdb_node_desc_t* d) {
  int k = kind_of(d);
  return k == 2 || k == 3 || k == 4 || (k == 6 && type_of(d) == 13);
}
inline bool is_entry_node(const Node* n) {
  return n->parent != nullptr && is_table(n->parent->desc) && n->parent->children.front() == n;
}

class Loader {
 public:
  Loader(std::string_view text, std::string_view file_name);
  int run(Schema* out, std::string* error);

 private:
  // Every check reports through fail(), which records the first message and
  // returns EINVAL for the caller to pass up.
  int fail(const Json::Value& at, std::string_view field, const std::string& message);
  int fail_syntax(const std::string& reader_errors);
  int line_of(const Json::Value& v) const;
  int column_of(const Json::Value& v) const;

  int parse(Json::Value* root);
  int load_top(const Json::Value& root);
  int load_node(const Json::Value& v, std::string_view container, Node* parent, Node** out);
  int load_flags(const Json::Value& node, cmdb_node_desc_t* d);
  int load_refs(const Json::Value& node, cmdb_node_desc_t* d);
  int load_sql(const Json::Value& node, cmdb_node_desc_t* d);
  int load_children(const Json::Value& node, Node* n);
  int check_fields(const Json::Value& obj, std::string_view prefix,
                   std::initializer_list<std::string_view> known);
  int read_uint(const Json::Value& obj, const char* key, std::string_view field, uint64_t max, uint64_t* out);
  int read_kind(const Json::Value& node, uint64_t* kind);
  int read_type(const Json::Value& node, uint64_t* type, uint64_t* size);
  int read_scope(const Json::Value& node, uint64_t* scope);
  int read_string(const Json::Value& obj, const char* key, std::string_view field, size_t max_len,
                  std::optional<std::string>* out);

  // defaults.cc
  int load_defaults(Node* n);
  int put_value(const Json::Value& v, std::string_view field, const Node* attr, uint8_t* block,
                size_t block_size);
  int put_hex(const Json::Value& v, std::string_view field, uint8_t* at, size_t room);
  void data_members(const Node* n, std::vector<const Node*>* out) const;

  // layout.cc
  int assign_layout(Node* n);

  // tree_checks.cc
  int walk_and_count();
  int walk(Node* n, int* pos, size_t* tables, size_t* sqls, size_t* pairs);
  int check_references();
  int check_placement(const Node* n);

  std::string_view text_;
  std::string file_;
  std::vector<size_t> line_starts_;
  std::string error_;
  std::unique_ptr<Schema::Impl> impl_;
  std::deque<Node> nodes_;
  std::vector<Node*> top_;
  std::vector<Node*> node_of_gid_;  // kMaxGid + 1 slots
};

}  // namespace schema
