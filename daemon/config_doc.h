// Configuration documents ({"global": {...}, "domains": [...]}, as the engine
// dumps them) outside the region: replaying change sets over a snapshot to get
// the configuration of a later revision, and comparing two documents.
#pragma once

#include <string>

#include <json/json.h>

#include "daemon/engine.h"

namespace cmdbd {

// The configuration with nothing in it.
Json::Value empty_config();

// Applies the records of a change set in order. False with *error naming the
// record when one does not fit the document (a damaged store, or a change set
// of another schema).
bool replay(const Engine& engine, const Json::Value& changes, Json::Value* doc, std::string* error);

// Whether two documents hold the same configuration: entry order, domain
// order and empty tables do not count.
bool same_config(const Json::Value& a, const Json::Value& b);

// The differences that take configuration `a` to `b`, field by field, as an
// array of records in path order:
//   {"op": "update"|"insert"|"delete", "domain": "global"|NAME, "path": "policy[p1]",
//    "fields": {NAME: {"old": V|null, "new": V|null}}}
//   {"op": "domain-add"|"domain-remove", "name": N, "id": I}
// An inserted or deleted entry lists its fields; its children follow as
// records of their own.
Json::Value diff(const Engine& engine, const Json::Value& a, const Json::Value& b);

// Compact JSON text, as the store keeps documents and change sets.
std::string to_text(const Json::Value& v);
// Strict parse of a JSON text (requests and what the store keeps); false with
// *error.
bool from_text(const std::string& text, Json::Value* v, std::string* error);

}  // namespace cmdbd
