// Reading configuration by name. What shared memory says is checked before it
// is followed: every handle against the allocator's page and cache records,
// every count and slot against the block that holds it, and no block may be
// reached twice; a region that fails a check gives an Error naming the damage
// (never a read outside a block, a loop, or an allocation a count asks for).
#pragma once

#include <json/json.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "writer/model.h"

namespace config {

struct DomainName {
  uint32_t id;
  std::string name;
};

// REQUIRES: main lock (shared), region attached. In id order.
std::vector<DomainName> list_domains();
// The id of a domain by name ("global" or "" is 0); throws Error when unknown.
// REQUIRES: main lock (shared).
uint32_t domain_id(const std::string& name);

// The configuration of one context: top-level name -> object or entry array.
// Elements never written are left out. REQUIRES: main lock (shared).
Json::Value read_context(const Model& m, uint32_t domain);

// The whole configuration, as load takes it:
//   {"global": {...}, "domains": [{"name": N, "id": I, "config": {...}}, ...]}
// `only` limits it to one context ("global" or a domain name).
// REQUIRES: main lock (shared).
Json::Value read_all(const Model& m, const std::optional<std::string>& only);

// What a path names in a context: an object or entry as an object of its
// values, a table without key as an array of entries (empty when never
// written), an attribute as a value. An object never written reads as the
// schema's defaults, and *defaults (when given) says so. Throws Error for an
// entry that does not exist. REQUIRES: main lock (shared).
Json::Value read_path(const Model& m, const Path& p, uint32_t domain, bool* defaults = nullptr);

// JSON object of a data part's fields.
Json::Value decode_fields(const Element& e, const uint8_t* data);

// Whether an element lives in the global context, in domains, or both.
bool in_global(const Element& e);
bool in_domains(const Element& e);

// The data part (e.size bytes) that a path ending in an object or TABLE[KEY]
// names, or null when it (or anything above it) does not exist. No attribute,
// no bare table. Throws Error on a damaged region.
// REQUIRES: main lock (shared or exclusive).
const uint8_t* find_data_part(const Path& p, uint32_t domain);
// The key bytes of a table's key field for a key given as text; throws Error.
std::vector<uint8_t> key_bytes(const Element& table, const std::string& text);

}  // namespace config
