// The schema loader: descriptors byte for byte, names and computed layout, and
// every class of bad file reported at its place and field.
#include "tools/schema/schema_loader.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace {

schema::Schema load_ok(const std::string& text) {
  schema::Schema s;
  std::string error;
  EXPECT_EQ(0, schema::load_string(text, "t.json", &s, &error)) << error;
  return s;
}

// What one descriptor should be: its plain bytes, and what its pointers reach.
struct Want {
  Want(uint32_t gid, uint8_t kind, uint8_t type_scope, uint16_t size, uint16_t offset, const char* node_name,
       const char* node_help = "")
      : name(node_name), help(node_help) {
    memset(&d, 0, sizeof d);
    d.gid = gid;
    d.kind = kind;
    d.type_scope = type_scope;
    d.size = size;
    d.offset = offset;
  }
  cmdb_node_desc_t d;
  const char* name;
  const char* help;
  std::vector<uint8_t> defaults;
  std::optional<cmdb_sql_desc_t> sql;
  std::vector<const char*> sql_names;  // short1, short2, long1, long2 (null for none)
  uint32_t source_word = 0;
  std::vector<Want> children;
};

cmdb_node_desc_t without_pointers(const cmdb_node_desc_t& in) {
  cmdb_node_desc_t d = in;
  d.name = d.help = nullptr;
  d.defaults = d.source = nullptr;
  d.children = nullptr;
  d.nchild = 0;  // compared against the expected children instead
  return d;
}

void expect_same(const cmdb_node_desc_t* got, const Want& want) {
  SCOPED_TRACE(want.name);
  cmdb_node_desc_t g = without_pointers(*got), w = without_pointers(want.d);
  EXPECT_EQ(0, memcmp(&g, &w, sizeof g)) << "flags a/b/c " << +got->flags_a << "/" << +got->flags_b << "/"
                                         << +got->flags_c << ", type_scope " << +got->type_scope;
  EXPECT_STREQ(want.name, got->name);
  EXPECT_STREQ(want.help, got->help);
  if (want.defaults.empty()) {
    EXPECT_EQ(nullptr, got->defaults);
  } else {
    ASSERT_NE(nullptr, got->defaults);
    ASSERT_EQ(want.defaults.size(), got->size);
    EXPECT_EQ(want.defaults, std::vector<uint8_t>(static_cast<uint8_t*>(got->defaults),
                                                  static_cast<uint8_t*>(got->defaults) + got->size));
  }
  if (want.sql) {
    ASSERT_NE(nullptr, got->source);
    cmdb_sql_desc_t s = *static_cast<const cmdb_sql_desc_t*>(got->source);
    const char* names[] = {s.short1, s.short2, s.long1, s.long2};
    for (int i = 0; i < 4; ++i)
      EXPECT_TRUE(want.sql_names[i] ? names[i] && !strcmp(want.sql_names[i], names[i]) : !names[i]) << i;
    s.short1 = s.short2 = s.long1 = s.long2 = nullptr;
    EXPECT_EQ(0, memcmp(&s, &*want.sql, sizeof s));
  } else if (want.source_word != 0) {
    ASSERT_NE(nullptr, got->source);
    EXPECT_EQ(want.source_word, *static_cast<const uint32_t*>(got->source));
  } else {
    EXPECT_EQ(nullptr, got->source);
  }
  ASSERT_EQ(want.children.size(), got->nchild);
  EXPECT_EQ(want.children.empty(), got->children == nullptr);
  for (size_t i = 0; i < want.children.size(); ++i) expect_same(got->children[i], want.children[i]);
}

