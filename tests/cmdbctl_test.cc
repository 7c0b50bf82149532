// cmdbctl as a person or a script uses it: the real binary, run as child
// processes inside this test's sandbox, against the example appliance schema.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "gikraidrum.h"

namespace {

const std::string kSchema = GK_SOURCE_DIR "/examples/appliance.json";
const std::string kConfig = GK_SOURCE_DIR "/examples/demo-config.json";

struct Outcome {
  int status = -1;
  std::string out, err;
};

std::string slurp(const std::string& path) {
  std::string s;
  FILE* f = fopen(path.c_str(), "r");
  if (f == nullptr) return s;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) s.append(buf, n);
  fclose(f);
  return s;
}

void spit(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "w");
  ASSERT_NE(nullptr, f);
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

// Starts cmdbctl with its output in files, as user `uid` when not 0 (status
// 125 when that cannot be, e.g. a checkout in a private directory); the caller
// waits.
pid_t spawn(const std::vector<std::string>& args, const std::string& out, const std::string& err,
            const char* in = "/dev/null", uid_t uid = 0) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  if (uid != 0 && (setgid(uid) != 0 || setuid(uid) != 0 || access(CMDBCTL_PATH, X_OK) != 0)) _exit(125);
  int i = open(in, O_RDONLY), o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644),
      e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (i < 0 || o < 0 || e < 0 || dup2(i, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
  std::vector<char*> argv{const_cast<char*>(CMDBCTL_PATH)};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(CMDBCTL_PATH, argv.data());
  _exit(127);
}

int finish(pid_t pid) {
  int st = 0;
  if (waitpid(pid, &st, 0) != pid) return -1;
  return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

Outcome run(const std::vector<std::string>& args, const std::string& input = "") {
  spit("/tmp/in", input);
  Outcome r;
  r.status = finish(spawn(args, "/tmp/out", "/tmp/err", "/tmp/in"));
  r.out = slurp("/tmp/out");
  r.err = slurp("/tmp/err");
  return r;
}

template <typename Ready>
bool wait_for(Ready ready) {
  for (int i = 0; i < 500; ++i, usleep(10000))
    if (ready()) return true;
  return false;
}

Json::Value json_of(const std::string& text) {
  Json::Value v;
  std::string errs;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &v, &errs)) << errs << text;
  return v;
}

std::vector<std::string> region_files() {
  std::vector<std::string> names;
  DIR* d = opendir("/dev/cmdb");
  while (dirent* e = d != nullptr ? readdir(d) : nullptr)
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  if (d != nullptr) closedir(d);
  return names;
}

// A failed command says one line on standard error and nothing else.
void expect_failure(const Outcome& r, const std::string& text, int status = 1) {
  EXPECT_EQ(status, r.status) << r.out << r.err;
  EXPECT_NE(std::string::npos, r.err.find(text)) << r.err;
  EXPECT_EQ(0, r.err.rfind("cmdbctl: ", 0)) << r.err;
  EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
}

class Cmdbctl : public ::testing::Test {
 protected:
  void create() { ASSERT_EQ(0, run({"create", "--schema", kSchema}).status); }
  void create_and_load() {
    create();
    ASSERT_EQ(0, run({"load", kConfig}).status);
  }
  std::string dump() { return run({"dump"}).out; }
};

