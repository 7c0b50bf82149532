#include "tests/sample_schema.h"

#include <stdlib.h>
#include <string.h>

namespace gk::test {

SchemaBuilder::~SchemaBuilder() {
  for (cmdb_node_desc_t& d : nodes_) free(d.defaults);
}

cmdb_node_desc_t* SchemaBuilder::node(const char* name, uint32_t gid, uint8_t kind, uint8_t type_scope,
                                      uint16_t size, uint16_t offset,
                                      const std::vector<cmdb_node_desc_t*>& children) {
  cmdb_node_desc_t& d = nodes_.emplace_back();  // value-initialised: all zeros
  d.name = d.help = name;
  d.gid = gid;
  d.kind = kind;
  d.type_scope = type_scope;
  d.size = size;
  d.offset = offset;
  set_children(&d, children);
  return &d;
}

void SchemaBuilder::set_children(cmdb_node_desc_t* d, const std::vector<cmdb_node_desc_t*>& children) {
  std::vector<cmdb_node_desc_t*>& list = child_lists_.emplace_back(children);
  d->nchild = static_cast<uint8_t>(list.size());
  d->children = list.empty() ? nullptr : list.data();
}

void SchemaBuilder::defaults(cmdb_node_desc_t* d, uint8_t fill) {
  free(d->defaults);
  d->defaults = malloc(d->size);
  memset(d->defaults, fill, d->size);
}

void SchemaBuilder::default_gid(cmdb_node_desc_t* d, uint32_t word) { d->source = &words_.emplace_back(word); }

void SchemaBuilder::sql(cmdb_node_desc_t* d, const cmdb_sql_desc_t& sql) {
  d->flags_b |= 1;
  d->source = &sqls_.emplace_back(sql);
}

void SchemaBuilder::refs(cmdb_node_desc_t* d, std::initializer_list<uint16_t> gids) {
  int k = 0;
  for (uint16_t g : gids) d->refs[k++] = g;
}

void SchemaBuilder::add_top(cmdb_node_desc_t* d) {
  std::vector<cmdb_node_desc_t*> top(root_->children, root_->children + root_->nchild);
  top.push_back(d);
  set_children(root_, top);
}

SampleSchema::SampleSchema() {
  constexpr uint8_t kAttr = 5, kEntry = 1;
  constexpr uint8_t kInt = 1, kString = 2, kText = 5, kRef = 12;

  cmdb_node_desc_t* user = node("user", 346, 2, 0x20, 40, 0,
                                {node("entry", 347, kEntry, 0x20, 40, 0,
                                      {node("name", 348, kAttr, kString, 32, 0), node("uid", 349, kAttr, kInt, 4, 32),
                                       node("quota", 350, kAttr, 3, 4, 36)})});
  defaults(user, 0x46);

  cmdb_node_desc_t* detail = node("detail", 104, 4, 0, 8, 40, {node("ttl", 105, kAttr, kInt, 8, 0)});
  defaults(detail, 0x04);
  cmdb_node_desc_t* address =
      node("address", 100, 2, 0x30, 48, 0,
           {node("entry", 101, kEntry, 0, 48, 0,
                 {node("name", 102, kAttr, kString, 32, 0), node("mask", 103, kAttr, kInt, 4, 32), detail})});
  address->flags_c = 0x10;
  defaults(address, 0x10);

  system = node("system", 200, 8, 0x10, 16, 0,
                {node("hostname", 201, kAttr, kText, 12, 4), node("port", 202, kAttr, kInt, 4, 0)});
  system->flags_a = 3;
  system->flags_b = 0x04;
  defaults(system, 0x08);

  cmdb_node_desc_t* legacy = node("legacy", 210, 10, 0, 0, 0, {node("hidden", 211, kAttr, kInt, 4, 0)});
  cmdb_node_desc_t* peer = node("peer", 300, kAttr, kRef, 4, 0);
  refs(peer, {346, 100});
  cmdb_node_desc_t* route = node("route_ref", 301, kAttr, kRef, 4, 0);
  refs(route, {200, 201, 202, 91});

  cmdb_node_desc_t* copy = node("user_copy", 120, 3, 0, 40, 0, {node("entry", 121, kEntry, 0, 40, 0)});
  defaults(copy, 0x77);
  default_gid(copy, 0xABCD0000u | 346);   // only the low 16 bits name the gid

  cmdb_node_desc_t* traffic = node("traffic_log", 130, 2, 0, 16, 0);
  cmdb_sql_desc_t t{};
  t.number = 7;
  t.short1 = "tlog";
  t.short2 = "traffic";
  t.long2 = "traffic_log_long_name";
  t.flag = 0x80;
  sql(traffic, t);

  cmdb_node_desc_t* events = node("event_log", 131, kAttr, kString, 64, 0);
  events->flags_b = 0x04;
  cmdb_sql_desc_t e{};
  e.short1 = "elog";
  e.short2 = "events";
  e.long1 = "event_log_first_long_name_that_runs_past_the_sixty_three_characters_it_may_keep";
  e.flag = 0x7F;
  sql(events, e);

  root_ = node("root", 0, 0, 0, 0, 0, {user, address, system, legacy, peer, route, copy, traffic, events});
  for (size_t i = 0; i < sizeof service_table; ++i) service_table[i] = static_cast<uint8_t>(i * 7);
}

int create_region(SampleSchema& schema, uint32_t platform) {
  if (int r = cmf_shm_create_init(); r != 0) return r;
  cmdb.platform = platform;
  cmdb.schema = schema.root();
  cmdb.service_table = schema.service_table;
  cmdb.host_total = SampleSchema::kHostTotal;
  return cmf_shm_create();
}

}  // namespace gk::test
