// Changing configuration: load, set and delete, all through the writer, which
// announces each change once the write lock is released.
//
// A load is checked whole before anything changes: every value, every key,
// every table against its size limit and the domains against their capacity.
// Only then does one write transaction make each context that the file names
// equal to the file. Contexts that the file does not name are left alone.
#include <errno.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <set>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/model.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/reader.h"
#include "tools/cmdbctl/region.h"
#include "writer/config_writer.h"

namespace cmdbctl {
namespace {

struct EntryPlan;

// What one table or object instance must hold.
struct InstancePlan {
  const Element* e = nullptr;
  std::vector<uint8_t> data;          // an object's data part
  std::vector<EntryPlan> entries;     // a table's entries, in file order
  std::vector<InstancePlan> children; // an object's child instances
};

struct EntryPlan {
  std::vector<uint8_t> data;
  std::vector<uint8_t> key;
  std::string key_text;
  std::vector<InstancePlan> children;
};

struct ContextPlan {
  std::string name;  // "global" or the domain's
  uint32_t id = 0;   // 0 for a domain still to be added until apply
  bool is_new = false;
  std::vector<InstancePlan> tops;
};

bool case_insensitive(const Element& table) { return (table.desc->flags_c & 0x10) != 0; }

std::string text_of(const Json::Value& v) {
  if (v.isString()) return v.asString();
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

// The key field's bytes for a key value as JSON shows it.
std::vector<uint8_t> key_from_json(const Element& table, const Json::Value& v) {
  Field k = *table.key();
  k.offset = 0;
  std::vector<uint8_t> buf(k.size);
  if (std::string err = encode_value(k, v, buf.data()); !err.empty()) fail(err);
  return buf;
}

// Checks JSON against the schema and lays out data parts.
class Planner {
 public:
  explicit Planner(writer::ConfigWriter* w) : w_(w) {}

  InstancePlan instance(const Element& e, const Json::Value& v, const std::string& where) {
    InstancePlan p;
    p.e = &e;
    if (e.table) {
      if (!v.isArray()) fail(format("%s: '%s' is a table: give an array of entries", where.c_str(), e.path.c_str()));
      std::set<std::string> keys;
      for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
        EntryPlan ep;
        std::string at = format("%s[%u]", where.c_str(), i);
        const Field* k = e.key();
        if (k == nullptr) fail(format("%s: table '%s' has no key", at.c_str(), e.path.c_str()));
        if (!v[i].isObject() || !v[i].isMember(k->name))
          fail(format("%s: an entry of '%s' needs its key '%s'", at.c_str(), e.path.c_str(), k->name.c_str()));
        ep.data = defaults(e);
        fill(e, v[i], at, ep.data.data(), &ep.children);
        ep.key_text = text_of(decode_value(*k, ep.data.data()));
        ep.key.assign(ep.data.begin() + k->offset, ep.data.begin() + k->offset + k->size);
        std::string folded = ep.key_text;
        if (case_insensitive(e) && k->is_string())
          for (char& c : folded) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        if (!keys.insert(folded).second)
          fail(format("%s: key '%s' appears twice in '%s'", at.c_str(), ep.key_text.c_str(), e.path.c_str()));
        p.entries.push_back(std::move(ep));
      }
      // The writer's own limit: the table-limits record, else the size table's value.
      const cmdb_table_limit_t* lim = cmf_get_tablesize(e.gid);
      int64_t limit = lim != nullptr ? lim->size : cmdb_get_table_size(e.gid, static_cast<int>(cmdb.header->platform));
      if (static_cast<int64_t>(p.entries.size()) > limit)
        fail(format("%s: '%s' holds at most %lld entries, not %zu", where.c_str(), e.path.c_str(),
                    static_cast<long long>(limit), p.entries.size()));
      added_[e.gid] += p.entries.size();
    } else {
      if (!v.isObject()) fail(format("%s: '%s' is an object: give its attributes", where.c_str(), e.path.c_str()));
      p.data = defaults(e);
      fill(e, v, where, p.data.data(), &p.children);
    }
    return p;
  }

  // Entries the plan adds per kind-2 table, for the total limits.
  const std::map<uint16_t, size_t>& added() const { return added_; }

  std::vector<uint8_t> defaults(const Element& e) {
    std::vector<uint8_t> d = w_->defaults(e.gid);
    d.resize(e.size);
    return d;
  }

 private:
  void fill(const Element& e, const Json::Value& v, const std::string& where, uint8_t* data,
            std::vector<InstancePlan>* children) {
    for (const std::string& name : v.getMemberNames()) {
      std::string at = where + "." + name;
      if (const Field* f = e.field(name)) {
        if (std::string err = encode_value(*f, v[name], data); !err.empty()) fail(at + ": " + err);
      } else if (const Element* c = e.child(name)) {
        children->push_back(instance(*c, v[name], at));
      } else {
        fail(format("%s: '%s' has no attribute, table or object '%s'", where.c_str(), e.path.c_str(), name.c_str()));
      }
    }
  }

  writer::ConfigWriter* w_;
  std::map<uint16_t, size_t> added_;
};

void check(writer::ConfigWriter& w, int r, const std::string& what) {
  if (r < 0) fail(format("%s: %s", what.c_str(), w.error().empty() ? strerror(-r) : w.error().c_str()));
}

// Counts the entries of each table in a context as read_context shows it.
void count_entries(const Model& m, const Element& e, const Json::Value& v, std::map<uint16_t, size_t>* counts) {
  if (e.table) {
    if (!v.isArray()) return;
    (*counts)[e.gid] += v.size();
    for (const Json::Value& entry : v)
      for (const Element* c : e.children)
        if (entry.isMember(c->name)) count_entries(m, *c, entry[c->name], counts);
  } else {
    for (const Element* c : e.children)
      if (v.isMember(c->name)) count_entries(m, *c, v[c->name], counts);
  }
}

// Makes the instance at `loc` hold `plan`; `current` is what it holds now (null: nothing).
void apply_instance(writer::ConfigWriter& w, const writer::Location& loc, const InstancePlan& plan,
                    const Json::Value& current);

void clear_table(writer::ConfigWriter& w, const writer::Location& loc, const Element& e, const Json::Value& current) {
  if (!current.isArray()) return;
  const Field& k = *e.key();
  for (const Json::Value& entry : current) {
    std::vector<uint8_t> key = key_from_json(e, entry[k.name]);
    check(w, w.remove(loc, key.data()), format("removing %s[%s]", e.path.c_str(), text_of(entry[k.name]).c_str()));
  }
}

void apply_children(writer::ConfigWriter& w, const writer::Location& owner, const void* owner_key, const Element& e,
                    const std::vector<InstancePlan>& plans, const Json::Value& current) {
  for (const Element* c : e.children) {
    const InstancePlan* plan = nullptr;
    for (const InstancePlan& p : plans)
      if (p.e == c) plan = &p;
    Json::Value now = current.isObject() && current.isMember(c->name) ? current[c->name] : Json::Value();
    writer::Location loc = owner.child(owner_key, c->gid);
    if (plan != nullptr) apply_instance(w, loc, *plan, now);
    else if (c->table) clear_table(w, loc, *c, now);  // an object that the plan leaves out keeps its values
  }
}

void apply_instance(writer::ConfigWriter& w, const writer::Location& loc, const InstancePlan& plan,
                    const Json::Value& current) {
  const Element& e = *plan.e;
  if (!e.table) {
    // Bytes no attribute names are not shown, so compare what is shown.
    bool same = current.isObject();
    for (const Field& f : e.fields)
      if (same && !(decode_value(f, plan.data.data()) == current[f.name])) same = false;
    if (!same) check(w, w.set_object(loc, plan.data.data()), format("setting %s", e.path.c_str()));
    apply_children(w, loc, nullptr, e, plan.children, current);
    return;
  }
  const Field& k = *e.key();
  // Removals first, so that a full table makes room for what replaces it.
  std::map<std::string, Json::Value> existing;
  if (current.isArray())
    for (const Json::Value& entry : current) existing[text_of(entry[k.name])] = entry;
  std::set<std::string> wanted;
  for (const EntryPlan& ep : plan.entries) wanted.insert(ep.key_text);
  for (const auto& [key, entry] : existing) {
    if (wanted.count(key) != 0) continue;
    std::vector<uint8_t> kb = key_from_json(e, entry[k.name]);
    check(w, w.remove(loc, kb.data()), format("removing %s[%s]", e.path.c_str(), key.c_str()));
  }
  for (const EntryPlan& ep : plan.entries) {
    auto it = existing.find(ep.key_text);
    Json::Value now;
    if (it == existing.end()) {
      check(w, w.insert(loc, ep.data.data()), format("inserting %s[%s]", e.path.c_str(), ep.key_text.c_str()));
    } else {
      now = it->second;
      bool same = true;
      for (const Field& f : e.fields)
        if (!(decode_value(f, ep.data.data()) == now[f.name])) same = false;
      if (!same)
        check(w, w.update(loc, ep.key.data(), ep.data.data()),
              format("updating %s[%s]", e.path.c_str(), ep.key_text.c_str()));
    }
    apply_children(w, loc, ep.key.data(), e, ep.children, now);
  }
}

std::string context_name(uint32_t id) {
  if (id == 0) return "global";
  for (const DomainName& d : list_domains())
    if (d.id == id) return d.name;
  return format("#%u", id);
}

void apply_context(writer::ConfigWriter& w, const Model& m, const ContextPlan& c) {
  Json::Value current = c.is_new ? Json::Value(Json::objectValue) : read_context(m, c.id);
  for (const Element* e : m.tops()) {
    if (c.id == 0 ? !in_global(*e) : !in_domains(*e)) continue;
    const InstancePlan* plan = nullptr;
    for (const InstancePlan& p : c.tops)
      if (p.e == e) plan = &p;
    Json::Value now = current.isMember(e->name) ? current[e->name] : Json::Value();
    writer::Location loc(c.id, e->gid);
    if (plan != nullptr) apply_instance(w, loc, *plan, now);
    else if (e->table) clear_table(w, loc, *e, now);
  }
}

// One context of the file: checks that its elements belong there.
ContextPlan plan_context(Planner& planner, const Model& m, const std::string& name, uint32_t id,
                         const Json::Value& v, const std::string& where) {
  if (!v.isObject()) fail(where + ": give an object of tables and objects");
  ContextPlan c;
  c.name = name;
  c.id = id;
  for (const std::string& n : v.getMemberNames()) {
    const Element* e = m.top(n);
    if (e == nullptr) fail(format("%s: no table or object '%s' in the schema", where.c_str(), n.c_str()));
    bool global = where == "global";
    if (global ? !in_global(*e) : !in_domains(*e))
      fail(format("%s: '%s' exists %s", where.c_str(), n.c_str(), global ? "per domain only" : "globally only"));
    c.tops.push_back(planner.instance(*e, v[n], where + "." + n));
  }
  return c;
}

Json::Value parse_json(const std::string& text, const std::string& name) {
  Json::CharReaderBuilder b;
  b["strictRoot"] = true;
  b["rejectDupKeys"] = true;
  b["allowComments"] = false;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  Json::Value v;
  std::string errors;
  if (!r->parse(text.data(), text.data() + text.size(), &v, &errors)) {
    while (!errors.empty() && (errors.back() == '\n' || errors.back() == ' ')) errors.pop_back();
    size_t nl = errors.find('\n');
    fail(name + ": bad JSON: " + (nl == std::string::npos ? errors : errors.substr(nl + 1)));
  }
  return v;
}

// The writer's transaction for one command; commits on every way out, since
// the writer has no rollback and its lock must not outlive the command.
class Transaction {
 public:
  explicit Transaction(writer::ConfigWriter& w) : w_(w) { check(w_, w_.begin(), "taking the write lock"); }
  ~Transaction() {
    if (w_.in_transaction()) w_.commit();
  }
  void commit() { check(w_, w_.commit(), "committing"); }