TEST_F(Cmdbctl, CreateInfoDestroyLeaveNothingBehind) {
  Outcome r = run({"create", "--schema", kSchema, "--platform", "3"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("total_node=53 <= 1605, 748,492, node_size=2192, sql=85, ds=164, max_gid=1861\n"
            "created the region in /dev/cmdb/ for platform 3 from " + kSchema +
                ": 52 schema nodes in a table of 1603 node records\n",
            r.out);
  expect_failure(run({"create", "--schema", kSchema}), "a region already exists");
  std::string sha = run({"--json", "schema", "check", kSchema}).out;
  sha = json_of(sha)["sha256"].asString();
  FILE* p = popen(("sha256sum " + kSchema).c_str(), "r");
  char sum[65] = "";
  ASSERT_EQ(1u, fread(sum, 64, 1, p));
  pclose(p);
  EXPECT_EQ(sum, sha);
  r = run({"info"});
  EXPECT_EQ(0u, r.out.find("magic         0x00E0E71C\nversion       0\nlast writer   0\nlog level     3\n"
                           "platform      3\nschema        52 nodes in /dev/cmdb/cmdbctl.schema.json, sha256 " + sha +
                           "\nnode records  1603, gids up to 1861, 85 SQL slots\n"
                           "access        open to every local user\n\n"))
      << r.out;

  ASSERT_EQ(0, run({"load", kConfig}).status);  // page files too must go
  ASSERT_EQ(0, run({"destroy"}).status);
  EXPECT_EQ(std::vector<std::string>{}, region_files());
  expect_failure(run({"info"}), "no region in /dev/cmdb/");
  expect_failure(run({"destroy"}), "no region in /dev/cmdb/");

  // JSON on standard output alone; the library's summary line goes to standard error.
  r = run({"--json", "create", "--schema", kSchema});
  EXPECT_EQ(0u, r.out.find("{\n  \"created\": \"/dev/cmdb/\",\n  \"schema\": \"" + kSchema + "\",\n")) << r.out;
  EXPECT_EQ(52u, json_of(r.out)["schema_nodes"].asUInt());
  EXPECT_EQ(0u, r.err.find("total_node=53")) << r.err;
  int fd = open("/dev/cmdb/cmdb_global_rw", O_WRONLY);
  ASSERT_EQ(4, pwrite(fd, "\x01\x02\x03\x04", 4, 0));
  close(fd);
  EXPECT_EQ(0u, run({"info"}).out.find("magic         0x04030201  (foreign: not a region of this library)\n"));
  EXPECT_FALSE(json_of(run({"--json", "info"}).out)["magic_ok"].asBool());
}

TEST_F(Cmdbctl, UsageErrorsExitTwoAndHelpExplains) {
  spit("/tmp/bad.json", "{ \"nodes\": [ { \"name\": \"a\", \"gid\": 1861, \"kind\": 4 } ] }");
  struct {
    std::vector<std::string> args;
    int status;
    const char* err;  // the first line of standard error, or its start
  } cases[] = {
      {{"frobnicate"}, 2, "cmdbctl: 'frobnicate' is not a command; see 'cmdbctl help' for the list"},
      {{"inf"}, 2, "cmdbctl: 'inf' is not a command; did you mean 'info'?"},
      {{"get"}, 2, "cmdbctl: get: path is required; see 'cmdbctl help get'"},
      {{"--bogus", "info"}, 2, "cmdbctl: unknown option '--bogus'"},
      {{"log-level", "8"}, 2, "cmdbctl: log-level: level: Value 8 not in range 0 to 7"},
      {{"create"}, 2, "cmdbctl: create: --schema FILE is required"},
      {{}, 2, "usage: cmdbctl "},
      {{"create", "--schema", "/tmp/none.json"}, 1, "cmdbctl: /tmp/none.json: No such file or directory"},
      {{"create", "--schema", "/tmp/bad.json"}, 1, "cmdbctl: /tmp/bad.json:1:36: field 'gid'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args[0]);
    Outcome r = run(c.args);
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(0u, r.err.find(c.err)) << r.err;
    EXPECT_EQ("", r.out);
    EXPECT_EQ(std::vector<std::string>{}, region_files());
  }
  EXPECT_EQ(0u, run({"--version"}).out.find("cmdbctl "));
  EXPECT_EQ(run({"--version"}).out, run({"version"}).out);
  // Every command the overview lists has its own help, the same both ways.
  Outcome overview = run({"help"});
  std::smatch m;
  int commands = 0;
  for (std::string s = overview.out; std::regex_search(s, m, std::regex("\n  ([a-z][a-z-]*) +[A-Z]")); s = m.suffix()) {
    SCOPED_TRACE(m[1].str());
    ++commands;
    Outcome help = run({"help", m[1]});
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.out.find("Usage: cmdbctl " + m[1].str())) << help.out;
    EXPECT_EQ(help.out, run({m[1], "--help"}).out);
  }
  EXPECT_GE(commands, 17) << overview.out;
  // The bash completion script comes from the same table.
  spit("/tmp/complete.sh", run({"completion", "bash"}).out + "COMP_WORDS=(cmdbctl inf); COMP_CWORD=1; _cmdbctl\n"
                           "echo \"${COMPREPLY[*]}\"; COMP_WORDS=(cmdbctl watch --n); COMP_CWORD=2; _cmdbctl\n"
                           "echo \"${COMPREPLY[*]}\"\n");
  FILE* p = popen("bash /tmp/complete.sh", "r");
  char words[256] = "";
  EXPECT_LT(0u, fread(words, 1, sizeof words - 1, p));
  pclose(p);
  EXPECT_STREQ("info\n--name --no-data\n", words);
}

TEST_F(Cmdbctl, TableViewsMatchTheRegion) {
  create_and_load();
  struct {
    std::vector<std::string> args;
    std::string golden;
  } views[] = {
      {{"domains"},
       "2 domains of 500\n"
       "id  name      root        elements\n"
       " 0  (global)  0x########         4\n"
       " 1  east      0x########         3\n"
       " 2  west      0x########         2\n"},
      {{"limits"},
       "table limits for platform 8, 0 at or over the warning\n"
       "gid  table          count  total  largest  size  warning  state  source\n"
       " 91  domain             2   2500        2   500      100  ok     built-in\n"
       "120  interface          2    256        2   256        0  ok     default\n"
       "200  policy             3    256        2   256        0  ok     default\n"
       "300  schedule           1    256        1   256        0  ok     default\n"
       "400  address            4    256        2   256        0  ok     default\n"
       "410  address_group      0   8192        0  2048        0  ok     built-in\n"},
      {{"pages"},
       "4 pages in use of 64 slots\n"
       "page  gen  bytes  kind  cache  objsize  inuse  num  first_free\n"
       "   1    2  65536  slab      4      512     12  126          12\n"
       "   2    2   8192  slab      1       64      4  120           4\n"
       "   3    2  32768  slab      3      256      2  125           2\n"
       "   4    2  32768  slab      2      128      8  248           8\n"},
      {{"get", "--domain", "east", "policy"},
       "name       action  enabled  priority  schedule  comment                  rule\n"
       "allow-web       1        1        10         0  clients to the web farm  2 entries\n"
       "deny-rest       0        1      1000         0                           -\n"},
  };
  for (const auto& v : views) {
    SCOPED_TRACE(v.args[0]);
    Outcome r = run(v.args);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(v.golden, std::regex_replace(r.out, std::regex("0x[0-9a-f]{8}"), "0x########"));
  }
}

// A receiver killed without leaving keeps its registrations and socket; a
// process that took the lock and ended keeps its statistics record.
TEST_F(Cmdbctl, DeadProcessesAreMarkedAndPruned) {
  create_and_load();
  pid_t live = spawn({"watch", "--name", "live", "policy"}, "/tmp/live.out", "/tmp/live.err");
  pid_t gone = spawn({"watch", "--name", "gone", "address"}, "/tmp/gone.out", "/tmp/gone.err");
  ASSERT_TRUE(wait_for([] { return !slurp("/tmp/live.out").empty() && !slurp("/tmp/gone.out").empty(); }));
  kill(gone, SIGKILL);
  ASSERT_EQ(128 + SIGKILL, finish(gone));
  EXPECT_EQ("events on, 2 objects registered; 1 process gone ('cmdbctl events --prune' removes them)\n"
            "gid  object   process  classes  act   data  socket\n"
            "200  policy   live     all      0x7f  yes   listening\n"
            "400  address  gone     all      0x7f  yes   dead\n",
            run({"events"}).out);
  EXPECT_EQ("pruned 1 registration of 1 dead process\n"
            "events on, 1 object registered\n"
            "gid  object  process  classes  act   data  socket\n"
            "200  policy  live     all      0x7f  yes   listening\n",
            run({"events", "--prune"}).out);
  EXPECT_NE(0, access("/tmp/EVENT_D_gone", F_OK));

  Json::Value stats = json_of(run({"--json", "locks"}).out)["lock_stats"];
  ASSERT_GE(stats.size(), 1u);  // the load's, at least
  for (const Json::Value& s : stats) EXPECT_FALSE(s["alive"].asBool());
  Json::Value pruned = json_of(run({"--json", "locks", "--prune"}).out);
  EXPECT_EQ(stats.size(), pruned["pruned"].asUInt());
  EXPECT_EQ(0u, pruned["lock_stats"].size());

  kill(live, SIGTERM);  // a clean exit takes its registrations and socket along
  EXPECT_EQ(0, finish(live)) << slurp("/tmp/live.err");
  EXPECT_NE(0, access("/tmp/EVENT_D_live", F_OK));
  EXPECT_EQ(0u, json_of(run({"--json", "events"}).out)["registrations"].size());
}

TEST_F(Cmdbctl, WatchPrintsEachChangeWithItsValues) {
  create_and_load();
  pid_t all = spawn({"--json", "watch", "--name", "j", "--count", "3", "interface"}, "/tmp/j.out", "/tmp/j.err");
  pid_t east = spawn({"watch", "--no-data", "--domain", "east", "--count", "1", "--name", "q", "policy"},
                     "/tmp/q.out", "/tmp/q.err");
  ASSERT_TRUE(wait_for([] { return json_of(run({"--json", "events"}).out)["registrations"].size() == 2; }));
  ASSERT_EQ(0, run({"set", "interface[7]", "name=eth0"}).status);
  ASSERT_EQ(0, run({"set", "interface[7]", "name=wan0"}).status);
  ASSERT_EQ(0, run({"delete", "interface[7]"}).status);
  ASSERT_EQ(0, run({"set", "--domain", "west", "policy[w]", "priority=1"}).status);
  ASSERT_EQ(0, run({"set", "--domain", "east", "policy[e]", "priority=1"}).status);
  EXPECT_EQ(0, finish(all)) << slurp("/tmp/j.err");
  EXPECT_EQ(0, finish(east)) << slurp("/tmp/q.err");
  std::string out = slurp("/tmp/j.out");
  EXPECT_EQ(0u, out.find("{\"process\": \"j\", \"event\": \"insert\", \"gid\": 120, \"object\": \"interface\", "
                         "\"domain\": \"global\", \"new\": {\"index\": 7, \"name\": \"eth0\", \"mtu\": 1500, "))
      << out;
  std::vector<Json::Value> events;
  for (size_t p = 0, nl; (nl = out.find('\n', p)) != std::string::npos; p = nl + 1)
    events.push_back(json_of(out.substr(p, nl - p)));
  ASSERT_EQ(3u, events.size()) << out;
  EXPECT_EQ("update", events[1]["event"].asString());
  EXPECT_EQ("eth0", events[1]["old"]["name"].asString());
  EXPECT_EQ("wan0", events[1]["new"]["name"].asString());
  EXPECT_EQ("delete", events[2]["event"].asString());
  EXPECT_EQ("wan0", events[2]["old"]["name"].asString());
  EXPECT_EQ("[q] watching policy in east\n[q] insert policy in east: (no data)\n", slurp("/tmp/q.out"));
  expect_failure(run({"watch", "--name", std::string(20, 'n'), "system"}), "longer than 19 bytes");
  expect_failure(run({"watch", "policy[x]"}), "watch a table or object");
}

bool process_running_with(const std::string& arg) {
  DIR* d = opendir("/proc");
  bool found = false;
  while (dirent* e = d != nullptr && !found ? readdir(d) : nullptr) {
    std::string cmdline = slurp(std::string("/proc/") + e->d_name + "/cmdline");
    found = cmdline.find(std::string(1, '\0') + arg + std::string(1, '\0')) != std::string::npos;
  }
  if (d != nullptr) closedir(d);
  return found;
}

TEST_F(Cmdbctl, SandboxEndsEverythingStartedInIt) {
  const std::string inner = std::string(CMDBCTL_PATH) + " create --schema " + kSchema + " >/dev/null";
  Outcome r = run({"sandbox", "sh", "-c", inner + "; sleep 7371 & exit 7"});
  EXPECT_EQ(7, r.status);
  EXPECT_EQ("cmdbctl: left the sandbox: its region and every process started in it are gone\n", r.err);
  EXPECT_TRUE(wait_for([] { return !process_running_with("7371"); }));
  EXPECT_EQ(std::vector<std::string>{}, region_files());

  // --sandbox keeps the sandbox it runs in; the sandbox command starts a fresh one.
  create();
  EXPECT_EQ(0, run({"--sandbox", "info"}).status);
  expect_failure(run({"sandbox", "--", CMDBCTL_PATH, "info"}), "no region");
  setenv("SHELL", "/bin/sh", 1);
  EXPECT_EQ("(cmdb sandbox) $ \n", run({"sandbox"}, "echo \"$PS1\"\n").out);
  EXPECT_EQ(127, run({"sandbox", "/no/such/command"}).status);
}

TEST_F(Cmdbctl, SchemasByNameChecksAndHeaders) {
  spit("/tmp/named.json", R"({"nodes": [
    {"name": "iface", "gid": 120, "kind": "table", "children": [
      {"name": "index", "gid": 121, "kind": "attribute", "type": "u32", "children": [
        {"name": "name", "gid": 122, "kind": "attribute", "type": "string", "size": 15},
        {"name": "mtu", "gid": 123, "kind": "attribute", "type": "u16"},
        {"name": "addr", "gid": 124, "kind": "attribute", "type": "ipv4"}]}]}]})");
  Outcome r = run({"schema", "check", "--layout", "/tmp/named.json"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.out.find("/tmp/named.json: valid, 5 nodes (1 table, 0 objects), no platform"));
  EXPECT_NE(std::string::npos, r.out.find("gid  path         kind       type    offset  size\n"
                                          "120  iface        table      -       -         28\n"
                                          "121  iface.index  attribute  u32          0     4\n"
                                          "122  iface.name   attribute  string       4    15\n"
                                          "123  iface.mtu    attribute  u16         20     2\n"
                                          "124  iface.addr   attribute  ipv4        24     4\n"))
      << r.out;
  // Values land at the computed offsets and read back through them.
  expect_failure(run({"create", "--schema", "/tmp/named.json"}), "/tmp/named.json names no platform");
  ASSERT_EQ(0, run({"create", "--schema", "/tmp/named.json", "--platform", "1"}).status);
  ASSERT_EQ(0, run({"set", "iface[1]", "name=eth0", "mtu=9000", "addr=10.0.0.1"}).status);
  Json::Value e = json_of(run({"--json", "get", "iface[1]"}).out);
  EXPECT_EQ("eth0", e["name"].asString());
  EXPECT_EQ(9000u, e["mtu"].asUInt());
  EXPECT_EQ("10.0.0.1", e["addr"].asString());

  spit("/tmp/clash.json", R"({"nodes": [{"name": "o", "gid": 1, "kind": "object", "children": [
    {"name": "a-b", "gid": 2, "kind": "attribute", "type": "u8"},
    {"name": "a_b", "gid": 3, "kind": "attribute", "type": "u8"}]}]})");
  expect_failure(run({"schema", "header", "/tmp/clash.json"}), "/tmp/clash.json: 'o.a-b' and 'o.a_b' both become CLASH_O_A_B_GID in C");
}

