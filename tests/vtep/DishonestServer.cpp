#include "DishonestServer.h"

#include <cstdio>
#include <utility>

#include "Schemas.h"
#include "service/ovsdb/Framer.h"
#include "service/ovsdb/JsonReader.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

using nlohmann::json;

namespace {

constexpr const char* noTransaction = "00000000-0000-0000-0000-000000000000";
constexpr const char* tables[] = {
    "Global",           "Physical_Switch",      "Physical_Port",     "Logical_Switch",
    "Physical_Locator", "Physical_Locator_Set", "Ucast_Macs_Remote", "Mcast_Macs_Remote"};

// The one value of a column that may also be ["set", [...]]; null for none.
json oneOf(const json& value) {
  if (value.is_array() && value.size() == 2 && value[0] == "set") {
    return value[1].empty() ? json() : value[1][0];
  }
  return value;
}

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

std::string repeated(std::string_view piece, std::size_t times) {
  std::string all;
  for (; times > 0; --times) {
    all += piece;
  }
  return all;
}

}  // namespace

// --- the rows as they were sent

void SentRows::take(const Change& change) {
  auto& table = tables_[change.table];
  if (change.verb == "delete") {
    table.erase(change.id);
    return;
  }
  Row& row = table[change.id];
  for (const auto& [column, value] : change.columns.items()) {
    std::set<json>& values = row[column];
    if (change.verb == "modify") {
      values.clear();
    }
    values.insert(oneOf(value));
  }
}

const SentRows::Row* SentRows::referred(const std::string& table, const json& reference) const {
  const auto rows = tables_.find(table);
  if (rows == tables_.end() || !reference.is_array() || reference.size() != 2) {
    return nullptr;
  }
  const auto row = rows->second.find(reference[1].get<std::string>());
  return row == rows->second.end() ? nullptr : &row->second;
}

bool SentRows::contains(const std::string& table, const std::string& id) const {
  const auto rows = tables_.find(table);
  return rows != tables_.end() && rows->second.contains(id);
}

std::size_t SentRows::rows() const {
  std::size_t rows = 0;
  for (const auto& [name, table] : tables_) {
    rows += table.size();
  }
  return rows;
}

std::set<SentRows::Host> SentRows::justified() const {
  static const std::set<json> none;
  const auto values = [](const Row* row, const char* column) -> const std::set<json>& {
    if (row == nullptr) {
      return none;
    }
    const auto found = row->find(column);
    return found == row->end() ? none : found->second;
  };
  std::set<Host> hosts;
  const auto ucasts = tables_.find("Ucast_Macs_Remote");
  if (ucasts == tables_.end()) {
    return hosts;
  }
  for (const auto& [id, row] : ucasts->second) {
    for (const json& mac : values(&row, "MAC")) {
      for (const json& logicalSwitch : values(&row, "logical_switch")) {
        for (const json& key : values(referred("Logical_Switch", logicalSwitch), "tunnel_key")) {
          for (const json& locator : values(&row, "locator")) {
            for (const json& vtep : values(referred("Physical_Locator", locator), "dst_ip")) {
              if (key.is_number_integer()) {
                hosts.insert({key.get<std::int64_t>(), mac.get<std::string>(), vtep.get<std::string>()});
              }
            }
          }
        }
      }
    }
  }
  return hosts;
}

// --- the connection

void DishonestServer::connected() {
  closed();
  temper_ = always_.value_or(static_cast<Temper>(below(4)));
}

void DishonestServer::closed() {
  heard_.clear();
  toSay_.clear();
  sent_.clear();
  known_ = taken_;
  deaf_ = 0;
  hangsUp_ = follows_ = false;
}

void DishonestServer::updateTaken() {
  if (sent_.empty()) {
    return;
  }
  if (sent_.front().whole) {
    taken_.clear();
  }
  for (const SentRows::Change& change : sent_.front().changes) {
    taken_.take(change);
  }
  sent_.pop_front();
}

void DishonestServer::hears(std::string_view bytes) {
  heard_ += bytes;
  Framer framer;
  while (framer.scan(heard_)) {
    answer(json::parse(heard_.substr(0, framer.length())));
    heard_.erase(0, framer.length());
    framer.next();
  }
}

