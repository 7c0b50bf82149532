#include "daemon/config_doc.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <set>
#include <memory>

namespace cmdbd {
namespace {

std::string key_text(const Json::Value& v) {
  if (v.isString()) return v.asString();
  return to_text(v);
}

bool same_key(const PathStep& s, const Json::Value& entry) {
  if (!entry.isObject() || !entry.isMember(s.key_attr)) return false;
  std::string k = key_text(entry[s.key_attr]);
  return s.fold_case ? strcasecmp(k.c_str(), s.key->c_str()) == 0 : k == *s.key;
}

Json::Value* context(Json::Value* doc, const std::string& domain) {
  if (domain.empty() || domain == "global") {
    if (!(*doc)["global"].isObject()) (*doc)["global"] = Json::Value(Json::objectValue);
    return &(*doc)["global"];
  }
  for (Json::Value& d : (*doc)["domains"])
    if (d["name"].asString() == domain) {
      if (!d["config"].isObject()) d["config"] = Json::Value(Json::objectValue);
      return &d["config"];
    }
  return nullptr;
}

// The array index of the entry a table step names, or -1.
int find_entry(const Json::Value& table, const PathStep& s) {
  if (!table.isArray()) return -1;
  for (Json::ArrayIndex i = 0; i < table.size(); ++i)
    if (same_key(s, table[i])) return static_cast<int>(i);
  return -1;
}

void remove_at(Json::Value* array, int i) {
  Json::Value removed;
  array->removeIndex(static_cast<Json::ArrayIndex>(i), &removed);
}

// Sets the fields of a record on an entry or object, keeping its children.
void set_fields(Json::Value* target, const Json::Value& old_fields, const Json::Value& new_fields) {
  if (!target->isObject()) *target = Json::Value(Json::objectValue);
  for (const std::string& n : old_fields.getMemberNames())
    if (!new_fields.isMember(n)) target->removeMember(n);
  for (const std::string& n : new_fields.getMemberNames()) (*target)[n] = new_fields[n];
}

bool replay_entry(const Engine& engine, const Json::Value& rec, Json::Value* doc, std::string* error) {
  std::string op = rec["op"].asString(), path = rec["path"].asString();
  std::vector<PathStep> steps;
  if (!engine.parse_path(path, &steps, error)) return false;
  Json::Value* at = context(doc, rec["domain"].asString());
  if (at == nullptr) {
    *error = "no domain '" + rec["domain"].asString() + "'";
    return false;
  }
  for (size_t i = 0; i < steps.size(); ++i) {
    const PathStep& s = steps[i];
    bool last = i + 1 == steps.size();
    Json::Value* member = &(*at)[s.name];
    if (!s.table) {
      if (last && op == "delete") {
        at->removeMember(s.name);
        return true;
      }
      if (last) {
        set_fields(member, rec["old"], rec["new"]);
        return true;
      }
      at = member;
      continue;
    }
    if (!member->isArray()) *member = Json::Value(Json::arrayValue);
    int pos = s.key ? find_entry(*member, s) : -1;
    if (!last) {
      if (pos < 0) break;
      at = &(*member)[static_cast<Json::ArrayIndex>(pos)];
      continue;
    }
    if (op == "delete") {
      // Child records of a deleted entry follow it; their parent is gone already.
      if (pos >= 0) remove_at(member, pos);
      return true;
    }
    if (op == "insert" && pos < 0) {
      member->append(Json::Value(Json::objectValue));
      pos = static_cast<int>(member->size()) - 1;
    }
    if (pos < 0) break;
    set_fields(&(*member)[static_cast<Json::ArrayIndex>(pos)], rec["old"], rec["new"]);
    return true;
  }
  if (op == "delete") return true;
  *error = "no parent for " + op + " of " + path;
  return false;
}

bool replay_domain(const Json::Value& rec, Json::Value* doc, std::string* error) {
  std::string op = rec["op"].asString(), name = rec["name"].asString();
  Json::Value& domains = (*doc)["domains"];
  if (!domains.isArray()) domains = Json::Value(Json::arrayValue);
  int pos = -1;
  for (Json::ArrayIndex i = 0; i < domains.size(); ++i)
    if (domains[i]["name"].asString() == name) pos = static_cast<int>(i);
  if (op == "domain-add") {
    if (pos >= 0) {
      *error = "domain '" + name + "' added twice";
      return false;
    }
    Json::Value d(Json::objectValue);
    d["name"] = name;
    d["id"] = rec["id"];
    d["config"] = Json::Value(Json::objectValue);
    domains.append(std::move(d));
    return true;
  }
  if (pos < 0) {
    *error = "no domain '" + name + "' to " + op.substr(7);
    return false;
  }
  if (op == "domain-rename") domains[static_cast<Json::ArrayIndex>(pos)]["name"] = rec["to"];
  else remove_at(&domains, pos);
  return true;
}

// Arrays sorted by their members' text, empty tables dropped.
Json::Value canonical(const Json::Value& v) {
  if (v.isObject()) {
    Json::Value out(Json::objectValue);
    for (const std::string& n : v.getMemberNames()) {
      if (v[n].isNull() || (v[n].isArray() && v[n].empty())) continue;
      out[n] = canonical(v[n]);
    }
    return out;
  }
  if (!v.isArray()) return v;
  std::vector<std::pair<std::string, Json::Value>> items;
  for (const Json::Value& e : v) {
    Json::Value c = canonical(e);
    items.emplace_back(to_text(c), std::move(c));
  }
  std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  Json::Value out(Json::arrayValue);
  for (auto& [text, c] : items) out.append(std::move(c));
  return out;
}

// Entries of a table by their key's text; objects that are not entries of a
// table have no key.
std::map<std::string, const Json::Value*> by_key(const Json::Value& rows, const std::string& key_attr) {
  std::map<std::string, const Json::Value*> out;
  if (rows.isArray())
    for (const Json::Value& r : rows) out[key_text(r[key_attr])] = &r;
  return out;
}

struct Differ {
  const Engine& engine;
  Json::Value* out;
  std::string domain;