TEST(SchemaLoader, BuildsTheDescriptorsAHostWouldBuildByHand) {
  schema::Schema s = load_ok(R"({
    "platform": 3,
    "nodes": [
      { "name": "sys", "help": "settings", "gid": 10, "kind": 4, "size": 16,
        "flags": { "node_flag0": true, "node_flag2": true, "node_flag3": true,
                   "case_insensitive": true, "raw_c": 8 },
        "children": [
          { "name": "host", "gid": 11, "kind": 5, "type": 2, "size": 8, "offset": 0 },
          { "name": "port", "gid": 12, "kind": 5, "type": 1, "size": 2, "offset": 8 },
          { "name": "delta", "gid": 13, "kind": 5, "type": 1, "size": 4, "offset": 12 } ],
        "defaults_hex": "ffffffff ffffffff 0000 77",
        "defaults": { "host": "ab", "port": 443, "delta": -2 } },
      { "name": "tbl", "gid": 20, "kind": 2, "scope": 2, "size": 8,
        "sql": { "number": 7, "short1": "t", "long1": "table_long", "flag": true },
        "children": [
          { "name": "key", "gid": 21, "kind": 5, "type": 1, "size": 4,
            "children": [ { "name": "ref", "gid": 22, "kind": 5, "type": 12, "size": 4, "offset": 4,
                            "refs": [10, 91] } ] } ] },
      { "name": "copy", "gid": 30, "kind": 4, "scope": 3, "size": 16, "default_gid": 10 } ] })");

  Want sys{10, 4, 0x00, 16, 0, "sys", "settings"};
  sys.d.flags_a = 0x03;
  sys.d.flags_b = 0x04;
  sys.d.flags_c = 0x18;
  sys.defaults = {'a', 'b', 0, 0, 0, 0, 0, 0, 0xBB, 0x01, 0x77, 0, 0xFE, 0xFF, 0xFF, 0xFF};
  sys.children = {{11, 5, 0x02, 8, 0, "host"}, {12, 5, 0x01, 2, 8, "port"}, {13, 5, 0x01, 4, 12, "delta"}};
  Want ref{22, 5, 0x0C, 4, 4, "ref"};
  ref.d.refs[0] = 10;
  ref.d.refs[1] = 91;
  Want key{21, 5, 0x01, 4, 0, "key"};
  key.children = {ref};
  Want tbl{20, 2, 0x20, 8, 0, "tbl"};
  tbl.d.flags_b = 0x01;
  cmdb_sql_desc_t sql;
  memset(&sql, 0, sizeof sql);
  sql.number = 7;
  sql.flag = 0x80;
  tbl.sql = sql;
  tbl.sql_names = {"t", nullptr, "table_long", nullptr};
  tbl.children = {key};
  Want copy{30, 4, 0x30, 16, 0, "copy"};
  copy.source_word = 10;
  Want root{0, 0, 0, 0, 0, "schema"};
  root.children = {sys, tbl, copy};

  expect_same(s.root(), root);
  EXPECT_EQ(3u, s.platform());
  EXPECT_EQ(s.root()->children[1]->children[0], s.find(21));
  EXPECT_EQ(nullptr, s.find(91));  // the built-in domain table is not the schema's
}

// Named kinds, types and scopes, and the offsets and sizes a file leaves out:
// each attribute after the furthest one before it, at its natural alignment.
TEST(SchemaLoader, NamesAndComputedLayout) {
  schema::Schema s = load_ok(R"({"nodes": [
    {"name": "sys", "gid": 10, "kind": "object", "scope": "domain", "children": [
      {"name": "host", "gid": 11, "kind": "attribute", "type": "string", "size": 7},
      {"name": "port", "gid": 12, "kind": "attribute", "type": "u16"},
      {"name": "fixed", "gid": 13, "kind": "attribute", "type": "u8", "offset": 12},
      {"name": "addr", "gid": 14, "kind": "attribute", "type": "ipv4"},
      {"name": "mac", "gid": 15, "kind": "attribute", "type": "mac"},
      {"name": "big", "gid": 16, "kind": "attribute", "type": "u64"}]},
    {"name": "t", "gid": 20, "kind": "table", "scope": ["global", "domain"], "children": [
      {"name": "k", "gid": 21, "kind": 5, "type": "u32", "children": [
        {"name": "on", "gid": 22, "kind": "attribute", "type": "bool"},
        {"name": "sub", "gid": 23, "kind": "nested_table", "children": [
          {"name": "n", "gid": 24, "kind": "attribute", "type": "u16"}]}]},
      {"name": "extra", "gid": 25, "kind": "attribute", "type": "u32"}]},
    {"name": "fixed_size", "gid": 30, "kind": "object", "scope": "global", "size": 64, "children": [
      {"name": "x", "gid": 31, "kind": "attribute", "type": "u32"}]}]})");
  const struct {
    uint32_t gid;
    uint8_t kind, type_scope;
    uint16_t offset, size;
  } kWant[] = {
      {10, 4, 0x20, 0, 40}, {11, 5, 2, 0, 7},  {12, 5, 1, 8, 2},   {13, 5, 1, 12, 1}, {14, 5, 4, 16, 4},
      {15, 5, 6, 20, 6},    {16, 5, 1, 32, 8}, {20, 2, 0x30, 0, 12}, {21, 5, 1, 0, 4},  {22, 5, 3, 4, 1},
      {23, 3, 0, 0, 2},     {24, 5, 1, 0, 2},  {25, 5, 1, 8, 4},   {30, 4, 0, 0, 64}, {31, 5, 1, 0, 4},
  };
  for (const auto& w : kWant) {
    SCOPED_TRACE(w.gid);
    const cmdb_node_desc_t* d = s.find(w.gid);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(w.kind, d->kind);
    EXPECT_EQ(w.type_scope, d->type_scope);
    EXPECT_EQ(w.offset, d->offset);
    EXPECT_EQ(w.size, d->size);
  }
}

