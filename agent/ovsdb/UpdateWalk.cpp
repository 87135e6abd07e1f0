#include "agent/ovsdb/UpdateWalk.h"

namespace Agent::Ovsdb {

namespace {

std::optional<Table> tableNamed(std::string_view name) {
  for (std::size_t index = 0; index < tableCount; ++index) {
    if (nameOf(static_cast<Table>(index)) == name) {
      return static_cast<Table>(index);
    }
  }
  return std::nullopt;
}

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

// A <set>: one atom by itself, or ["set", [atom, ...]]. `atom` reads one.
template <typename ReadAtom>
void readStringlikeSet(JsonReader& reader, ReadAtom atom) {
  if (reader.peek() != '[') {
    atom();
    return;
  }
  reader.beginArray();
  if (!reader.nextElement() || reader.string() != "set") {
    reader.fail("want [\"set\", ...]");
  }
  enterElements(reader);
  while (reader.nextElement()) {
    atom();
  }
  leaveElements(reader);
}

// The same for UUIDs, of which one by itself is an array, too.
void readUuidSet(JsonReader& reader, std::vector<Uuid>& out) {
  reader.beginArray();
  const std::string tag = reader.nextElement() ? reader.string() : std::string{};
  if (tag == "uuid") {
    out.push_back(restOfUuid(reader));
    return;
  }
  if (tag != "set") {
    reader.fail("want [\"set\", ...] or [\"uuid\", ...]");
  }
  enterElements(reader);
  while (reader.nextElement()) {
    out.push_back(readUuid(reader));
  }
  leaveElements(reader);
}

// A <map>: ["map", [[key, value], ...]]. `pair` reads key and value, between which it calls nextElement.
template <typename ReadPair>
void readMap(JsonReader& reader, ReadPair pair) {
  reader.beginArray();
  if (!reader.nextElement() || reader.string() != "map") {
    reader.fail("want [\"map\", ...]");
  }
  enterElements(reader);
  while (reader.nextElement()) {
    reader.beginArray();
    if (!reader.nextElement()) {
      reader.fail("want a key");
    }
    pair();
    leaveElements(reader);
  }
  leaveElements(reader);
}

void wantValue(JsonReader& reader) {
  if (!reader.nextElement()) {
    reader.fail("want a value");
  }
}

void readCell(JsonReader& reader, ColumnType type, Cell& cell) {
  cell.present = true;
  switch (type) {
    case ColumnType::string:
      reader.string(cell.text);
      return;
    case ColumnType::optionalString:
      readStringlikeSet(reader, [&] {
        reader.string(cell.text);
        cell.empty = false;
      });
      return;
    case ColumnType::optionalInteger:
      readStringlikeSet(reader, [&] {
        cell.number = reader.integer();
        cell.empty = false;
      });
      return;
    case ColumnType::uuid:
      cell.uuid = readUuid(reader);
      return;
    case ColumnType::stringSet:
      readStringlikeSet(reader, [&] { cell.texts.push_back(reader.string()); });
      return;
    case ColumnType::uuidSet:
      readUuidSet(reader, cell.uuids);
      return;
    case ColumnType::stringMap:
      readMap(reader, [&] {
        std::string key = reader.string();
        wantValue(reader);
        cell.pairs.emplace_back(std::move(key), reader.string());
      });
      return;
    case ColumnType::bindingMap:
      readMap(reader, [&] {
        const std::int64_t vlan = reader.integer();
        wantValue(reader);
        cell.bindings.emplace_back(vlan, readUuid(reader));
      });
      return;
  }
}

}  // namespace

UpdateWalk::UpdateWalk(std::string_view text) : reader_(text) {
  reader_.beginObject();
}

void UpdateWalk::fail(std::string_view why) const {
  std::string where = "table " + name_;
  if (!row_.empty()) {
    where += ", row " + printable(row_);
  }
  if (!column_.empty()) {
    where += ", column " + printable(column_);
  }
  throw ProtocolError(where + ": " + std::string{why});
}

// Enters the next table that is followed; false when there is none.
bool UpdateWalk::openTable() {
  row_.clear();
  column_.clear();
  while (reader_.nextMember(name_)) {
    table_ = tableNamed(name_);
    if (table_) {
      reader_.beginObject();
      inTable_ = true;
      return true;
    }
    reader_.skip();
  }
  if (!reader_.atEnd()) {
    reader_.fail("there is more behind the end of the table updates");
  }
  return false;
}

bool UpdateWalk::step(std::size_t rows, RowTaker& taker) {
  for (; rows > 0; --rows) {
    if (!inTable_ && !openTable()) {
      return false;
    }
    if (reader_.nextMember(row_)) {
      readRow(taker);
    } else {
      inTable_ = false;
    }
  }
  return true;
}

void UpdateWalk::readRow(RowTaker& taker) {
  column_.clear();
  const std::optional<Uuid> uuid = Uuid::parse(row_);
  if (!uuid) {
    fail("the name of the row is not a UUID");
  }
  event_.table = *table_;
  event_.uuid = *uuid;
  for (Cell& cell : event_.cells) {
    cell.clear();
  }
  try {
    reader_.beginObject();
    if (!reader_.nextMember(change_)) {
      fail("the row update is empty");
    }
    if (change_ == "delete") {
      event_.change = RowChange::removed;
      reader_.skip();
    } else if (change_ == "initial" || change_ == "insert" || change_ == "modify") {
      event_.change = change_ == "modify" ? RowChange::modified : RowChange::present;
      readColumns();
    } else {
      fail("the row update is none of initial, insert, modify and delete");
    }
    if (reader_.nextMember(change_)) {
      fail("the row update has more than one member");
    }
  } catch (const ProtocolError& error) {
    const std::string text = error.what();
    if (text.starts_with("table ")) {
      throw;
    }
    fail(text);
  }
  taker.row(event_);
}

void UpdateWalk::readColumns() {
  const TableSchema& schema = schemaOf(event_.table);
  reader_.beginObject();
  while (reader_.nextMember(column_)) {
    std::size_t at = 0;
    while (at < schema.columns.size() && schema.columns[at].name != column_) {
      ++at;
    }
    if (at < schema.columns.size()) {
      readCell(reader_, schema.columns[at].type, event_.cells[at]);
    } else {
      reader_.skip();
    }
  }
}

}  // namespace Agent::Ovsdb
