// How the writer's messages name what they are about. The writer knows nodes
// by gid only; a process that has the schema's names (the engine's Model
// does) lends them for as long as it has them.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>

namespace writer {

// The schema's name of a node ("policy.rule"), or "" when it has none.
using NodeNamer = std::function<std::string(uint16_t gid)>;
// Installs `namer` (empty: none) and returns the one it replaces.
NodeNamer set_node_namer(NodeNamer namer);

// "'policy.rule'" when the installed namer knows the gid, else "gid 210".
std::string node_name(uint32_t gid);
// "'east'" for a domain the region lists, else "id 7"; 0 is the global context.
// REQUIRES: main lock (shared or exclusive).
std::string domain_name(uint32_t id);

}  // namespace writer
