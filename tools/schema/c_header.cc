// `cmdbctl schema header`: the schema as C. The text compiles as C99 and C++
// with -Wall -Wextra -pedantic; structs are packed and every size and offset
// is asserted, so a header that disagrees with its schema fails to compile.
#include "tools/schema/c_header.h"

#include <ctype.h>
#include <errno.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/schema/loader_internal.h"

namespace schema {
namespace {

constexpr const char* kKeywords[] = {
    "and",      "asm",     "auto",     "bool",     "break",   "case",     "catch",    "char",      "class",
    "const",    "continue", "default", "delete",   "do",      "double",   "else",     "enum",      "explicit",
    "export",   "extern",  "false",    "float",    "for",     "friend",   "goto",     "if",        "inline",
    "int",      "long",    "mutable",  "namespace", "new",    "not",      "operator", "or",        "private",
    "protected", "public", "register", "restrict", "return",  "short",    "signed",   "sizeof",    "static",
    "struct",   "switch",  "template", "this",     "throw",   "true",     "try",      "typedef",   "typename",
    "union",    "unsigned", "using",   "virtual",  "void",    "volatile", "while",    "xor",
};

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

// Help text inside a C comment: one line, and no end of the comment.
std::string comment_text(const char* help) {
  std::string s = help != nullptr ? help : "";
  for (char& c : s)
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  for (size_t p; (p = s.find("*/")) != std::string::npos;) s.replace(p, 2, "* /");
  return s;
}

std::string kind_word(const cmdb_node_desc_t* d) { return kind_name(kind_of(d)); }

enum class CType { kString, kUnsigned, kBytes };

CType c_type_of(const cmdb_node_desc_t* a) {
  int t = type_of(a);
  if (is_string_type(t)) return CType::kString;
  bool ipv4 = t == 4 && a->size == 4;
  return !ipv4 && (a->size == 1 || a->size == 2 || a->size == 4 || a->size == 8) ? CType::kUnsigned : CType::kBytes;
}

class HeaderWriter {
 public:
  explicit HeaderWriter(const HeaderNames& names)
      : names_(names), prefix_(c_identifier(names.prefix)), macro_(upper(prefix_)) {}

  int run(const Schema& s, std::string* out, std::string* error) {
    const cmdb_node_desc_t* root = s.root();
    for (uint8_t i = 0; root != nullptr && i < root->nchild; ++i) {
      const cmdb_node_desc_t* top = root->children[i];
      if (int err = element(top, top->name, c_identifier(top->name)); err != 0) {
        *error = error_;
        return err;
      }
    }
    *out = preamble() + defines_ + body_ + "\n#endif /* " + names_.guard + " */\n";
    return 0;
  }

 private:
  // A name every file-scope identifier of the header must not share.
  int claim(const std::string& ident, const std::string& path) {
    auto [it, fresh] = globals_.insert({ident, path});
    if (fresh) return 0;
    error_ = quoted(it->second) + " and " + quoted(path) + " both become " + ident + " in C";
    return EINVAL;
  }

  int define_gid(const cmdb_node_desc_t* d, const std::string& path, const std::string& ident) {
    std::string macro = macro_ + "_" + upper(ident) + "_GID";
    if (int err = claim(macro, path); err != 0) return err;
    defines_ += "#define " + macro + " " + std::to_string(d->gid) + " /* " + path + ": " + kind_word(d);
    std::string help = comment_text(d->help);
    defines_ += (help.empty() ? "" : ", " + help) + " */\n";
    return 0;
  }

