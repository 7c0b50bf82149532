// cmdbctl verify: the engine's whole-region check, under the read lock.
#include <stdio.h>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "writer/verify.h"

namespace cmdbctl {

int cmd_verify(const Options& o) {
  Attachment a(Mode::kReader);
  writer::RegionReport r;
  {
    ReadLock lock;
    r = writer::verify_region();
  }
  if (o.json) {
    Json::Value v(Json::objectValue);
    v["ok"] = r.ok();
    v["faults"] = Json::Value(Json::arrayValue);
    for (const std::string& f : r.faults) v["faults"].append(f);
    v["tables"] = r.tables;
    v["entries"] = r.entries;
    v["domains"] = r.domains;
    v["blocks"] = r.blocks;
    v["allocated"] = r.allocated;
    printf("%s\n", to_json_text(v).c_str());
  } else if (r.ok()) {
    printf("the region is sound: %u tables, %u entries, %u domains, %u blocks\n", r.tables, r.entries, r.domains,
           r.blocks);
  } else {
    for (const std::string& f : r.faults) printf("fault: %s\n", f.c_str());
    printf("%zu fault%s found\n", r.faults.size(), r.faults.size() == 1 ? "" : "s");
  }
  return r.ok() ? kExitOk : kExitFailed;
}

}  // namespace cmdbctl
