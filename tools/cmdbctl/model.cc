#include "tools/cmdbctl/model.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"

namespace cmdbctl {

const Field* Element::field(const std::string& n) const {
  for (const Field& f : fields)
    if (f.name == n) return &f;
  return nullptr;
}

const Element* Element::child(const std::string& n) const {
  for (const Element* c : children)
    if (c->name == n) return c;
  return nullptr;
}

namespace {

uint8_t kind_of(const cmdb_node_desc_t* d) { return d->kind & 15; }
uint8_t type_of(const cmdb_node_desc_t* d) { return d->type_scope & 15; }

bool has_block(const cmdb_node_desc_t* d) {
  uint8_t k = kind_of(d);
  return k == 2 || k == 3 || k == 4 || (k == 6 && type_of(d) == 13);
}

Field field_of(const cmdb_node_desc_t* d) {
  Field f;
  f.name = d->name != nullptr ? d->name : "";
  f.gid = static_cast<uint16_t>(d->gid);
  f.type = type_of(d);
  f.size = d->size;
  f.offset = d->offset;
  return f;
}

// Paths leave out a table's entry node: its children read as the table's.
void name_all(const cmdb_node_desc_t* d, const std::string& prefix, std::map<uint16_t, std::string>* names) {
  std::string path = prefix.empty() ? std::string(d->name != nullptr ? d->name : "") : prefix + "." + d->name;
  if (d->gid != 0) (*names)[static_cast<uint16_t>(d->gid)] = path;
  uint8_t k = kind_of(d);
  for (unsigned i = 0; i < d->nchild; ++i) {
    const cmdb_node_desc_t* c = d->children[i];
    if ((k == 2 || k == 3) && i == 0) {
      (*names)[static_cast<uint16_t>(c->gid)] = path + "." + c->name;
      for (unsigned j = 0; j < c->nchild; ++j) name_all(c->children[j], path, names);
    } else {
      name_all(c, path, names);
    }
  }
}

}  // namespace

std::unique_ptr<Model> Model::load(const std::string& path) {
  std::string from = path.empty() ? kSchemaCopy : path;
  if (path.empty() && !region_exists()) fail("no region in " CMDB_DIR " (create one with 'cmdbctl create --schema FILE')");
  std::string text;
  try {
    text = read_file(from);
  } catch (const Failure& f) {
    if (path.empty())
      fail(std::string(f.what()) + " (the region was not created by cmdbctl: name its schema with --schema FILE)");
    throw;
  }
  schema::Schema s;
  std::string error;
  if (schema::load_string(text, from, &s, &error) != 0) fail(error);
  return std::make_unique<Model>(std::move(s));
}

Model::Model(schema::Schema s) : schema_(std::move(s)) {
  const cmdb_node_desc_t* root = schema_.root();
  if (root == nullptr) return;
  for (unsigned i = 0; i < root->nchild; ++i) {
    const cmdb_node_desc_t* d = root->children[i];
    name_all(d, "", &names_);
    uint8_t k = kind_of(d);
    if (k == 2 || k == 3 || k == 4) tops_.push_back(build(d, nullptr));
  }
}

Element* Model::build(const cmdb_node_desc_t* d, const Element* parent) {
  auto owned = std::make_unique<Element>();
  Element* e = owned.get();
  elements_.push_back(std::move(owned));
  e->desc = d;
  e->name = d->name;
  e->path = parent != nullptr ? parent->path + "." + e->name : e->name;
  e->gid = static_cast<uint16_t>(d->gid);
  e->kind = kind_of(d);
  e->scope = (d->type_scope >> 4) & 3;
  e->size = d->size;
  e->table = e->kind == 2 || e->kind == 3;
  e->parent = parent;
  by_gid_[e->gid] = e;

  auto take_children = [&](const cmdb_node_desc_t* of, unsigned first) {
    for (unsigned i = first; i < of->nchild; ++i) {
      const cmdb_node_desc_t* c = of->children[i];
      if (!has_block(c)) {
        e->fields.push_back(field_of(c));
      } else if (kind_of(c) != 6) {  // lists held outside the data part are not shown
        e->children.push_back(build(c, e));
      }
    }
  };
  if (e->table) {
    if (d->nchild == 0) return e;
    const cmdb_node_desc_t* entry = d->children[0];
    e->fields.push_back(field_of(entry));
    take_children(entry, 0);
    take_children(d, 1);
  } else {
    take_children(d, 0);
  }
  return e;
}

const Element* Model::top(const std::string& name) const {
  for (const Element* e : tops_)
    if (e->name == name) return e;
  return nullptr;
}

const Element* Model::element(uint16_t gid) const {
  auto it = by_gid_.find(gid);
  return it == by_gid_.end() ? nullptr : it->second;
}

const Element* Model::element(const std::string& path) const {
  for (const auto& e : elements_)
    if (e->path == path) return e.get();
  return nullptr;
}

std::string Model::name_of(uint16_t gid) const {
  if (gid == 91) return "domain";
  auto it = names_.find(gid);
  return it == names_.end() ? format("gid %u", gid) : it->second;
}

// ---- values -----------------------------------------------------------------

namespace {

bool is_ipv4(const Field& f) { return f.type == 4 && f.size == 4; }

bool parse_hex(const std::string& text, std::vector<uint8_t>* out) {
  int hi = -1;
  for (char c : text) {
    if (c == ' ') continue;
    int v;
    if (c >= '0' && c <= '9') v = c - '0';
    else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
    else return false;
    if (hi < 0) {
      hi = v;
    } else {
      out->push_back(static_cast<uint8_t>(hi << 4 | v));
      hi = -1;
    }
  }
  return hi < 0;
}

}  // namespace

Json::Value decode_value(const Field& f, const uint8_t* data) {
  const uint8_t* p = data + f.offset;
  if (f.is_string()) return std::string(reinterpret_cast<const char*>(p), strnlen(reinterpret_cast<const char*>(p), f.size));
  if (is_ipv4(f)) return format("%u.%u.%u.%u", p[0], p[1], p[2], p[3]);
  if (f.size >= 1 && f.size <= 8) {
    uint64_t v = 0;
    for (int i = f.size - 1; i >= 0; --i) v = v << 8 | p[i];
    return Json::Value(static_cast<Json::UInt64>(v));
  }
  Json::Value h(Json::objectValue);
  h["hex"] = hex(p, f.size);
  return h;
}

std::string encode_value(const Field& f, const Json::Value& v, uint8_t* data) {
  uint8_t* p = data + f.offset;
  if (v.isObject()) {
    std::vector<uint8_t> bytes;
    if (v.size() != 1 || !v.isMember("hex") || !v["hex"].isString() || !parse_hex(v["hex"].asString(), &bytes))
      return format("'%s' takes {\"hex\": \"HEX DIGITS\"} as a raw value", f.name.c_str());
    if (bytes.size() > f.size) return format("'%s' holds %u bytes, not %zu", f.name.c_str(), f.size, bytes.size());
    memset(p, 0, f.size);
    memcpy(p, bytes.data(), bytes.size());
    return "";
  }
  if (f.is_string()) {
    if (!v.isString()) return format("'%s' is text", f.name.c_str());
    std::string s = v.asString();
    if (s.size() >= f.size || memchr(s.data(), 0, s.size()) != nullptr)
      return format("'%s' holds at most %u bytes of text, not %zu", f.name.c_str(), f.size - 1u, s.size());
    memset(p, 0, f.size);
    memcpy(p, s.data(), s.size());
    return "";
  }
  if (is_ipv4(f) && v.isString()) {
    in_addr a;
    if (inet_pton(AF_INET, v.asString().c_str(), &a) != 1)
      return format("'%s' is an IPv4 address, not '%s'", f.name.c_str(), v.asString().c_str());
    memcpy(p, &a, 4);
    return "";
  }
  if (f.size < 1 || f.size > 8) return format("'%s' takes {\"hex\": \"...\"} (%u bytes)", f.name.c_str(), f.size);
  uint64_t u;
  if (v.isBool()) {
    u = v.asBool() ? 1 : 0;
  } else if (v.isUInt64()) {
    u = v.asUInt64();
    if (f.size < 8 && u >> (8 * f.size) != 0)
      return format("%llu does not fit '%s' (%u bytes)", static_cast<unsigned long long>(u), f.name.c_str(), f.size);
  } else if (v.isInt64()) {
    int64_t s = v.asInt64();
    if (f.size < 8 && s < -(int64_t{1} << (8 * f.size - 1)))
      return format("%lld does not fit '%s' (%u bytes)", static_cast<long long>(s), f.name.c_str(), f.size);
    u = static_cast<uint64_t>(s);
  } else {
    return format("'%s' is a number", f.name.c_str());
  }
  for (unsigned i = 0; i < f.size; ++i) p[i] = static_cast<uint8_t>(u >> (8 * i));
  return "";
}

Json::Value parse_text_value(const Field& f, const std::string& text) {
  if (text.rfind("hex:", 0) == 0) {
    Json::Value h(Json::objectValue);
    h["hex"] = text.substr(4);
    return h;
  }
  if (f.is_string() || (is_ipv4(f) && text.find('.') != std::string::npos)) return text;
  if (text == "true" || text == "yes") return true;
  if (text == "false" || text == "no") return false;
  errno = 0;
  char* end = nullptr;
  if (!text.empty() && text[0] == '-') {
    long long s = strtoll(text.c_str(), &end, 0);
    if (errno == 0 && end != nullptr && *end == '\0') return Json::Value(static_cast<Json::Int64>(s));
  } else if (!text.empty()) {
    unsigned long long u = strtoull(text.c_str(), &end, 0);
    if (errno == 0 && end != nullptr && *end == '\0') return Json::Value(static_cast<Json::UInt64>(u));
  }
  fail(format("'%s' is a number, not '%s'", f.name.c_str(), text.c_str()));
}

// ---- paths ------------------------------------------------------------------

Path parse_path(const Model& m, const std::string& text) {
  Path path;
  size_t i = 0;
  const Element* at = nullptr;  // the element whose data part the next name is in
  bool need_key_done = true;
  while (i <= text.size()) {
    size_t j = i;
    while (j < text.size() && text[j] != '.' && text[j] != '[') ++j;
    std::string name = text.substr(i, j - i);
    if (name.empty()) fail(format("bad path '%s': a name is missing at %zu", text.c_str(), i));
    std::optional<std::string> key;
    if (j < text.size() && text[j] == '[') {
      size_t close = text.find(']', j);
      if (close == std::string::npos) fail(format("bad path '%s': '[' without ']'", text.c_str()));
      key = text.substr(j + 1, close - j - 1);
      j = close + 1;
      if (j < text.size() && text[j] != '.') fail(format("bad path '%s': '.' expected after ']'", text.c_str()));
    }
    if (!need_key_done) fail(format("bad path '%s': '%s' is a table: name an entry as %s[KEY]", text.c_str(),
                                    path.steps.back().element->name.c_str(), path.steps.back().element->name.c_str()));
    const Element* e = at == nullptr ? m.top(name) : at->child(name);
    const Field* f = at == nullptr ? nullptr : at->field(name);
    if (e == nullptr && f == nullptr)
      fail(at == nullptr ? format("no table or object '%s' in the schema", name.c_str())
                         : format("'%s' has no attribute, table or object '%s'", at->path.c_str(), name.c_str()));
    if (e == nullptr) {
      if (key) fail(format("bad path '%s': attribute '%s' takes no key", text.c_str(), name.c_str()));
      if (j < text.size()) fail(format("bad path '%s': nothing follows attribute '%s'", text.c_str(), name.c_str()));
      path.field = f;
      break;
    }
    if (key && !e->table) fail(format("bad path '%s': '%s' is an object and takes no key", text.c_str(), name.c_str()));
    path.steps.push_back({e, key});
    at = e;
    need_key_done = !e->table || key.has_value();
    if (j >= text.size()) break;
    i = j + 1;
  }
  return path;
}

}  // namespace cmdbctl
