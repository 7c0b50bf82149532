// Writing through cmdbd. A region that a cmdbd keeps is changed only through
// it, so that every change is saved; `--direct` writes the region alone, under
// the owner lock, and the next start of cmdbd undoes it.
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "gikraidrum/client.h"
#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "writer/engine.h"
#include "writer/json_text.h"

namespace cmdbctl {
namespace {

constexpr const char* kNotRunning = "cmdbd is not running: start it, or write with --direct, which is not saved";

const char* socket_of(const Options& o) { return o.socket.empty() ? GK_CLIENT_DEFAULT_SOCKET : o.socket.c_str(); }

// A connection, or a failure that says why there is none.
std::unique_ptr<gk_client, void (*)(gk_client*)> connect(const Options& o) {
  gk_client* c = gk_client_open(socket_of(o));
  if (c == nullptr) {
    if (errno == ENOENT || errno == ECONNREFUSED) fail(kNotRunning);
    fail(format("%s: %s%s", socket_of(o), strerror(errno),
                errno == EACCES ? " (root and members of cmdbd's write group may write)" : ""));
  }
  return {c, gk_client_close};
}

Json::Value parse(const std::string& text, const std::string& name) {
  Json::CharReaderBuilder b;
  b["strictRoot"] = true;
  b["rejectDupKeys"] = true;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  Json::Value v;
  std::string errors;
  if (!r->parse(text.data(), text.data() + text.size(), &v, &errors)) {
    while (!errors.empty() && (errors.back() == '\n' || errors.back() == ' ')) errors.pop_back();
    fail(name + ": bad JSON: " + errors);
  }
  return v;
}

std::string value_text(const Json::Value& v) { return v.isNull() ? "(none)" : to_json_text(v, true); }

// One line per difference: an entry inserted or deleted, or a field changed.
void print_difference(const Json::Value& d) {
  std::string op = d["op"].asString();
  if (op == "domain-add" || op == "domain-remove") {
    printf("domain %s: %s (id %s)\n", d["name"].asCString(), op == "domain-add" ? "added" : "removed",
           value_text(d["id"]).c_str());
    return;
  }
  std::string where = d["path"].asString() + (d["domain"].asString() == "global" ? "" : " in " + d["domain"].asString());
  const Json::Value& fields = d["fields"];
  if (op == "update") {
    for (const std::string& f : fields.getMemberNames())
      printf("%s: %s %s -> %s\n", where.c_str(), f.c_str(), value_text(fields[f]["old"]).c_str(),
             value_text(fields[f]["new"]).c_str());
    return;
  }
  std::string values;
  for (const std::string& f : fields.getMemberNames())
    if (op == "insert") values += (values.empty() ? " " : ", ") + f + "=" + value_text(fields[f]["new"]);
  printf("%s: %s%s\n", where.c_str(), op == "insert" ? "inserted" : "deleted", values.c_str());
}

// Sends a writing request with the command's -m, --dry-run and --confirm;
// cmdbd's answer, or a failure. A refusal of a request made from a document
// names its place in it.
Json::Value submit(const Options& o, Json::Value req, const config::JsonDocument* source = nullptr) {
  if (!o.comment.empty()) req["comment"] = o.comment;
  if (o.dry_run) req["dry_run"] = true;
  if (o.confirm_s != 0) req["confirm"] = o.confirm_s;
  auto c = connect(o);
  char* text = nullptr;
  if (gk_client_request(c.get(), to_json_text(req).c_str(), &text) != 0)
    fail(format("cmdbd did not answer (%s): whether the change was made, 'cmdbctl history' tells", strerror(errno)));
  Json::Value a = parse(text, socket_of(o));
  free(text);
  if (!a["ok"].asBool()) fail(source != nullptr ? source->locate(a["error"].asString()) : a["error"].asString());
  a.removeMember("ok");
  return a;
}

// Prints the outcome of a writing request: `done` with the revision it made,
// or what a dry run would have changed.
int report(const Options& o, const Json::Value& a, const std::string& done) {
  const auto rev = static_cast<unsigned long long>(a["revision"].asUInt64());
  if (o.json) {
    printf("%s\n", to_json_text(a).c_str());
  } else if (o.dry_run) {
    for (const Json::Value& d : a["differences"]) print_difference(d);
    printf("dry run: %u changes, nothing applied (revision %llu)\n", a["changes"].asUInt(), rev);
  } else {
    printf("%s (revision %llu)\n", done.c_str(), rev);
    if (a.isMember("confirm_by"))
      printf("confirm by %s with 'cmdbctl confirm', or cmdbd rolls it back\n", a["confirm_by"].asCString());
  }
  return kExitOk;
}

int send(const Options& o, const Json::Value& ops, const std::string& done,
         const config::JsonDocument* source = nullptr) {
  Json::Value req(Json::objectValue);
  req["request"] = "commit";
  req["operations"] = ops;
  return report(o, submit(o, std::move(req), source), done);
}

Json::Value op(const char* kind, const std::string& path, const std::string& domain) {
  Json::Value v(Json::objectValue);
  v["op"] = kind;
  v["path"] = path;
  v["domain"] = domain.empty() ? "global" : domain;
  return v;
}

std::string in(const std::string& domain) { return domain.empty() ? "" : " in " + domain; }

}  // namespace

int cmdbd_request(const Options& o, const Json::Value& operations, const std::string& done) {
  return send(o, operations, done);
}

bool managed_by_cmdbd(const Options& o) {
  if (o.direct) return false;
  cmdb_header_t h{};
  int fd = ::open(region_path("cmdb_global_rw").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool whole = ::pread(fd, &h, sizeof h, 0) == static_cast<ssize_t>(sizeof h);
  ::close(fd);
  return whole && (h.ext_flags & CMDB_EXT_MANAGED) != 0;
}

int cmdbd_set(const Options& o, const std::string& path, const std::vector<std::string>& assignments,
              const std::string& domain) {
  Json::Value set = op("set", path, domain);
  set["values"] = Json::Value(Json::objectValue);
  for (const std::string& a : assignments) {
    size_t eq = a.find('=');
    if (eq == std::string::npos || eq == 0) fail(format("'%s' is not ATTR=VALUE", a.c_str()));
    const std::string name = a.substr(0, eq);
    if (set["values"].isMember(name)) fail(format("'%s' is given twice", name.c_str()));
    set["values"][name] = a.substr(eq + 1);  // cmdbd reads the text as the attribute's type
  }
  Json::Value ops(Json::arrayValue);
  ops.append(set);
  return send(o, ops, "set " + path + in(domain));
}

int cmdbd_delete(const Options& o, const std::string& path, const std::string& domain) {
  Json::Value ops(Json::arrayValue);
  ops.append(op("delete", path, domain));
  return send(o, ops, "deleted " + path + in(domain));
}

size_t max_size_option(const std::string& text) {
  const std::optional<size_t> n = parse_size(text);
  if (!n)
    throw Failure("--max-size takes a byte count such as 1048576, 64K, 256M or 1G, not '" + text + "'",
                  kExitUsage);
  return *n;
}

int cmdbd_load(const Options& o, const std::string& file, bool merge, size_t max_bytes) {
  const config::JsonDocument source(file == "-" ? "<stdin>" : file, config::read_input(file, max_bytes));
  Json::Value ops(Json::arrayValue);
  ops.append(config::load_op(source.root(), merge));
  return send(o, ops, (merge ? "merged " : "loaded ") + file, &source);
}

int cmd_status(const Options& o) {
  gk_client* c = gk_client_open(socket_of(o));
  char* text = nullptr;
  if (c == nullptr || gk_client_request(c, R"({"request": "status"})", &text) != 0) {
    gk_client_close(c);
    bool managed = managed_by_cmdbd(Options{});
    if (o.json) printf("{\n  \"running\": false,\n  \"managed\": %s\n}\n", managed ? "true" : "false");
    else printf("cmdbd is not running (%s)%s\n", socket_of(o),
                managed ? ": the region is managed by cmdbd, so writes are refused" : "");
    return kExitFailed;
  }
  gk_client_close(c);
  Json::Value s = parse(text, socket_of(o));
  free(text);
  s.removeMember("ok");
  s["running"] = true;
  if (o.json) {
    printf("%s\n", to_json_text(s).c_str());
  } else {
    printf("cmdbd      running, pid %d, since %s\n", s["pid"].asInt(), s["started"].asCString());
    printf("revision   %llu (oldest kept %llu)\n", static_cast<unsigned long long>(s["revision"].asUInt64()),
           static_cast<unsigned long long>(s["oldest_revision"].asUInt64()));
    printf("schema     %s (sha256 %s)\n", s["schema"].asCString(), s["schema_hash"].asCString());
    printf("store      %s\n", s["store"].asCString());
    printf("socket     %s\n", s["socket"].asCString());
    if (const Json::Value& p = s["confirm"]; p.isObject())
      printf("confirm    revision %llu rolls back to %llu unless confirmed by %s\n",
             static_cast<unsigned long long>(p["revision"].asUInt64()),
             static_cast<unsigned long long>(p["rollback_to"].asUInt64()), p["deadline"].asCString());
  }
  return s["ready"].asBool() ? kExitOk : kExitFailed;
}

namespace {

// One exchange through a client call that answers JSON text; a refusal fails.
template <typename Fn>
Json::Value ask(const Options& o, Fn fn) {
  auto c = connect(o);
  char* text = nullptr;
  if (fn(c.get(), &text) != 0) fail(format("cmdbd did not answer: %s", strerror(errno)));
  Json::Value a = parse(text, socket_of(o));
  free(text);
  if (!a["ok"].asBool()) fail(a["error"].asString());
  a.removeMember("ok");
  return a;
}

}  // namespace

int cmd_history(const Options& o, uint64_t limit) {
  Json::Value a = ask(o, [&](gk_client* c, char** t) { return gk_client_history(c, limit, t); });
  if (o.json) {
    printf("%s\n", to_json_text(a).c_str());
    return kExitOk;
  }
  for (const Json::Value& r : a["revisions"]) {
    const Json::Value& s = r["summary"];
    std::string domains;
    if (s["domain-add"].asUInt() + s["domain-rename"].asUInt() + s["domain-remove"].asUInt() != 0)
      domains = format(", domains +%u ~%u -%u", s["domain-add"].asUInt(), s["domain-rename"].asUInt(),
                       s["domain-remove"].asUInt());
    printf("%-6llu %s  %s  pid %d  %s  +%u ~%u -%u%s  %s%s%s\n", static_cast<unsigned long long>(r["revision"].asUInt64()),
           r["time"].asCString(), r["user"].asCString(), r["pid"].asInt(), r["kind"].asCString(), s["insert"].asUInt(),
           s["update"].asUInt(), s["delete"].asUInt(), domains.c_str(), r["command"].asCString(),
           r["comment"].isString() ? "  # " : "", r["comment"].isString() ? r["comment"].asCString() : "");
  }
  printf("history reaches back to revision %llu\n", static_cast<unsigned long long>(a["oldest_kept"].asUInt64()));
  return kExitOk;
}

int cmd_show(const Options& o, uint64_t rev, const std::string& path, const std::string& domain) {
  Json::Value a = ask(o, [&](gk_client* c, char** t) {
    return gk_client_show(c, rev, domain.empty() ? nullptr : domain.c_str(), path.empty() ? nullptr : path.c_str(), t);
  });
  printf("%s\n", to_json_text(path.empty() ? a["config"] : a["value"]).c_str());
  return kExitOk;
}

int cmd_diff(const Options& o, std::optional<uint64_t> from, std::optional<uint64_t> to) {
  Json::Value a = ask(o, [&](gk_client* c, char** t) {
    return gk_client_diff(c, from ? static_cast<int64_t>(*from) : -1, to ? static_cast<int64_t>(*to) : -1, t);
  });
  if (o.json) printf("%s\n", to_json_text(a).c_str());
  else
    for (const Json::Value& d : a["differences"]) print_difference(d);
  return kExitOk;
}

int cmd_diff_file(const Options& o, const std::string& file, size_t max_bytes) {
  // What a load of the file would change, asked of cmdbd as a dry run.
  const config::JsonDocument source(file == "-" ? "<stdin>" : file, config::read_input(file, max_bytes));
  Json::Value req(Json::objectValue);
  req["request"] = "commit";
  req["operations"].append(config::load_op(source.root(), false));
  Options dry = o;
  dry.dry_run = true;
  dry.comment.clear();
  Json::Value a = submit(dry, std::move(req), &source);
  if (o.json) printf("%s\n", to_json_text(a).c_str());
  else
    for (const Json::Value& d : a["differences"]) print_difference(d);
  return kExitOk;
}

int cmd_rollback(const Options& o, uint64_t rev) {
  Json::Value req(Json::objectValue);
  req["request"] = "rollback";
  req["revision"] = Json::UInt64(rev);
  return report(o, submit(o, std::move(req)), "rolled back to revision " + std::to_string(rev));
}

int cmd_confirm(const Options& o) {
  auto c = connect(o);
  uint64_t rev = 0;
  int r = gk_client_confirm(c.get(), &rev);
  if (r == 1) fail(gk_client_error(c.get()));
  if (r != 0) fail(format("cmdbd did not answer (%s): 'cmdbctl status' tells whether a commit awaits confirmation",
                          strerror(errno)));
  if (o.json) printf("{\n  \"revision\": %llu\n}\n", static_cast<unsigned long long>(rev));
  else printf("confirmed revision %llu\n", static_cast<unsigned long long>(rev));
  return kExitOk;
}

}  // namespace cmdbctl
