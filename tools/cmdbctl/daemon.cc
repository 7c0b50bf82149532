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

// Sends one transaction; prints `done` with the revision it made. A refusal
// of a request made from a document names its place in it.
int send(const Options& o, const Json::Value& ops, const std::string& done,
         const config::JsonDocument* source = nullptr) {
  auto c = connect(o);
  uint64_t rev = 0;
  int r = gk_client_commit_json(c.get(), to_json_text(ops).c_str(), nullptr, &rev);
  if (r == 1) fail(source != nullptr ? source->locate(gk_client_error(c.get())) : gk_client_error(c.get()));
  if (r != 0)
    fail(format("cmdbd did not answer (%s): whether the change was made, 'cmdbctl status' and 'cmdbctl dump' tell",
                strerror(errno)));
  if (o.json) printf("{\n  \"revision\": %llu\n}\n", static_cast<unsigned long long>(rev));
  else printf("%s (revision %llu)\n", done.c_str(), static_cast<unsigned long long>(rev));
  return kExitOk;
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
  }
  return s["ready"].asBool() ? kExitOk : kExitFailed;
}

}  // namespace cmdbctl