// Each text is the content of "nodes" on the document's first line (or, after
// "!", the whole document), with ' for " and A for the start of a node
// {"name":"a","gid":1,"kind":4. "@" marks where the error must be reported;
// the loader never sees it.
struct BadCase {
  const char* what;
  const char* text;
  const char* field;  // null for JSON syntax errors
  const char* message;
};

const BadCase kBadCases[] = {
    {"syntax", "A\n @]", nullptr, "bad JSON"},
    {"duplicate key", "A,\n @'gid': 2 }", nullptr, "Duplicate key"},
    {"not an object", "\n @7", "nodes", "a node must be an object, not an integer"},
    {"unknown field", "A,\n 'colour': @3 }", "colour", "unknown field"},
    {"unknown flag", "A, 'flags': {\n 'bold': @true } }", "flags.bold", "unknown field"},
    {"wrong type", "{ 'name': 'a',\n 'gid': @'7', 'kind': 4 }", "gid", "expected an integer, not a string"},
    {"missing kind", "\n @{ 'name': 'a', 'gid': 1 }", "kind", "missing"},
    {"kind too big", "{ 'name': 'a', 'gid': 1,\n 'kind': @16 }", "kind", "above 15"},
    {"kind name", "{ 'name': 'a', 'gid': 1, 'kind': @'tabel' }", "kind",
     "'tabel' is not a kind: table, nested_table, object, attribute, list, data_block, opaque, or a number 0-15"},
    {"type name", "A, 'type': @'u12' }", "type", "'u12' is not a type: u8, u16"},
    {"type size", "A, 'type': 'u16', 'size': @4 }", "size", "'u16' is 2 bytes, not 4"},
    {"string without size", "@{ 'name': 'a', 'gid': 1, 'kind': 5, 'type': 'string' }", "size",
     "a 'string' value needs its size"},
    {"scope name", "A, 'scope': ['global', @'planet'] }", "scope", "a scope is 'global' or 'domain'"},
    {"platform", "!{ 'nodes': [],\n 'platform': @30 }", "platform", "above 29"},
    {"gid 0", "{ 'name': 'a',\n 'gid': @0, 'kind': 4 }", "gid", "gid 0 names no node"},
    {"gid 1861", "{ 'name': 'a',\n 'gid': @1861, 'kind': 4 }", "gid", "above 1860"},
    {"gid 91", "{ 'name': 'a',\n 'gid': @91, 'kind': 4 }", "gid", "built-in domain table"},
    {"duplicate gid", "A },\n { 'name': 'b',\n 'gid': @1, 'kind': 4 }", "gid", "gid 1 is already 'a' (line 1)"},
    {"duplicate sibling",
     "A, 'children': [ { 'name': 'x', 'gid': 2, 'kind': 5 },\n { 'gid': 3, 'kind': 5,\n 'name': @'x' } ] }",
     "name", "'x' is already a child of 'a'"},
    {"overlap",
     "A, 'size': 8, 'children': [ { 'name': 'x', 'gid': 2, 'kind': 5, 'size': 4 },\n"
     " { 'name': 'y', 'gid': 3, 'kind': 5, 'size': 4,\n 'offset': @2 } ] }",
     "offset", "'y' (bytes 2..5) overlaps 'x' (bytes 0..3)"},
    {"passes parent", "A, 'size': 8, 'children': [\n { 'name': 'x', 'gid': 2, 'kind': 5, 'size': 4, 'offset': @6 } ] }",
     "offset", "offset 6 and size 4 pass the 8-byte data part of 'a'"},
    {"attribute over the key",
     "{ 'name': 't', 'gid': 9, 'kind': 2, 'size': 8, 'children': [ { 'name': 'k', 'gid': 2, 'kind': 5, 'size': 4,\n"
     " 'children': [ { 'name': 'v', 'gid': 3, 'kind': 5, 'size': 4, 'offset': @3 } ] } ] }",
     "offset", "'v' (bytes 3..6) overlaps 'k' (bytes 0..3)"},
    {"ref below kind 10",
     "{ 'name': 'c', 'gid': 5, 'kind': 10, 'children': [ { 'name': 'h', 'gid': 6, 'kind': 4 } ] },\n"
     " A, 'type': 12, 'refs': @[6] }",
     "refs", "gid 6 lies below a kind-10 node"},
    {"string default too long",
     "A, 'size': 4, 'children': [ { 'name': 's', 'gid': 2, 'kind': 5, 'type': 2, 'size': 4 } ],\n"
     " 'defaults': { 's': @'abcd' } }",
     "defaults.s", "the field holds 4 with the terminating NUL"},
    {"integer default too big",
     "A, 'size': 1, 'children': [ { 'name': 'i', 'gid': 2, 'kind': 5, 'size': 1 } ], 'defaults': { 'i': @256 } }",
     "defaults.i", "256 does not fit in 1 bytes"},
    {"negative default too small",
     "A, 'size': 1, 'children': [ { 'name': 'i', 'gid': 2, 'kind': 5, 'size': 1 } ], 'defaults': { 'i': @-129 } }",
     "defaults.i", "-129 does not fit in 1 bytes"},
    {"default of no attribute", "A, 'size': 1, 'defaults': {\n 'i': @1 } }", "defaults.i", "'a' has no attribute 'i'"},
    {"hex past the block", "A, 'size': 2, 'defaults_hex': @'010203' }", "defaults_hex", "3 bytes do not fit in 2"},
    {"defaults of kind 5", "{ 'name': 'a', 'gid': 1, 'kind': 5, 'size': 2, 'defaults_hex': @'01' }", "defaults_hex",
     "kinds 2, 3 and 4 only"},
    {"refs without type 12", "A, 'refs': @[2] }", "refs", "only a node of type 12"},
    {"type 12 without refs", "A, 'type': @12 }", "type", "type 12 needs 'refs'"},
    {"five refs", "A, 'type': 12, 'refs': @[2, 3, 4, 5, 6] }", "refs", "one to four gids"},
    {"ref to nothing", "A, 'type': 12, 'refs': @[2] }", "refs", "gid 2 names no node"},
    {"sql long1 with short2", "A, 'sql': { 'short2': 's', 'long1': @'l' } }", "sql.long1",
     "takes the place of 'short2'"},
    {"sql number with long2", "A, 'sql': { 'long2': 'l', 'number': @3 } }", "sql.number",
     "takes the first bytes of 'long2'"},
    {"sql short name too long", "A, 'sql': { 'short1': @'abcdefghijklmnopqrstuvwxyz012345' } }", "sql.short1",
     "32 bytes long, at most 31 fit"},
    {"sql bit by hand", "A, 'flags': { 'raw_b': @5 } }", "flags.raw_b", "use 'sql'"},
    {"default_gid with sql", "A, 'sql': {}, 'default_gid': @91 }", "default_gid", "cannot also copy defaults"},
    {"default_gid without a block", "{ 'name': 'a', 'gid': 1, 'kind': 5, 'default_gid': @91 }", "default_gid",
     "kind 5 has no default block"},
    {"default_gid built later", "A, 'default_gid': @2 },\n { 'name': 'b', 'gid': 2, 'kind': 4 }", "default_gid",
     "'b' (line 2) is built after this node"},
    {"default_gid from a smaller block",
     "{ 'name': 'b', 'gid': 2, 'kind': 4, 'size': 2 },\n A, 'size': 4, 'default_gid': @2 }", "default_gid",
     "gid 2 has a 2-byte default block; this node copies 4 bytes"},
    {"default_gid from no block", "{ 'name': 'b', 'gid': 2, 'kind': 5 },\n A, 'default_gid': @2 }", "default_gid",
     "'b' is kind 5 and has no default block"},
    {"table without entry", "\n @{ 'name': 't', 'gid': 1, 'kind': 2, 'size': 4 }", "children",
     "needs its entry node as first child"},
    {"entry with an instance", "{ 'name': 't', 'gid': 9, 'kind': 3, 'size': 4, 'children': [\n @A, 'size': 4 } ] }",
     "kind", "cannot have an instance block"},
};

