// cmdbd's Engine over the configuration engine in writer/: the model and the
// reader by name, the engine's requests, the writer's transactions, its check
// and rebuild of the region, the owner lock.
#include "daemon/engine.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "writer/config_writer.h"
#include "writer/engine.h"
#include "writer/model.h"
#include "writer/owner_lock.h"
#include "writer/reader.h"
#include "writer/verify.h"

namespace cmdbd {
namespace {

using config::Element;
using config::Error;
using config::Path;

class ConfigEngine final : public Engine {
 public:
  explicit ConfigEngine(std::unique_ptr<config::Model> m) : model_(std::move(m)) {}

  int acquire_owner_lock(int64_t group, std::string* error) override {
    int r = lock_.acquire(group);
    if (r < 0) *error = lock_.error();
    return r < 0 ? -1 : r;
  }

  int begin(pid_t* dead_writer, std::string* error) override {
    aborted_.clear();
    if (int r = w_.begin(); r < 0) return failed(r, error);
    *dead_writer = static_cast<pid_t>(w_.recovered());
    return 0;
  }

  int mark() override { return static_cast<int>(w_.mark()); }

  bool rollback_to(int mark) override {
    if (w_.rollback_to(static_cast<size_t>(mark)) == 0) return true;
    abort(w_.error());
    return false;
  }

  const std::string& aborted() const override { return aborted_; }

  void rollback() override { w_.rollback(); }

  bool apply(const Json::Value& ops, Json::Value* changes, ApplyFailure* failure) override {
    config::Applied a = config::apply(*model_, w_, ops);
    if (!a.ok()) {
      failure->index = a.error.op;
      failure->path = a.error.path;
      failure->reason = a.error.reason;
      if (a.error.aborted) {
        abort(a.error.reason);
        failure->path.clear();
        failure->reason = "the region is damaged: " + a.error.reason;
      }
      return false;
    }
    for (Json::Value& c : a.changes) changes->append(std::move(c));
    return true;
  }

  int commit(std::string* error) override { return w_.commit() < 0 ? (*error = w_.error(), -1) : 0; }

  Json::Value dump(bool locked) override {
    if (!locked) cmf_shm_read_lock();
    Json::Value doc = config::read_all(*model_, std::nullopt);
    if (!locked) cmf_shm_read_unlock();
    return doc;
  }

  std::vector<std::string> verify() override { return writer::verify_region().faults; }

  int reset(std::string* error) override {
    if (w_.in_transaction()) w_.rollback();
    aborted_.clear();
    return w_.reset() < 0 ? failed(-EIO, error) : 0;
  }

  bool parse_path(const std::string& path, std::vector<PathStep>* steps, std::string* error,
                  std::string* field) const override {
    try {
      Path p = config::parse_path(*model_, path);
      if (field != nullptr) *field = p.field != nullptr ? p.field->name : "";
      steps->clear();
      for (const config::PathStep& s : p.steps) {
        PathStep out;
        out.name = s.element->name;
        out.table = s.element->table;
        if (const config::Field* k = s.element->key()) out.key_attr = k->name;
        out.key = s.key;
        out.fold_case = (s.element->desc->flags_c & 0x10) != 0;
        steps->push_back(std::move(out));
      }
      return true;
    } catch (const Error& e) {
      *error = e.what();
      return false;
    }
  }

  bool element(const std::vector<std::string>& names, bool* table, std::string* key_attr) const override {
    const Element* e = names.empty() ? nullptr : model_->top(names[0]);
    for (size_t i = 1; e != nullptr && i < names.size(); ++i) e = e->child(names[i]);
    if (e == nullptr) return false;
    *table = e->table;
    const config::Field* k = e->key();
    *key_attr = k != nullptr ? k->name : "";
    return true;
  }

  std::vector<uint16_t> element_gids() const override {
    std::vector<uint16_t> gids;
    std::vector<const Element*> todo(model_->tops().begin(), model_->tops().end());
    while (!todo.empty()) {
      const Element* e = todo.back();
      todo.pop_back();
      gids.push_back(e->gid);
      todo.insert(todo.end(), e->children.begin(), e->children.end());
    }
    return gids;
  }

  Json::Value carry_over(const Json::Value& doc, std::vector<std::string>* dropped) const override {
    Json::Value out(Json::objectValue);
    out["global"] = carry_context(doc["global"], true, "global", dropped);
    out["domains"] = Json::Value(Json::arrayValue);
    for (const Json::Value& d : doc["domains"]) {
      Json::Value nd = d;
      nd["config"] = carry_context(d["config"], false, d["name"].asString(), dropped);
      out["domains"].append(nd);
    }
    return out;
  }

 private:
  Json::Value carry_context(const Json::Value& ctx, bool global, const std::string& where,
                            std::vector<std::string>* dropped) const {
    Json::Value out(Json::objectValue);
    for (const std::string& n : ctx.getMemberNames()) {
      const Element* e = model_->top(n);
      if (e == nullptr || (global ? !config::in_global(*e) : !config::in_domains(*e)))
        dropped->push_back(where + ": " + n);
      else out[n] = carry(*e, ctx[n], where + ": " + n, dropped);
    }
    return out;
  }

  Json::Value carry(const Element& e, const Json::Value& v, const std::string& at,
                    std::vector<std::string>* dropped) const {
    if (e.table) {
      Json::Value rows(Json::arrayValue);
      for (const Json::Value& row : v) rows.append(carry_fields(e, row, at, dropped));
      return rows;
    }
    return carry_fields(e, v, at, dropped);
  }

  Json::Value carry_fields(const Element& e, const Json::Value& v, const std::string& at,
                           std::vector<std::string>* dropped) const {
    Json::Value out(Json::objectValue);
    for (const std::string& n : v.getMemberNames()) {
      if (e.field(n) != nullptr) out[n] = v[n];
      else if (const Element* c = e.child(n)) out[n] = carry(*c, v[n], at + "." + n, dropped);
      else if (std::find(dropped->begin(), dropped->end(), at + "." + n) == dropped->end())
        dropped->push_back(at + "." + n);
    }
    return out;
  }

  // A savepoint that cannot be restored takes the whole transaction back.
  void abort(const std::string& why) {
    aborted_ = why;
    if (w_.in_transaction()) w_.rollback();
  }

  int failed(int r, std::string* error) const {
    *error = w_.error().empty() ? strerror(-r) : w_.error();
    return -1;
  }

  std::unique_ptr<config::Model> model_;
  writer::OwnerLock lock_;
  writer::ConfigWriter w_;
  std::string aborted_;
};

}  // namespace

std::unique_ptr<Engine> Engine::open(const std::string& schema_text, const std::string& name, std::string* error) {
  schema::Schema s;
  if (schema::load_string(schema_text, name, &s, error) != 0) return nullptr;
  try {
    return std::make_unique<ConfigEngine>(std::make_unique<config::Model>(std::move(s)));
  } catch (const std::exception& e) {
    *error = name + ": " + e.what();
    return nullptr;
  }
}

}  // namespace cmdbd
