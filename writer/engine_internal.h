// The engine's operations, shared by its sources. Each throws Error with the
// reason it stopped and leaves the path it was at in `where`; apply() rolls
// the writer back to its savepoint then.
// REQUIRES (everything here): the writer's transaction open.
#pragma once

#include <stdint.h>

#include <deque>
#include <string>
#include <vector>

#include <json/json.h>

#include "writer/config_writer.h"
#include "writer/model.h"

namespace config {

class Applier {
 public:
  Applier(const Model& m, writer::ConfigWriter& w) : m_(m), w_(w) {}

  void run(const Json::Value& op);

  Json::Value changes{Json::arrayValue};
  std::string where;  // the path (or domain) the operation in hand is at

 private:
  struct Context {
    uint32_t id = 0;
    std::string name = "global";
  };

  void set(const Json::Value& op);
  void remove(const Json::Value& op);
  void load(const Json::Value& op);
  void domain_add(const Json::Value& op);
  void domain_rename(const Json::Value& op);
  void domain_remove(const Json::Value& op);

  // The context an operation's "domain" member names.
  Context context(const Json::Value& domain) const;
  // A writer result: 0 goes on, a failure stops the operation with its text.
  void check(int r);
  // The region's node of an element must be the schema's: the writer copies
  // the element's data part whole.
  void check_node(const Element& e);
  // check_node of every element a path passes through, before the path's keys
  // are searched for.
  void check_path(const Path& p);
  // Before the reader walks a context: the region's tree checked once per
  // request (verify_config), so that the reader's lookups stay inside it.
  void readable();
  bool readable_ = false;
  std::vector<uint8_t> defaults(const Element& e);
  // The writer's location of a path's last element; the keys live in keys_.
  writer::Location location(const Path& p, uint32_t domain);

  void record(const char* op, const Context& c, const std::string& path, const Json::Value& old_fields,
              const Json::Value& new_fields);
  // Delete records for what `now` (as the reader shows an instance) holds,
  // children first: what a removal takes with it.
  void record_deletes(const Element& e, const std::string& path, const Json::Value& now, const Context& c);
  Json::Value fields_of(const Element& e, const Json::Value& shown) const;

  // load (writer/load.cc)
  struct InstancePlan;
  struct EntryPlan;
  struct ContextPlan;
  class Planner;
  void load_context(const ContextPlan& c);
  void load_instance(const writer::Location& loc, const std::string& path, const InstancePlan& plan,
                     const Json::Value& current, const Context& c);
  void load_children(const writer::Location& owner, const void* owner_key, const std::string& path,
                     const Element& e, const std::vector<InstancePlan>& plans, const Json::Value& current,
                     const Context& c, bool merge);
  void clear_table(const writer::Location& loc, const std::string& path, const Element& e,
                   const Json::Value& current, const Context& c);
  bool merge_ = false;

  const Model& m_;
  writer::ConfigWriter& w_;
  std::deque<std::vector<uint8_t>> keys_;
};

// A JSON value as one line of text (strings as they are).
std::string text_of(const Json::Value& v);
// Key bytes of a table for a key value as JSON shows it.
std::vector<uint8_t> key_from_json(const Element& table, const Json::Value& v);

}  // namespace config
