#include "writer/model.h"

#include <arpa/inet.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>

#include "writer/text.h"

namespace config {

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

uint8_t kind_of(const cmdb_node_desc_t* d) { return d->kind & CMDB_DESC_NIBBLE; }
uint8_t type_of(const cmdb_node_desc_t* d) { return d->type_scope & CMDB_DESC_NIBBLE; }
bool is_table(uint8_t kind) { return kind == CMDB_KIND_TABLE || kind == CMDB_KIND_SUBTABLE; }

bool has_block(const cmdb_node_desc_t* d) {
  uint8_t k = kind_of(d);
  return is_table(k) || k == CMDB_KIND_OBJECT || (k == CMDB_KIND_LIST && type_of(d) == CMDB_TYPE_LIST);
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
    if (is_table(k) && i == 0) {
      (*names)[static_cast<uint16_t>(c->gid)] = path + "." + c->name;
      for (unsigned j = 0; j < c->nchild; ++j) name_all(c->children[j], path, names);
    } else {
      name_all(c, path, names);
    }
  }
}

bool region_exists() {
  struct stat st;
  return ::stat(CMDB_DIR "cmdb_global_rw", &st) == 0;
}

bool has_default_block(const cmdb_node_desc_t* d) {
  const uint8_t k = kind_of(d);
  return is_table(k) || k == CMDB_KIND_OBJECT || k == CMDB_KIND_DEFAULTS;
}

// The default blocks as the region's builder fills them, in its walk order:
// a node's own defaults, or the block of the earlier node its default_gid
// names (as much of it as both hold).
void collect_defaults(const cmdb_node_desc_t* d, std::map<uint16_t, std::vector<uint8_t>>* out) {
  if (d->gid != 0 && has_default_block(d)) {
    std::vector<uint8_t> block(d->size, 0);
    if (kind_of(d) != CMDB_KIND_DEFAULTS && d->defaults != nullptr)
      memcpy(block.data(), d->defaults, d->size);
    if (!(d->flags_b & CMDB_DESC_B_SQL) && d->source != nullptr) {
      uint32_t word;
      memcpy(&word, d->source, sizeof word);
      auto from = out->find(static_cast<uint16_t>(word));
      if (from != out->end())
        memcpy(block.data(), from->second.data(), std::min(block.size(), from->second.size()));
    }
    (*out)[static_cast<uint16_t>(d->gid)] = std::move(block);
  }
  if (kind_of(d) == CMDB_KIND_OPAQUE) return;
  for (unsigned i = 0; i < d->nchild; ++i) collect_defaults(d->children[i], out);
}

}  // namespace

std::unique_ptr<Model> Model::load(const std::string& path) {
  std::string from = path.empty() ? kSchemaCopy : path;
  if (path.empty() && !region_exists())
    fail("no region in " CMDB_DIR " (create one with 'cmdbctl create --schema FILE')");
  std::string text;
  try {
    text = read_input(from);
  } catch (const Error& f) {
    if (path.empty())
      fail(std::string(f.what()) +
           " (the region was not created by cmdbctl: name its schema with --schema FILE)");
    throw;
  }
  schema::Schema s;
  std::string error;
  if (schema::load_string(text, from, &s, &error) != 0) fail(error);
  return std::make_unique<Model>(std::move(s));
}

Model::Model(schema::Schema s) : schema_(std::move(s)) {
  const cmdb_node_desc_t* root = schema_.root();
  for (unsigned i = 0; root != nullptr && i < root->nchild; ++i)
    collect_defaults(root->children[i], &default_blocks_);
  for (unsigned i = 0; root != nullptr && i < root->nchild; ++i) {
    const cmdb_node_desc_t* d = root->children[i];
    name_all(d, "", &names_);
    uint8_t k = kind_of(d);
    if (is_table(k) || k == CMDB_KIND_OBJECT) tops_.push_back(build(d, nullptr));
  }
  // Last: a constructor that throws must leave no namer behind.
  previous_namer_ = writer::set_node_namer([this](uint16_t gid) {
    const auto it = names_.find(gid);
    return it != names_.end() ? it->second : gid == schema::kDomainTableGid ? "domain" : "";
  });
}

