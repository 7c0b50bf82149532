// What cmdbd needs of the configuration engine, in one place: the region's
// configuration by name, read as a dump document and changed all or nothing
// through a write transaction with savepoints. engine.cc binds it to the
// engine library; nothing else in cmdbd includes the engine's headers.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

namespace cmdbd {

// Why a request's operations were refused.
struct ApplyFailure {
  int index = -1;    // of the operation; -1 when the request as a whole failed
  std::string path;  // the operation's path, when it has one
  std::string reason;
};

// One step of a change record's path, as the schema reads it.
struct PathStep {
  std::string name;                // element name
  bool table = false;
  std::string key_attr;            // a table's key attribute
  std::optional<std::string> key;  // the entry's key as text, for a table
  bool fold_case = false;          // keys compare without case
};

class Engine {
 public:
  // The schema's model from the schema file's text (`name` for messages).
  static std::unique_ptr<Engine> open(const std::string& schema_text, const std::string& name, std::string* error);
  virtual ~Engine() = default;

  // The owner lock: 0 when held, the holder's pid when another process holds
  // it, or -1 with *error.
  virtual int acquire_owner_lock(int64_t group, std::string* error) = 0;

  // REQUIRES: the region attached as its owner (init_cmdb_app_core(2)).
  // Takes the write lock, after taking back what a writer that died
  // mid-change left (*dead_writer: its pid, or 0). -1 with *error, and no
  // transaction, when the region is too damaged for that.
  virtual int begin(pid_t* dead_writer, std::string* error) = 0;
  // Savepoints inside the transaction. A rollback that fails (the region was
  // damaged under the change) rolls the whole transaction back, ends it and
  // says why in aborted().
  virtual int mark() = 0;
  virtual bool rollback_to(int mark) = 0;
  virtual const std::string& aborted() const = 0;
  // Leaves the region as begin() found it and releases the lock.
  virtual void rollback() = 0;
  // Applies every operation of the array or none. The change set is appended
  // to *changes (a JSON array of change records). A failure that ended the
  // whole transaction leaves aborted() set.
  virtual bool apply(const Json::Value& operations, Json::Value* changes, ApplyFailure* failure) = 0;
  // Bumps the version when anything changed, releases the lock, then
  // announces the changes.
  virtual int commit(std::string* error) = 0;

  // The dump document of the whole region. REQUIRES: begin(), or takes the
  // read lock itself when `locked` is false.
  virtual Json::Value dump(bool locked) = 0;
  // The region's faults, each named; empty when it is sound.
  virtual std::vector<std::string> verify() = 0;
  // Ends any transaction, empties the configuration in place without trusting
  // what it clears (attached processes stay attached), and opens a transaction
  // on the emptied region. 0, or -1 with *error and no transaction.
  virtual int reset(std::string* error) = 0;

  // The steps of a change record's path, or false with *error; *field gets a
  // trailing attribute's name ("" when the path ends at an element).
  virtual bool parse_path(const std::string& path, std::vector<PathStep>* steps, std::string* error,
                          std::string* field = nullptr) const = 0;
  // Whether the element reached by `names` (a top element, then children by
  // name) exists; *table and *key_attr say what it is.
  virtual bool element(const std::vector<std::string>& names, bool* table, std::string* key_attr) const = 0;
  // Gids of every table and object, for the reload events after a rebuild.
  virtual std::vector<uint16_t> element_gids() const = 0;
  // A document of another schema with what this one cannot hold left out:
  // tables, objects and attributes are matched by name. What was left out is
  // appended to *dropped, one path each.
  virtual Json::Value carry_over(const Json::Value& doc, std::vector<std::string>* dropped) const = 0;
};

}  // namespace cmdbd