void DishonestServer::answer(const json& request) {
  const json id = request.value("id", json());
  const std::string method = request.value("method", "");
  if (temper_ == Temper::vandal && below(8) == 0) {
    toSay_.push_back(mischief());
  }
  if (temper_ >= Temper::liar && below(40) == 0) {
    return;  // and never answers
  }
  if (method == "echo") {
    toSay_.push_back(json{{"id", id}, {"result", request["params"]}, {"error", nullptr}}.dump());
  } else if (method == "get_schema") {
    toSay_.push_back(json{{"id", id}, {"result", Ovsdb::Testing::goodSchema()}, {"error", nullptr}}.dump());
  } else if (id == "server") {
    const json row{
        {"initial", {{"name", "hardware_vtep"}, {"connected", temper_ < Temper::liar || below(20) > 0}}}};
    toSay_.push_back(json{
        {"id", id},
        {"result", json::array({false, noTransaction, {{"Database", {{drawTransaction(), row}}}}})},
        {"error",
         nullptr}}.dump());
  } else if (id == "rows") {
    answerMonitor(request);
  }
}

// All rows, or those behind the transaction that was asked for; a liar says that it goes on where nothing
// was.
void DishonestServer::answerMonitor(const json& request) {
  const bool behind = request["params"][3] != noTransaction;
  const bool lies = temper_ >= Temper::liar && below(10) == 0;
  const bool found = (behind && below(2) == 0) || lies;
  if (!found) {
    known_.clear();
  }
  Update update{!found, drawChanges(!found)};
  toSay_.push_back(R"({"id":"rows","error":null,"result":[)" + std::string{found ? "true" : "false"} + ",\"" +
                   drawTransaction() + "\"," + textOf(update.changes) + "]}");
  sent_.push_back(std::move(update));
  follows_ = true;
}

std::string DishonestServer::says() {
  deaf_ -= deaf_ > 0 ? 1 : 0;
  if (temper_ >= Temper::liar && below(200) == 0) {
    deaf_ = 20;
  }
  hangsUp_ = hangsUp_ || below(temper_ >= Temper::liar ? 300 : 150) == 0;
  if (toSay_.empty() && follows_) {
    const bool bad = below(1000) < (temper_ == Temper::vandal ? 300U : temper_ == Temper::liar ? 10U : 0U);
    toSay_.push_back(bad ? mischief() : updateText());
  }
  if (toSay_.empty()) {
    return "";
  }
  std::string text = std::move(toSay_.front());
  toSay_.pop_front();
  if (temper_ >= Temper::careless && text.size() > 2 && below(10) == 0) {
    const std::size_t cut = 1 + below(static_cast<std::uint32_t>(text.size() - 1));
    if (temper_ < Temper::vandal || below(20) > 0) {
      toSay_.push_front(text.substr(cut));  // the rest comes later
    }
    text.resize(cut);
  }
  return text;
}

// --- rows

std::size_t DishonestServer::idsOf(const std::string& table) const {
  return table == "Ucast_Macs_Remote"                                      ? options_.hosts
         : table == "Physical_Locator" || table == "Logical_Switch"        ? 6
         : table == "Physical_Locator_Set" || table == "Mcast_Macs_Remote" ? 5
         : table == "Physical_Port"                                        ? 3
                                                                           : 1;
}

std::string DishonestServer::idOf(const std::string& table, std::size_t index) const {
  std::size_t number = 0;
  while (table != tables[number]) {
    ++number;
  }
  char id[37];
  std::snprintf(id, sizeof id, "%08zx-0000-4000-8000-%012zx", number, index);
  return id;
}

std::string DishonestServer::drawTransaction() {
  char id[37];
  std::snprintf(id, sizeof id, "%08x-0000-4000-8000-%08x0001", below(1U << 30), below(1U << 30));
  return id;
}

// A row of that table: one that is there, or any.
json DishonestServer::reference(const std::string& table) {
  const std::size_t ids = idsOf(table);
  std::size_t index = below(static_cast<std::uint32_t>(ids));
  for (std::size_t tries = 0; holds() && !known_.contains(table, idOf(table, index)) && tries < ids;
       ++tries) {
    index = (index + 1) % ids;
  }
  return json::array({"uuid", idOf(table, !holds() && below(20) == 0 ? ids + below(3) : index)});
}

json DishonestServer::references(const std::string& table, std::uint32_t most) {
  json all = json::array();
  for (std::uint32_t more = below(most + 1); more > 0; --more) {
    all.push_back(reference(table));
  }
  return json::array({"set", all});
}

