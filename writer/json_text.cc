#include "writer/json_text.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "writer/model.h"
#include "writer/text.h"

namespace config {

// ---- input --------------------------------------------------------------------

namespace {

bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The parser's first error, "* Line L, Column C\n  message\n...", taken apart.
bool first_error(const std::string& errors, int* line, int* column, std::string* message) {
  if (sscanf(errors.c_str(), "* Line %d, Column %d", line, column) != 2) return false;
  const size_t start = errors.find('\n');
  if (start == std::string::npos) return false;
  size_t end = errors.find('\n', start + 1);
  *message = errors.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
  message->erase(0, message->find_first_not_of(' '));
  while (!message->empty() && (message->back() == '.' || message->back() == ' ')) message->pop_back();
  if (!message->empty() && (*message)[0] >= 'A' && (*message)[0] <= 'Z')
    (*message)[0] = static_cast<char>((*message)[0] + 32);
  return true;
}

}  // namespace

JsonDocument::JsonDocument(std::string name, std::string text)
    : name_(std::move(name)), text_(std::move(text)) {
  // Lines end as the parser counts them: at \n, \r\n or a lone \r.
  line_starts_.push_back(0);
  for (size_t i = 0; i < text_.size(); ++i) {
    if (text_[i] == '\r' && i + 1 < text_.size() && text_[i + 1] == '\n') ++i;
    if (text_[i] == '\n' || text_[i] == '\r') line_starts_.push_back(i + 1);
  }
  if (std::all_of(text_.begin(), text_.end(), blank)) fail(name_ + ":1:1: no JSON value: the input is empty");

  Json::CharReaderBuilder b;
  Json::CharReaderBuilder::strictMode(&b.settings_);
  b["skipBom"] = false;  // a byte-order mark is not JSON
  std::unique_ptr<Json::CharReader> reader(b.newCharReader());
  std::string errors;
  if (reader->parse(text_.data(), text_.data() + text_.size(), &root_, &errors)) return;

  int line = 0, column = 0;
  std::string message;
  if (!first_error(errors, &line, &column, &message)) fail(name_ + ": bad JSON: " + errors);
  size_t at = offset_of(line, column);
  // A member or an element missing where the object or array closes is a comma too many.
  if (at < text_.size() && (text_[at] == '}' || text_[at] == ']')) {
    size_t before = at;
    while (before > 0 && blank(text_[before - 1])) --before;
    if (before > 0 && text_[before - 1] == ',') {
      message = format("trailing comma before '%c'", text_[at]);
      at = before - 1;
    }
  }
  if (message == "extra non-whitespace after JSON value") message = "text after the end of the JSON value";
  if (message.rfind("duplicate key: ", 0) == 0)
    message = "key " + message.substr(15) + " appears twice in this object";
  fail(position(at) + ": " + message);
}

size_t JsonDocument::offset_of(int line, int column) const {
  if (line < 1 || column < 1 || static_cast<size_t>(line) > line_starts_.size()) return text_.size();
  return std::min(text_.size(),
                  line_starts_[static_cast<size_t>(line) - 1] + static_cast<size_t>(column) - 1);
}

std::string JsonDocument::position(size_t offset) const {
  const auto it = std::upper_bound(line_starts_.begin(), line_starts_.end(), offset);
  const size_t line = static_cast<size_t>(it - line_starts_.begin());
  return format("%s:%zu:%zu", name_.c_str(), line, offset - line_starts_[line - 1] + 1);
}

std::string JsonDocument::where(const Json::Value& v) const {
  if (v.getOffsetLimit() <= 0 || static_cast<size_t>(v.getOffsetStart()) >= text_.size()) return name_;
  return position(static_cast<size_t>(v.getOffsetStart()));
}

std::string JsonDocument::where(const std::string& path) const {
  const Json::Value* at = resolve(path);
  return where(at != nullptr ? *at : root_);
}

std::string JsonDocument::locate(const std::string& message) const {
  if (message.rfind(name_ + ":", 0) == 0) return message;
  const size_t colon = message.find(": ");
  const Json::Value* at = colon == std::string::npos ? nullptr : resolve(message.substr(0, colon));
  return (at != nullptr ? where(*at) : name_) + ": " + message;
}

const Json::Value* JsonDocument::resolve(const std::string& path) const {
  const Json::Value* at = &root_;
  bool moved = false;
  size_t i = 0;
  while (i < path.size()) {
    const Json::Value* next = nullptr;
    if (path[i] == '[') {
      const size_t close = path.find(']', i);
      if (close == std::string::npos) break;
      const std::string n = path.substr(i + 1, close - i - 1);
      char* end = nullptr;
      const unsigned long index = strtoul(n.c_str(), &end, 10);
      if (at->isArray() && !n.empty() && *end == '\0' && index < at->size())
        next = &(*at)[static_cast<Json::ArrayIndex>(index)];
      i = close + 1;
    } else {
      if (path[i] == '.') ++i;
      size_t j = i;
      while (j < path.size() && path[j] != '.' && path[j] != '[') ++j;
      const std::string n = path.substr(i, j - i);
      if (at->isObject()) {
        next = at->find(n.data(), n.data() + n.size());
        // A domain's configuration is named after the domain: "domains.east.policy".
        constexpr char kConfig[] = "config";
        const Json::Value* config = at->find(kConfig, kConfig + sizeof kConfig - 1);
        if (next == nullptr && config != nullptr && config->isObject())
          next = config->find(n.data(), n.data() + n.size());
      } else if (at->isArray()) {
        for (const Json::Value& e : *at)
          if (e.isObject() && e["name"].isString() && e["name"].asString() == n) next = &e;
      }
      i = j;
    }
    if (next == nullptr) break;
    at = next;
    moved = true;
  }
  return moved ? at : nullptr;
}

// ---- output -------------------------------------------------------------------

namespace {

// Strings are valid UTF-8 but for text a caller took from elsewhere; a byte
// that is not part of valid UTF-8 is written as the code point of its value.
void quote(const std::string& s, std::string* out) {
  *out += '"';
  for (size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<uint8_t>(s[i]);
    switch (c) {
      case '"':
        *out += "\\\"";
        continue;
      case '\\':
        *out += "\\\\";
        continue;
      case '\n':
        *out += "\\n";
        continue;
      case '\t':
        *out += "\\t";
        continue;
      case '\r':
        *out += "\\r";
        continue;
      default:
        break;
    }
    if (c < 0x20 || c == 0x7F) {
      *out += format("\\u%04x", c);
    } else if (c < 0x80) {
      *out += static_cast<char>(c);
    } else {
      // The longest valid sequence starting here, if any.
      size_t n = 0;
      for (size_t len = 2; len <= 4 && n == 0; ++len)
        if (i + len <= s.size() && valid_utf8(s.substr(i, len))) n = len;
      if (n == 0) {
        *out += format("\\u%04x", c);
      } else {
        out->append(s, i, n);
        i += n - 1;
      }
    }
  }
  *out += '"';
}

// How the members of an object are ordered: by the shape of the document
// around it.
enum class Shape { kPlain, kDocument, kDomains, kDomain, kContext, kElement };

struct Member {
  const std::string* key;
  const Json::Value* value;
  Shape shape;
  const Element* element;
};

class Printer {
 public:
  Printer(const Model* m, bool compact) : m_(m), compact_(compact) {}

