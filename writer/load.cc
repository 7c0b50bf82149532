// Loading a configuration document, {"global": {...}, "domains": [{"name": N,
// "id": I, "config": {...}}, ...]}, as dump prints it.
//
// The document is checked whole against the schema and the limits before
// anything changes: every value, every key, every table against its size
// limit and its total over all contexts, the domains against their capacity.
// Then, without "merge", each context the document names becomes equal to it:
// tables it names hold exactly its entries (entries whose fields it leaves out
// get the defaults), tables it leaves out are emptied, objects it names take
// its values (the rest from the defaults), objects it leaves out keep theirs.
// A domain the document does not list keeps its configuration, so
// {"domains": []} changes nothing; a listed domain that does not exist is
// added. With "merge", only what the document names changes: entries it names
// are made or get the fields it gives, objects get the fields it gives, and
// nothing is removed.
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <map>
#include <set>

#include "writer/engine_internal.h"
#include "writer/reader.h"

namespace config {

// What one table or object instance must hold.
struct Applier::InstancePlan {
  const Element* e = nullptr;
  Json::Value values;                  // an object's fields as the document gives them
  std::vector<uint8_t> data;           // an object's data part: the defaults and those values
  std::vector<EntryPlan> entries;      // a table's entries, in document order
  std::vector<InstancePlan> children;  // an object's child instances
};

struct Applier::EntryPlan {
  Json::Value values;
  std::vector<uint8_t> data;
  std::vector<uint8_t> key;
  std::string key_text;
  std::vector<InstancePlan> children;
};

struct Applier::ContextPlan {
  Context c;
  bool is_new = false;
  std::vector<InstancePlan> tops;
};

namespace {

bool case_insensitive(const Element& table) { return (table.desc->flags_c & CMDB_DESC_C_NOCASE) != 0; }

std::string folded(std::string s) {
  for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

// Counts the entries of each table in a context as read_context shows it.
void count_entries(const Element& e, const Json::Value& v, std::map<uint16_t, size_t>* counts) {
  if (e.table) {
    if (!v.isArray()) return;
    (*counts)[e.gid] += v.size();
    for (const Json::Value& entry : v)
      for (const Element* c : e.children)
        if (entry.isMember(c->name)) count_entries(*c, entry[c->name], counts);
  } else {
    for (const Element* c : e.children)
      if (v.isMember(c->name)) count_entries(*c, v[c->name], counts);
  }
}

// The data part that `values` makes of `base`; the values were checked when planned.
std::vector<uint8_t> filled(const Element& e, std::vector<uint8_t> base, const Json::Value& values) {
  for (const Field& f : e.fields)
    if (values.isMember(f.name)) encode_value(f, values[f.name], base.data());
  return base;
}

bool same_fields(const Element& e, const std::vector<uint8_t>& data, const Json::Value& shown) {
  if (!shown.isObject()) return false;
  for (const Field& f : e.fields)
    if (!(decode_value(f, data.data()) == shown[f.name])) return false;
  return true;
}

}  // namespace

// Checks JSON against the schema and lays out data parts.
class Applier::Planner {
 public:
  explicit Planner(Applier* a) : a_(a) {}

