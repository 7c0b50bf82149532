// Loads a schema described in JSON (docs/schema-format.md) into the tree of
// 128-byte node descriptors that the creating process hands to the library
// through cmdb.schema. Lives outside the library: the library never parses text.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gikraidrum.h"

namespace schema {

// What the region can hold; the loader refuses a schema beyond these.
inline constexpr uint32_t kMaxGid = 1860;          // the node index has no slot for 1861
inline constexpr uint32_t kDomainTableGid = 91;    // the built-in domain table, walked first
inline constexpr size_t kMaxChildren = 255;        // nchild is a byte
inline constexpr size_t kMaxTables = 124;          // table-limits records, the domain table's included
inline constexpr size_t kMaxSqlDescriptions = 85;  // records of cmdb_sql_node
inline constexpr size_t kMaxRefPairs = 328;        // pairs of cmdb_datasource
inline constexpr uint32_t kMaxPlatform = 29;

// A loaded schema: the descriptors and everything they point at. Move-only;
// moving keeps every descriptor at its address.
//
// The defaults blocks come from malloc because the node builder free()s each
// one it copies and clears the pointer; the destructor frees only the blocks
// still named by a descriptor, so a schema may be destroyed before or after
// the region is built from it.
class Schema {
 public:
  Schema();
  ~Schema();
  Schema(Schema&&) noexcept;
  Schema& operator=(Schema&&) noexcept;
  Schema(const Schema&) = delete;
  Schema& operator=(const Schema&) = delete;

  // The root descriptor: not a node itself (gid 0, never visited by the
  // builder); its children are the top-level nodes. This is what the creating
  // process stores in cmdb.schema. Null for a schema that was never loaded.
  cmdb_node_desc_t* root() const;
  // The platform index the file names, if it names one.
  std::optional<uint32_t> platform() const;
  // The descriptor of a gid, or null.
  cmdb_node_desc_t* find(uint32_t gid) const;
  // Number of descriptors below the root.
  size_t node_count() const;

  struct Impl;

 private:
  friend class Loader;
  std::unique_ptr<Impl> impl_;
};

// The names a schema file may use for a kind ("table") and for a type of a
// given size ("u16"); the number as text when none fits.
std::string kind_name(int kind);
std::string type_name(int type, uint16_t size);

// Loads a schema from the JSON text `text`; `file_name` only names it in messages.
// Returns 0 and replaces *out, or EINVAL with *error set to
// "FILE:LINE:COLUMN: field 'X': message" (or "FILE:LINE:COLUMN: bad JSON: message")
// and *out left as it was.
int load_string(std::string_view text, std::string_view file_name, Schema* out, std::string* error);

// As load_string, reading the file at `path`. A file that cannot be read gives
// its errno value and "PATH: reason".
int load_file(const std::string& path, Schema* out, std::string* error);

}  // namespace schema