Model::~Model() { writer::set_node_namer(std::move(previous_namer_)); }

Element* Model::build(const cmdb_node_desc_t* d, const Element* parent) {
  auto owned = std::make_unique<Element>();
  Element* e = owned.get();
  elements_.push_back(std::move(owned));
  e->desc = d;
  e->name = d->name;
  e->path = parent != nullptr ? parent->path + "." + e->name : e->name;
  e->gid = static_cast<uint16_t>(d->gid);
  e->kind = kind_of(d);
  e->scope = (d->type_scope >> CMDB_DESC_SCOPE_SHIFT) & CMDB_DESC_SCOPE_MASK;
  e->size = d->size;
  e->table = is_table(e->kind);
  e->parent = parent;
  e->defaults = default_blocks_[e->gid];
  e->defaults.resize(e->size);
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
  // Values are read and written at these places in buffers of the element's size.
  for (const Field& f : e->fields)
    if (f.offset + f.size > e->size)
      fail(format("the schema puts '%s.%s' (%u bytes at %u) outside the %u bytes of '%s'", e->path.c_str(),
                  f.name.c_str(), f.size, f.offset, e->size, e->path.c_str()));
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
  if (gid == CMDB_DOMAIN_GID) return "domain";
  auto it = names_.find(gid);
  return it == names_.end() ? format("gid %u", gid) : it->second;
}

// ---- values -----------------------------------------------------------------

bool valid_utf8(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    const auto c = static_cast<uint8_t>(s[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    const size_t n = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return false;
    for (size_t k = 1; k < n; ++k)
      if ((static_cast<uint8_t>(s[i + k]) & 0xC0) != 0x80) return false;
    const auto c1 = static_cast<uint8_t>(s[i + 1]);
    if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 >= 0xA0) || (c == 0xF0 && c1 < 0x90) ||
        (c == 0xF4 && c1 >= 0x90))
      return false;
    i += n;
  }
  return true;
}