  InstancePlan instance(const Element& e, const Json::Value& v, const std::string& where) {
    InstancePlan p;
    p.e = &e;
    if (!e.table) {
      if (!v.isObject()) fail(format("%s: '%s' is an object: give its attributes", where.c_str(), e.path.c_str()));
      p.data = a_->defaults(e);
      p.values = fill(e, v, where, p.data.data(), &p.children);
      return p;
    }
    if (!v.isArray()) fail(format("%s: '%s' is a table: give an array of entries", where.c_str(), e.path.c_str()));
    const Field* k = e.key();
    std::set<std::string> keys;
    for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
      EntryPlan ep;
      const std::string at = format("%s[%u]", where.c_str(), i);
      if (k == nullptr) fail(format("%s: table '%s' has no key", at.c_str(), e.path.c_str()));
      if (!v[i].isObject() || !v[i].isMember(k->name))
        fail(format("%s: an entry of '%s' needs its key '%s'", at.c_str(), e.path.c_str(), k->name.c_str()));
      ep.data = a_->defaults(e);
      ep.values = fill(e, v[i], at, ep.data.data(), &ep.children);
      ep.key_text = text_of(decode_value(*k, ep.data.data()));
      ep.key.assign(ep.data.begin() + k->offset, ep.data.begin() + k->offset + k->size);
      const std::string id = case_insensitive(e) && k->is_string() ? folded(ep.key_text) : ep.key_text;
      if (!keys.insert(id).second)
        fail(format("%s: key '%s' appears twice in '%s'", at.c_str(), ep.key_text.c_str(), e.path.c_str()));
      p.entries.push_back(std::move(ep));
    }
    // The writer's own limit: the table-limits record, else the size table's value.
    const cmdb_table_limit_t* lim = cmf_get_tablesize(e.gid);
    const int64_t limit =
        lim != nullptr ? lim->size : cmdb_get_table_size(e.gid, static_cast<int>(cmdb.header->platform));
    if (static_cast<int64_t>(p.entries.size()) > limit)
      fail(format("%s: '%s' holds at most %lld entries, not %zu", where.c_str(), e.path.c_str(),
                  static_cast<long long>(limit), p.entries.size()));
    added_[e.gid] += p.entries.size();
    return p;
  }

  // Entries the plan brings per table, for the total limits.
  const std::map<uint16_t, size_t>& added() const { return added_; }

 private:
  Json::Value fill(const Element& e, const Json::Value& v, const std::string& where, uint8_t* data,
                   std::vector<InstancePlan>* children) {
    Json::Value values(Json::objectValue);
    for (const std::string& name : v.getMemberNames()) {
      const std::string at = where + "." + name;
      if (const Field* f = e.field(name)) {
        if (std::string err = encode_value(*f, v[name], data); !err.empty()) fail(at + ": " + err);
        values[name] = v[name];
      } else if (const Element* c = e.child(name)) {
        children->push_back(instance(*c, v[name], at));
      } else {
        fail(format("%s: '%s' has no attribute, table or object '%s'", where.c_str(), e.path.c_str(), name.c_str()));
      }
    }
    return values;
  }

