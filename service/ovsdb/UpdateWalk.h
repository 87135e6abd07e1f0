#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "service/ovsdb/JsonReader.h"
#include "service/ovsdb/Schema.h"

namespace Ovsdb {

// Receives the rows of a message.
class RowSink {
 public:
  virtual ~RowSink() = default;
  // The event is valid during the call.
  virtual void row(const RowEvent& event) = 0;
};

// Walks the rows of a <table-updates2> object, so many items at a time: the contents of an "update3" and of
// the answer to "monitor_cond_since". The text must outlive the walk. Tables and columns that are not
// followed are stepped over. A row that is not in the form raises a ProtocolError that names table, row and
// column.
//
// An item is a row, an element of a set or map, or sixty-four values that are stepped over; bytesPerItem
// bytes of text count as one more. So neither a row of many elements nor a table of no use holds up the
// caller, and a column of more than mostElements elements is refused.
class UpdateWalk {
 public:
  // `schema` says what is followed and outlives the walk.
  UpdateWalk(const Schema& schema, std::string_view text);

  // Walks about `items` items, and hands the rows that are whole to `sink`; returns whether more may be
  // left.
  bool step(std::size_t items, RowSink& sink);

  static constexpr std::size_t mostElements = 16'384;
  static constexpr std::size_t bytesPerItem = 1024;

 private:
  enum class State : std::uint8_t { tables, rows, columns, elements, skipping };

  bool advance(RowSink& sink);
  bool nextTable();
  bool nextRow();
  bool nextColumn();
  void nextElement();
  void skip(State then);
  void endRow();
  bool beginCell();
  void readElement();
  [[noreturn]] void fail(std::string_view why) const;

  const Schema* schema_;
  JsonReader reader_;
  State state_ = State::tables;
  State afterSkip_ = State::tables;
  std::string name_;
  std::string row_;
  std::string change_;
  std::string column_;
  ColumnType type_ = ColumnType::string;
  Cell* cell_ = nullptr;  // of event_, whose elements are read
  std::size_t elements_ = 0;
  RowEvent event_;
};

}  // namespace Ovsdb