  // One object or entry at `path` (a or b null when it is absent there), its
  // fields and then its children.
  void node(std::vector<std::string>* names, const std::string& path, const Json::Value* a, const Json::Value* b) {
    static const Json::Value none;
    const Json::Value& av = a != nullptr ? *a : none;
    const Json::Value& bv = b != nullptr ? *b : none;
    std::set<std::string> members;
    for (const Json::Value* v : {a, b})
      if (v != nullptr && v->isObject())
        for (const std::string& n : v->getMemberNames()) members.insert(n);
    Json::Value fields(Json::objectValue);
    std::vector<std::string> children;
    for (const std::string& n : members) {
      bool table = false;
      std::string key;
      names->push_back(n);
      bool child = engine.element(*names, &table, &key);
      names->pop_back();
      if (child) {
        children.push_back(n);
      } else if (to_text(av[n]) != to_text(bv[n])) {
        fields[n]["old"] = av[n];
        fields[n]["new"] = bv[n];
      }
    }
    if (a == nullptr || b == nullptr || !fields.empty()) {
      Json::Value rec(Json::objectValue);
      rec["op"] = a == nullptr ? "insert" : b == nullptr ? "delete" : "update";
      rec["domain"] = domain;
      rec["path"] = path;
      rec["fields"] = fields;
      out->append(std::move(rec));
    }
    for (const std::string& n : children)
      element(names, path.empty() ? n : path + "." + n, n, a != nullptr ? &av[n] : nullptr, b != nullptr ? &bv[n] : nullptr);
  }

  void element(std::vector<std::string>* names, const std::string& path, const std::string& name, const Json::Value* a,
               const Json::Value* b) {
    if (a != nullptr && a->isNull()) a = nullptr;
    if (b != nullptr && b->isNull()) b = nullptr;
    if (a == nullptr && b == nullptr) return;
    bool table = false;
    std::string key;
    names->push_back(name);
    engine.element(*names, &table, &key);
    if (!table) {
      node(names, path, a, b);
    } else {
      static const Json::Value no_rows(Json::arrayValue);
      auto ra = by_key(a != nullptr ? *a : no_rows, key), rb = by_key(b != nullptr ? *b : no_rows, key);
      for (auto& [k, row] : ra) {
        auto it = rb.find(k);
        node(names, path + "[" + k + "]", row, it != rb.end() ? it->second : nullptr);
      }
      for (auto& [k, row] : rb)
        if (ra.count(k) == 0) node(names, path + "[" + k + "]", nullptr, row);
    }
    names->pop_back();
  }