json DishonestServer::drawColumns(const std::string& table, bool all) {
  const auto number = [this](const char* text, std::uint32_t limit) {
    return text + std::to_string(below(limit));
  };
  const bool odd = !holds();
  json columns;
  if (table == "Global") {
    columns["other_config"] = json::array({"map", json::array()});
    if (below(20) == 0) {
      columns["other_config"][1].push_back({"converging", below(2) == 0 ? "true" : "false"});
    }
  } else if (table == "Physical_Switch") {
    columns = {{"name", odd && below(4) == 0 ? "other" : "leaf1"},
               {"tunnel_ips", json::array({"set", json::array({number("10.1.0.", 3)})})},
               {"ports", references("Physical_Port", 3)}};
  } else if (table == "Physical_Port") {
    json pairs = json::array();
    for (std::uint32_t vlan = 0; vlan < 4; ++vlan) {
      pairs.push_back({odd && below(10) == 0 ? 5000 : static_cast<int>(vlan), reference("Logical_Switch")});
    }
    columns = {{"name", number("t", 3)}, {"vlan_bindings", json::array({"map", pairs})}};
  } else if (table == "Logical_Switch") {
    columns = {{"name", odd && below(100) == 0 ? std::string(below(100'000), 'n') : number("ls", 6)},
               {"tunnel_key", below(8) == 0 ? json::array({"set", json::array()})
                                            : json(odd && below(9) == 0 ? 0 : 5000 + below(6))},
               {"replication_mode", below(2) == 0 ? "source_node"
                                    : odd         ? number("mode", 3)
                                                  : "service_node"}};
  } else if (table == "Physical_Locator") {
    columns = {{"dst_ip", odd && below(8) == 0 ? "2001:db8::1" : number("10.0.0.", 8)}};
  } else if (table == "Physical_Locator_Set") {
    columns = {{"locators", references("Physical_Locator", 4)}};
  } else {
    const bool ucast = table == "Ucast_Macs_Remote";
    char mac[18];
    const std::uint32_t low = below(static_cast<std::uint32_t>(ucast ? options_.hosts : 3));
    std::snprintf(mac, sizeof mac, "%s:00:00:%02x:%02x:%02x", ucast ? "02" : "01", low >> 16 & 255U,
                  low >> 8 & 255U, low & 255U);
    columns = {{"MAC", odd && below(15) == 0     ? "no mac"
                       : !ucast && below(2) == 0 ? "unknown-dst"
                                                 : mac},
               {"logical_switch", reference("Logical_Switch")}};
    if (ucast) {
      columns["locator"] = reference("Physical_Locator");
    } else {
      columns["locator_set"] = reference("Physical_Locator_Set");
    }
  }
  if (!all || (odd && below(30) == 0)) {
    for (auto column = columns.begin(); column != columns.end();) {
      column = columns.size() > 1 && below(2) == 0 ? columns.erase(column) : std::next(column);
    }
  }
  return columns;
}

SentRows::Change DishonestServer::drawChange(const std::string& table, bool whole) {
  SentRows::Change change{table, idOf(table, below(static_cast<std::uint32_t>(idsOf(table)))), "", {}};
  const bool there = known_.contains(table, change.id);
  const bool odd = !holds() && below(10) == 0;
  if (whole) {
    change.verb = "initial";
  } else if (there != odd) {
    const bool named = !table.ends_with("_Remote");
    change.verb = below(3) == 0 && !(holds() && named) ? "delete" : "modify";
  } else {
    change.verb = "insert";
  }
  if (change.verb != "delete") {
    change.columns = drawColumns(table, change.verb != "modify");
  }
  return change;
}

// Each row changes once in a message. What others refer to comes first.
std::vector<SentRows::Change> DishonestServer::drawChanges(bool whole) {
  std::set<std::string> changed;
  std::vector<SentRows::Change> changes;
  const auto draw = [&](const std::string& table) {
    SentRows::Change change = drawChange(table, whole);
    if (changed.insert(change.id).second) {
      known_.take(change);
      changes.push_back(std::move(change));
    }
  };
  for (std::uint32_t more = whole ? 10 : 0; more > 0; --more) {
    draw("Physical_Locator");
    draw("Logical_Switch");
  }
  const std::size_t most = whole ? 2 * options_.hosts : options_.perUpdate;
  for (std::size_t more = 1 + below(static_cast<std::uint32_t>(most)); more > 0; --more) {
    const std::uint32_t kind = below(20);
    draw(kind < 10 ? "Ucast_Macs_Remote" : kind < 13 ? "Physical_Locator" : tables[below(8)]);
  }
  return changes;
}

std::string DishonestServer::textOf(const std::vector<SentRows::Change>& changes) {
  json updates = json::object();
  for (const SentRows::Change& change : changes) {
    updates[change.table][change.id][change.verb] = change.columns;
  }
  return updates.dump();
}

std::string DishonestServer::updateText() {
  Update update{false, drawChanges(false)};
  std::string text = R"({"id":null,"method":"update3","params":["rows",")" + drawTransaction() + "\"," +
                     textOf(update.changes) + "]}";
  sent_.push_back(std::move(update));
  return text;
}

// --- what may not come

// An update that is not in the form somewhere; what comes before is.
std::string DishonestServer::mischievousUpdate() {
  static constexpr const char* ends[] = {
      R"({"insert":{"dst_ip":7}})",
      R"({"insert":{"dst_ip":"x"},"modify":{}})",
      R"({"move":{}})",
      R"({})",
      R"({"modify":{"dst_ip":["uuid","x"]}})",
      R"([])",
      R"({"insert":{"dst_ip":"\x"}})",
      R"({"delete":{}})",
      R"({"insert":{"dst_ip":"a","dst_ip":"a"}})",
  };
  std::string rows;
  for (const SentRows::Change& change : drawChanges(false)) {
    if (change.table == "Physical_Locator") {
      rows += "\"" + change.id + "\":" + json{{change.verb, change.columns}}.dump() + ",";
    }
  }
  sent_.emplace_back();
  rows += "\"" + idOf("Physical_Locator", 7) + "\":" + ends[below(std::size(ends))];
  return R"({"id":null,"method":"update3","params":["rows",")" + drawTransaction() +
         R"(",{"Physical_Locator":{)" + rows + "}}]}";
}