namespace {

bool parse_hex(const std::string& text, std::vector<uint8_t>* out) {
  int hi = -1;
  for (char c : text) {
    if (c == ' ') continue;
    int v;
    if (c >= '0' && c <= '9')
      v = c - '0';
    else if (c >= 'a' && c <= 'f')
      v = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
      v = c - 'A' + 10;
    else
      return false;
    if (hi < 0) {
      hi = v;
    } else {
      out->push_back(static_cast<uint8_t>(hi << 4 | v));
      hi = -1;
    }
  }
  return hi < 0;
}

Json::Value hex_value(const uint8_t* p, size_t n) {
  Json::Value h(Json::objectValue);
  h["hex"] = hex(p, n);
  return h;
}

// Decimal, or hex after 0x; nothing else (no sign, no blanks, no octal).
// Null when the text is not a number; *overflow when it is one past 64 bits.
std::optional<uint64_t> parse_unsigned(const std::string& t, bool* overflow) {
  *overflow = false;
  const bool hex = t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
  const size_t first = hex ? 2 : 0;
  if (t.size() == first) return std::nullopt;
  uint64_t v = 0;
  for (size_t i = first; i < t.size(); ++i) {
    const char c = t[i];
    unsigned d;
    if (c >= '0' && c <= '9')
      d = static_cast<unsigned>(c - '0');
    else if (hex && c >= 'a' && c <= 'f')
      d = static_cast<unsigned>(c - 'a' + 10);
    else if (hex && c >= 'A' && c <= 'F')
      d = static_cast<unsigned>(c - 'A' + 10);
    else
      return std::nullopt;
    const unsigned base = hex ? 16 : 10;
    if (v > (UINT64_MAX - d) / base) *overflow = true;
    v = v * base + d;
  }
  return v;
}

// The words every integer field takes for 1 and 0.
std::optional<uint64_t> truth_word(const std::string& t) {
  if (t == "true" || t == "yes" || t == "on") return 1;
  if (t == "false" || t == "no" || t == "off") return 0;
  return std::nullopt;
}

// A JSON value as it would appear in the input, for messages.
std::string brief(const Json::Value& v) {
  // Whole numbers past 64 bits are doubles to the parser; show them whole.
  if (v.isDouble() && std::fabs(v.asDouble()) < 1e21 && v.asDouble() == std::floor(v.asDouble()))
    return format("%.0f", v.asDouble());
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  std::string s = Json::writeString(b, v);
  return s.size() > 40 ? s.substr(0, 37) + "..." : s;
}

std::string no_fit(const Field& f, const std::string& value) {
  return format("%s does not fit '%s' (%u byte%s)", value.c_str(), f.name.c_str(), f.size,
                f.size == 1 ? "" : "s");
}

// An integer field's value from text; an error text or "".
std::string integer_from_text(const Field& f, const std::string& t, uint64_t* out) {
  if (std::optional<uint64_t> w = truth_word(t)) {
    *out = *w;
    return "";
  }
  bool overflow;
  if (std::optional<uint64_t> v = parse_unsigned(t, &overflow)) {
    if (overflow) return no_fit(f, t);
    *out = *v;
    return "";
  }
  if (t.size() > 1 && t[0] == '-' && parse_unsigned(t.substr(1), &overflow))
    return format("'%s' takes no negative number, not %s", f.name.c_str(), t.c_str());
  return format("'%s' is a number (decimal, or hex after 0x) or true/false, not '%s'", f.name.c_str(),
                t.c_str());
}

// An integer field's value from JSON; an error text or "".
std::string integer_from_json(const Field& f, const Json::Value& v, uint64_t* out) {
  if (v.isBool()) {
    *out = v.asBool() ? 1 : 0;
    return "";
  }
  if (v.isString()) return integer_from_text(f, v.asString(), out);
  if (v.isUInt64()) {
    *out = v.asUInt64();
    return "";
  }
  if (!v.isNumeric()) return format("'%s' is a number", f.name.c_str());
  const double d = v.asDouble();
  if (d < 0) return format("'%s' takes no negative number, not %s", f.name.c_str(), brief(v).c_str());
  if (d < 0x1p64 && d != std::floor(d))
    return format("'%s' takes a whole number, not %s", f.name.c_str(), brief(v).c_str());
  return no_fit(f, brief(v));
}

}  // namespace

Json::Value decode_value(const Field& f, const uint8_t* data) {
  const uint8_t* p = data + f.offset;
  if (f.is_string()) {
    std::string s(reinterpret_cast<const char*>(p), strnlen(reinterpret_cast<const char*>(p), f.size));
    if (valid_utf8(s)) return s;
  } else if (f.is_ipv4()) {
    return format("%u.%u.%u.%u", p[0], p[1], p[2], p[3]);
  } else if (f.is_integer()) {
    uint64_t v = 0;
    for (int i = f.size - 1; i >= 0; --i) v = v << 8 | p[i];
    return Json::Value(static_cast<Json::UInt64>(v));
  }
  return hex_value(p, f.size);
}

