// Requests: each operation checked against the schema and applied through the
// writer, inside a savepoint that a failure anywhere rolls back to.
#include <errno.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <set>

#include "writer/engine.h"
#include "writer/engine_internal.h"
#include "writer/json_text.h"
#include "writer/reader.h"
#include "writer/verify.h"

namespace config {

std::string text_of(const Json::Value& v) {
  if (v.isString()) return v.asString();
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

std::vector<uint8_t> key_from_json(const Element& table, const Json::Value& v) {
  Field k = *table.key();
  k.offset = 0;
  std::vector<uint8_t> buf(k.size);
  if (std::string err = encode_value(k, v, buf.data()); !err.empty()) fail(err);
  return buf;
}

Json::Value dump(const Model& m, const std::optional<std::string>& only) {
  const writer::RegionReport r = writer::verify_config(1);
  if (!r.ok()) fail("the region is damaged: " + r.faults[0]);
  return read_all(m, only);
}

std::string get_text(const Model& m, const std::string& path, const std::string& domain) {
  if (path.empty()) return document_text(m, dump(m, domain.empty() ? std::nullopt : std::optional(domain)));
  const Path p = parse_path(m, path);
  bool defaults = false;
  Json::Value v = read_path(m, p, domain_id(domain), &defaults);
  if (p.field != nullptr) return json_text(v);
  const Element& e = *p.steps.back().element;
  // The marker is "default", unless the element has a member of that name.
  if (defaults) v[e.field("default") == nullptr && e.child("default") == nullptr ? "default" : "@default"] = true;
  return element_text(e, v);
}

Json::Value set_op(const std::string& path, const std::string& domain, const Json::Value& values) {
  Json::Value op(Json::objectValue);
  op["op"] = "set";
  op["path"] = path;
  if (!domain.empty()) op["domain"] = domain;
  op["values"] = values;
  return op;
}

Json::Value delete_op(const std::string& path, const std::string& domain) {
  Json::Value op(Json::objectValue);
  op["op"] = "delete";
  op["path"] = path;
  if (!domain.empty()) op["domain"] = domain;
  return op;
}

Json::Value load_op(const Json::Value& config, bool merge) {
  Json::Value op(Json::objectValue);
  op["op"] = "load";
  op["config"] = config;
  op["merge"] = merge;
  return op;
}

namespace {

// The members an operation may carry; any other is refused.
void only(const Json::Value& op, std::initializer_list<const char*> members) {
  for (const std::string& n : op.getMemberNames())
    if (std::none_of(members.begin(), members.end(), [&](const char* m) { return n == m; }))
      fail(format("unknown member '%s' of a '%s' operation", n.c_str(), op["op"].asCString()));
}

std::string string_member(const Json::Value& op, const char* name) {
  const Json::Value& v = op[name];
  if (!v.isString() || v.asString().empty()) fail(format("'%s' takes a non-empty text '%s'", op["op"].asCString(), name));
  return v.asString();
}

void check_domain_name(const std::string& name) {
  if (name.size() > 255) fail("a domain name has 1 to 255 bytes");
  if (strcasecmp(name.c_str(), "global") == 0) fail("'global' names the global context, not a domain");
}

}  // namespace

Applier::Context Applier::context(const Json::Value& domain) const {
  if (domain.isNull()) return {};
  if (!domain.isString()) fail("'domain' is a domain's name");
  Context c;
  c.id = domain_id(domain.asString());
  // Names match regardless of case; change records carry the stored one.
  if (c.id != 0)
    for (const DomainName& d : list_domains())
      if (d.id == c.id) c.name = d.name;
  return c;
}

void Applier::check(int r) {
  if (r >= 0) return;
  fail(w_.error().empty() ? strerror(-r) : w_.error());
}

void Applier::check_node(const Element& e) {
  writer::ConfigWriter::Shape s;
  const Field* k = e.key();
  if (!w_.shape(e.gid, &s))
    fail(format("the region has no node for '%s' (gid %u): it was made from another schema", e.path.c_str(), e.gid));
  if (s.size != e.size || s.table != e.table ||
      (k != nullptr && (s.key_offset != k->offset || s.key_size != k->size)))
    fail(format("the region's node for '%s' (gid %u) is not the schema's: the region was made from another schema "
                "or is damaged",
                e.path.c_str(), e.gid));
}

void Applier::readable() {
  if (readable_) return;
  const writer::RegionReport r = writer::verify_config(1);
  if (!r.ok()) fail("the region is damaged: " + r.faults[0]);
  readable_ = true;  // the writer's own changes keep it so
}

void Applier::check_path(const Path& p) {
  for (const PathStep& s : p.steps) check_node(*s.element);
}

std::vector<uint8_t> Applier::defaults(const Element& e) {
  check_node(e);
  return w_.defaults(e.gid);
}

writer::Location Applier::location(const Path& p, uint32_t domain) {
  writer::Location loc(domain, p.steps[0].element->gid);
  for (size_t i = 1; i < p.steps.size(); ++i) {
    const PathStep& prev = p.steps[i - 1];
    const void* key = nullptr;
    if (prev.element->table) key = keys_.emplace_back(key_bytes(*prev.element, *prev.key)).data();
    loc = loc.child(key, p.steps[i].element->gid);
  }
  return loc;
}

Json::Value Applier::fields_of(const Element& e, const Json::Value& shown) const {
  Json::Value out(Json::objectValue);
  for (const Field& f : e.fields)
    if (shown.isMember(f.name)) out[f.name] = shown[f.name];
  return out;
}

void Applier::record(const char* op, const Context& c, const std::string& path, const Json::Value& old_fields,
                     const Json::Value& new_fields) {
  Json::Value r(Json::objectValue);
  r["op"] = op;
  r["domain"] = c.name;
  r["path"] = path;
  r["old"] = old_fields;
  r["new"] = new_fields;
  changes.append(r);
}

void Applier::record_deletes(const Element& e, const std::string& path, const Json::Value& now, const Context& c) {
  auto below = [&](const Json::Value& shown, const std::string& at) {
    for (const Element* k : e.children)
      if (shown.isMember(k->name)) record_deletes(*k, at + "." + k->name, shown[k->name], c);
  };
  if (!e.table) {
    below(now, path);
    record("delete", c, path, fields_of(e, now), Json::Value());
    return;
  }
  for (const Json::Value& entry : now) {
    const std::string at = path + "[" + text_of(entry[e.key()->name]) + "]";
    below(entry, at);
    record("delete", c, at, fields_of(e, entry), Json::Value());
  }
}

// ---- The operations ------------------------------------------------------------

void Applier::set(const Json::Value& op) {
  only(op, {"op", "path", "domain", "values"});
  const std::string text = string_member(op, "path");
  where = text;
  const Path p = parse_path(m_, text);
  const Context c = context(op["domain"]);
  if (p.field != nullptr) fail(format("'%s' names an attribute: set its owner's values", text.c_str()));
  for (const PathStep& s : p.steps)
    if (s.element->table && !s.key) fail(format("'%s' is a table: name an entry as %s[KEY]", s.element->path.c_str(),
                                                s.element->name.c_str()));
  const Json::Value& values = op["values"];
  if (!values.isNull() && !values.isObject()) fail("'values' is an object of attribute values");
  check_path(p);
  const Element& e = *p.steps.back().element;
  const Element& top = *p.steps.front().element;
  if (c.id == 0 ? !in_global(top) : !in_domains(top))
    fail(format("'%s' exists %s", top.name.c_str(), c.id == 0 ? "per domain only: name a domain" : "in the global context only"));
  const writer::Location loc = location(p, c.id);
  const std::vector<uint8_t> key = e.table ? key_bytes(e, *p.steps.back().key) : std::vector<uint8_t>();
  std::vector<uint8_t> current;
  if (int r = w_.find(loc, e.table ? key.data() : nullptr, &current); r != -ENOENT) check(r);
  const uint8_t* now = current.empty() ? nullptr : current.data();
  std::vector<uint8_t> data = now != nullptr ? current : defaults(e);
  check_node(e);
  if (e.table && now == nullptr) {
    const Field& k = *e.key();
    if (std::string err = encode_value(k, parse_text_value(k, *p.steps.back().key), data.data()); !err.empty())
      fail(err);
  }
  for (const std::string& name : values.getMemberNames()) {
    const Field* f = e.field(name);
    if (f == nullptr)
      fail(e.child(name) != nullptr ? format("'%s' is a table or object of its own: set it by its path", name.c_str())
                                    : format("'%s' has no attribute '%s'", e.path.c_str(), name.c_str()));
    if (e.table && f == e.key()) {
      const std::vector<uint8_t> given = key_from_json(e, values[name]);
      if (memcmp(given.data(), data.data() + f->offset, f->size) != 0)
        fail(format("the key of '%s' is the one its path gives", text.c_str()));
      continue;
    }
    if (std::string err = encode_value(*f, values[name], data.data()); !err.empty()) fail(err);
  }
  const Json::Value old = now != nullptr ? decode_fields(e, now) : e.table ? Json::Value() : decode_fields(e, defaults(e).data());
  if (now != nullptr && memcmp(now, data.data(), e.size) == 0) return;
  if (!e.table) {
    check(w_.set_object(loc, data.data()));
  } else if (now == nullptr) {
    check(w_.insert(loc, data.data()));
  } else {
    check(w_.update(loc, key.data(), data.data()));
  }
  record(e.table && now == nullptr ? "insert" : "update", c, text, old, decode_fields(e, data.data()));
}

void Applier::remove(const Json::Value& op) {
  only(op, {"op", "path", "domain"});
  const std::string text = string_member(op, "path");
  where = text;
  const Path p = parse_path(m_, text);
  const Context c = context(op["domain"]);
  const PathStep& last = p.steps.back();
  if (p.field != nullptr || !last.element->table || !last.key)
    fail(format("'%s' does not name an entry: give TABLE[KEY]", text.c_str()));
  for (const PathStep& s : p.steps)
    if (s.element->table && !s.key) fail(format("'%s': every table on the way needs a key", text.c_str()));
  check_path(p);
  const writer::Location loc = location(p, c.id);
  const std::vector<uint8_t> key = key_bytes(*last.element, *last.key);
  std::vector<uint8_t> current;
  if (int r = w_.find(loc, key.data(), &current); r == -ENOENT)
    fail(format("no entry '%s'%s", text.c_str(), c.id == 0 ? "" : (" in " + c.name).c_str()));
  else
    check(r);
  readable();
  Json::Value entry = read_path(m_, p, c.id);
  Json::Value as_table(Json::arrayValue);
  as_table.append(entry);
  const std::string table_path = text.substr(0, text.size() - last.key->size() - 2);
  record_deletes(*last.element, table_path, as_table, c);
  check(w_.remove(loc, key.data()));
}

void Applier::domain_add(const Json::Value& op) {
  only(op, {"op", "name", "id"});
  const std::string name = string_member(op, "name");
  where = name;
  check_domain_name(name);
  uint32_t id = 0;
  if (op.isMember("id")) {
    if (!op["id"].isUInt() || op["id"].asUInt() == 0 || op["id"].asUInt() > INT32_MAX)
      fail("'id' is 1 to 2147483647");
    id = op["id"].asUInt();
  } else {
    for (const DomainName& d : list_domains()) id = std::max(id, d.id);
    if (++id > INT32_MAX) fail("no domain id is left past the highest: give one");
  }
  check(w_.add_domain(name.c_str(), id));
  Json::Value r(Json::objectValue);
  r["op"] = "domain-add";
  r["name"] = name;
  r["id"] = id;
  changes.append(r);
}

void Applier::domain_rename(const Json::Value& op) {
  only(op, {"op", "name", "to"});
  const std::string name = string_member(op, "name"), to = string_member(op, "to");
  where = name;
  check_domain_name(to);
  const Context c = context(op["name"]);
  if (c.id == 0) fail("the global context has no name to change");
  check(w_.rename_domain(c.id, to.c_str()));
  Json::Value r(Json::objectValue);
  r["op"] = "domain-rename";
  r["name"] = c.name;
  r["id"] = c.id;
  r["to"] = to;
  changes.append(r);
}

void Applier::domain_remove(const Json::Value& op) {
  only(op, {"op", "name"});
  const std::string name = string_member(op, "name");
  where = name;
  const Context c = context(op["name"]);
  if (c.id == 0) fail("the global context cannot be removed");
  readable();
  const Json::Value now = read_context(m_, c.id);
  for (const Element* e : m_.tops())
    if (now.isMember(e->name)) record_deletes(*e, e->name, now[e->name], c);
  check(w_.remove_domain(c.id));
  Json::Value r(Json::objectValue);
  r["op"] = "domain-remove";
  r["name"] = c.name;
  r["id"] = c.id;
  changes.append(r);
}

void Applier::run(const Json::Value& op) {
  where.clear();
  if (!op.isObject() || !op["op"].isString()) fail("an operation is an object with its 'op'");
  const std::string kind = op["op"].asString();
  if (kind == "set") return set(op);
  if (kind == "delete") return remove(op);
  if (kind == "load") return load(op);
  if (kind == "domain-add") return domain_add(op);
  if (kind == "domain-rename") return domain_rename(op);
  if (kind == "domain-remove") return domain_remove(op);
  fail(format("no operation '%s' (set, delete, load, domain-add, domain-rename, domain-remove)", kind.c_str()));
}

Applied apply(const Model& m, writer::ConfigWriter& w, const Json::Value& request) {
  Applied out;
  if (!w.in_transaction()) {
    out.error = {0, "", "no transaction is open"};
    return out;
  }
  if (!request.isArray()) {
    out.error = {0, "", "a request is an array of operations"};
    return out;
  }
  const size_t mark = w.mark();
  Applier a(m, w);
  for (Json::ArrayIndex i = 0; i < request.size(); ++i) {
    try {
      a.run(request[i]);
    } catch (const std::exception& e) {
      out.error = {static_cast<int>(i), a.where, e.what()};
      if (w.rollback_to(mark) != 0) {
        out.error.reason += " (and the rollback failed: " + w.error() + ")";
        out.error.aborted = true;
      }
      w.release(mark);
      return out;
    }
  }
  w.release(mark);
  out.changes = std::move(a.changes);
  return out;
}

}  // namespace config