// The library ends a process whose semaphore step fails; the tool says why first.
TEST_F(Cmdbctl, SemaphoreFailureIsExplained) {
  create_and_load();
  pid_t w = spawn({"watch", "--name", "s", "policy"}, "/tmp/s.out", "/tmp/s.err");
  ASSERT_TRUE(wait_for([] { return !slurp("/tmp/s.out").empty(); }));
  int sem = semget(CMDB_SEM_KEY, 1, 0);
  ASSERT_EQ(0, semctl(sem, 0, IPC_RMID));
  // An event from a domain makes the receiver look its name up under the lock.
  cmdb_event_msg_t msg{};
  msg.gid = 200;
  msg.domain_id = 1;
  msg.act = 0x02;
  msg.total_size = sizeof msg;
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  strcpy(to.sun_path, "/tmp/EVENT_D_s");
  ASSERT_EQ(static_cast<ssize_t>(sizeof msg), sendto(fd, &msg, sizeof msg, 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
  close(fd);
  EXPECT_EQ(255, finish(w));
  std::string err = slurp("/tmp/s.err");
  EXPECT_EQ(0u, err.find("cmdbctl: semaphore failure (semop on set " + std::to_string(sem) + ": ")) << err;
  EXPECT_NE(std::string::npos, err.find("): the region's locks were changed or removed\n")) << err;
}

// Refusals for someone who may not use the region name the file and who may.
TEST_F(Cmdbctl, PermissionDeniedNamesTheFile) {
  create();
  for (const char* cmd : {"info", "destroy"}) {
    SCOPED_TRACE(cmd);
    int status = finish(spawn({cmd}, "/dev/null", "/tmp/perm.err", "/dev/null", 65534));
    if (status == 125) GTEST_SKIP() << "no second user in this sandbox, or cmdbctl is out of its reach";
    EXPECT_EQ(1, status);
    EXPECT_EQ(0u, slurp("/tmp/perm.err").find("cmdbctl: permission denied on /")) << slurp("/tmp/perm.err");
    EXPECT_NE(std::string::npos, slurp("/tmp/perm.err").find("): run as root")) << slurp("/tmp/perm.err");
  }
  EXPECT_EQ(0, run({"info"}).status);  // nothing was removed
}

}  // namespace
