// Schema loader: JSON text -> node descriptors. Reads the whole document, then
// builds each node top-down, then runs the checks that need the whole tree
// (walk order, side-table limits, references, placement in data parts).
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

#include "tools/schema/loader_internal.h"

namespace schema {
namespace {

const char* type_name(Json::ValueType t) {
  switch (t) {
    case Json::nullValue:
      return "null";
    case Json::intValue:
    case Json::uintValue:
      return "an integer";
    case Json::realValue:
      return "a number";
    case Json::stringValue:
      return "a string";
    case Json::booleanValue:
      return "a boolean";
    case Json::arrayValue:
      return "an array";
    case Json::objectValue:
      return "an object";
  }
  return "a value";
}

std::string join(std::string_view prefix, std::string_view name) {
  std::string s(prefix);
  if (!s.empty()) s += '.';
  s += name;
  return s;
}

}  // namespace

Loader::Loader(std::string_view text, std::string_view file_name)
    : text_(text),
      file_(file_name),
      impl_(std::make_unique<Schema::Impl>()),
      node_of_gid_(kMaxGid + 1, nullptr) {
  line_starts_.push_back(0);
  for (size_t i = 0; i < text_.size(); ++i)
    if (text_[i] == '\n') line_starts_.push_back(i + 1);
}

int Loader::line_of(const Json::Value& v) const {
  ptrdiff_t off = v.getOffsetStart();
  if (off < 0) return 0;
  auto it = std::upper_bound(line_starts_.begin(), line_starts_.end(), static_cast<size_t>(off));
  return static_cast<int>(it - line_starts_.begin());
}

// Columns count bytes from 1, as the JSON reader's own messages do.
int Loader::column_of(const Json::Value& v) const {
  int line = line_of(v);
  if (line == 0) return 0;
  return static_cast<int>(static_cast<size_t>(v.getOffsetStart()) - line_starts_[static_cast<size_t>(line - 1)]) + 1;
}

int Loader::fail(const Json::Value& at, std::string_view field, const std::string& message) {
  if (error_.empty()) {
    std::ostringstream s;
    s << file_ << ':' << line_of(at) << ':' << column_of(at) << ": ";
    if (!field.empty()) s << "field '" << field << "': ";
    s << message;
    error_ = s.str();
  }
  return EINVAL;
}

// The reader reports "* Line N, Column M\n  message\n..."; keep the first
// error's place and message.
int Loader::fail_syntax(const std::string& reader_errors) {
  int line = 0, column = 0;
  std::string message = reader_errors;
  if (sscanf(reader_errors.c_str(), "* Line %d, Column %d", &line, &column) >= 1) {
    size_t nl = reader_errors.find('\n');
    size_t end = reader_errors.find('\n', nl + 1);
    message = reader_errors.substr(nl + 1, end == std::string::npos ? std::string::npos : end - nl - 1);
    message.erase(0, message.find_first_not_of(' '));
  }
  error_ = file_ + ':' + std::to_string(line) + ':' + std::to_string(column) + ": bad JSON: " + message;
  return EINVAL;
}

int Loader::parse(Json::Value* root) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);  // no comments, no duplicate keys
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  // Nesting past the reader's depth limit is thrown, not reported.
  try {
    if (!reader->parse(text_.data(), text_.data() + text_.size(), root, &errors)) return fail_syntax(errors);
  } catch (const Json::Exception& e) {
    return fail_syntax(e.what());
  }
  return 0;
}

int Loader::check_fields(const Json::Value& obj, std::string_view prefix,
                         std::initializer_list<std::string_view> known) {
  for (auto it = obj.begin(); it != obj.end(); ++it) {
    std::string name = it.name();
    if (std::find(known.begin(), known.end(), name) == known.end())
      return fail(*it, join(prefix, name), "unknown field");
  }
  return 0;
}

int Loader::read_uint(const Json::Value& obj, const char* key, std::string_view field, uint64_t max,
                      uint64_t* out) {
  const Json::Value* v = member(obj, key);
  if (v == nullptr) return 0;
  if (v->type() != Json::intValue && v->type() != Json::uintValue)
    return fail(*v, field, std::string("expected an integer, not ") + type_name(v->type()));
  if (v->isInt64() && v->asInt64() < 0) return fail(*v, field, "must not be negative");
  if (v->asUInt64() > max) return fail(*v, field, v->asString() + " is above " + std::to_string(max));
  *out = v->asUInt64();
  return 0;
}