  void context(const Json::Value* a, const Json::Value* b) {
    std::set<std::string> tops;
    for (const Json::Value* v : {a, b})
      if (v != nullptr && v->isObject())
        for (const std::string& n : v->getMemberNames()) tops.insert(n);
    std::vector<std::string> names;
    for (const std::string& n : tops)
      element(&names, n, n, a != nullptr && a->isMember(n) ? &(*a)[n] : nullptr,
              b != nullptr && b->isMember(n) ? &(*b)[n] : nullptr);
  }
};

}  // namespace

Json::Value diff(const Engine& engine, const Json::Value& a, const Json::Value& b) {
  Json::Value out(Json::arrayValue);
  Differ d{engine, &out, "global"};
  d.context(&a["global"], &b["global"]);
  std::map<std::string, const Json::Value*> da, db;
  for (const Json::Value& x : a["domains"]) da[x["name"].asString()] = &x;
  for (const Json::Value& x : b["domains"]) db[x["name"].asString()] = &x;
  auto domain_rec = [&](const char* op, const Json::Value& x) {
    Json::Value rec(Json::objectValue);
    rec["op"] = op;
    rec["name"] = x["name"];
    rec["id"] = x["id"];
    out.append(std::move(rec));
  };
  std::set<std::string> names;
  for (auto& [n, x] : da) names.insert(n);
  for (auto& [n, x] : db) names.insert(n);
  for (const std::string& n : names) {
    auto ia = da.find(n), ib = db.find(n);
    const Json::Value* xa = ia != da.end() ? ia->second : nullptr;
    const Json::Value* xb = ib != db.end() ? ib->second : nullptr;
    // A domain of another id is another domain under the same name.
    if (xa != nullptr && xb != nullptr && to_text((*xa)["id"]) != to_text((*xb)["id"])) {
      d.domain = n;
      d.context(&(*xa)["config"], nullptr);
      domain_rec("domain-remove", *xa);
      xa = nullptr;
    }
    if (xa == nullptr) domain_rec("domain-add", *xb);
    d.domain = n;
    d.context(xa != nullptr ? &(*xa)["config"] : nullptr, xb != nullptr ? &(*xb)["config"] : nullptr);
    if (xb == nullptr) domain_rec("domain-remove", *xa);
  }
  return out;
}

Json::Value empty_config() {
  Json::Value doc(Json::objectValue);
  doc["global"] = Json::Value(Json::objectValue);
  doc["domains"] = Json::Value(Json::arrayValue);
  return doc;
}

bool replay(const Engine& engine, const Json::Value& changes, Json::Value* doc, std::string* error) {
  if (!changes.isArray()) {
    *error = "a change set is not an array";
    return false;
  }
  for (Json::ArrayIndex i = 0; i < changes.size(); ++i) {
    const Json::Value& rec = changes[i];
    std::string op = rec["op"].asString();
    bool ok = op.rfind("domain-", 0) == 0 ? replay_domain(rec, doc, error)
              : op == "insert" || op == "update" || op == "delete"
                  ? replay_entry(engine, rec, doc, error)
                  : (*error = "unknown change '" + op + "'", false);
    if (!ok) {
      *error = "change " + std::to_string(i) + ": " + *error;
      return false;
    }
  }
  return true;
}

// As text: a number parsed back from the store is an int where the region's
// reading gave an unsigned one, and jsoncpp tells those apart.
bool same_config(const Json::Value& a, const Json::Value& b) { return to_text(canonical(a)) == to_text(canonical(b)); }

std::string to_text(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  b["emitUTF8"] = true;
  return Json::writeString(b, v);
}

bool from_text(const std::string& text, Json::Value* v, std::string* error) {
  // Strict as every JSON input of the engine: no comments, trailing commas,
  // key given twice, or text after the value.
  Json::CharReaderBuilder b;
  Json::CharReaderBuilder::strictMode(&b.settings_);
  b["skipBom"] = false;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  std::string errors;
  if (r->parse(text.data(), text.data() + text.size(), v, &errors)) return true;
  while (!errors.empty() && (errors.back() == '\n' || errors.back() == ' ')) errors.pop_back();
  *error = "bad JSON: " + errors;
  return false;
}

}  // namespace cmdbd
