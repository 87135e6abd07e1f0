#include "service/ovsdb/UpdateWalk.h"

#include <algorithm>

namespace Ovsdb {

namespace {

// Values that are stepped over as one item.
constexpr std::size_t skippedAtOnce = 64;

// Reads what stands behind ["uuid", up to the closing bracket.
Uuid restOfUuid(JsonReader& reader) {
  if (!reader.nextElement()) {
    reader.fail("want a UUID");
  }
  const std::optional<Uuid> uuid = Uuid::parse(reader.string());
  if (!uuid || reader.nextElement()) {
    reader.fail("want a UUID");
  }
  return *uuid;
}

Uuid readUuid(JsonReader& reader) {
  reader.beginArray();
  if (!reader.nextElement() || reader.string() != "uuid") {
    reader.fail("want [\"uuid\", ...]");
  }
  return restOfUuid(reader);
}

// Whether a column of this type holds one value at the most.
bool holdsOne(ColumnType type) {
  return type == ColumnType::optionalString || type == ColumnType::optionalInteger;
}

bool isMap(ColumnType type) {
  return type == ColumnType::stringMap || type == ColumnType::bindingMap;
}

// Enters the second element of ["set", [...]] or ["map", [...]], of which the opening and the tag are read.
void enterElements(JsonReader& reader) {
  if (!reader.nextElement()) {
    reader.fail("want the elements");
  }
  reader.beginArray();
}

void leaveElements(JsonReader& reader) {
  if (reader.nextElement()) {
    reader.fail("want ]");
  }
}

void wantValue(JsonReader& reader) {
  if (!reader.nextElement()) {
    reader.fail("want a value");
  }
}

}  // namespace

UpdateWalk::UpdateWalk(const Schema& schema, std::string_view text) : schema_(&schema), reader_(text) {
  event_.cells.resize(schema.mostColumns());
  reader_.beginObject();
}

void UpdateWalk::fail(std::string_view why) const {
  std::string where = "table " + printable(name_);
  if (!row_.empty()) {
    where += ", row " + printable(row_);
  }
  if (!column_.empty()) {
    where += ", column " + printable(column_);
  }
  throw ProtocolError(where + ": " + std::string{why});
}

bool UpdateWalk::step(std::size_t items, RowSink& sink) {
  while (items > 0) {
    const std::size_t from = reader_.offset();
    if (!advance(sink)) {
      return false;
    }
    items -= std::min(items, 1 + (reader_.offset() - from) / bytesPerItem);
  }
  return true;
}

// One item; returns whether more may be left.
bool UpdateWalk::advance(RowSink& sink) {
  if (state_ == State::tables) {
    return nextTable();
  }
  bool whole = false;
  try {
    switch (state_) {
      case State::rows:
        whole = nextRow();
        break;
      case State::columns:
        whole = nextColumn();
        break;
      case State::elements:
        nextElement();
        break;
      default:
        state_ = reader_.skipOn(skippedAtOnce) ? afterSkip_ : state_;
        break;
    }
  } catch (const ProtocolError& error) {
    fail(error.what());
  }
  if (whole) {
    sink.row(event_);
  }
  return true;
}

// Enters the next table, or steps over one that is not followed; false when there is none.
bool UpdateWalk::nextTable() {
  row_.clear();
  column_.clear();
  if (!reader_.nextMember(name_)) {
    if (!reader_.atEnd()) {
      reader_.fail("there is more behind the end of the table updates");
    }
    return false;
  }
  if (const std::optional<std::size_t> table = schema_->tableNamed(name_)) {
    event_.table = *table;
    reader_.beginObject();
    state_ = State::rows;
  } else {
    skip(State::tables);
  }
  return true;
}

void UpdateWalk::skip(State then) {
  reader_.beginSkip();
  afterSkip_ = then;
  state_ = State::skipping;
}

// Enters the next row; returns whether it is whole already.
bool UpdateWalk::nextRow() {
  row_.clear();
  column_.clear();
  if (!reader_.nextMember(row_)) {
    state_ = State::tables;
    return false;
  }
  const std::optional<Uuid> uuid = Uuid::parse(row_);
  if (!uuid) {
    throw ProtocolError("the name of the row is not a UUID");
  }
  event_.uuid = *uuid;
  for (Cell& cell : event_.cells) {
    cell.clear();
  }
  reader_.beginObject();
  if (!reader_.nextMember(change_)) {
    throw ProtocolError("the row update is empty");
  }
  if (change_ == "delete") {
    event_.change = RowChange::removed;
    if (!reader_.null()) {
      reader_.fail("want null");
    }
    endRow();
    return true;
  }
  if (change_ != "initial" && change_ != "insert" && change_ != "modify") {
    throw ProtocolError("the row update is none of initial, insert, modify and delete");
  }
  event_.change = change_ == "modify" ? RowChange::modified : RowChange::present;
  reader_.beginObject();
  state_ = State::columns;
  return false;
}

void UpdateWalk::endRow() {
  if (reader_.nextMember(change_)) {
    throw ProtocolError("the row update has more than one member");
  }
  state_ = State::rows;
}

// Reads the next column that has one value, or enters that of a set or map, or steps over one that is not
// followed; returns whether the row is whole.
bool UpdateWalk::nextColumn() {
  const TableSchema& schema = schema_->tables()[event_.table];
  for (;;) {
    column_.clear();
    if (!reader_.nextMember(column_)) {
      endRow();
      return true;
    }
    std::size_t at = 0;
    while (at < schema.columns.size() && schema.columns[at].name != column_) {
      ++at;
    }
    if (at == schema.columns.size()) {
      skip(State::columns);
      return false;
    }
    type_ = schema.columns[at].type;
    cell_ = &event_.cells[at];
    if (cell_->present) {
      throw ProtocolError("the column comes twice");
    }
    cell_->present = true;
    elements_ = 0;
    if (!beginCell()) {
      return false;
    }
  }
}

// Reads a cell that is one value, or enters the elements of a <set> or <map>: ["set", [...]], ["map", [...]],
// of which a set of one may stand by itself. Returns whether the cell is whole.
bool UpdateWalk::beginCell() {
  if (type_ == ColumnType::string || type_ == ColumnType::uuid) {
    readElement();
    return true;
  }
  if (type_ != ColumnType::uuidSet && !isMap(type_) && reader_.peek() != '[') {
    readElement();
    return true;
  }
  reader_.beginArray();
  const std::string tag = reader_.nextElement() ? reader_.string() : std::string{};
  if (type_ == ColumnType::uuidSet && tag == "uuid") {
    cell_->uuids.push_back(restOfUuid(reader_));
    return true;
  }
  if (tag != (isMap(type_) ? "map" : "set")) {
    reader_.fail(isMap(type_)                   ? R"(want ["map", ...])"
                 : type_ == ColumnType::uuidSet ? R"(want ["set", ...] or ["uuid", ...])"
                                                : R"(want ["set", ...])");
  }
  enterElements(reader_);
  state_ = State::elements;
  return false;
}

void UpdateWalk::nextElement() {
  if (!reader_.nextElement()) {
    leaveElements(reader_);
    state_ = State::columns;
    return;
  }
  if (++elements_ > (holdsOne(type_) ? 1 : mostElements)) {
    reader_.fail(holdsOne(type_) ? "want one value at the most"
                                 : "more than " + std::to_string(mostElements) + " elements");
  }
  if (isMap(type_)) {
    reader_.beginArray();
    if (!reader_.nextElement()) {
      reader_.fail("want a key");
    }
    readElement();
    leaveElements(reader_);
  } else {
    readElement();
  }
}

// One value of the column, or one key and its value.
void UpdateWalk::readElement() {
  switch (type_) {
    case ColumnType::string:
    case ColumnType::optionalString:
      reader_.string(cell_->text);
      cell_->empty = false;
      return;
    case ColumnType::optionalInteger:
      cell_->number = reader_.integer();
      cell_->empty = false;
      return;
    case ColumnType::uuid:
      cell_->uuid = readUuid(reader_);
      return;
    case ColumnType::stringSet:
      cell_->texts.push_back(reader_.string());
      return;
    case ColumnType::uuidSet:
      cell_->uuids.push_back(readUuid(reader_));
      return;
    case ColumnType::stringMap: {
      std::string key = reader_.string();
      wantValue(reader_);
      cell_->pairs.emplace_back(std::move(key), reader_.string());
      return;
    }
    case ColumnType::bindingMap: {
      const std::int64_t vlan = reader_.integer();
      wantValue(reader_);
      cell_->bindings.emplace_back(vlan, readUuid(reader_));
      return;
    }
  }
}

}  // namespace Ovsdb