int Loader::read_kind(const Json::Value& node, uint64_t* kind) {
  const Json::Value* v = member(node, "kind");
  if (v == nullptr || !v->isString()) return read_uint(node, "kind", "kind", 15, kind);
  for (const KindName& k : kKindNames)
    if (v->asString() == k.name) {
      *kind = k.kind;
      return 0;
    }
  std::string names;
  for (const KindName& k : kKindNames) names += std::string(k.name) + ", ";
  return fail(*v, "kind", quoted(v->asString()) + " is not a kind: " + names + "or a number 0-15");
}

// A named type also fixes the size, or asks the file for it.
int Loader::read_type(const Json::Value& node, uint64_t* type, uint64_t* size) {
  const Json::Value* v = member(node, "type");
  if (v == nullptr || !v->isString()) return read_uint(node, "type", "type", 15, type);
  for (const TypeName& t : kTypeNames) {
    if (v->asString() != t.name) continue;
    *type = t.type;
    const Json::Value* given = member(node, "size");
    if (t.size != 0 && given != nullptr && *size != t.size)
      return fail(*given, "size", quoted(t.name) + " is " + std::to_string(t.size) + " bytes, not " +
                                      std::to_string(*size));
    if (t.size == 0 && given == nullptr) return fail(node, "size", "a " + quoted(t.name) + " value needs its size");
    if (t.size != 0) *size = t.size;
    return 0;
  }
  std::string names;
  for (const TypeName& t : kTypeNames) names += std::string(t.name) + ", ";
  return fail(*v, "type", quoted(v->asString()) + " is not a type: " + names + "or a number 0-15");
}

// "global", "domain" or both in an array: bit 1 is per domain, bit 0 with it
// also in the global context.
int Loader::read_scope(const Json::Value& node, uint64_t* scope) {
  const Json::Value* v = member(node, "scope");
  if (v == nullptr || (!v->isString() && !v->isArray())) return read_uint(node, "scope", "scope", 3, scope);
  std::vector<const Json::Value*> names;
  if (v->isArray())
    for (const Json::Value& s : *v) names.push_back(&s);
  else
    names.push_back(v);
  if (names.empty()) return fail(*v, "scope", "name 'global', 'domain' or both");
  bool global = false, domain = false;
  for (const Json::Value* s : names) {
    std::string name = s->isString() ? s->asString() : "";
    if (name == "global")
      global = true;
    else if (name == "domain")
      domain = true;
    else
      return fail(*s, "scope", "a scope is 'global' or 'domain', or a number 0-3");
  }
  *scope = domain ? (global ? 3 : 2) : 0;
  return 0;
}

int Loader::read_string(const Json::Value& obj, const char* key, std::string_view field, size_t max_len,
                        std::optional<std::string>* out) {
  const Json::Value* v = member(obj, key);
  if (v == nullptr) return 0;
  if (!v->isString()) return fail(*v, field, std::string("expected a string, not ") + type_name(v->type()));
  std::string s = v->asString();
  if (s.find('\0') != std::string::npos) return fail(*v, field, "contains a NUL character");
  if (s.size() > max_len)
    return fail(
        *v, field,
        "is " + std::to_string(s.size()) + " bytes long, at most " + std::to_string(max_len) + " fit");
  *out = std::move(s);
  return 0;
}

int Loader::load_top(const Json::Value& root) {
  if (!root.isObject()) return fail(root, "", "the document must be an object");
  if (int err = check_fields(root, "", {"comment", "platform", "nodes"}); err != 0) return err;
  std::optional<std::string> comment;
  if (int err = read_string(root, "comment", "comment", SIZE_MAX, &comment); err != 0) return err;
  uint64_t platform = UINT64_MAX;
  if (int err = read_uint(root, "platform", "platform", kMaxPlatform, &platform); err != 0) return err;
  if (platform != UINT64_MAX) impl_->platform = static_cast<uint32_t>(platform);

  const Json::Value* nodes = member(root, "nodes");
  if (nodes == nullptr) return fail(root, "nodes", "missing");
  if (!nodes->isArray())
    return fail(*nodes, "nodes", std::string("expected an array, not ") + type_name(nodes->type()));
  if (nodes->size() > kMaxChildren)
    return fail(*nodes, "nodes", std::to_string(nodes->size()) + " top-level nodes, at most 255 fit");
  for (const Json::Value& v : *nodes) {
    Node* n = nullptr;
    if (int err = load_node(v, "nodes", nullptr, &n); err != 0) return err;
    top_.push_back(n);
  }
  std::vector<cmdb_node_desc_t*>& array = impl_->child_arrays.emplace_back();
  for (Node* n : top_) array.push_back(n->desc);
  impl_->root.name = impl_->keep("schema");
  impl_->root.help = impl_->keep("");
  impl_->root.nchild = static_cast<uint8_t>(array.size());
  impl_->root.children = array.data();
  return 0;
}