  Applier* a_;
  std::map<uint16_t, size_t> added_;
};

void Applier::clear_table(const writer::Location& loc, const std::string& path, const Element& e,
                          const Json::Value& current, const Context& c) {
  check_node(e);
  if (!current.isArray()) return;
  record_deletes(e, path, current, c);
  for (const Json::Value& entry : current)
    check(w_.remove(loc, key_from_json(e, entry[e.key()->name]).data()));
}

void Applier::load_children(const writer::Location& owner, const void* owner_key, const std::string& path,
                            const Element& e, const std::vector<InstancePlan>& plans, const Json::Value& current,
                            const Context& c, bool merge) {
  for (const Element* k : e.children) {
    const auto plan = std::find_if(plans.begin(), plans.end(), [&](const InstancePlan& p) { return p.e == k; });
    const Json::Value now = current.isObject() && current.isMember(k->name) ? current[k->name] : Json::Value();
    const writer::Location loc = owner.child(owner_key, k->gid);
    const std::string at = path + "." + k->name;  // not `where`, which the callees move on
    where = at;
    if (plan != plans.end()) load_instance(loc, at, *plan, now, c);
    else if (k->table && !merge) clear_table(loc, at, *k, now, c);  // an object left out keeps its values
  }
}

void Applier::load_instance(const writer::Location& loc, const std::string& path, const InstancePlan& plan,
                            const Json::Value& current, const Context& c) {
  const Element& e = *plan.e;
  where = path;
  check_node(e);
  if (!e.table) {
    // Bytes that no attribute names are not shown, so what is shown is compared.
    const std::vector<uint8_t> data =
        merge_ && current.isObject() ? filled(e, filled(e, defaults(e), current), plan.values) : plan.data;
    if (!same_fields(e, data, current)) {
      const Json::Value old = current.isObject() ? fields_of(e, current) : decode_fields(e, defaults(e).data());
      check(w_.set_object(loc, data.data()));
      record("update", c, path, old, decode_fields(e, data.data()));
    }
    load_children(loc, nullptr, path, e, plan.children, current, c, merge_);
    return;
  }
  const Field& k = *e.key();
  std::map<std::string, Json::Value> existing;
  if (current.isArray())
    for (const Json::Value& entry : current) existing[text_of(entry[k.name])] = entry;
  if (!merge_) {
    // Removals first, so that a full table makes room for what replaces it.
    std::set<std::string> wanted;
    for (const EntryPlan& ep : plan.entries) wanted.insert(ep.key_text);
    for (const auto& [key, entry] : existing) {
      if (wanted.count(key) != 0) continue;
      where = path + "[" + key + "]";
      Json::Value one(Json::arrayValue);
      one.append(entry);
      record_deletes(e, path, one, c);
      check(w_.remove(loc, key_from_json(e, entry[k.name]).data()));
    }
  }
  for (const EntryPlan& ep : plan.entries) {
    const std::string at = path + "[" + ep.key_text + "]";
    where = at;
    const auto it = existing.find(ep.key_text);
    const Json::Value now = it == existing.end() ? Json::Value() : it->second;
    if (it == existing.end()) {
      check(w_.insert(loc, ep.data.data()));
      record("insert", c, at, Json::Value(), decode_fields(e, ep.data.data()));
    } else {
      const std::vector<uint8_t> data = merge_ ? filled(e, filled(e, defaults(e), now), ep.values) : ep.data;
      if (!same_fields(e, data, now)) {
        check(w_.update(loc, ep.key.data(), data.data()));
        record("update", c, at, fields_of(e, now), decode_fields(e, data.data()));
      }
    }
    load_children(loc, ep.key.data(), at, e, ep.children, now, c, merge_);
  }
}

void Applier::load_context(const ContextPlan& cp) {
  const Json::Value current = cp.is_new ? Json::Value(Json::objectValue) : read_context(m_, cp.c.id);
  for (const Element* e : m_.tops()) {
    if (cp.c.id == 0 ? !in_global(*e) : !in_domains(*e)) continue;
    const auto plan = std::find_if(cp.tops.begin(), cp.tops.end(), [&](const InstancePlan& p) { return p.e == e; });
    const Json::Value now = current.isMember(e->name) ? current[e->name] : Json::Value();
    const writer::Location loc(cp.c.id, e->gid);
    where = e->name;
    if (plan != cp.tops.end()) load_instance(loc, e->name, *plan, now, cp.c);
    else if (e->table && !merge_) clear_table(loc, e->name, *e, now, cp.c);
  }
}

void Applier::load(const Json::Value& op) {
  for (const std::string& n : op.getMemberNames())
    if (n != "op" && n != "config" && n != "merge") fail(format("unknown member '%s' of a 'load' operation", n.c_str()));
  const Json::Value& doc = op["config"];
  if (!op["merge"].isNull() && !op["merge"].isBool()) fail("'merge' is true or false");
  merge_ = op["merge"].asBool();
  if (!doc.isObject()) fail("the configuration is an object with 'global' and 'domains'");
  for (const std::string& n : doc.getMemberNames())
    if (n != "global" && n != "domains") fail(format("unknown member '%s' (only 'global' and 'domains')", n.c_str()));
  const Json::Value& domains = doc["domains"];
  if (!domains.isNull() && !domains.isArray()) fail("'domains' is an array");

  readable();
  Planner planner(this);
  std::vector<ContextPlan> contexts;
  auto plan_context = [&](const Context& c, const Json::Value& v, const std::string& where_) {
    if (!v.isObject()) fail(where_ + ": give an object of tables and objects");
    ContextPlan cp;
    cp.c = c;
    for (const std::string& n : v.getMemberNames()) {
      const Element* e = m_.top(n);
      if (e == nullptr) fail(format("%s: no table or object '%s' in the schema", where_.c_str(), n.c_str()));
      const bool global = c.id == 0;
      if (global ? !in_global(*e) : !in_domains(*e))
        fail(format("%s: '%s' exists %s", where_.c_str(), n.c_str(), global ? "per domain only" : "globally only"));
      cp.tops.push_back(planner.instance(*e, v[n], where_ + "." + n));
    }
    return cp;
  };
  where = "global";
  if (doc.isMember("global")) contexts.push_back(plan_context({}, doc["global"], "global"));

  const std::vector<DomainName> have = list_domains();
  std::set<uint32_t> ids;
  for (const DomainName& d : have) ids.insert(d.id);
  std::set<std::string> seen;
  uint32_t next_id = ids.empty() ? 1 : *ids.rbegin() + 1;
  size_t adding = 0;
  for (Json::ArrayIndex i = 0; domains.isArray() && i < domains.size(); ++i) {
    const Json::Value& d = domains[i];
    const std::string at = format("domains[%u]", i);
    where = at;
    if (!d.isObject() || !d["name"].isString()) fail(at + ": a domain needs its 'name'");
    for (const std::string& n : d.getMemberNames())
      if (n != "name" && n != "id" && n != "config") fail(format("%s: unknown member '%s'", at.c_str(), n.c_str()));
    const std::string name = d["name"].asString();
    if (name.empty() || name.size() > 255) fail(at + ": a domain name has 1 to 255 bytes");
    if (strcasecmp(name.c_str(), "global") == 0) fail(at + ": 'global' names the global context, not a domain");
    if (!seen.insert(folded(name)).second) fail(format("%s: domain '%s' appears twice", at.c_str(), name.c_str()));
    if (d.isMember("id") && (!d["id"].isUInt() || d["id"].asUInt() == 0 || d["id"].asUInt() > INT32_MAX))
      fail(at + ": 'id' is 1 to 2147483647");
    const auto found = std::find_if(have.begin(), have.end(),
                                    [&](const DomainName& h) { return strcasecmp(h.name.c_str(), name.c_str()) == 0; });
    Context c;
    c.name = name;
    if (found != have.end()) {
      c.id = found->id;
      c.name = found->name;
      if (d.isMember("id") && d["id"].asUInt() != c.id)
        fail(format("%s: domain '%s' has id %u, not %u", at.c_str(), name.c_str(), c.id, d["id"].asUInt()));
    } else {
      c.id = d.isMember("id") ? d["id"].asUInt() : next_id;
      if (ids.count(c.id) != 0) {
        const auto owner =
            std::find_if(have.begin(), have.end(), [&](const DomainName& h) { return h.id == c.id; });
        fail(format("%s: id %u belongs to domain '%s'", at.c_str(), c.id,
                    owner != have.end() ? owner->name.c_str() : "another domain of this document"));
      }
      ids.insert(c.id);
      next_id = std::max(next_id, c.id + 1);
      ++adding;
    }
    ContextPlan cp = plan_context(c, d.isMember("config") ? d["config"] : Json::Value(Json::objectValue),
                                  "domains." + name);
    cp.is_new = found == have.end();
    contexts.push_back(std::move(cp));
  }
  where.clear();
  const uint32_t capacity = cmf_get_max_table_entry(91);
  if (have.size() + adding > capacity)
    fail(format("%zu domains exceed the region's %u", have.size() + adding, capacity));

  // Totals per table after the load: today's count, less what the replaced
  // contexts hold, plus what the document brings. A merge may bring entries
  // that exist already: the writer counts those as it goes.
  if (!merge_) {
    std::map<uint16_t, size_t> replaced;
    for (const ContextPlan& cp : contexts) {
      if (cp.is_new) continue;
      const Json::Value now = read_context(m_, cp.c.id);
      for (const Element* e : m_.tops())
        if (now.isMember(e->name)) count_entries(*e, now[e->name], &replaced);
    }
    for (const auto& [gid, n] : planner.added()) {
      const cmdb_table_limit_t* lim = cmf_get_tablesize(gid);
      if (lim == nullptr) continue;
      const size_t after = lim->tcnt + n - std::min<size_t>(replaced[gid], lim->tcnt);
      if (after > lim->tsize)
        fail(format("'%s' would hold %zu entries in all, more than its total limit %u", m_.name_of(gid).c_str(), after,
                    lim->tsize));
    }
  }

  for (const ContextPlan& cp : contexts) {
    if (cp.is_new) {
      where = cp.c.name;
      check(w_.add_domain(cp.c.name.c_str(), cp.c.id));
      Json::Value r(Json::objectValue);
      r["op"] = "domain-add";
      r["name"] = cp.c.name;
      r["id"] = cp.c.id;
      changes.append(r);
    }
    load_context(cp);
  }
}

}  // namespace config
