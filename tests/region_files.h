// The region's files as bytes, to show that a refused or rolled back change
// left the region as it was.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "gikraidrum.h"
#include "tests/test_support.h"

namespace gk::test {

// Everything under /dev/cmdb but the writer's journal, the debug zone's lock
// bookkeeping and page files the page table lists as free (a rolled back
// allocation leaves its file).
inline std::map<std::string, std::vector<uint8_t>> region_files() {
  std::map<std::string, std::vector<uint8_t>> files;
  const auto* pt = static_cast<const cmdb_page_table_t*>(cmdb.page);
  for (const auto& f : std::filesystem::directory_iterator("/dev/cmdb")) {
    const std::string name = f.path().filename();
    const int page = atoi(name.c_str());
    if (!f.is_regular_file() || name == "writer.journal" || name == "debug_zone" ||
        (page > 0 && (page >= pt->page_max || pt->slot[page].size == -1)))
      continue;
    files[f.path().string()] = read_file(f.path().string());
  }
  return files;
}

}  // namespace gk::test