  // An element: a table, an object, or any other node with its own gid. Its
  // attributes lie in its data part; tables and objects below it are elements too.
  int element(const cmdb_node_desc_t* d, const std::string& path, const std::string& ident) {
    if (int err = define_gid(d, path, ident); err != 0) return err;
    std::vector<const cmdb_node_desc_t*> attrs, subs;
    auto split = [&](const cmdb_node_desc_t* p, const cmdb_node_desc_t* skip) {
      for (uint8_t i = 0; i < p->nchild; ++i) {
        const cmdb_node_desc_t* c = p->children[i];
        if (c != skip) (has_own_instance(c) ? subs : attrs).push_back(c);
      }
    };
    if (kind_of(d) == 10) return 0;  // nothing below it gets a record
    if (is_table(d) && d->nchild > 0) {
      attrs.push_back(d->children[0]);  // the entry node is the key
      split(d->children[0], nullptr);
      split(d, d->children[0]);
    } else {
      split(d, nullptr);
    }
    for (const cmdb_node_desc_t* a : attrs) {
      std::string a_path = path + "." + a->name, a_ident = upper(ident + "_" + c_identifier(a->name));
      if (int err = define_gid(a, a_path, a_ident); err != 0) return err;
      if (a->size == 0) continue;
      if (int err = claim(macro_ + "_" + a_ident + "_SIZE", a_path); err != 0) return err;
      defines_ += "#define " + macro_ + "_" + a_ident + "_SIZE " + std::to_string(a->size) + "\n";
    }
    if (has_default_block(d) && kind_of(d) != 8 && d->size > 0)
      if (int err = data_part(d, path, ident, attrs); err != 0) return err;
    for (const cmdb_node_desc_t* c : subs)
      if (int err = element(c, path + "." + c->name, ident + "_" + c_identifier(c->name)); err != 0) return err;
    return 0;
  }

  int data_part(const cmdb_node_desc_t* d, const std::string& path, const std::string& ident,
                std::vector<const cmdb_node_desc_t*> attrs) {
    const std::string type = prefix_ + "_" + ident, type_t = type + "_t";
    const std::string size = std::to_string(d->size);
    if (int err = claim(type, path); err != 0) return err;
    if (int err = claim(macro_ + "_" + upper(ident) + "_SIZE", path); err != 0) return err;
    if (int err = claim(type + "_sizeof", path); err != 0) return err;
    std::erase_if(attrs, [](const cmdb_node_desc_t* a) { return a->size == 0; });
    std::stable_sort(attrs.begin(), attrs.end(),
                     [](const cmdb_node_desc_t* a, const cmdb_node_desc_t* b) { return a->offset < b->offset; });
    std::string fields, asserts, accessors;
    std::set<std::string> members;
    size_t at = 0;
    auto pad_to = [&](size_t to) {
      if (to > at) fields += "  uint8_t reserved_" + std::to_string(at) + "[" + std::to_string(to - at) + "];\n";
      at = std::max(at, to);
    };
    for (const cmdb_node_desc_t* a : attrs) {
      std::string m = c_identifier(a->name), off = std::to_string(a->offset), n = std::to_string(a->size);
      if (!members.insert(m).second || m.rfind("reserved_", 0) == 0) {
        error_ = quoted(path + "." + a->name) + " becomes the member " + m + " twice or clashes with padding";
        return EINVAL;
      }
      pad_to(a->offset);
      std::string help = comment_text(a->help), note = help.empty() ? "" : " /* " + help + " */";
      std::string get = type + "_get_" + m, set = type + "_set_" + m, where = "(const char *)data + " + off;
      if (int err = claim(get, path + "." + a->name); err != 0) return err;
      if (int err = claim(set, path + "." + a->name); err != 0) return err;
      if (int err = claim(type + "_at_" + m, path + "." + a->name); err != 0) return err;
      switch (c_type_of(a)) {
        case CType::kString:
          fields += "  char " + m + "[" + n + "];" + note + "\n";
          accessors += "static inline void " + get + "(const void *data, char out[" + n + "]) {\n  memcpy(out, " +
                       where + ", " + n + ");\n  out[" + std::to_string(a->size - 1) + "] = '\\0';\n}\n";
          accessors += "/* 0, or -1 when `s` does not fit with its NUL (nothing is written). */\n";
          accessors += "static inline int " + set + "(void *data, const char *s) {\n  size_t n = strlen(s);\n" +
                       "  if (n >= " + n + ") return -1;\n  memset((char *)data + " + off + ", 0, " + n +
                       ");\n  memcpy((char *)data + " + off + ", s, n);\n  return 0;\n}\n";
          break;
        case CType::kUnsigned: {
          std::string t = "uint" + std::to_string(a->size * 8) + "_t";
          fields += "  " + t + " " + m + ";" + note + "\n";
          accessors += "static inline " + t + " " + get + "(const void *data) {\n  " + t + " v;\n  memcpy(&v, " +
                       where + ", sizeof v);\n  return v;\n}\n";
          accessors += "static inline void " + set + "(void *data, " + t + " v) {\n  memcpy((char *)data + " + off +
                       ", &v, sizeof v);\n}\n";
          break;
        }
        case CType::kBytes:
          fields += "  uint8_t " + m + "[" + n + "];" + note + "\n";
          accessors += "static inline void " + get + "(const void *data, uint8_t out[" + n + "]) {\n  memcpy(out, " +
                       where + ", " + n + ");\n}\n";
          accessors += "static inline void " + set + "(void *data, const uint8_t in[" + n + "]) {\n  memcpy((char *)data + " +
                       off + ", in, " + n + ");\n}\n";
          break;
      }
      asserts += macro_ + "_STATIC_ASSERT(offsetof(" + type_t + ", " + m + ") == " + off + ", " + type + "_at_" + m +
                 ");\n";
      at = std::max(at, size_t{a->offset} + a->size);
    }
    pad_to(d->size);
    std::string help = comment_text(d->help);
    body_ += "\n/* " + path + (help.empty() ? "" : ": " + help) + " (" + kind_word(d) + ", gid " +
             std::to_string(d->gid) + "): " + (is_table(d) ? "one entry's data part" : "its data part") + " */\n";
    body_ += "#define " + macro_ + "_" + upper(ident) + "_SIZE " + size + "\n";
    body_ += "struct " + type + " {\n" + fields + "} " + macro_ + "_PACKED;\n";
    body_ += "typedef struct " + type + " " + type_t + ";\n";
    body_ += macro_ + "_STATIC_ASSERT(sizeof(" + type_t + ") == " + size + ", " + type + "_sizeof);\n" + asserts;
    body_ += accessors;
    return 0;
  }