  void value(const Json::Value& v, Shape shape, const Element* e, int depth) {
    switch (v.type()) {
      case Json::nullValue:
        out_ += "null";
        return;
      case Json::booleanValue:
        out_ += v.asBool() ? "true" : "false";
        return;
      case Json::intValue:
        out_ += std::to_string(v.asLargestInt());
        return;
      case Json::uintValue:
        out_ += std::to_string(v.asLargestUInt());
        return;
      case Json::realValue:
        out_ += format("%.17g", v.asDouble());
        return;
      case Json::stringValue:
        quote(v.asString(), &out_);
        return;
      case Json::arrayValue: {
        const Shape inner = shape == Shape::kDomains   ? Shape::kDomain
                            : shape == Shape::kElement ? shape
                                                       : Shape::kPlain;
        std::vector<Member> items;
        for (const Json::Value& x : v) items.push_back({nullptr, &x, inner, e});
        container(items, '[', ']', depth);
        return;
      }
      case Json::objectValue: {
        std::vector<std::string> names = v.getMemberNames(), keys;
        std::vector<Member> items;
        auto take = [&](const std::string& n, Shape s, const Element* el) {
          auto it = std::find(names.begin(), names.end(), n);
          if (it == names.end()) return;
          items.push_back({nullptr, &v[n], s, el});
          keys.push_back(n);
          names.erase(it);
        };
        switch (shape) {
          case Shape::kDocument:
            take("global", Shape::kContext, nullptr);
            take("domains", Shape::kDomains, nullptr);
            break;
          case Shape::kDomain:
            take("name", Shape::kPlain, nullptr);
            take("id", Shape::kPlain, nullptr);
            take("config", Shape::kContext, nullptr);
            break;
          case Shape::kContext:
            for (const Element* top : m_->tops()) take(top->name, Shape::kElement, top);
            break;
          case Shape::kElement:
            for (const Field& f : e->fields) take(f.name, Shape::kPlain, nullptr);
            for (const Element* c : e->children) take(c->name, Shape::kElement, c);
            break;
          default:
            break;
        }
        for (const std::string& n : names) {
          items.push_back({nullptr, &v[n], Shape::kPlain, nullptr});
          keys.push_back(n);
        }
        for (size_t i = 0; i < items.size(); ++i) items[i].key = &keys[i];
        container(items, '{', '}', depth);
        return;
      }
    }
  }

  std::string take() { return std::move(out_); }

 private:
  void newline(int depth) {
    out_ += '\n';
    out_.append(2 * static_cast<size_t>(depth), ' ');
  }

  void container(const std::vector<Member>& items, char open, char close, int depth) {
    out_ += open;
    for (size_t i = 0; i < items.size(); ++i) {
      if (i > 0) out_ += compact_ ? ", " : ",";
      if (!compact_) newline(depth + 1);
      if (items[i].key != nullptr) {
        quote(*items[i].key, &out_);
        out_ += ": ";
      }
      value(*items[i].value, items[i].shape, items[i].element, depth + 1);
    }
    if (!compact_ && !items.empty()) newline(depth);
    out_ += close;
  }

  const Model* m_;
  bool compact_;
  std::string out_;
};

}  // namespace

std::string json_text(const Json::Value& v, bool compact) {
  Printer p(nullptr, compact);
  p.value(v, Shape::kPlain, nullptr, 0);
  return p.take();
}

std::string document_text(const Model& m, const Json::Value& doc, bool compact) {
  Printer p(&m, compact);
  p.value(doc, Shape::kDocument, nullptr, 0);
  return p.take();
}

std::string element_text(const Element& e, const Json::Value& v, bool compact) {
  Printer p(nullptr, compact);
  p.value(v, Shape::kElement, &e, 0);
  return p.take();
}

}  // namespace config