TEST(SchemaLoader, ReportsEachBadFileAtItsPlaceAndField) {
  for (const BadCase& c : kBadCases) {
    SCOPED_TRACE(c.what);
    std::string text =
        c.text[0] == '!' ? std::string(c.text + 1) : std::string("{ \"nodes\": [ ") + c.text + " ]}";
    for (size_t p; (p = text.find('A')) != std::string::npos;) text.replace(p, 1, "{'name':'a','gid':1,'kind':4");
    std::replace(text.begin(), text.end(), '\'', '"');
    size_t at = text.find('@');
    ASSERT_NE(std::string::npos, at);
    text.erase(at, 1);
    size_t line_start = text.rfind('\n', at);
    line_start = line_start == std::string::npos ? 0 : line_start + 1;
    std::string prefix = "t.json:" + std::to_string(1 + std::count(text.begin(), text.begin() + at, '\n')) + ":" +
                         std::to_string(at - line_start + 1) + ": ";
    if (c.field != nullptr) prefix += std::string("field '") + c.field + "': ";
    schema::Schema s;
    std::string error;
    EXPECT_EQ(EINVAL, schema::load_string(text, "t.json", &s, &error));
    EXPECT_EQ(0u, error.rfind(prefix, 0)) << error << "\nwanted " << prefix;
    EXPECT_NE(std::string::npos, error.find(c.message)) << error;
    EXPECT_EQ(nullptr, s.root());
  }
}

