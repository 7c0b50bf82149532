// cmdbctl as a person or a script uses it: the real binary, run as child
// processes inside this test's sandbox, against the example appliance schema.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

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
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
  fclose(f);
  return s;
}

void spit(const std::string& path, const std::string& text) {
  FILE* f = fopen(path.c_str(), "w");
  ASSERT_NE(nullptr, f);
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

// Starts cmdbctl with its output in files; the caller waits.
pid_t spawn(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
  pid_t pid = fork();
  if (pid != 0) return pid;
  int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
  std::vector<char*> argv{const_cast<char*>(CMDBCTL_PATH)};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(CMDBCTL_PATH, argv.data());
  _exit(127);
}

Outcome run(const std::vector<std::string>& args) {
  Outcome r;
  pid_t pid = spawn(args, "/tmp/out", "/tmp/err");
  int st = 0;
  waitpid(pid, &st, 0);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  r.out = slurp("/tmp/out");
  r.err = slurp("/tmp/err");
  return r;
}

Json::Value json_of(const std::string& text) {
  Json::Value v;
  std::string errs;
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> reader(b.newCharReader());
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
void expect_failure(const Outcome& r, const std::string& text) {
  EXPECT_EQ(1, r.status) << r.out << r.err;
  EXPECT_NE(std::string::npos, r.err.find(text)) << r.err;
  EXPECT_EQ(0, r.err.rfind("cmdbctl: ", 0)) << r.err;
  EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
}

class Cmdbctl : public ::testing::Test {
 protected:
  void create() {
    Outcome r = run({"create", "--schema", kSchema});
    ASSERT_EQ(0, r.status) << r.err;
  }
  void create_and_load() {
    create();
    Outcome r = run({"load", kConfig});
    ASSERT_EQ(0, r.status) << r.err;
  }
  std::string dump() {
    Outcome r = run({"dump"});
    EXPECT_EQ(0, r.status) << r.err;
    return r.out;
  }
};

TEST_F(Cmdbctl, CreateSummarisesInfoReadsDestroyLeavesNothing) {
  Outcome r = run({"create", "--schema", kSchema, "--platform", "3"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("total_node=53 <= 1605, 748,492, node_size=2192, sql=85, ds=164, max_gid=1861\n"
            "created the region in /dev/cmdb/ for platform 3 from " + kSchema + " (52 schema nodes)\n",
            r.out);
  expect_failure(run({"create", "--schema", kSchema}), "a region already exists");

  r = run({"info"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(0u, r.out.find("magic        0x00E0E71C\nversion      0\nlast writer  0\nlog level    3\n"
                           "platform     3\nschema       1603 nodes, max gid 1861, 85 SQL slots\n"))
      << r.out;
  for (const char* line : {"cmdb_node             2216\n", "page                   520\n", "daemon_status          104\n"})
    EXPECT_NE(std::string::npos, r.out.find(line)) << line;

  ASSERT_EQ(0, run({"load", kConfig}).status);  // page files too must go
  ASSERT_EQ(0, run({"destroy"}).status);
  EXPECT_EQ(std::vector<std::string>{}, region_files());
  expect_failure(run({"info"}), "no region in /dev/cmdb/");
  expect_failure(run({"destroy"}), "no region in /dev/cmdb/");
  EXPECT_EQ(0, run({"create", "--schema", kSchema}).status);  // and it can be made again
}

TEST_F(Cmdbctl, FailedCreateLeavesNoRegion) {
  spit("/tmp/bad.json", "{ \"nodes\": [ { \"name\": \"a\", \"gid\": 1861, \"kind\": 4 } ] }");
  spit("/tmp/syntax.json", "{ \"nodes\": [ ");
  struct {
    std::vector<std::string> args;
    const char* error;
  } cases[] = {
      {{"create", "--schema", "/tmp/none.json"}, "/tmp/none.json: No such file or directory"},
      {{"create", "--schema", "/tmp/bad.json"}, "/tmp/bad.json:1: field 'gid'"},
      {{"create", "--schema", "/tmp/syntax.json"}, "/tmp/syntax.json:1: bad JSON"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    expect_failure(run(c.args), c.error);
    EXPECT_EQ(std::vector<std::string>{}, region_files());
  }
  EXPECT_EQ(105, run({"create", "--schema", kSchema, "--platform", "30"}).status);  // refused by the parser
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
       "gid  table          count  size  total  warning  state\n"
       " 91  domain             2   500   2500      100  ok\n"
       "120  interface          2   256    256        0  ok\n"
       "200  policy             3   256    256        0  ok\n"
       "300  schedule           1   256    256        0  ok\n"
       "400  address            4   256    256        0  ok\n"
       "410  address_group      0  2048   8192        0  ok\n"},
      {{"pages"},
       "4 pages in use of 64 slots\n"
       "page  gen  bytes  kind  cache  objsize  inuse  num  first_free\n"
       "   1    2  65536  slab      4      512     12  126          12\n"
       "   2    2   8192  slab      1       64      4  120           4\n"
       "   3    2  32768  slab      3      256      2  125           2\n"
       "   4    2  32768  slab      2      128      8  248           8\n"},
      {{"pages", "--raw"},
       "   page cnt=4, page max=64.\n"
       "slabp:cache=4,page=1,inuse=12,free=12, cache:num=126,objsize=512.\n"
       "slabp:cache=1,page=2,inuse=4,free=4, cache:num=120,objsize=64.\n"
       "slabp:cache=3,page=3,inuse=2,free=2, cache:num=125,objsize=256.\n"
       "slabp:cache=2,page=4,inuse=8,free=8, cache:num=248,objsize=128.\n"},
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
    if (v.args.back() == "--raw") continue;  // the library's own text
    auto with_json = v.args;
    with_json.insert(with_json.begin(), "--json");
    EXPECT_FALSE(json_of(run(with_json).out).isNull());
  }
}

TEST_F(Cmdbctl, LocksAndEventsShowLiveProcesses) {
  create_and_load();
  pid_t watcher = spawn({"watch", "--name", "fwd", "policy", "address"}, "/tmp/watch.out", "/tmp/watch.err");
  for (int i = 0; i < 200 && slurp("/tmp/watch.out").empty(); ++i) usleep(10000);
  Outcome r = run({"events"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("events on, 2 objects registered\n"
            "gid  object   process  classes  act   data  socket\n"
            "200  policy   fwd      all      0x7f  yes   yes\n"
            "400  address  fwd      all      0x7f  yes   yes\n",
            r.out);
  r = run({"locks"});
  ASSERT_EQ(0, r.status) << r.err;
  std::string masked = std::regex_replace(r.out, std::regex(R"(\n *\d+ +(\d+) +(\d+) +[-0-9]+ [:0-9]+ +\d+ +(yes|no))"),
                                          "\nPID $1 $2 TIME AGE $3");
  // The pid column is as wide as the longest pid.
  masked = std::regex_replace(masked, std::regex("\npid +reads"), "\npid    reads");
  EXPECT_EQ(0u, masked.find("lock          key        value  state\n"
                            "main          230236253  32767  free\n"
                            "debug-zone 0  230236254  32767  free\n"
                            "debug-zone 1  230236255  32767  free\n\n"
                            "readers holding the main lock: 0\n\n"
                            "main lock requests by process\n"
                            "pid    reads  writes  last                 age_s  alive\n"))
      << r.out;
  EXPECT_NE(std::string::npos, masked.find("PID 0 1 TIME AGE no")) << masked;  // the load's writer
  Json::Value j = json_of(run({"--json", "locks"}).out);
  EXPECT_EQ(32767, j["semaphores"][0]["value"].asInt());

  kill(watcher, SIGTERM);
  int st = 0;
  ASSERT_EQ(watcher, waitpid(watcher, &st, 0));
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << slurp("/tmp/watch.err");
  EXPECT_EQ(0u, json_of(run({"--json", "events"}).out)["registrations"].size());
}

TEST_F(Cmdbctl, DumpRoundTripsThroughLoad) {
  create_and_load();
  std::string first = dump();
  spit("/tmp/dump.json", first);
  Outcome east = run({"dump", "--domain", "east"});
  ASSERT_EQ(0, east.status);
  spit("/tmp/east.json", east.out);
  // A dump names every context, so loading it back changes nothing.
  ASSERT_EQ(0, run({"load", "/tmp/dump.json"}).status);
  EXPECT_EQ(first, dump());

  ASSERT_EQ(0, run({"destroy"}).status);
  create();
  ASSERT_EQ(0, run({"load", "/tmp/dump.json"}).status);
  EXPECT_EQ(first, dump());

  // Loading one domain replaces that domain only.
  ASSERT_EQ(0, run({"delete", "--domain", "east", "policy[deny-rest]"}).status);
  ASSERT_EQ(0, run({"set", "--domain", "west", "policy[new]", "priority=5"}).status);
  ASSERT_EQ(0, run({"load", "/tmp/east.json"}).status);
  EXPECT_EQ(east.out, run({"dump", "--domain", "east"}).out);
  EXPECT_EQ("5\n", run({"get", "--domain", "west", "policy[new].priority"}).out);
}

TEST_F(Cmdbctl, FailedLoadChangesNothing) {
  create_and_load();
  std::string before = dump();
  std::string version = run({"--json", "info"}).out;
  struct {
    std::string file;
    const char* error;
  } cases[] = {
      {"{\"global\": {\"system\": {\"hostname\": \"x\", \"colour\": 1}}}", "'system' has no attribute, table or object 'colour'"},
      {"{\"global\": {\"system\": {\"hostname\": \"" + std::string(64, 'h') + "\"}}}", "at most 63 bytes"},
      {"{\"global\": {\"interface\": [{\"index\": 7}, {\"index\": 7}]}}", "key '7' appears twice"},
      {"{\"global\": {\"interface\": [{\"name\": \"eth9\"}]}}", "needs its key 'index'"},
      {"{\"global\": {\"interface\": [{\"index\": 1, \"mtu\": 70000}]}}", "70000 does not fit 'mtu'"},
      {"{\"global\": {\"policy\": []}}", "'policy' exists per domain only"},
      {"{\"domains\": [{\"name\": \"east\", \"id\": 9}]}", "domain 'east' has id 1, not 9"},
      {"{\"domains\": [{\"name\": \"north\", \"id\": 2}]}", "id 2 belongs to domain 'west'"},
      {"{\"domains\": [{\"name\": \"n\", \"config\": {\"address\": [{\"name\": \"a\", \"subnet\": \"10.1\"}]}}]}",
       "'subnet' is an IPv4 address"},
      {"{\"global\": {}, \"extra\": 1}", "unknown member 'extra'"},
      {"{\"global\": {\"interface\": [}", "bad JSON"},
  };
  // The address table holds at most 256 entries in one context.
  std::string many = "{\"domains\": [{\"name\": \"big\", \"config\": {\"address\": [";
  for (int i = 0; i < 257; ++i) many += (i ? "," : "") + std::string("{\"name\": \"a") + std::to_string(i) + "\"}";
  many += "]}}]}";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    spit("/tmp/bad.json", c.file);
    expect_failure(run({"load", "/tmp/bad.json"}), c.error);
  }
  spit("/tmp/many.json", many);
  expect_failure(run({"load", "/tmp/many.json"}), "'address' holds at most 256 entries, not 257");
  EXPECT_EQ(before, dump());
  EXPECT_EQ(version, run({"--json", "info"}).out);
}

TEST_F(Cmdbctl, SetGetDeleteByPath) {
  create();
  EXPECT_EQ("created interface[4]\n", run({"set", "interface[4]", "name=eth4", "address=10.9.8.7"}).out);
  EXPECT_EQ("eth4\n", run({"get", "interface[4].name"}).out);
  EXPECT_EQ("1500\n", run({"get", "interface[4].mtu"}).out);  // the table's default
  EXPECT_EQ("set interface[4]\n", run({"set", "interface[4]", "mtu=0x2328"}).out);
  EXPECT_EQ("9000\n", run({"get", "interface[4].mtu"}).out);
  expect_failure(run({"get", "system.hostname"}), "'system' holds no configuration");
  ASSERT_EQ(0, run({"set", "system", "hostname=edge", "admin_port=8443"}).status);
  Json::Value sys = json_of(run({"--json", "get", "system"}).out);
  EXPECT_EQ("edge", sys["hostname"].asString());
  EXPECT_EQ(8443u, sys["admin_port"].asUInt());
  EXPECT_EQ("UTC", sys["timezone"].asString());  // untouched attributes keep their defaults

  ASSERT_EQ(0, run({"load", kConfig}).status);
  ASSERT_EQ(0, run({"set", "--domain", "east", "policy[allow-web].rule[5]", "port=22"}).status);
  EXPECT_EQ("22\n", run({"get", "--domain", "east", "policy[allow-web].rule[5].port"}).out);
  ASSERT_EQ(0, run({"delete", "--domain", "east", "policy[allow-web].rule[10]"}).status);
  EXPECT_EQ(2u, json_of(run({"--json", "get", "--domain", "east", "policy[allow-web].rule"}).out).size());
  ASSERT_EQ(0, run({"delete", "--domain", "east", "policy[allow-web]"}).status);
  expect_failure(run({"get", "--domain", "east", "policy[allow-web]"}), "no entry 'policy[allow-web]'");

  struct {
    std::vector<std::string> args;
    const char* error;
  } bad[] = {
      {{"set", "interface[4]", "speed=10"}, "'interface' has no attribute 'speed'"},
      {{"set", "interface[4]", "mtu"}, "'mtu' is not ATTR=VALUE"},
      {{"set", "interface[4]", "mtu=big"}, "'mtu' is a number, not 'big'"},
      {{"set", "interface", "mtu=1"}, "'interface' is a table"},
      {{"set", "--domain", "nowhere", "policy[p]", "action=1"}, "no domain 'nowhere'"},
      {{"get", "policy[p]"}, "per domain only"},
      {{"get", "router"}, "no table or object 'router' in the schema"},
      {{"get", "interface[4"}, "'[' without ']'"},
      {{"delete", "system"}, "does not name an entry"},
      {{"delete", "interface[99]"}, "no entry 'interface[99]'"},
  };
  for (const auto& b : bad) {
    SCOPED_TRACE(b.args[1]);
    expect_failure(run(b.args), b.error);
  }
}

TEST_F(Cmdbctl, WatchPrintsEachChangeWithItsValues) {
  create();
  pid_t watcher = spawn({"--json", "watch", "--count", "3", "interface"}, "/tmp/watch.out", "/tmp/watch.err");
  for (int i = 0; i < 200 && json_of(run({"--json", "events"}).out)["registrations"].size() == 0; ++i) usleep(10000);
  ASSERT_EQ(0, run({"set", "interface[1]", "name=eth0"}).status);
  ASSERT_EQ(0, run({"set", "interface[1]", "name=wan0"}).status);
  ASSERT_EQ(0, run({"delete", "interface[1]"}).status);
  int st = 0;
  ASSERT_EQ(watcher, waitpid(watcher, &st, 0));
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << slurp("/tmp/watch.err");
  std::vector<Json::Value> events;
  std::string out = slurp("/tmp/watch.out");
  for (size_t p = 0, nl; (nl = out.find('\n', p)) != std::string::npos; p = nl + 1)
    events.push_back(json_of(out.substr(p, nl - p)));
  ASSERT_EQ(3u, events.size()) << out;
  EXPECT_EQ("insert", events[0]["event"].asString());
  EXPECT_EQ("eth0", events[0]["new"]["name"].asString());
  EXPECT_EQ("update", events[1]["event"].asString());
  EXPECT_EQ("eth0", events[1]["old"]["name"].asString());
  EXPECT_EQ("wan0", events[1]["new"]["name"].asString());
  EXPECT_EQ("delete", events[2]["event"].asString());
  EXPECT_EQ("wan0", events[2]["old"]["name"].asString());
  EXPECT_EQ("global", events[2]["domain"].asString());
}

TEST_F(Cmdbctl, LogLevelIsSharedAndEverySubcommandHasHelp) {
  create();
  EXPECT_EQ("3\n", run({"log-level"}).out);
  EXPECT_EQ("5\n", run({"log-level", "5"}).out);
  EXPECT_EQ("5\n", run({"log-level"}).out);
  for (const char* sub : {"create", "destroy", "info", "log-level", "pages", "locks", "events", "domains", "limits",
                          "dump", "get", "load", "set", "delete", "watch", "sandbox"}) {
    Outcome r = run({sub, "--help"});
    EXPECT_EQ(0, r.status) << sub;
    EXPECT_NE(std::string::npos, r.out.find("Usage")) << sub << r.out;
  }
}

}  // namespace

namespace {

TEST_F(Cmdbctl, ConcurrentWritersAreSerialised) {
  create();
  // Each writer attaches as owner and allocates; the write lock keeps them apart.
  std::vector<pid_t> writers;
  for (int i = 1; i <= 12; ++i)
    writers.push_back(spawn({"set", "interface[" + std::to_string(i) + "]", "name=if" + std::to_string(i)},
                            "/tmp/w" + std::to_string(i), "/tmp/w" + std::to_string(i) + ".err"));
  for (pid_t w : writers) {
    int st = 0;
    ASSERT_EQ(w, waitpid(w, &st, 0));
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  }
  Json::Value rows = json_of(run({"--json", "get", "interface"}).out);
  ASSERT_EQ(12u, rows.size());
  for (Json::ArrayIndex i = 0; i < rows.size(); ++i) {  // key order, every entry whole
    EXPECT_EQ(i + 1, rows[i]["index"].asUInt());
    EXPECT_EQ("if" + std::to_string(i + 1), rows[i]["name"].asString());
  }
  Json::Value limits = json_of(run({"--json", "limits"}).out)["tables"];
  EXPECT_EQ(12u, limits[1]["count"].asUInt());  // interface, after the domain table
  EXPECT_EQ(12u, json_of(run({"--json", "info"}).out)["version"].asUInt());
}

TEST_F(Cmdbctl, ValuesInEveryNotation) {
  create();
  struct {
    std::string assignment, attribute, expected;
  } cases[] = {
      {"address=hex:0a000001", "address", "10.0.0.1\n"},
      {"address=3232235777", "address", "1.1.168.192\n"},  // an integer lands little-endian
      {"mtu=0x100", "mtu", "256\n"},
      {"mtu=65535", "mtu", "65535\n"},
      {"mtu=-1", "mtu", "65535\n"},  // two's complement in the field's width
      {"enabled=false", "enabled", "0\n"},
      {"enabled=yes", "enabled", "1\n"},
      {"description=" + std::string(31, 'd'), "description", std::string(31, 'd') + "\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.assignment);
    ASSERT_EQ(0, run({"set", "interface[1]", c.assignment}).status);
    EXPECT_EQ(c.expected, run({"get", "interface[1]." + c.attribute}).out);
  }
  expect_failure(run({"set", "interface[1]", "mtu=65536"}), "65536 does not fit 'mtu' (2 bytes)");
  expect_failure(run({"set", "interface[1]", "mtu=-32769"}), "does not fit 'mtu'");
  expect_failure(run({"set", "interface[1]", "description=" + std::string(32, 'd')}), "at most 31 bytes");
  expect_failure(run({"set", "interface[1]", "address=hex:0102030405"}), "holds 4 bytes, not 5");
}

TEST_F(Cmdbctl, InfoReportsAForeignMagic) {
  create();
  int fd = open("/dev/cmdb/cmdb_global_rw", O_WRONLY);
  ASSERT_LE(0, fd);
  ASSERT_EQ(4, pwrite(fd, "\x01\x02\x03\x04", 4, 0));
  close(fd);
  Outcome r = run({"info"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ(0u, r.out.find("magic        0x04030201  (foreign: not a region of this library)\n")) << r.out;
  EXPECT_FALSE(json_of(run({"--json", "info"}).out)["magic_ok"].asBool());
}

TEST_F(Cmdbctl, SandboxKeepsItsRegionToItself) {
  create();
  // A nested sandbox starts empty and its region vanishes with it.
  Outcome inner = run({"--sandbox", "create", "--schema", kSchema, "--platform", "2"});
  EXPECT_EQ(0, inner.status) << inner.err;
  Outcome box = run({"sandbox", "--", CMDBCTL_PATH, "info"});
  EXPECT_EQ(1, box.status);
  EXPECT_NE(std::string::npos, box.err.find("no region")) << box.err;
  EXPECT_EQ("8\n", std::regex_replace(run({"info"}).out, std::regex("(?:.|\n)*platform +(\\d+)\n(?:.|\n)*"), "$1\n"));
}

TEST_F(Cmdbctl, WatchWithoutDataNamesTheChangeOnly) {
  create();
  pid_t watcher = spawn({"watch", "--no-data", "--count", "1", "--name", "quiet", "system"}, "/tmp/q.out", "/tmp/q.err");
  for (int i = 0; i < 200 && slurp("/tmp/q.out").empty(); ++i) usleep(10000);
  ASSERT_EQ(0, run({"set", "system", "hostname=h"}).status);
  int st = 0;
  ASSERT_EQ(watcher, waitpid(watcher, &st, 0));
  EXPECT_EQ("[quiet] watching system\n[quiet] update system in global: (no data)\n", slurp("/tmp/q.out"));
  expect_failure(run({"watch", "--name", std::string(20, 'n'), "system"}), "longer than 19 bytes");
  expect_failure(run({"watch", "policy[x]"}), "watch a table or object");
}

}  // namespace

namespace {

std::string addresses(const char* domain, int n) {
  std::string s = std::string("{\"name\": \"") + domain + "\", \"config\": {\"address\": [";
  for (int i = 0; i < n; ++i) s += (i ? "," : "") + std::string("{\"name\": \"") + domain + std::to_string(i) + "\"}";
  return s + "]}}";
}

TEST_F(Cmdbctl, LoadReplacesTheContextsItNames) {
  create_and_load();
  // Fewer entries than the region has: the others go; objects left out stay.
  spit("/tmp/less.json",
       "{\"global\": {\"interface\": [{\"index\": 2, \"name\": \"eth1\"}], \"address\": []},"
       " \"domains\": [{\"name\": \"west\", \"config\": {}}]}");
  ASSERT_EQ(0, run({"load", "/tmp/less.json"}).status);
  Json::Value d = json_of(dump());
  EXPECT_EQ(1u, d["global"]["interface"].size());
  EXPECT_EQ(1500u, d["global"]["interface"][0]["mtu"].asUInt());  // left out: the default, not 9000
  EXPECT_EQ(0u, d["global"]["address"].size());  // an emptied table shows as []
  EXPECT_EQ("fw-demo", d["global"]["system"]["hostname"].asString());
  ASSERT_EQ(2u, d["domains"].size());
  EXPECT_EQ(3u, d["domains"][0]["config"]["policy"].size() + d["domains"][0]["config"]["address"].size());  // east
  EXPECT_EQ(0u, d["domains"][1]["config"]["address"].size() + d["domains"][1]["config"]["policy"].size());  // west
  ASSERT_EQ(0, run({"load", "/tmp/less.json"}).status);  // the same file again changes nothing
  EXPECT_EQ(d["global"], json_of(run({"dump", "--domain", "global"}).out)["global"]);
  EXPECT_EQ(d, json_of(dump()));
}

TEST_F(Cmdbctl, LoadChecksTotalsAcrossDomains) {
  create();
  // 200 addresses fit one context, but the table's total over all contexts is 256.
  spit("/tmp/one.json", "{\"domains\": [" + addresses("a", 200) + "]}");
  spit("/tmp/two.json", "{\"domains\": [" + addresses("b", 100) + "]}");
  ASSERT_EQ(0, run({"load", "/tmp/one.json"}).status);
  expect_failure(run({"load", "/tmp/two.json"}), "'address' would hold 300 entries in all, more than its total limit 256");
  EXPECT_EQ(1u, json_of(dump())["domains"].size());  // not even the domain was added
  // Replacing a context counts what it held: 200 out, 250 in.
  spit("/tmp/more.json", "{\"domains\": [" + addresses("a", 250) + "]}");
  ASSERT_EQ(0, run({"load", "/tmp/more.json"}).status);
  EXPECT_EQ(250u, json_of(run({"--json", "limits"}).out)["tables"][4]["count"].asUInt());
}

}  // namespace
