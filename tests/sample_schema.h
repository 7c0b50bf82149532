// A host's static schema for tests and benchmarks: tables with entry nodes,
// integer and string attributes, objects, a node the walk does not enter,
// type-12 nodes with refs, a node that borrows another's defaults, and nodes
// with SQL descriptions. The builder frees descriptor defaults, so make a fresh
// schema for every region you create.
#pragma once

#include <stdint.h>

#include <deque>
#include <initializer_list>
#include <vector>

#include "gikraidrum.h"

namespace gk::test {

// Owns descriptors, child arrays, SQL descriptions and default blocks.
class SchemaBuilder {
 public:
  SchemaBuilder() = default;
  ~SchemaBuilder();
  SchemaBuilder(const SchemaBuilder&) = delete;
  SchemaBuilder& operator=(const SchemaBuilder&) = delete;

  // kind and type_scope as the descriptor stores them (type bits 0-3, scope 4-5).
  cmdb_node_desc_t* node(const char* name, uint32_t gid, uint8_t kind, uint8_t type_scope, uint16_t size,
                         uint16_t offset, const std::vector<cmdb_node_desc_t*>& children = {});
  // A malloc'ed default block of the node's size, every byte `fill`.
  void defaults(cmdb_node_desc_t* d, uint8_t fill);
  // `source` pointing at a u32 whose low 16 bits name the default gid.
  void default_gid(cmdb_node_desc_t* d, uint32_t word);
  // Flags B bit 0 and `source` pointing at a copy of `sql`.
  void sql(cmdb_node_desc_t* d, const cmdb_sql_desc_t& sql);
  void refs(cmdb_node_desc_t* d, std::initializer_list<uint16_t> gids);
  // Appends a top-level node under the root (the root itself is never built).
  void add_top(cmdb_node_desc_t* d);
  cmdb_node_desc_t* root() { return root_; }

 protected:
  cmdb_node_desc_t* root_ = nullptr;

 private:
  void set_children(cmdb_node_desc_t* d, const std::vector<cmdb_node_desc_t*>& children);
  std::deque<cmdb_node_desc_t> nodes_;
  std::deque<std::vector<cmdb_node_desc_t*>> child_lists_;
  std::deque<cmdb_sql_desc_t> sqls_;
  std::deque<uint32_t> words_;
};

// The sample: walked after __cli_domain_node (gid 91), in this order:
//   346 "user" table (kind 2, 40 bytes, defaults 0x46) > 347 entry > 348 name, 349 uid, 350 quota
//   100 "address" table (kind 2, 48, case-insensitive, defaults 0x10) > 101 entry > 102 name,
//       103 mask, 104 detail (kind 4, 8 bytes, defaults 0x04) > 105 ttl
//   200 "system" object (kind 8, 16 bytes, defaults 0x08 that the builder leaves alone) > 201, 202
//   210 "legacy" (kind 10) > 211 "hidden" (never built)
//   300 "peer" (type 12, refs 346 100), 301 "route_ref" (type 12, refs 200 201 202 91)
//   120 "user_copy" (kind 3, 40 bytes, own defaults 0x77, default gid 346) > 121 entry
//   130 "traffic_log" (kind 2, 16 bytes, SQL: number 7, short names, second long name, flag 0x80)
//   131 "event_log" (kind 5, SQL: number 0, a first long name over 63 chars, flag 0x7F)
class SampleSchema : public SchemaBuilder {
 public:
  SampleSchema();
  // Figures of the creation summary line for this schema (hand-computed).
  static constexpr int kTotalNode = 22;
  static constexpr int kDataTotal = 424;
  static constexpr int kNodeSize = 1004;
  static constexpr uint32_t kHostTotal = 4321;
  // The service table handed to creation: byte i is (i * 7) & 0xFF.
  uint8_t service_table[35424];
  cmdb_node_desc_t* system = nullptr;   // the kind-8 node, whose defaults stay set
};

// Lays out a whole region as a booted system has it: `daemon_status` from the
// init process (cmf_shm_create_init), then the rest from `schema` after filling
// the host's fields of `cmdb`. The first failing result, or 0.
int create_region(SampleSchema& schema, uint32_t platform);

}  // namespace gk::test
