// The configuration as cmdbctl names it: the schema's tables and objects with
// their attributes, values converted between JSON and the bytes of a data part,
// and paths such as policy[p1].rule[10].port.
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "gikraidrum.h"
#include "tools/schema/schema_loader.h"

namespace cmdbctl {

// A value in a data part.
struct Field {
  std::string name;
  uint16_t gid = 0;
  uint8_t type = 0;
  uint16_t size = 0;
  uint16_t offset = 0;
  bool is_string() const { return type == 2 || type == 5 || type == 13; }
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
  std::vector<Field> fields;               // a table's key first
  std::vector<const Element*> children;    // child tables and objects of each entry / the object
  const Element* parent = nullptr;
  const Field* key() const { return table && !fields.empty() ? &fields[0] : nullptr; }
  const Field* field(const std::string& n) const;
  const Element* child(const std::string& n) const;
};

class Model {
 public:
  // Reads the schema from `path`, or from the copy kept beside the region when
  // `path` is empty. Throws Failure.
  static std::unique_ptr<Model> load(const std::string& path);
  explicit Model(schema::Schema s);

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
};

// Bytes <-> JSON. Strings are text; 4-byte type-4 values dotted IPv4
// addresses; other values up to 8 bytes unsigned integers; longer ones
// {"hex": "..."}.
Json::Value decode_value(const Field& f, const uint8_t* data);
// Stores `v` into the field of the data part; returns an error text or "".
std::string encode_value(const Field& f, const Json::Value& v, uint8_t* data);
// A command-line text as the JSON value it stands for in this field.
Json::Value parse_text_value(const Field& f, const std::string& text);

// One step of a path: an element name, an entry key, or an attribute.
struct PathStep {
  const Element* element = nullptr;
  std::optional<std::string> key;  // set for an entry of a table
};
struct Path {
  std::vector<PathStep> steps;     // from the top-level element down
  const Field* field = nullptr;    // a trailing attribute, if any
};
// Parses NAME[KEY].NAME[KEY].ATTR; throws Failure naming what is wrong.
Path parse_path(const Model& m, const std::string& text);

}  // namespace cmdbctl
