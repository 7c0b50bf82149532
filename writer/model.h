// The configuration by name, as the tools and the owner daemon see it: the schema's tables and objects with
// their attributes, values converted between JSON and the bytes of a data part,
// and paths such as policy[p1].rule[10].port.
#pragma once

#include <json/json.h>
#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gikraidrum.h"
#include "tools/schema/schema_loader.h"
#include "writer/names.h"
#include "writer/text.h"

namespace config {

// A copy of the schema the region was created from, kept beside the region so
// that later commands can name tables and attributes. Not a library file: the
// library neither reads nor removes it.
inline constexpr const char* kSchemaCopy = CMDB_DIR "cmdbctl.schema.json";

// A value in a data part. The model guarantees offset + size <= the data part.
struct Field {
  std::string name;
  uint16_t gid = 0;
  uint8_t type = 0;
  uint16_t size = 0;
  uint16_t offset = 0;
  // Type 4 of 4 bytes is the hosts' IPv4 address, which the writer shows dotted.
  static constexpr uint8_t kTypeIpv4 = 4;
  bool is_string() const { return type < 32 && ((CMDB_STRING_TYPES >> type) & 1u) != 0; }
  bool is_ipv4() const { return type == kTypeIpv4 && size == 4; }
  // Integers: every other type up to 8 bytes. Wider values are raw bytes.
  bool is_integer() const { return !is_string() && !is_ipv4() && size >= 1 && size <= 8; }
};

// A node with an instance block of its own: a table (kind 2 or 3) whose entries
// hold a data part each, or an object (kind 4) with one data part.
struct Element {
  const cmdb_node_desc_t* desc = nullptr;
  std::string name;
  std::string path;  // dotted from the top level
  uint16_t gid = 0;
  uint8_t kind = 0;
  uint8_t scope = 0;
  uint16_t size = 0;  // of a data part
  bool table = false;
  std::vector<Field> fields;             // a table's key first
  std::vector<const Element*> children;  // child tables and objects of each entry / the object
  const Element* parent = nullptr;
  // The data part a new entry or an object never written holds: the node's
  // default block as the region's builder fills it from this schema.
  std::vector<uint8_t> defaults;
  const Field* key() const { return table && !fields.empty() ? &fields[0] : nullptr; }
  const Field* field(const std::string& n) const;
  const Element* child(const std::string& n) const;
};

class Model {
 public:
  // Reads the schema from `path`, or from the copy kept beside the region when
  // `path` is empty. Throws Error.
  static std::unique_ptr<Model> load(const std::string& path);
  // Throws Error when an attribute lies outside its data part. While it
  // lives, the writer's messages name nodes by its names.
  explicit Model(schema::Schema s);
  ~Model();
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  const std::vector<const Element*>& tops() const { return tops_; }
  const Element* top(const std::string& name) const;
  const Element* element(uint16_t gid) const;
  // An element by its dotted path without keys ("policy.rule"), or null.
  const Element* element(const std::string& path) const;
  // "policy.rule" for an element, "policy.rule.port" for an attribute, "gid N" otherwise.
  std::string name_of(uint16_t gid) const;
  const schema::Schema& schema() const { return schema_; }

 private:
  Element* build(const cmdb_node_desc_t* d, const Element* parent);
  schema::Schema schema_;
  std::vector<std::unique_ptr<Element>> elements_;
  std::vector<const Element*> tops_;
  std::map<uint16_t, const Element*> by_gid_;
  std::map<uint16_t, std::string> names_;
  std::map<uint16_t, std::vector<uint8_t>> default_blocks_;
  writer::NodeNamer previous_namer_;
};

// Bytes -> JSON. Text that is valid UTF-8 is a string; a 4-byte type-4 value
// a dotted IPv4 address; an integer up to 8 bytes an unsigned number;
// anything else (text that is not UTF-8 included) {"hex": "..."}, so that a
// value read always goes back unchanged.
Json::Value decode_value(const Field& f, const uint8_t* data);

// JSON -> bytes, storing into the field of the data part; returns an error
// text or "". One notation everywhere: text for strings; dotted text for IPv4
// addresses; for integers a non-negative whole number, true/false, or a
// string that parse_text_value takes; {"hex": "..."} for raw bytes of any field.
std::string encode_value(const Field& f, const Json::Value& v, uint8_t* data);

// A command-line text as the JSON value it stands for in this field:
// "hex:DIGITS" raw bytes; for integers decimal digits or 0x and hex digits
// (no sign: "010" is ten), or true/yes/on/false/no/off. Throws Error.
Json::Value parse_text_value(const Field& f, const std::string& text);

// ATTR=VALUE arguments as an object of the element's attributes, each value
// as parse_text_value reads it. Throws Error on an unknown attribute, one
// given twice, or text without '='.
Json::Value parse_assignments(const Element& e, const std::vector<std::string>& assignments);

// One step of a path: an element name, an entry key, or an attribute.
struct PathStep {
  const Element* element = nullptr;
  std::optional<std::string> key;  // set for an entry of a table
};
struct Path {
  std::vector<PathStep> steps;   // from the top-level element down
  const Field* field = nullptr;  // a trailing attribute, if any
};
// Parses NAME[KEY].NAME[KEY].ATTR; throws Error naming what is wrong.
Path parse_path(const Model& m, const std::string& text);

// Whether `s` is well-formed UTF-8 (no overlong forms, surrogates, or code
// points past U+10FFFF).
bool valid_utf8(const std::string& s);

}  // namespace config
