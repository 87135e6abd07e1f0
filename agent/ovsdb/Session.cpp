#include "agent/ovsdb/Session.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "agent/loop/Fatal.h"

namespace Agent::Ovsdb {

namespace {

using nlohmann::json;

constexpr std::string_view noTransaction = "00000000-0000-0000-0000-000000000000";
// Names of our requests and monitors.
constexpr std::string_view schemaId = "schema";
constexpr std::string_view serverId = "server";
constexpr std::string_view rowsId = "rows";
constexpr std::string_view probeId = "probe";
// All but the rows is read in one piece: what is larger is not what it should be.
constexpr std::size_t largestOther = std::size_t{1} << 20;

// Of a server's error, bytes that are shown.
constexpr std::size_t longestQuoted = 200;

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first == std::string_view::npos ? std::string_view{}
                                         : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool isNull(std::string_view value) {
  return value.empty() || value == "null";
}

json parseSmall(std::string_view text, std::string_view what) {
  if (text.size() > largestOther) {
    throw ProtocolError(std::string{what} + " is larger than 1 MiB");
  }
  json value = json::parse(text, nullptr, false);
  if (value.is_discarded()) {
    throw ProtocolError(std::string{what} + " is not JSON");
  }
  return value;
}

std::string seconds(double value) {
  std::string text = std::to_string(value);
  text.erase(text.find_last_not_of('0') + 1);
  return (text.ends_with('.') ? text + "0" : text) + " s";
}

}  // namespace

std::string_view nameOf(SessionState state) {
  switch (state) {
    case SessionState::backoff:
      return "backoff";
    case SessionState::connecting:
      return "connecting";
    case SessionState::checking:
      return "checking";
    case SessionState::requesting:
      return "requesting";
    case SessionState::following:
      return "following";
  }
  return "";
}

Session::Session(SessionOptions options, UpdateTaker& taker, Log log)
    : options_(std::move(options)),
      taker_(taker),
      log_(std::move(log)),
      framer_(options_.largestMessage),
      lastTransaction_(noTransaction) {
  require(!options_.remotes.empty(), "a session has at least one remote");
}

std::optional<Remote> Session::connectTo(double now) const {
  return state_ == SessionState::backoff && now >= due_ ? std::optional{remote()} : std::nullopt;
}

void Session::connecting(double now) {
  require(state_ == SessionState::backoff, "a session connects twice");
  state_ = SessionState::connecting;
  due_ = now + options_.connectTimeout;
}

void Session::connected(double now) {
  require(state_ == SessionState::connecting, "a session is connected that was not connecting");
  state_ = SessionState::checking;
  due_ = std::numeric_limits<double>::infinity();
  lastReceived_ = now;
  probed_.reset();
  input_.clear();
  framer_.reset();
  output_.clear();
  schemaFits_ = serverKnown_ = false;
  serverRows_.clear();
  request(schemaId, "get_schema", json::array({databaseName}));
  const json columns = json::array({"name", "connected"});
  request(serverId, "monitor_cond_since",
          json::array({"_Server", serverId, json{{"Database", json::array({json{{"columns", columns}}})}},
                       noTransaction}));
}

void Session::failed(std::string_view why, double now) {
  if (state_ != SessionState::backoff) {
    drop(std::string{why}, now);
    dropped_ = false;  // the transport knows
  }
}

bool Session::connectionDropped() {
  return std::exchange(dropped_, false);
}

double Session::pause() const {
  return failures_ == 0 ? 0
                        : std::min(options_.mostBackoff,
                                   options_.firstBackoff * std::pow(2.0, std::min(failures_, 30U) - 1));
}

void Session::drop(const std::string& why, double now) {
  const bool lasted = state_ == SessionState::following && now - followingSince_ >= options_.firstBackoff;
  const bool delivered = state_ == SessionState::following || walk_.has_value();
  failures_ = lasted ? 0 : failures_ + 1;
  lastError_ = remote().text() + ": " + why;
  if (lastError_ != lastLogged_) {
    lastLogged_ = lastError_;
    log_(lastError_);
  }
  state_ = SessionState::backoff;
  dropped_ = true;
  due_ = now + pause();
  remote_ = (remote_ + 1) % options_.remotes.size();
  if (walk_) {
    // What came of the update is in: only the whole can tell what is there now.
    walk_.reset();
    lastTransaction_ = noTransaction;
  }
  input_.clear();
  framer_.reset();
  output_.clear();
  if (delivered) {
    taker_.sessionLost(now);
  }
}

void Session::send(const json& message) {
  output_ += message.dump();
}

void Session::request(std::string_view id, std::string_view method, json params) {
  send({{"id", id}, {"method", method}, {"params", std::move(params)}});
}

void Session::received(std::size_t size, double now) {
  input_.filled(size);
  lastReceived_ = now;
  probed_.reset();
}

bool Session::work(std::size_t rows, double now) {
  if (!connectionUp()) {
    return false;
  }
  try {
    if (!walk_) {
      return takeMessage(now);
    }
    if (!walk_->step(rows, taker_)) {
      endWalk(now);
    }
    return true;
  } catch (const ProtocolError& error) {
    drop(error.what(), now);
    return false;
  }
}

// Takes the message at the front, if it is whole; returns whether there was one.
bool Session::takeMessage(double now) {
  if (!framer_.scan(input_.unread())) {
    return false;
  }
  Envelope message;
  for (const Framer::Member& member : framer_.members(input_.unread())) {
    const std::pair<std::string_view, std::string_view*> places[] = {{"\"method\"", &message.method},
                                                                     {"\"id\"", &message.id},
                                                                     {"\"params\"", &message.params},
                                                                     {"\"result\"", &message.result},
                                                                     {"\"error\"", &message.error}};
    for (const auto& [name, place] : places) {
      if (member.name == name) {
        *place = trimmed(member.value);
      }
    }
  }
  dispatch(message, now);
  if (connectionUp() && !walk_) {
    input_.consume(framer_.length());
    framer_.next();
  }
  return connectionUp();
}

void Session::dispatch(const Envelope& message, double now) {
  if (!message.method.empty()) {
    notification(message, now);
  } else if (!isNull(message.id) && (!message.result.empty() || !message.error.empty())) {
    answer(message, now);
  } else {
    throw ProtocolError("this is not OVSDB: a message is neither a request nor an answer");
  }
}

void Session::notification(const Envelope& message, double now) {
  if (message.method == "\"echo\"") {
    const json params = parseSmall(message.params, "an echo request");
    if (!isNull(message.id)) {
      send({{"id", parseSmall(message.id, "an id")}, {"result", params}, {"error", nullptr}});
    }
  } else if (message.method == "\"update3\"") {
    beginWalk(message.params, false, now);
  } else if (message.method == "\"monitor_canceled\"") {
    drop("the server canceled the monitor: the database was removed or its schema changed", now);
  } else if (!isNull(message.id)) {
    send({{"id", parseSmall(message.id, "an id")}, {"result", nullptr}, {"error", "unknown method"}});
  }
}

void Session::answer(const Envelope& message, double now) {
  const json id = parseSmall(message.id, "an id");
  if (id == probeId) {
    return;
  }
  if (id == schemaId) {
    answerSchema(message, now);
  } else if (id == serverId) {
    answerServer(message, now);
  } else if (id == rowsId && state_ == SessionState::requesting) {
    if (!isNull(message.error)) {
      drop("the server refused to be monitored by \"monitor_cond_since\": " +
               printable(message.error, longestQuoted) +
               (message.error.find("unknown method") != std::string_view::npos ? "; a newer server is needed"
                                                                               : ""),
           now);
      return;
    }
    beginWalk(message.result, true, now);
  } else {
    throw ProtocolError("an answer came to a request that was not made: id " + printable(message.id));
  }
}

void Session::answerSchema(const Envelope& message, double now) {
  if (!isNull(message.error)) {
    drop("no schema of database \"" + std::string{databaseName} +
             "\": " + printable(message.error, longestQuoted),
         now);
    return;
  }
  if (const std::string objection = schemaObjection(parseSmall(message.result, "the schema"));
      !objection.empty()) {
    drop(objection, now);
    return;
  }
  schemaFits_ = true;
  monitorWhenChecked();
}

void Session::answerServer(const Envelope& message, double now) {
  if (isNull(message.error)) {
    const json result = parseSmall(message.result, "the server's status");
    if (!result.is_array() || result.size() != 3) {
      throw ProtocolError("the server's status is not [found, last transaction, rows]");
    }
    serverRows(result[2]);
  }
  // A server without a database "_Server" knows no clusters.
  serverKnown_ = true;
  for (const auto& [uuid, row] : serverRows_) {
    if (row.name == databaseName && !row.connected) {
      drop("this member is not connected to its cluster", now);
      return;
    }
  }
  monitorWhenChecked();
}

// Takes <table-updates2> of "_Server" into account.
void Session::serverRows(const json& updates) {
  if (!updates.is_object() || !updates.value("Database", json::object()).is_object()) {
    throw ProtocolError("the server's status is not in the form of table updates");
  }
  const json rows = updates.value("Database", json::object());
  for (const auto& [uuid, update] : rows.items()) {
    if (!update.is_object() || update.size() != 1) {
      throw ProtocolError("the server's status is not in the form of table updates");
    }
    if (update.contains("delete")) {
      serverRows_.erase(uuid);
      continue;
    }
    const json& columns = update.front();
    if (!columns.is_object()) {
      throw ProtocolError("the server's status is not in the form of table updates");
    }
    ServerRow& row = serverRows_[uuid];
    if (columns.contains("name") && columns["name"].is_string()) {
      row.name = columns["name"];
    }
    if (columns.contains("connected") && columns["connected"].is_boolean()) {
      row.connected = columns["connected"];
    }
  }
}

void Session::monitorWhenChecked() {
  if (state_ == SessionState::checking && schemaFits_ && serverKnown_) {
    state_ = SessionState::requesting;
    request(rowsId, "monitor_cond_since",
            json::array({databaseName, rowsId, monitorRequests(), lastTransaction_}));
  }
}

// Enters [found or monitor's name, last transaction, table updates].
void Session::beginWalk(std::string_view array, bool answer, double now) {
  JsonReader reader(array);
  reader.beginArray();
  bool whole = false;
  std::string monitor{rowsId};
  if (!reader.nextElement()) {
    reader.fail("want three elements");
  }
  if (answer) {
    whole = !reader.boolean();
    resumptions_ += whole ? 0U : 1U;
  } else {
    reader.string(monitor);
  }
  if (!reader.nextElement()) {
    reader.fail("want three elements");
  }
  std::string transaction = reader.string();
  if (!reader.nextElement()) {
    reader.fail("want three elements");
  }
  if (!array.ends_with(']')) {
    reader.fail("want three elements");
  }
  const std::string_view rows = trimmed(array.substr(reader.offset(), array.size() - reader.offset() - 1));
  if (monitor == serverId) {
    serverRows(parseSmall(rows, "the server's status"));
    for (const auto& [uuid, row] : serverRows_) {
      if (row.name == databaseName && !row.connected) {
        drop("this member lost the connection to its cluster", now);
        return;
      }
    }
    return;
  }
  if (monitor != rowsId || (!answer && state_ != SessionState::following)) {
    throw ProtocolError("an update came for a monitor that was not asked for: " + printable(monitor));
  }
  walk_.emplace(rows);
  walkTransaction_ = std::move(transaction);
  taker_.beginUpdate(whole, now);
}

void Session::endWalk(double now) {
  walk_.reset();
  input_.consume(framer_.length());
  framer_.next();
  lastTransaction_ = walkTransaction_;
  lastReceived_ = now;
  ++updates_;
  if (state_ == SessionState::requesting) {
    state_ = SessionState::following;
    followingSince_ = now;
    reconnects_ += everFollowed_ ? 1 : 0;
    everFollowed_ = true;
    lastLogged_.clear();
    log_(remote().text() + ": following");
  }
  taker_.endUpdate(now);
}

void Session::remotesAre(std::vector<Remote> remotes, double now) {
  require(!remotes.empty(), "a session has at least one remote");
  const auto same = std::find(remotes.begin(), remotes.end(), remote());
  const std::ptrdiff_t place = same == remotes.end() ? 0 : same - remotes.begin();
  if (same == remotes.end()) {
    failed("is configured no more", now);
    dropped_ = true;
    failures_ = 0;
    due_ = now;
  }
  options_.remotes = std::move(remotes);
  remote_ = static_cast<std::size_t>(place);
}

void Session::tick(double now) {
  if (state_ == SessionState::connecting && now >= due_) {
    drop("no connection after " + seconds(options_.connectTimeout), now);
    return;
  }
  if (!connectionUp() || walk_) {
    return;
  }
  if (!probed_ && now >= lastReceived_ + probe()) {
    request(probeId, "echo", json::array());
    probed_ = now;
  } else if (probed_ && now >= *probed_ + probe()) {
    drop("no answer for " + seconds(now - lastReceived_), now);
  }
}

double Session::nextWakeup() const {
  if (!connectionUp()) {
    return due_;
  }
  return walk_ ? std::numeric_limits<double>::infinity() : probed_.value_or(lastReceived_) + probe();
}

}  // namespace Agent::Ovsdb