int Loader::load_node(const Json::Value& v, std::string_view container, Node* parent, Node** out) {
  if (!v.isObject())
    return fail(v, container, std::string("a node must be an object, not ") + type_name(v.type()));
  if (int err = check_fields(v, "",
                             {"name", "help", "comment", "gid", "kind", "type", "scope", "size", "offset",
                              "flags", "defaults", "defaults_hex", "refs", "sql", "default_gid", "children"});
      err != 0)
    return err;
  Node* n = &nodes_.emplace_back();
  n->json = &v;
  n->parent = parent;
  cmdb_node_desc_t* d = n->desc = impl_->new_desc();

  std::optional<std::string> name, help, comment;
  if (int err = read_string(v, "name", "name", SIZE_MAX, &name); err != 0) return err;
  if (!name) return fail(v, "name", "missing");
  if (name->empty()) return fail(v["name"], "name", "must not be empty");
  for (const Node* sibling : parent != nullptr ? parent->children : top_)
    if (name == sibling->desc->name)
      return fail(v["name"], "name",
                  quoted(*name) + (parent != nullptr ? " is already a child of " + quoted(parent->desc->name)
                                                     : std::string(" is already a top-level node")));
  if (int err = read_string(v, "help", "help", SIZE_MAX, &help); err != 0) return err;
  if (int err = read_string(v, "comment", "comment", SIZE_MAX, &comment); err != 0) return err;
  d->name = impl_->keep(std::move(*name));
  d->help = impl_->keep(help.value_or(""));

  uint64_t gid = 0, kind = UINT64_MAX, type = 0, scope = 0, size = 0, offset = 0, default_gid = 0;
  if (int err = read_uint(v, "gid", "gid", UINT64_MAX, &gid); err != 0) return err;
  if (!v.isMember("gid")) return fail(v, "gid", "missing");
  const Json::Value& gid_v = v["gid"];
  if (gid == 0) return fail(gid_v, "gid", "gid 0 names no node; gids run from 1 to 1860");
  if (gid > kMaxGid)
    return fail(gid_v, "gid",
                "gid " + std::to_string(gid) + " is above 1860, the last gid the node index holds");
  if (gid == kDomainTableGid) return fail(gid_v, "gid", "gid 91 is the built-in domain table's");
  if (const Node* other = node_of_gid_[gid]; other != nullptr)
    return fail(gid_v, "gid",
                "gid " + std::to_string(gid) + " is already '" + other->desc->name + "' (line " +
                    std::to_string(line_of(*other->json)) + ")");
  node_of_gid_[gid] = n;
  impl_->by_gid[gid] = d;
  d->gid = static_cast<uint32_t>(gid);

  if (int err = read_kind(v, &kind); err != 0) return err;
  if (kind == UINT64_MAX) return fail(v, "kind", "missing");
  if (int err = read_uint(v, "size", "size", 0xFFFF, &size); err != 0) return err;
  if (int err = read_type(v, &type, &size); err != 0) return err;
  if (int err = read_scope(v, &scope); err != 0) return err;
  if (int err = read_uint(v, "offset", "offset", 0xFFFF, &offset); err != 0) return err;
  n->size_given = v.isMember("size");
  n->offset_given = v.isMember("offset");
  d->kind = static_cast<uint8_t>(kind);
  d->type_scope = static_cast<uint8_t>(type | scope << 4);
  d->size = static_cast<uint16_t>(size);
  d->offset = static_cast<uint16_t>(offset);

  if (int err = load_flags(v, d); err != 0) return err;
  if (int err = load_refs(v, d); err != 0) return err;
  if (int err = load_sql(v, d); err != 0) return err;

  if (int err = read_uint(v, "default_gid", "default_gid", kMaxGid, &default_gid); err != 0) return err;
  if (v.isMember("default_gid")) {
    const Json::Value& at = v["default_gid"];
    if (default_gid == 0) return fail(at, "default_gid", "gid 0 names no node");
    if (d->source != nullptr) return fail(at, "default_gid", "a node with 'sql' cannot also copy defaults");
    if (v.isMember("defaults") || v.isMember("defaults_hex"))
      return fail(at, "default_gid", "the copied defaults would replace 'defaults'");
    if (!has_default_block(d))
      return fail(at, "default_gid",
                  "kind " + std::to_string(kind) + " has no default block (kinds 2, 3, 4 and 8 do)");
    n->default_gid = static_cast<uint32_t>(default_gid);
    uint32_t& word = impl_->source_words.emplace_back(n->default_gid);
    d->source = &word;
  }

  if (parent != nullptr) parent->children.push_back(n);
  if (int err = load_children(v, n); err != 0) return err;
  if (is_table(d)) {
    if (n->children.empty())
      return fail(v, "children",
                  "a table (kind " + std::to_string(kind) + ") needs its entry node as first child");
    const cmdb_node_desc_t* entry = n->children.front()->desc;
    if (has_own_instance(entry))
      return fail(*n->children.front()->json, "kind",
                  "the entry node describes the table's key and cannot have an instance block of its own");
    if (entry->size == 0)
      return fail(*n->children.front()->json, "size", "the entry node's key needs a size");
  }
  if (int err = assign_layout(n); err != 0) return err;
  if (int err = load_defaults(n); err != 0) return err;
  *out = n;
  return 0;
}

