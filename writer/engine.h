// Changes by name: a request is a JSON array of operations on paths, applied
// inside the writer's transaction, all of them or none.
//
//   {"op": "set", "path": "policy[p1]", "domain": "east", "values": {"action": 1}}
//       an object's or entry's fields; a missing entry is made from the
//       schema's defaults with the key its path gives
//   {"op": "delete", "path": "policy[p1].rule[10]", "domain": "east"}
//       an entry and everything below it
//   {"op": "load", "config": DUMP, "merge": false}
//       DUMP as dump prints it; see load() below
//   {"op": "domain-add", "name": "east", "id": 7}    (id optional: one past the highest)
//   {"op": "domain-rename", "name": "east", "to": "west"}
//   {"op": "domain-remove", "name": "east"}
// "domain" absent or "global" is the global context.
//
// The change set names each entry that changed, children of a deleted entry
// or domain first, so that it read backwards undoes the request:
//   {"op": "insert"|"update"|"delete", "domain": "global"|NAME, "path": "policy[p1]",
//    "old": {fields}|null, "new": {fields}|null}
//   {"op": "domain-add"|"domain-rename"|"domain-remove", "name": N, "id": I, "to": NEW}
// An object's change is an "update" (its old fields are the defaults while it
// has never been written); an object below a deleted entry is a "delete".
#pragma once

#include <optional>
#include <string>

#include <json/json.h>

#include "writer/config_writer.h"
#include "writer/model.h"

namespace config {

// Where a request stopped: the operation's index, the path (or domain) it was
// at, and why.
struct ApplyError {
  int op = -1;
  std::string path;
  std::string reason;
  bool aborted = false;  // the savepoint could not be restored: only the whole transaction can go back
};

struct Applied {
  Json::Value changes{Json::arrayValue};
  ApplyError error;  // op -1 when every operation was applied
  bool ok() const { return error.op < 0; }
};

// Applies the request inside w's open transaction: every operation, or none
// (the writer rolls back to a savepoint taken first, so the region, the queued
// announcements and the pending frees are as they were). The caller commits or
// rolls back the transaction. REQUIRES: w.in_transaction().
Applied apply(const Model& m, writer::ConfigWriter& w, const Json::Value& request);

// The dump document of the whole region, or of one context ("global" or a
// domain's name), as read_all gives it once the region's tree has passed
// verify_config: a damaged region throws Error naming the damage instead.
// REQUIRES: main lock (shared, or the writer's).
Json::Value dump(const Model& m, const std::optional<std::string>& only);

// What `cmdbctl get --json` prints for `path` in `domain` ("" or "global": the
// global context): an attribute's value, an object or entry (an object never
// written shows the schema's defaults and "default": true), a table's entries.
// An empty path gives the dump document, of `domain` alone when one is named.
// Throws Error. REQUIRES: main lock (shared, or the writer's).
std::string get_text(const Model& m, const std::string& path, const std::string& domain);

// The operation array's members, for those who build requests.
Json::Value set_op(const std::string& path, const std::string& domain, const Json::Value& values);
Json::Value delete_op(const std::string& path, const std::string& domain);
Json::Value load_op(const Json::Value& config, bool merge);

}  // namespace config
