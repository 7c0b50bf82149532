#include "tools/cmdbctl/output.h"

#include <stdarg.h>
#include <stdio.h>

#include <algorithm>
#include <memory>

namespace cmdbctl {

void fail(const std::string& what) { throw Failure(what); }

void Table::add(std::vector<Json::Value> row) {
  row.resize(columns_.size());
  rows_.push_back(std::move(row));
}

namespace {

std::string cell_text(const Json::Value& v) {
  if (v.isNull()) return "-";
  if (v.isString()) return v.asString();
  if (v.isBool()) return v.asBool() ? "yes" : "no";
  if (v.isNumeric()) {
    std::string s = to_json_text(v);
    return s;
  }
  return to_json_text(v);
}

}  // namespace

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
      bool right = row != nullptr && (*row)[c].isNumeric();
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

Json::Value Table::json() const {
  Json::Value out(Json::arrayValue);
  for (const auto& row : rows_) {
    Json::Value obj(Json::objectValue);
    for (size_t c = 0; c < columns_.size(); ++c) obj[columns_[c]] = row[c];
    out.append(obj);
  }
  return out;
}

std::string to_json_text(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = v.isObject() || v.isArray() ? "  " : "";
  b["enableYAMLCompatibility"] = false;
  return Json::writeString(b, v);
}

std::string format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char buf[512];
  int n = vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof buf) return std::string(buf, static_cast<size_t>(n));
  std::string s(static_cast<size_t>(n) + 1, '\0');
  va_start(ap, fmt);
  vsnprintf(s.data(), s.size(), fmt, ap);
  va_end(ap);
  s.resize(static_cast<size_t>(n));
  return s;
}

std::string hex(const void* data, size_t len) {
  static const char digits[] = "0123456789abcdef";
  const auto* p = static_cast<const uint8_t*>(data);
  std::string s;
  s.reserve(len * 2);
  for (size_t i = 0; i < len; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

}  // namespace cmdbctl
