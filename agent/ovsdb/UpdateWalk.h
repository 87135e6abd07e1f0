#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "agent/ovsdb/JsonReader.h"
#include "agent/ovsdb/Schema.h"

namespace Agent::Ovsdb {

// Who takes the rows of a message.
class RowTaker {
 public:
  virtual ~RowTaker() = default;
  // The event is valid during the call.
  virtual void row(const RowEvent& event) = 0;
};

// Walks the rows of a <table-updates2> object, so many at a time: the contents of an "update3" and of the
// answer to "monitor_cond_since". The text must outlive the walk. Tables and columns that are not followed
// are stepped over. What is not in the form raises ProtocolError that names table, row and column.
class UpdateWalk {
 public:
  explicit UpdateWalk(std::string_view text);

  // Hands at most `rows` rows to `taker`; returns whether more may be left.
  bool step(std::size_t rows, RowTaker& taker);

 private:
  bool openTable();
  void readRow(RowTaker& taker);
  void readColumns();
  [[noreturn]] void fail(std::string_view why) const;

  JsonReader reader_;
  std::optional<Table> table_;
  bool inTable_ = false;
  std::string name_;
  std::string row_;
  std::string change_;
  std::string column_;
  RowEvent event_;
};

}  // namespace Agent::Ovsdb
