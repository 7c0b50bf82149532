// JSON as the configuration engine takes it in and gives it out. Input is
// strict, and every error names its place as FILE:LINE:COL (columns count
// bytes from 1, as editors that jump to a place take them). Output prints
// "key": value, and configuration in the schema's order rather than by name.
#pragma once

#include <json/json.h>
#include <stddef.h>

#include <string>
#include <vector>

namespace config {

class Model;
struct Element;

// A JSON text parsed strictly: one value, no comments, no trailing commas, no
// key twice in an object and nothing after the value. The text is kept so that
// later errors about what it says can name their place in it.
class JsonDocument {
 public:
  // Throws Error "NAME:LINE:COL: message" when the text is not such JSON.
  JsonDocument(std::string name, std::string text);

  const Json::Value& root() const { return root_; }
  const std::string& name() const { return name_; }

  // "NAME:LINE:COL" of a value of root() (or a copy of one); "NAME" for a
  // value the parser did not make.
  std::string where(const Json::Value& v) const;
  // The same for a place given as a path into the document: members by name,
  // array elements by [N], and elements of an array of objects also by their
  // "name" member, with a domain's "config" left out or not
  // ("domains.east.policy[0].action", "domains[1].config.policy").
  // The deepest value the path reaches names the place.
  std::string where(const std::string& path) const;
  // A message about what the document says, which begins with the path of
  // the place ("global.interface[2].mtu: 70000 does not fit ..."), with that
  // place in front: "NAME:LINE:COL: global.interface[2].mtu: ...". Other
  // messages get "NAME: " in front, unless they begin with it already.
  std::string locate(const std::string& message) const;

 private:
  // The deepest value the path reaches, or null when not even its first step does.
  const Json::Value* resolve(const std::string& path) const;
  std::string position(size_t offset) const;
  size_t offset_of(int line, int column) const;

  std::string name_, text_;
  std::vector<size_t> line_starts_;
  Json::Value root_;
};

// Any JSON value, members in jsoncpp's order (by name); indented by two
// spaces, or on one line when `compact`.
std::string json_text(const Json::Value& v, bool compact = false);

// A configuration document as dump gives it ({"global": ..., "domains":
// [{"name", "id", "config"}]}): contexts list elements in schema order, and
// objects and entries their attributes in schema order, then their child
// tables and objects. Members the schema does not name follow, by name.
std::string document_text(const Model& m, const Json::Value& doc, bool compact = false);
// What one element holds: an object or entry of `e`, or (an array) the
// entries of table `e`.
std::string element_text(const Element& e, const Json::Value& v, bool compact = false);

}  // namespace config
