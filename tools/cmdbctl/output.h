// Output of cmdbctl: aligned text tables for people, JSON for programs, and the
// one-line errors that end a command.
#pragma once

#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <json/json.h>

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

// One view: named columns, rows of cells. Text output right-aligns numbers and
// left-aligns everything else; JSON output is an array of objects whose numeric
// cells stay numbers.
class Table {
 public:
  explicit Table(std::vector<std::string> columns) : columns_(std::move(columns)) {}
  // A row of cells in column order; a Json::Value keeps its type in JSON output.
  void add(std::vector<Json::Value> row);
  size_t rows() const { return rows_.size(); }
  std::string text() const;
  Json::Value json() const;

 private:
  std::vector<std::string> columns_;
  std::vector<std::vector<Json::Value>> rows_;
};

std::string to_json_text(const Json::Value& v);
// printf into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string hex(const void* data, size_t len);

}  // namespace cmdbctl