 private:
  writer::ConfigWriter& w_;
};

}  // namespace

int cmd_load(const Options& o, const std::string& file) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  std::string text = file == "-" ? read_file("/dev/stdin") : read_file(file);
  Json::Value doc = parse_json(text, file);
  if (!doc.isObject()) fail(file + ": the top level is an object with 'global' and 'domains'");
  for (const std::string& n : doc.getMemberNames())
    if (n != "global" && n != "domains") fail(format("%s: unknown member '%s' (only 'global' and 'domains')", file.c_str(), n.c_str()));
  const Json::Value& domains = doc["domains"];
  if (!domains.isNull() && !domains.isArray()) fail(file + ": 'domains' is an array");

  Attachment a(Mode::kOwner);
  writer::ConfigWriter w;
  Transaction t(w);
  // WRITE LOCK: nothing below may take the read lock.
  Planner planner(&w);
  std::vector<ContextPlan> contexts;
  if (doc.isMember("global")) contexts.push_back(plan_context(planner, *m, "global", 0, doc["global"], "global"));

  std::vector<DomainName> have = list_domains();
  std::set<uint32_t> ids;
  for (const DomainName& d : have) ids.insert(d.id);
  std::set<std::string> seen;
  uint32_t next_id = ids.empty() ? 1 : *ids.rbegin() + 1;
  size_t adding = 0;
  for (Json::ArrayIndex i = 0; domains.isArray() && i < domains.size(); ++i) {
    const Json::Value& d = domains[i];
    std::string where = format("domains[%u]", i);
    if (!d.isObject() || !d["name"].isString()) fail(where + ": a domain needs its 'name'");
    for (const std::string& n : d.getMemberNames())
      if (n != "name" && n != "id" && n != "config") fail(format("%s: unknown member '%s'", where.c_str(), n.c_str()));
    std::string name = d["name"].asString();
    if (name.empty() || name.size() > 255) fail(where + ": a domain name has 1 to 255 bytes");
    std::string folded = name;
    for (char& c : folded) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (!seen.insert(folded).second) fail(format("%s: domain '%s' appears twice", where.c_str(), name.c_str()));
    if (d.isMember("id") && (!d["id"].isUInt() || d["id"].asUInt() == 0 || d["id"].asUInt() > INT32_MAX))
      fail(where + ": 'id' is 1 to 2147483647");
    const DomainName* found = nullptr;
    for (const DomainName& h : have)
      if (strcasecmp(h.name.c_str(), name.c_str()) == 0) found = &h;
    uint32_t id;
    if (found != nullptr) {
      id = found->id;
      if (d.isMember("id") && d["id"].asUInt() != id)
        fail(format("%s: domain '%s' has id %u, not %u", where.c_str(), name.c_str(), id, d["id"].asUInt()));
    } else {
      id = d.isMember("id") ? d["id"].asUInt() : next_id;
      if (ids.count(id) != 0) fail(format("%s: id %u belongs to domain '%s'", where.c_str(), id, context_name(id).c_str()));
      ids.insert(id);
      next_id = std::max(next_id, id + 1);
      ++adding;
    }
    ContextPlan c = plan_context(planner, *m, name, id, d.isMember("config") ? d["config"] : Json::Value(Json::objectValue),
                                 "domains." + name);
    c.is_new = found == nullptr;
    contexts.push_back(std::move(c));
  }
  uint32_t capacity = cmf_get_max_table_entry(91);
  if (have.size() + adding > capacity)
    fail(format("%s: %zu domains exceed the region's %u", file.c_str(), have.size() + adding, capacity));

