// Changing configuration: load, set and delete, each one request to the
// engine (writer/engine.h), applied in one transaction of the writer: all of
// it, or nothing. The writer announces each change once the lock is released.
#include <stdio.h>
#include <string.h>

#include <memory>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "writer/config_writer.h"
#include "writer/engine.h"
#include "writer/json_text.h"
#include "writer/model.h"
#include "writer/owner_lock.h"
#include "writer/reader.h"

namespace cmdbctl {
namespace {

// One writer at a time allocates: the owner daemon for its life, or a command
// like this one for its own. Another command is waited for a while; an owner
// daemon keeps the lock, so a managed region is not waited for.
void take_owner_lock(writer::OwnerLock& lock) {
  const cmdb_header_t* h = cmdb.header;
  const bool restricted = h != nullptr && (h->ext_flags & CMDB_EXT_RESTRICTED) != 0;
  const bool managed = h != nullptr && (h->ext_flags & CMDB_EXT_MANAGED) != 0;
  const int r = lock.acquire(restricted ? int64_t{h->write_gid} : -1, managed ? 0 : 10000);
  if (r < 0) fail(lock.error());
  if (r == 0) return;
  std::string comm;
  try {
    comm = read_file(format("/proc/%d/comm", r));
  } catch (const std::exception&) {
  }
  while (!comm.empty() && comm.back() == '\n') comm.pop_back();
  fail(format("%s (pid %d) holds the owner lock (%s): one writer at a time", comm.empty() ? "a process" : comm.c_str(),
              r, writer::kOwnerLockPath));
}

// Applies one request as the region's owner, in a transaction of its own.
// The refusal of a request made from a document names its place in it.
Json::Value run_request(const Model& m, const Json::Value& request, const JsonDocument* source = nullptr) {
  Attachment a(Mode::kOwner);
  writer::OwnerLock owner;
  take_owner_lock(owner);
  writer::ConfigWriter w;
  if (w.begin() != 0) fail(w.error());
  // WRITE LOCK
  if (w.recovered() != 0)
    fprintf(stderr, "cmdbctl: took back the unfinished change of pid %u, which died while writing\n", w.recovered());
  config::Applied done = config::apply(m, w, request);
  if (!done.ok()) {
    w.rollback();
    const config::ApplyError& e = done.error;
    const std::string why =
        e.path.empty() || e.reason.find(e.path) != std::string::npos ? e.reason : e.path + ": " + e.reason;
    fail(source != nullptr ? source->locate(why) : why);
  }
  if (w.commit() != 0) fail(w.error());
  // WRITE UNLOCK
  return done.changes;
}

std::string in_domain(const std::string& domain) { return domain.empty() ? "" : " in " + domain; }

void print_changes(const Options& o, const Json::Value& changes) {
  if (!o.json) return;
  Json::Value v(Json::objectValue);
  v["changes"] = changes;
  printf("%s\n", to_json_text(v).c_str());
}

}  // namespace

int cmd_load(const Options& o, const std::string& file, bool merge, size_t max_bytes) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  const JsonDocument source(file == "-" ? "<stdin>" : file, read_input(file, max_bytes));
  Json::Value request(Json::arrayValue);
  request.append(config::load_op(source.root(), merge));
  const Json::Value changes = run_request(*m, request, &source);
  const Json::Value& doc = source.root();
  const size_t contexts = doc.isMember("global") + (doc["domains"].isArray() ? doc["domains"].size() : 0);
  if (!o.json) printf("%s %s: %zu context%s\n", merge ? "merged" : "loaded", file.c_str(), contexts, contexts == 1 ? "" : "s");
  print_changes(o, changes);
  return 0;
}

int cmd_set(const Options& o, const std::string& path_text, const std::vector<std::string>& assignments,
            const std::string& domain) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  const Path p = parse_path(*m, path_text);
  if (p.field != nullptr) fail(format("'%s' names an attribute: give its owner and ATTR=VALUE", path_text.c_str()));
  Json::Value request(Json::arrayValue);
  request.append(config::set_op(path_text, domain, parse_assignments(*p.steps.back().element, assignments)));
  const Json::Value changes = run_request(*m, request);
  const bool created = !changes.empty() && changes[0]["op"].asString() == "insert";
  if (!o.json) printf("%s %s%s\n", created ? "created" : "set", path_text.c_str(), in_domain(domain).c_str());
  print_changes(o, changes);
  return 0;
}

int cmd_delete(const Options& o, const std::string& path_text, const std::string& domain) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Json::Value request(Json::arrayValue);
  request.append(config::delete_op(path_text, domain));
  const Json::Value changes = run_request(*m, request);
  if (!o.json) printf("deleted %s%s\n", path_text.c_str(), in_domain(domain).c_str());
  print_changes(o, changes);
  return 0;
}

int cmd_domain(const Options& o, const DomainArgs& a) {
  if (a.action == "list") return cmd_domains(o);
  const bool renames = a.action == "rename";
  if (a.action != "add" && !renames && a.action != "remove")
    throw Failure(format("domain: '%s' is not list, add, rename or remove", a.action.c_str()), kExitUsage);
  if (a.name.empty() || renames != !a.to.empty() || (a.id && a.action != "add"))
    throw Failure(renames ? "domain rename NAME NEW" : "domain " + a.action + " NAME" + (a.action == "add" ? " [--id N]" : ""),
                  kExitUsage);
  std::unique_ptr<Model> m = Model::load(o.schema);
  Json::Value op(Json::objectValue);
  op["op"] = "domain-" + a.action;
  op["name"] = a.name;
  if (renames) op["to"] = a.to;
  if (a.id) op["id"] = *a.id;
  Json::Value request(Json::arrayValue);
  request.append(op);
  if (managed_by_cmdbd(o))
    return cmdbd_request(o, request, renames ? "renamed domain " + a.name + " to " + a.to
                                             : (a.action == "add" ? "added" : "removed") + (" domain " + a.name));
  const Json::Value changes = run_request(*m, request);
  const Json::Value& last = changes[changes.size() - 1];
  if (!o.json) {
    if (renames) printf("renamed domain %s to %s\n", a.name.c_str(), a.to.c_str());
    else printf("%s domain %s (id %u)\n", a.action == "add" ? "added" : "removed", a.name.c_str(), last["id"].asUInt());
  }
  print_changes(o, changes);
  return 0;
}

}  // namespace cmdbctl
