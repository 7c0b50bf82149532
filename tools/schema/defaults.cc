// Default blocks: typed values laid out at each attribute's offset, or raw hex.
#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "tools/schema/loader_internal.h"

namespace schema {
namespace {

std::string range(size_t offset, size_t size) {
  return "bytes " + std::to_string(offset) + ".." + std::to_string(offset + size - 1);
}

}  // namespace

// The attributes that live in the data part of n's entries (or object): its
// own children without an instance block of their own, and for a table also
// those of its entry node, whose children describe the entry.
void Loader::data_members(const Node* n, std::vector<const Node*>* out) const {
  auto add = [out](const Node* p) {
    for (const Node* c : p->children)
      if (!has_own_instance(c->desc)) out->push_back(c);
  };
  add(n);
  if (is_table(n->desc) && !n->children.empty()) add(n->children.front());
}

int Loader::put_hex(const Json::Value& v, std::string_view field, uint8_t* at, size_t room) {
  if (!v.isString()) return fail(v, field, "expected a string of hex digits");
  std::string digits;
  for (char c : v.asString()) {
    if (c == ' ') continue;  // spaces may group the bytes
    if (!isxdigit(static_cast<unsigned char>(c)))
      return fail(v, field, quoted(std::string_view(&c, 1)) + " is not a hex digit");
    digits += c;
  }
  if (digits.size() % 2 != 0) return fail(v, field, "odd number of hex digits");
  if (digits.size() / 2 > room)
    return fail(v, field, std::to_string(digits.size() / 2) + " bytes do not fit in " + std::to_string(room));
  for (size_t i = 0; i < digits.size() / 2; ++i)
    at[i] = static_cast<uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
  return 0;
}

// Strings are NUL-padded and keep at least one NUL; integers are little-endian
// in the attribute's size, negative ones in two's complement.
int Loader::put_value(const Json::Value& v, std::string_view field, const Node* attr, uint8_t* block,
                      size_t block_size) {
  const cmdb_node_desc_t* a = attr->desc;
  size_t offset = a->offset, size = a->size;
  if (size == 0) return fail(v, field, quoted(a->name) + " has size 0");
  if (offset + size > block_size)
    return fail(v, field,
                quoted(a->name) + " (" + range(offset, size) + ") does not fit in the " +
                    std::to_string(block_size) + "-byte default block");
  uint8_t* at = block + offset;
  if (v.isObject()) {
    if (int err = check_fields(v, field, {"hex"}); err != 0) return err;
    const Json::Value* hex = member(v, "hex");
    if (hex == nullptr) return fail(v, field, "an object value needs 'hex'");
    return put_hex(*hex, std::string(field) + ".hex", at, size);
  }
  int type = type_of(a);
  if (is_string_type(type)) {
    if (!v.isString()) return fail(v, field, "type " + std::to_string(type) + " takes a string");
    std::string s = v.asString();
    if (s.find('\0') != std::string::npos) return fail(v, field, "contains a NUL character");
    if (s.size() >= size)
      return fail(v, field,
                  quoted(s) + " is " + std::to_string(s.size()) + " bytes; the field holds " +
                      std::to_string(size) + " with the terminating NUL");
    memset(at, 0, size);  // over whatever defaults_hex put there
    std::copy(s.begin(), s.end(), at);
    return 0;
  }
  uint64_t bits = 0;
  bool negative = false;
  if (v.isBool()) {
    bits = v.asBool() ? 1 : 0;
  } else if (v.type() == Json::intValue || v.type() == Json::uintValue) {
    negative = v.isInt64() && v.asInt64() < 0;
    bits = negative ? static_cast<uint64_t>(v.asInt64()) : v.asUInt64();
  } else {
    return fail(v, field, "type " + std::to_string(type) + " takes an integer, a boolean or {\"hex\": ...}");
  }
  if (size < 8) {
    int bits_in_field = static_cast<int>(size) * 8;
    bool fits = negative ? static_cast<int64_t>(bits) >= -(int64_t{1} << (bits_in_field - 1))
                         : bits >> bits_in_field == 0;
    if (!fits) return fail(v, field, v.asString() + " does not fit in " + std::to_string(size) + " bytes");
  }
  for (size_t i = 0; i < size; ++i)
    at[i] = i < 8 ? static_cast<uint8_t>(bits >> (8 * i)) : (negative ? 0xFF : 0);
  return 0;
}

int Loader::load_defaults(Node* n) {
  const Json::Value* hex = member(*n->json, "defaults_hex");
  const Json::Value* named = member(*n->json, "defaults");
  const Json::Value* first = hex != nullptr ? hex : named;  // where a refusal of the whole block points
  if (first == nullptr) return 0;
  const Json::Value& at = *first;
  const char* field = hex != nullptr ? "defaults_hex" : "defaults";
  cmdb_node_desc_t* d = n->desc;
  int kind = kind_of(d);
  if (kind != 2 && kind != 3 && kind != 4)
    return fail(at, field,
                "the builder takes defaults for kinds 2, 3 and 4 only, not kind " + std::to_string(kind));
  if (d->size == 0) return fail(at, field, "the node has size 0, so no default block");
  auto* block = static_cast<uint8_t*>(calloc(d->size, 1));
  if (block == nullptr) {
    fail(at, field, "out of memory");
    return ENOMEM;
  }
  d->defaults = block;  // ~Impl frees it unless the builder takes it first
  if (hex != nullptr)
    if (int err = put_hex(*hex, "defaults_hex", block, d->size); err != 0) return err;
  if (named == nullptr) return 0;
  if (!named->isObject()) return fail(*named, "defaults", "expected an object of attribute names and values");

  std::vector<const Node*> members;
  data_members(n, &members);
  for (auto it = named->begin(); it != named->end(); ++it) {
    std::string name = it.name(), f = "defaults." + name;
    const Node* found = nullptr;
    for (const Node* m : members) {
      if (name != m->desc->name) continue;
      if (found != nullptr) return fail(*it, f, quoted(name) + " names two attributes of " + quoted(d->name));
      found = m;
    }
    if (found == nullptr) return fail(*it, f, quoted(d->name) + " has no attribute " + quoted(name));
    if (int err = put_value(*it, f, found, block, d->size); err != 0) return err;
  }
  return 0;
}

}  // namespace schema
