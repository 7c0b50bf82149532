// What the change events need of a region: the `cmdb_event` sub-region, the
// debug zone and header (MiniRegion), the event lock file, and node records.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include "tests/test_support.h"
#include "tests/tree_fixture.h"

namespace gk::test {

inline std::string strf(const char* fmt, auto... args) {
  char buf[512];
  snprintf(buf, sizeof buf, fmt, args...);
  return buf;
}
// A log line of this process: the events subsystem starts each with "<pid>:".
inline std::string pid_line(const char* fmt, auto... args) { return strf("%d:", getpid()) + strf(fmt, args...); }

class EventRegion {
 public:
  explicit EventRegion(std::initializer_list<NodeSpec> nodes) : nodes_(nodes) {
    cmdb.cmdb_event = table = static_cast<cmdb_event_table_t*>(map_region_file("cmdb_event", kEventBytes));
    if (cmdb_create_lock() != 0 || cmf_lock_init() != 0) abort();
  }
  ~EventRegion() {
    cmdb.cmdb_event = nullptr;
    ::munmap(table, kEventBytes);
  }
  EventRegion(const EventRegion&) = delete;
  EventRegion& operator=(const EventRegion&) = delete;

  // The events subsystem logs at level 0: a level of 1 lets every line through.
  void set_event_log_level(int32_t level) { region.dz().event_log_level = level; }
  void set_events_switch(uint32_t v) { region.dz().event_switch = v; }

  static constexpr size_t kEventBytes = 49800;
  cmdb_event_table_t* table = nullptr;
  MiniRegion region;

 private:
  NodeSpace nodes_;
};

}  // namespace gk::test