  std::string preamble() const {
    const std::string& M = macro_;
    return "/* " + names_.guard + ": generated by `cmdbctl schema header` from " + names_.source + "\n" +
           " * (sha256 " + names_.sha256 + "). Do not edit: generate it again when the schema changes.\n" +
           " * Values are little-endian as the region holds them; IPv4 addresses and other\n" +
           " * byte strings are in network order. Read a data part under the region's lock. */\n" +
           "#ifndef " + names_.guard + "\n#define " + names_.guard + "\n\n" +
           "#include <stddef.h>\n#include <stdint.h>\n#include <string.h>\n\n" +
           "#define " + M + "_SCHEMA_SHA256 \"" + names_.sha256 + "\"\n\n" +
           "#if defined(__cplusplus)\n#define " + M + "_STATIC_ASSERT(cond, name) static_assert(cond, #name)\n" +
           "#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L\n#define " + M +
           "_STATIC_ASSERT(cond, name) _Static_assert(cond, #name)\n#else\n#define " + M +
           "_STATIC_ASSERT(cond, name) typedef char name[(cond) ? 1 : -1]\n#endif\n" +
           "#define " + M + "_PACKED __attribute__((packed))\n\n";
  }

  const HeaderNames& names_;
  const std::string prefix_, macro_;
  std::map<std::string, std::string> globals_;  // identifier -> the schema path that took it
  std::string defines_, body_, error_;
};

}  // namespace

std::string c_identifier(const std::string& text) {
  std::string s;
  for (char c : text) s += isalnum(static_cast<unsigned char>(c)) ? c : '_';
  if (s.empty() || isdigit(static_cast<unsigned char>(s[0]))) s.insert(s.begin(), '_');
  if (std::find_if(std::begin(kKeywords), std::end(kKeywords), [&](const char* k) { return s == k; }) !=
      std::end(kKeywords))
    s += '_';
  return s;
}

int write_c_header(const Schema& s, const HeaderNames& names, std::string* out, std::string* error) {
  HeaderWriter w(names);
  return w.run(s, out, error);
}

}  // namespace schema
