#include "tools/cmdbctl/output.h"

#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <memory>

namespace cmdbctl {

void fail(const std::string& what) { throw Failure(what); }

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t utf8_length(const std::string& s, size_t i) {
  auto b = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
  uint8_t c = b(i);
  size_t n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c < 0xE0 ? 2 : 0;
  if (n == 0 || i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k)
    if ((b(i + k) & 0xC0) != 0x80) return 0;
  if ((c == 0xE0 && b(i + 1) < 0xA0) || (c == 0xED && b(i + 1) >= 0xA0) || (c == 0xF0 && b(i + 1) < 0x90) ||
      (c == 0xF4 && b(i + 1) >= 0x90))
    return 0;  // overlong, surrogate or past U+10FFFF
  return n;
}

// Text read from the region may hold any bytes; a byte that is not part of
// valid UTF-8 is written as the code point of the same value.
std::string quote(const std::string& s) {
  std::string q = "\"";
  for (size_t i = 0; i < s.size(); ++i) {
    auto c = static_cast<uint8_t>(s[i]);
    if (c == '"' || c == '\\') {
      q += '\\';
      q += static_cast<char>(c);
    } else if (c == '\n') {
      q += "\\n";
    } else if (c == '\t') {
      q += "\\t";
    } else if (c < 0x20 || c == 0x7F) {
      q += format("\\u%04x", c);
    } else if (c < 0x80) {
      q += static_cast<char>(c);
    } else if (size_t n = utf8_length(s, i); n != 0) {
      q.append(s, i, n);
      i += n - 1;
    } else {
      q += format("\\u%04x", c);
    }
  }
  return q + "\"";
}

std::string indented(const std::string& text) {
  std::string s;
  for (char c : text) {
    s += c;
    if (c == '\n') s += "  ";
  }
  return s;
}

// Members (or elements, with empty keys) whose values are already text.
std::string join(const std::vector<std::pair<std::string, std::string>>& items, bool object, bool compact) {
  std::string s = object ? "{" : "[";
  for (size_t i = 0; i < items.size(); ++i) {
    s += i == 0 ? "" : ",";
    s += compact ? (i == 0 ? "" : " ") : "\n  ";
    if (object) s += quote(items[i].first) + ": ";
    s += compact ? items[i].second : indented(items[i].second);
  }
  if (!compact && !items.empty()) s += "\n";
  return s + (object ? "}" : "]");
}

std::string cell_text(const Json::Value& v) {
  if (v.isNull()) return "-";
  if (v.isString()) return v.asString();
  if (v.isBool()) return v.asBool() ? "yes" : "no";
  return to_json_text(v, true);
}

}  // namespace

std::string to_json_text(const Json::Value& v, bool compact) {
  switch (v.type()) {
    case Json::nullValue:
      return "null";
    case Json::booleanValue:
      return v.asBool() ? "true" : "false";
    case Json::intValue:
      return std::to_string(v.asLargestInt());
    case Json::uintValue:
      return std::to_string(v.asLargestUInt());
    case Json::realValue:
      return format("%.17g", v.asDouble());
    case Json::stringValue:
      return quote(v.asString());
    case Json::arrayValue:
    case Json::objectValue: {
      std::vector<std::pair<std::string, std::string>> items;
      for (auto it = v.begin(); it != v.end(); ++it)
        items.emplace_back(v.isObject() ? it.name() : "", to_json_text(*it, compact));
      return join(items, v.isObject(), compact);
    }
  }
  return "null";
}

void Table::add(std::vector<Json::Value> row) {
  row.resize(columns_.size());
  rows_.push_back(std::move(row));
}

std::string Table::text() const {
  std::vector<size_t> width(columns_.size());
  for (size_t c = 0; c < columns_.size(); ++c) width[c] = columns_[c].size();
  std::vector<std::vector<std::string>> cells;
  for (const auto& row : rows_) {
    std::vector<std::string> line;
    for (size_t c = 0; c < columns_.size(); ++c) {
      line.push_back(cell_text(row[c]));
      width[c] = std::max(width[c], line.back().size());
    }
    cells.push_back(std::move(line));
  }
  auto emit = [&](std::string* out, const std::vector<std::string>& line, const std::vector<Json::Value>* row) {
    std::string l;
    for (size_t c = 0; c < line.size(); ++c) {
      bool right = row != nullptr && (*row)[c].isNumeric() && !(*row)[c].isBool();
      std::string pad(width[c] - line[c].size(), ' ');
      std::string cell = right ? pad + line[c] : line[c] + (c + 1 < line.size() ? pad : "");
      l += (c == 0 ? "" : "  ") + cell;
    }
    while (!l.empty() && l.back() == ' ') l.pop_back();
    *out += l + "\n";
  };
  std::string out;
  emit(&out, columns_, nullptr);
  for (size_t r = 0; r < rows_.size(); ++r) emit(&out, cells[r], &rows_[r]);
  return out;
}

std::string Table::json_text(bool compact) const {
  std::vector<std::pair<std::string, std::string>> rows;
  for (const auto& row : rows_) {
    std::vector<std::pair<std::string, std::string>> members;
    for (size_t c = 0; c < columns_.size(); ++c) members.emplace_back(columns_[c], to_json_text(row[c], compact));
    rows.emplace_back("", join(members, true, compact));
  }
  return join(rows, false, compact);
}

JsonObject& JsonObject::add(const std::string& key, const Json::Value& v) {
  members_.push_back({key, to_json_text(v), to_json_text(v, true)});
  return *this;
}

JsonObject& JsonObject::add(const std::string& key, const Table& t) {
  members_.push_back({key, t.json_text(), t.json_text(true)});
  return *this;
}

JsonObject& JsonObject::add(const std::string& key, const JsonObject& o) {
  members_.push_back({key, o.text(), o.text(true)});
  return *this;
}

std::string JsonObject::text(bool compact) const {
  std::vector<std::pair<std::string, std::string>> items;
  for (const Member& m : members_) items.emplace_back(m.key, compact ? m.compact : m.pretty);
  return join(items, true, compact);
}

std::string count(uint64_t n, const char* singular, const char* plural) {
  std::string word = n == 1 ? singular : plural != nullptr ? plural : std::string(singular) + "s";
  return std::to_string(n) + " " + word;
}

}  // namespace cmdbctl