std::string DishonestServer::mischief() {
  // An update that may be taken all the same, without a row that counts.
  const auto update = [this] {
    sent_.emplace_back();
    return R"({"id":null,"method":"update3","params":["rows",")" + drawTransaction() + "\",";
  };
  switch (below(22)) {
    case 0:
      return "HTTP/1.1 400 Bad Request\r\n";
    case 1:
      return R"({"id":1,"method":"echo","params":)" + nested(60 + below(100'000)) + "}";
    case 2:
      return R"({"method":"echo","params":[],"id":)" + nested(below(100'000)) + "}";
    case 3:
      return update() + R"({"Tunnel":)" + nested(below(50)) + "}]}";
    case 4:
      return "{" + repeated(":,", 1000);
    case 5:
      return "{" + repeated(R"("":0,)", 1000);
    case 6:
      return repeated(R"({"id":1,"method":"echo","params":["flood"]})", 20'000);
    case 7:
      return R"({"id":2,"method":"echo","params":[")" + std::string(below(400'000), 'e') + "\"]}";
    case 8:
      return R"({"id":"rows","result":[true,")" + drawTransaction() + R"(",{}],"error":null})";
    case 9:
      return json{{"id", "schema"}, {"result", Ovsdb::Testing::goodSchema()}, {"error", nullptr}}.dump();
    case 10:
      return R"({"id":"probe","result":[],"error":null})";
    case 11:
      return R"({"id":null,"method":"monitor_canceled","params":["rows"]})";
    case 12:
      return R"({"id":null,"method":"update2","params":["rows",{}]})";
    case 13:
      return update() + R"({"Physical_Switch":{")" + idOf("Physical_Switch", 0) +
             R"(":{"modify":{"tunnel_ips":["set",["")" + repeated(R"(,"")", below(20'000)) + "]]}}}}]}";
    case 14:
      return update() + R"({"Unknown":[0)" + repeated(",{}", below(100'000)) + "]}]}";
    case 15:
      return std::string(below(100'000), ' ');
    case 16:
      return update() + R"({"Logical_Switch":{")" + idOf("Logical_Switch", 0) + R"(":{"modify":{"name":")" +
             std::string(below(1'100'000), 'n') + "\"}}}}";
    case 17: {
      std::string text = R"({"id":{"a":[1,2.5e3,null]},"method":"echo","params":["\u00e9",{"b":true}]})";
      text[below(static_cast<std::uint32_t>(text.size()))] = static_cast<char>(below(256));
      return text;
    }
    case 18:
      return R"({"id":null,"method":"update3","params":["server",")" + drawTransaction() +
             R"(",{"Database":{")" + drawTransaction() +
             R"(":{"insert":{"name":"other","connected":false}}}}]})";
    case 19:
      return R"({"id":"rows","id":"rows","result":null})";
    default:
      return mischievousUpdate();
  }
}

}  // namespace Agent::Vtep::Testing