int Loader::load_children(const Json::Value& v, Node* n) {
  const Json::Value* children = member(v, "children");
  if (children == nullptr) return 0;
  if (!children->isArray())
    return fail(*children, "children", std::string("expected an array, not ") + type_name(children->type()));
  if (children->size() > kMaxChildren)
    return fail(*children, "children", std::to_string(children->size()) + " children, at most 255 fit");
  for (const Json::Value& c : *children) {
    Node* child = nullptr;
    if (int err = load_node(c, "children", n, &child); err != 0) return err;
  }
  std::vector<cmdb_node_desc_t*>& array = impl_->child_arrays.emplace_back();
  for (const Node* c : n->children) array.push_back(c->desc);
  n->desc->nchild = static_cast<uint8_t>(array.size());
  n->desc->children = array.empty() ? nullptr : array.data();
  return 0;
}

// Named bits of the three flag bytes, as the builder turns them into the
// node record's flags.
int Loader::load_flags(const Json::Value& node, cmdb_node_desc_t* d) {
  struct Bit {
    const char* name;
    uint8_t cmdb_node_desc_t::*byte;
    uint8_t mask;
  };
  static constexpr Bit kBits[] = {
      {"node_flag0", &cmdb_node_desc_t::flags_b, 0x04},
      {"node_flag2", &cmdb_node_desc_t::flags_a, 0x01},
      {"node_flag3", &cmdb_node_desc_t::flags_a, 0x02},
      {"case_insensitive", &cmdb_node_desc_t::flags_c, 0x10},
  };
  static constexpr struct {
    const char* name;
    uint8_t cmdb_node_desc_t::*byte;
  } kRaw[] = {{"raw_a", &cmdb_node_desc_t::flags_a},
              {"raw_b", &cmdb_node_desc_t::flags_b},
              {"raw_c", &cmdb_node_desc_t::flags_c}};

  const Json::Value* flags = member(node, "flags");
  if (flags == nullptr) return 0;
  if (!flags->isObject())
    return fail(*flags, "flags", std::string("expected an object, not ") + type_name(flags->type()));
  if (int err = check_fields(
          *flags, "flags",
          {"node_flag0", "node_flag2", "node_flag3", "case_insensitive", "raw_a", "raw_b", "raw_c"});
      err != 0)
    return err;
  for (const auto& raw : kRaw) {
    uint64_t value = 0;
    std::string field = join("flags", raw.name);
    if (int err = read_uint(*flags, raw.name, field, 0xFF, &value); err != 0) return err;
    // The SQL bit goes with a description in `source`; only 'sql' sets it.
    if (raw.byte == &cmdb_node_desc_t::flags_b && (value & 1) != 0)
      return fail((*flags)[raw.name], field, "bit 0 marks an SQL description: use 'sql'");
    d->*raw.byte |= static_cast<uint8_t>(value);
  }
  for (const Bit& bit : kBits) {
    const Json::Value* v = member(*flags, bit.name);
    if (v == nullptr) continue;
    if (!v->isBool())
      return fail(*v, join("flags", bit.name),
                  std::string("expected a boolean, not ") + type_name(v->type()));
    if (v->asBool()) d->*bit.byte |= bit.mask;
  }
  return 0;
}

