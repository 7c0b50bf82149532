// The whole-region check: what the owner daemon runs to find a damaged region
// (ConfigWriter::reset() then starts it afresh while daemons stay attached),
// and what `cmdbctl verify` reports.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace writer {

struct RegionReport {
  std::vector<std::string> faults;  // each names what is wrong and where; empty: none
  uint32_t tables = 0, entries = 0, domains = 0, large_tables = 0;
  uint32_t blocks = 0;     // reached from the domains' and the global context's trees
  uint32_t allocated = 0;  // in use by the allocator's own account
  bool ok() const { return faults.empty(); }
};

// Checks the allocator (cmf_shm_verify), the header's unfinished-change mark,
// the domain table and both domain indexes, every root block, every table with
// its entry index, entries, child instances and locator records, every object,
// the locator blocks, the live counts of the table limits, and that every
// allocated block is reached from the tree exactly once. Reads only, each
// block checked against the allocator's records before it is followed; stops
// listing after `max_faults`. A region inside a writer's transaction shows
// that transaction's pending frees as unreached blocks.
// REQUIRES: main lock (shared at least), region attached.
RegionReport verify_region(size_t max_faults = 32);

// The part of verify_region that readers need before they walk the tree: the
// domain table and indexes, and every context's root block, tables, indexes,
// entries and objects, each checked before it is followed. Once it passes, a
// reader that follows handles and counts as the library's lookups do stays
// inside the region. REQUIRES: main lock (shared at least), region attached.
RegionReport verify_config(size_t max_faults = 8);

}  // namespace writer
