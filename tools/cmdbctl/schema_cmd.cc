// `cmdbctl schema check` and `cmdbctl schema header`: schema files without a region.
#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/cmdbctl/commands.h"
#include "tools/cmdbctl/output.h"
#include "tools/cmdbctl/region.h"
#include "tools/common/sha256.h"
#include "tools/schema/c_header.h"
#include "tools/schema/schema_loader.h"
#include "writer/model.h"

namespace cmdbctl {
namespace {

struct Loaded {
  schema::Schema schema;
  std::string sha256;
};

Loaded load(const std::string& file) {
  Loaded l;
  std::string text = read_file(file), error;
  if (schema::load_string(text, file, &l.schema, &error) != 0) fail(error);
  l.sha256 = gk::sha256_hex(text);
  return l;
}

bool is_table(const cmdb_node_desc_t* d) { return (d->kind & 15) == 2 || (d->kind & 15) == 3; }

// Every node with the path that names it: a table's key and entry attributes
// are the table's ("interface.mtu"), as cmdbctl paths name them.
class Layout {
 public:
  Table table{{"gid", "path", "kind", "type", "offset", "size"}};
  size_t tables = 0, objects = 0;

  void walk(const cmdb_node_desc_t* d, const std::string& path) {
    add(d, path);
    if ((d->kind & 15) == 10) return;
    for (uint8_t i = 0; i < d->nchild; ++i) {
      const cmdb_node_desc_t* c = d->children[i];
      if (i > 0 || !is_table(d)) {
        walk(c, path + "." + c->name);
        continue;
      }
      add(c, path + "." + c->name);  // the entry node: the key, its children the entry's
      for (uint8_t j = 0; j < c->nchild; ++j) walk(c->children[j], path + "." + c->children[j]->name);
    }
  }

 private:
  void add(const cmdb_node_desc_t* d, const std::string& path) {
    int kind = d->kind & 15;
    tables += kind == 2 || kind == 3;
    objects += kind == 4;
    Json::Value none, type = none, offset = none;
    if (kind == 5) {
      type = schema::type_name(d->type_scope & 15, d->size);
      offset = d->offset;
    }
    table.add({d->gid, path, schema::kind_name(kind), type, offset, d->size});
  }
};

std::string stem(const std::string& path) {
  std::string base = path.substr(path.find_last_of('/') + 1);
  return base.substr(0, base.find('.'));
}

}  // namespace

int cmd_schema_check(const Options& o, const std::string& file, bool layout) {
  Loaded l = load(file);
  Layout layout_of;
  const cmdb_node_desc_t* root = l.schema.root();
  for (uint8_t i = 0; i < root->nchild; ++i) layout_of.walk(root->children[i], root->children[i]->name);
  const Table& nodes = layout_of.table;
  size_t tables = layout_of.tables, objects = layout_of.objects;
  std::optional<uint32_t> platform = l.schema.platform();
  if (o.json) {
    JsonObject v;
    v.add("file", file)
        .add("valid", true)
        .add("sha256", l.sha256)
        .add("platform", platform ? Json::Value(*platform) : Json::Value())
        .add("nodes", static_cast<Json::UInt64>(l.schema.node_count()))
        .add("tables", static_cast<Json::UInt64>(tables))
        .add("objects", static_cast<Json::UInt64>(objects))
        .add("layout", nodes);
    printf("%s\n", v.text().c_str());
    return 0;
  }
  printf("%s: valid, %s (%s, %s), %s, sha256 %s\n", file.c_str(), count(l.schema.node_count(), "node").c_str(),
         count(tables, "table").c_str(), count(objects, "object").c_str(),
         platform ? format("platform %u", *platform).c_str() : "no platform", l.sha256.c_str());
  if (layout) fputs(nodes.text().c_str(), stdout);
  return 0;
}

int cmd_schema_header(const Options&, const std::string& file, const std::string& output, const std::string& prefix) {
  Loaded l = load(file);
  schema::HeaderNames names;
  names.prefix = !prefix.empty() ? prefix : stem(file);
  names.source = file.substr(file.find_last_of('/') + 1);
  names.sha256 = l.sha256;
  std::string base = output.empty() ? names.prefix + ".h" : output.substr(output.find_last_of('/') + 1);
  for (char& c : base) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  names.guard = schema::c_identifier(base);
  std::string text, error;
  if (schema::write_c_header(l.schema, names, &text, &error) != 0) fail(file + ": " + error);
  if (output.empty())
    fputs(text.c_str(), stdout);
  else
    write_file_atomically(output, text);
  return 0;
}

int cmd_completion_paths(const Options& o) {
  std::unique_ptr<Model> m;
  try {
    m = Model::load(o.schema);
  } catch (const std::exception&) {
    return 0;
  }
  std::vector<const Element*> todo(m->tops().rbegin(), m->tops().rend());
  while (!todo.empty()) {
    const Element* e = todo.back();
    todo.pop_back();
    printf("%s\n", e->path.c_str());
    todo.insert(todo.end(), e->children.rbegin(), e->children.rend());
  }
  return 0;
}

}  // namespace cmdbctl