  // Totals per table after the load: today's count, less what the replaced
  // contexts hold, plus what the file brings.
  std::map<uint16_t, size_t> replaced;
  for (const ContextPlan& c : contexts) {
    if (c.is_new) continue;
    Json::Value now = read_context(*m, c.id);
    for (const Element* e : m->tops())
      if (now.isMember(e->name)) count_entries(*m, *e, now[e->name], &replaced);
  }
  for (const auto& [gid, n] : planner.added()) {
    const cmdb_table_limit_t* lim = cmf_get_tablesize(gid);
    if (lim == nullptr) continue;
    size_t after = lim->tcnt + n - std::min<size_t>(replaced[gid], lim->tcnt);
    if (after > lim->tsize)
      fail(format("%s: '%s' would hold %zu entries in all, more than its total limit %u", file.c_str(),
                  m->name_of(gid).c_str(), after, lim->tsize));
  }

  // Everything checked: apply.
  try {
    for (const ContextPlan& c : contexts) {
      if (c.is_new) check(w, w.add_domain(c.name.c_str(), c.id), format("adding domain '%s'", c.name.c_str()));
      apply_context(w, *m, c);
    }
  } catch (const Failure& f) {
    throw Failure(std::string(f.what()) + " (after the file was checked; changes made before this one stay)");
  }
  t.commit();
  // WRITE UNLOCK
  if (!o.json) printf("loaded %s: %zu contexts\n", file.c_str(), contexts.size());
  return 0;
}