int Loader::load_refs(const Json::Value& node, cmdb_node_desc_t* d) {
  const Json::Value* refs = member(node, "refs");
  if (refs == nullptr) {
    if (type_of(d) == 12) return fail(node["type"], "type", "type 12 needs 'refs', the gids it refers to");
    return 0;
  }
  if (type_of(d) != 12) return fail(*refs, "refs", "only a node of type 12 refers to other nodes");
  if (!refs->isArray())
    return fail(*refs, "refs", std::string("expected an array, not ") + type_name(refs->type()));
  if (refs->empty() || refs->size() > 4) return fail(*refs, "refs", "needs one to four gids");
  for (Json::ArrayIndex i = 0; i < refs->size(); ++i) {
    const Json::Value& r = (*refs)[i];
    if ((r.type() != Json::intValue && r.type() != Json::uintValue) || (r.isInt64() && r.asInt64() < 1) ||
        r.asUInt64() > kMaxGid)
      return fail(r, "refs", "entries must be gids from 1 to 1860");
    uint16_t gid = static_cast<uint16_t>(r.asUInt());
    if (std::find(d->refs, d->refs + i, gid) != d->refs + i)
      return fail(r, "refs", "gid " + std::to_string(gid) + " is listed twice");
    d->refs[i] = gid;
  }
  return 0;
}

int Loader::load_sql(const Json::Value& node, cmdb_node_desc_t* d) {
  const Json::Value* sql = member(node, "sql");
  if (sql == nullptr) return 0;
  if (!sql->isObject())
    return fail(*sql, "sql", std::string("expected an object, not ") + type_name(sql->type()));
  if (int err = check_fields(*sql, "sql", {"number", "short1", "short2", "long1", "long2", "flag"}); err != 0)
    return err;
  uint64_t number = 0;
  std::optional<std::string> short1, short2, long1, long2;
  if (int err = read_uint(*sql, "number", "sql.number", 0xFFFF, &number); err != 0) return err;
  if (int err = read_string(*sql, "short1", "sql.short1", 31, &short1); err != 0) return err;
  if (int err = read_string(*sql, "short2", "sql.short2", 31, &short2); err != 0) return err;
  if (int err = read_string(*sql, "long1", "sql.long1", 63, &long1); err != 0) return err;
  if (int err = read_string(*sql, "long2", "sql.long2", 63, &long2); err != 0) return err;
  // The record keeps a first long name over both short-name fields, and a
  // non-zero number over the first two bytes of the second long name.
  if (long1 && short2)
    return fail((*sql)["long1"], "sql.long1", "a first long name takes the place of 'short2'");
  if (number != 0 && long2)
    return fail((*sql)["number"], "sql.number", "a non-zero number takes the first bytes of 'long2'");
  bool flag = false;
  if (const Json::Value* f = member(*sql, "flag"); f != nullptr) {
    if (!f->isBool())
      return fail(*f, "sql.flag", std::string("expected a boolean, not ") + type_name(f->type()));
    flag = f->asBool();
  }
  cmdb_sql_desc_t& s = impl_->sql.emplace_back();
  memset(&s, 0, sizeof s);
  s.number = static_cast<uint16_t>(number);
  auto keep = [&](const std::optional<std::string>& v) { return v ? impl_->keep(*v) : nullptr; };
  s.short1 = keep(short1);
  s.short2 = keep(short2);
  s.long1 = keep(long1);
  s.long2 = keep(long2);
  s.flag = flag ? 0x80 : 0;
  d->source = &s;
  d->flags_b |= 0x01;
  return 0;
}

int Loader::run(Schema* out, std::string* error) {
  Json::Value root;
  int err = parse(&root);
  if (err == 0) err = load_top(root);
  if (err == 0) err = walk_and_count();
  if (err == 0) err = check_references();
  for (const Node* n : top_)
    if (err == 0) err = check_placement(n);
  if (err != 0) {
    if (error != nullptr) *error = error_;
    return err;
  }
  Schema loaded;
  loaded.impl_ = std::move(impl_);
  *out = std::move(loaded);
  return 0;
}

int load_string(std::string_view text, std::string_view file_name, Schema* out, std::string* error) {
  Loader loader(text, file_name);
  return loader.run(out, error);
}

int load_file(const std::string& path, Schema* out, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  int err = in ? 0 : (errno != 0 ? errno : EIO);
  struct stat st;
  if (err == 0 && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    err = EISDIR;  // opens, reads nothing
  std::ostringstream text;
  if (err == 0) {
    text << in.rdbuf();  // an empty file reads as nothing, which the parser then refuses
    if (in.bad()) err = EIO;
  }
  if (err != 0) {
    if (error != nullptr) *error = path + ": " + strerror(err);
    return err;
  }
  return load_string(text.str(), path, out, error);
}

}  // namespace schema