std::string encode_value(const Field& f, const Json::Value& v, uint8_t* data) {
  uint8_t* p = data + f.offset;
  if (v.isObject()) {
    std::vector<uint8_t> bytes;
    if (v.size() != 1 || !v.isMember("hex") || !v["hex"].isString() ||
        !parse_hex(v["hex"].asString(), &bytes))
      return format("'%s' takes {\"hex\": \"HEX DIGITS\"} as a raw value", f.name.c_str());
    if (bytes.size() > f.size)
      return format("'%s' holds %u bytes, not %zu", f.name.c_str(), f.size, bytes.size());
    memset(p, 0, f.size);
    memcpy(p, bytes.data(), bytes.size());
    return "";
  }
  if (f.is_string()) {
    if (!v.isString()) return format("'%s' is text", f.name.c_str());
    const std::string s = v.asString();
    if (s.size() >= f.size || memchr(s.data(), 0, s.size()) != nullptr)
      return format("'%s' holds at most %u bytes of text, not %zu", f.name.c_str(), f.size - 1u, s.size());
    if (!valid_utf8(s))
      return format("'%s' is not UTF-8 text (give other bytes as {\"hex\": ...})", f.name.c_str());
    memset(p, 0, f.size);
    memcpy(p, s.data(), s.size());
    return "";
  }
  if (f.is_ipv4()) {
    // As text only: an integer would say nothing of its byte order.
    in_addr a;
    if (!v.isString() || v.asString().find('\0') != std::string::npos ||
        inet_pton(AF_INET, v.asString().c_str(), &a) != 1)
      return format("'%s' is an IPv4 address in dotted form such as 192.0.2.1, not %s", f.name.c_str(),
                    brief(v).c_str());
    memcpy(p, &a, 4);
    return "";
  }
  if (!f.is_integer()) return format("'%s' takes {\"hex\": \"...\"} (%u bytes)", f.name.c_str(), f.size);
  uint64_t u = 0;
  if (std::string err = integer_from_json(f, v, &u); !err.empty()) return err;
  if (f.size < 8 && u >> (8 * f.size) != 0) return no_fit(f, std::to_string(u));
  for (unsigned i = 0; i < f.size; ++i) p[i] = static_cast<uint8_t>(u >> (8 * i));
  return "";
}

Json::Value parse_text_value(const Field& f, const std::string& text) {
  if (text.rfind("hex:", 0) == 0) {
    Json::Value h(Json::objectValue);
    h["hex"] = text.substr(4);
    return h;
  }
  if (!f.is_integer()) return text;
  uint64_t u = 0;
  if (std::string err = integer_from_text(f, text, &u); !err.empty()) fail(err);
  return Json::Value(static_cast<Json::UInt64>(u));
}

Json::Value parse_assignments(const Element& e, const std::vector<std::string>& assignments) {
  Json::Value values(Json::objectValue);
  for (const std::string& a : assignments) {
    const size_t eq = a.find('=');
    if (eq == std::string::npos || eq == 0) fail(format("'%s' is not ATTR=VALUE", a.c_str()));
    const std::string name = a.substr(0, eq);
    const Field* f = e.field(name);
    if (f == nullptr) fail(format("'%s' has no attribute '%s'", e.path.c_str(), name.c_str()));
    if (values.isMember(name)) fail(format("'%s' is given twice", name.c_str()));
    values[name] = parse_text_value(*f, a.substr(eq + 1));
  }
  return values;
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
      if (key->empty()) fail(format("bad path '%s': the key in '%s[]' is empty", text.c_str(), name.c_str()));
      j = close + 1;
      if (j < text.size() && text[j] != '.')
        fail(format("bad path '%s': '.' expected after ']'", text.c_str()));
    }
    if (!need_key_done)
      fail(format("bad path '%s': '%s' is a table: name an entry as %s[KEY]", text.c_str(),
                  path.steps.back().element->name.c_str(), path.steps.back().element->name.c_str()));
    const Element* e = at == nullptr ? m.top(name) : at->child(name);
    const Field* f = at == nullptr ? nullptr : at->field(name);
    if (e == nullptr && f == nullptr)
      fail(at == nullptr
               ? format("no table or object '%s' in the schema", name.c_str())
               : format("'%s' has no attribute, table or object '%s'", at->path.c_str(), name.c_str()));
    if (e == nullptr) {
      if (key) fail(format("bad path '%s': attribute '%s' takes no key", text.c_str(), name.c_str()));
      if (j < text.size())
        fail(format("bad path '%s': nothing follows attribute '%s'", text.c_str(), name.c_str()));
      path.field = f;
      break;
    }
    if (key && !e->table)
      fail(format("bad path '%s': '%s' is an object and takes no key", text.c_str(), name.c_str()));
    path.steps.push_back({e, key});
    at = e;
    need_key_done = !e->table || key.has_value();
    if (j >= text.size()) break;
    i = j + 1;
  }
  return path;
}

}  // namespace config
