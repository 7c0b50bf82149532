// Output of cmdbctl: aligned text tables for people, JSON for programs, and the
// one-line errors that end a command.
#pragma once

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "writer/text.h"

namespace cmdbctl {

// A command that cannot go on throws this; main prints "cmdbctl: <what>" on
// standard error and exits with `status`.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& what, int status = 1) : std::runtime_error(what), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

[[noreturn]] void fail(const std::string& what);

// JSON text as cmdbctl prints it: `"key": value`, two-space indentation (none
// when `compact`, for one record per line), strings escaped to stay valid
// UTF-8. Object members come in jsoncpp's order (by name); views that
// have an order of their own build a Table or a JsonObject.
std::string to_json_text(const Json::Value& v, bool compact = false);

// One view: named columns, rows of cells. Text output right-aligns numbers and
// left-aligns everything else; JSON output is an array of objects with the
// members in column order, whose numeric cells stay numbers.
class Table {
 public:
  explicit Table(std::vector<std::string> columns) : columns_(std::move(columns)) {}
  // A row of cells in column order; a Json::Value keeps its type in JSON output.
  void add(std::vector<Json::Value> row);
  size_t rows() const { return rows_.size(); }
  std::string text() const;
  std::string json_text(bool compact = false) const;

 private:
  std::vector<std::string> columns_;
  std::vector<std::vector<Json::Value>> rows_;
};

// A JSON object whose members print in the order they were added.
class JsonObject {
 public:
  JsonObject& add(const std::string& key, const Json::Value& v);
  JsonObject& add(const std::string& key, const Table& t);
  JsonObject& add(const std::string& key, const JsonObject& o);
  std::string text(bool compact = false) const;

 private:
  struct Member {
    std::string key, pretty, compact;  // the value's text both ways, pretty at indentation 0
  };
  std::vector<Member> members_;
};

using config::format;
using config::hex;
// "1 domain", "2 domains": `plural` defaults to `singular` + "s".
std::string count(uint64_t n, const char* singular, const char* plural = nullptr);

}  // namespace cmdbctl