namespace {

// The chain of writer locations for a path; keys live in `keys`.
writer::Location location_of(const Path& p, uint32_t domain, size_t upto, std::vector<std::vector<uint8_t>>* keys) {
  writer::Location loc(domain, p.steps[0].element->gid);
  keys->reserve(p.steps.size());
  for (size_t i = 1; i <= upto && i < p.steps.size(); ++i) {
    const PathStep& prev = p.steps[i - 1];
    const void* key = nullptr;
    if (prev.element->table) {
      keys->push_back(key_bytes(*prev.element, *prev.key));
      key = keys->back().data();
    }
    loc = loc.child(key, p.steps[i].element->gid);
  }
  return loc;
}

uint32_t context_id(const std::string& domain) { return domain_id(domain); }

}  // namespace

int cmd_set(const Options& o, const std::string& path_text, const std::vector<std::string>& assignments,
            const std::string& domain) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Path p = parse_path(*m, path_text);
  if (p.field != nullptr) fail(format("'%s' names an attribute: give its owner and ATTR=VALUE", path_text.c_str()));
  const PathStep& last = p.steps.back();
  if (last.element->table && !last.key) fail(format("'%s' is a table: name an entry as %s[KEY]", path_text.c_str(), path_text.c_str()));
  for (const PathStep& s : p.steps)
    if (s.element->table && !s.key) fail(format("'%s': every table on the way needs a key", path_text.c_str()));

  Attachment a(Mode::kOwner);
  writer::ConfigWriter w;
  Transaction t(w);
  // WRITE LOCK
  uint32_t id = context_id(domain);
  const Element& e = *last.element;
  const uint8_t* now = find_data_part(p, id);
  Planner planner(&w);
  std::vector<uint8_t> data = now != nullptr ? std::vector<uint8_t>(now, now + e.size) : planner.defaults(e);
  if (e.table && now == nullptr) {
    Field k = *e.key();
    if (std::string err = encode_value(k, parse_text_value(k, *last.key), data.data()); !err.empty()) fail(err);
  }
  for (const std::string& a : assignments) {
    size_t eq = a.find('=');
    if (eq == std::string::npos || eq == 0) fail(format("'%s' is not ATTR=VALUE", a.c_str()));
    std::string name = a.substr(0, eq);
    const Field* f = e.field(name);
    if (f == nullptr) fail(format("'%s' has no attribute '%s'", e.path.c_str(), name.c_str()));
    if (std::string err = encode_value(*f, parse_text_value(*f, a.substr(eq + 1)), data.data()); !err.empty())
      fail(err);
  }
  std::vector<std::vector<uint8_t>> keys;
  writer::Location loc = location_of(p, id, p.steps.size() - 1, &keys);
  if (!e.table) {
    check(w, w.set_object(loc, data.data()), format("setting %s", path_text.c_str()));
  } else if (now == nullptr) {
    check(w, w.insert(loc, data.data()), format("inserting %s", path_text.c_str()));
  } else {
    std::vector<uint8_t> key = key_bytes(e, *last.key);
    check(w, w.update(loc, key.data(), data.data()), format("updating %s", path_text.c_str()));
  }
  t.commit();
  // WRITE UNLOCK
  if (!o.json) printf("%s %s%s\n", now == nullptr ? "created" : "set", path_text.c_str(),
                      domain.empty() ? "" : (" in " + domain).c_str());
  return 0;
}