// `head`, then one node per line, so node i (from 0) is on line i + 2.
std::string many(int count, const std::string& node_template, const std::string& head) {
  std::string text = "{ \"nodes\": [" + head;
  for (int i = 0; i < count; ++i) {
    std::string node = node_template;
    for (size_t p; (p = node.find("$G")) != std::string::npos;) node.replace(p, 2, std::to_string(100 + 2 * i));
    for (size_t p; (p = node.find("$K")) != std::string::npos;) node.replace(p, 2, std::to_string(101 + 2 * i));
    text += (i ? ",\n" : "\n") + node;
  }
  return text + "\n]}";
}

TEST(SchemaLoader, RefusesWhatTheSideTablesCannotHold) {
  const char* kTable =
      R"({"name":"t$G","gid":$G,"kind":2,"size":4,"children":[{"name":"k","gid":$K,"kind":5,"size":4}]})";
  const char* kSql = R"({"name":"s$G","gid":$G,"kind":4,"sql":{"short1":"s"}})";
  const char* kRefs = R"({"name":"r$G","gid":$G,"kind":5,"type":12,"refs":[91,1,2,3]})";
  const char* kTargets =
      R"({"name":"a","gid":1,"kind":4},{"name":"b","gid":2,"kind":4},{"name":"c","gid":3,"kind":4},)";
  const struct {
    const char* node;
    int fit;  // nodes that fit: one more is refused at its line
    const char* field;
    const char* head;
  } cases[] = {
      {kTable, 123, "kind", ""},  // the domain table takes one of the 124 table-limits records
      {kSql, 85, "sql", ""},
      {kRefs, 82, "refs", kTargets},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field);
    load_ok(many(c.fit, c.node, c.head));
    schema::Schema s;
    std::string error;
    EXPECT_EQ(EINVAL, schema::load_string(many(c.fit + 1, c.node, c.head), "t.json", &s, &error));
    EXPECT_EQ(0u, error.rfind("t.json:" + std::to_string(c.fit + 2) + ":", 0)) << error;
    EXPECT_NE(std::string::npos, error.find(std::string(": field '") + c.field + "': ")) << error;
  }
}

// The JSON reader throws past its nesting limit; the loader reports it like any
// syntax error instead of letting the exception end the process.
TEST(SchemaLoader, NestingPastTheReadersLimitIsASyntaxError) {
  for (const char* open : {"[", "{\"a\":"}) {
    std::string text;
    for (int i = 0; i < 5000; ++i) text += open;
    schema::Schema s;
    std::string error;
    EXPECT_EQ(EINVAL, schema::load_string(text, "deep.json", &s, &error)) << open;
    EXPECT_EQ(0u, error.rfind("deep.json:", 0)) << error;
    EXPECT_NE(std::string::npos, error.find("bad JSON")) << error;
    EXPECT_EQ(nullptr, s.root());
  }
}

}  // namespace
