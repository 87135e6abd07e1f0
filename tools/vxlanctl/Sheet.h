#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Vxlanctl {

// Rows that a "show" command prints: objects with the same members, as an aligned table or as JSON.
class Sheet {
 public:
  struct Column {
    std::string member;  // of the rows
    std::string header;
    bool right = false;  // aligned, for numbers
  };

  explicit Sheet(std::vector<Column> columns) : columns_(std::move(columns)) {}

  void add(nlohmann::json row);
  // Instead of single rows: `count` of them, each made when it is needed, in this order. For tables of
  // millions.
  void rowsAre(std::size_t count, std::function<nlohmann::json(std::size_t)> rowAt);
  // Puts the rows that were added into ascending order of these members: numbers by value, IP addresses too,
  // the rest by text.
  void sortBy(const std::vector<std::string>& members);
  // Keeps the rows of which each of these members has the text given, or is an array with it.
  void keep(const std::map<std::string, std::string>& filters);

  std::size_t size() const { return shown_.size(); }
  bool empty() const { return shown_.empty(); }

  // A header and a line a row; nothing to be seen is "-", truth is yes or no.
  void printText(std::ostream& out) const;
  // An array of objects, one a line.
  void printJson(std::ostream& out) const;

 private:
  nlohmann::json row(std::size_t at) const { return rowAt_ ? rowAt_(at) : rows_[at]; }

  std::vector<Column> columns_;
  std::vector<nlohmann::json> rows_;
  std::function<nlohmann::json(std::size_t)> rowAt_;  // empty: rows_
  std::vector<std::size_t> shown_;                    // the numbers of the rows that are kept
};

// A value as it stands in a table, with control characters replaced.
std::string cellText(const nlohmann::json& value);

}  // namespace Vxlanctl