int cmd_delete(const Options& o, const std::string& path_text, const std::string& domain) {
  std::unique_ptr<Model> m = Model::load(o.schema);
  Path p = parse_path(*m, path_text);
  const PathStep& last = p.steps.back();
  if (p.field != nullptr || !last.element->table || !last.key)
    fail(format("'%s' does not name an entry: give TABLE[KEY]", path_text.c_str()));
  for (const PathStep& s : p.steps)
    if (s.element->table && !s.key) fail(format("'%s': every table on the way needs a key", path_text.c_str()));

  Attachment a(Mode::kOwner);
  writer::ConfigWriter w;
  Transaction t(w);
  // WRITE LOCK
  uint32_t id = context_id(domain);
  if (find_data_part(p, id) == nullptr) fail(format("no entry '%s'%s", path_text.c_str(), domain.empty() ? "" : (" in " + domain).c_str()));
  std::vector<std::vector<uint8_t>> keys;
  writer::Location loc = location_of(p, id, p.steps.size() - 1, &keys);
  std::vector<uint8_t> key = key_bytes(*last.element, *last.key);
  check(w, w.remove(loc, key.data()), format("deleting %s", path_text.c_str()));
  t.commit();
  // WRITE UNLOCK
  if (!o.json) printf("deleted %s%s\n", path_text.c_str(), domain.empty() ? "" : (" in " + domain).c_str());
  return 0;
}

}  // namespace cmdbctl
