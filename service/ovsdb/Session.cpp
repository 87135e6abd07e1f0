#include "service/ovsdb/Session.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <nlohmann/json.hpp>

#include "service/json/Text.h"
#include "service/loop/Fatal.h"

namespace Ovsdb {

namespace {

using nlohmann::json;

constexpr std::string_view noTransaction = "00000000-0000-0000-0000-000000000000";
// An id of the peer's has no more bytes than this.
constexpr std::size_t longestId = 1024;
// The status of a server has a row for each of its databases.
constexpr std::size_t mostServerRows = 1000;
// Of a server's error, bytes that are shown.
constexpr std::size_t longestQuoted = 200;

void checkSize(std::string_view text, std::size_t most, std::string_view what) {
  if (text.size() > most) {
    throw ProtocolError(std::string{what} + " is larger than " + bytesInWords(most));
  }
}

json parseSmall(std::string_view text, std::size_t most, std::string_view what) {
  checkSize(text, most, what);
  try {
    return Service::parseJson(text);
  } catch (const Service::BadJson& error) {
    throw ProtocolError(std::string{what} + " is " + error.what());
  }
}

// One JSON value, as it is written. It is read once, so that nothing goes out that is not JSON in UTF-8.
std::string_view valueOf(std::string_view text, std::size_t most, std::string_view what) {
  parseSmall(text, most, what);
  return text;
}

std::string seconds(double value) {
  std::string text = std::to_string(value);
  text.erase(text.find_last_not_of('0') + 1);
  return (text.ends_with('.') ? text + "0" : text) + " s";
}

}  // namespace

void Session::Progress::moved(std::size_t size, double now) {
  bytes += size;
  if (bytes >= leastProgress) {
    begin(now);
  }
}

Session::Session(const Schema& schema, SessionOptions options, UpdateSink& sink, Log log)
    : schema_(schema),
      options_(std::move(options)),
      sink_(sink),
      log_(std::move(log)),
      lastTransaction_(noTransaction) {
  Service::require(!options_.remotes.empty(), "a session has at least one remote");
}

std::optional<Remote> Session::connectTo(double now) const {
  return state_ == SessionState::backoff && now >= due_ ? std::optional{remote()} : std::nullopt;
}

// Enters a state of a connection, with the time that it may last and the messages that it admits.
void Session::enter(SessionState state, double now) {
  state_ = state;
  switch (state) {
    case SessionState::backoff:
      due_ = now + pause();
      break;
    case SessionState::connecting:
      due_ = now + options_.connectTimeout;
      break;
    case SessionState::checking:
      due_ = now + options_.answerTimeout;
      framer_.largestMessageIs(options_.largestOther);
      break;
    case SessionState::requesting:
      due_ = now + options_.answerTimeout;
      framer_.largestMessageIs(options_.largestFirst);
      break;
    case SessionState::following:
      due_ = std::numeric_limits<double>::infinity();
      framer_.largestMessageIs(std::min(options_.largestUpdate, options_.largestFirst));
      break;
  }
}

void Session::connecting(double now) {
  Service::require(state_ == SessionState::backoff, "a session connects twice");
  enter(SessionState::connecting, now);
}

void Session::connected(double now) {
  Service::require(state_ == SessionState::connecting, "a session is connected that was not connecting");
  enter(SessionState::checking, now);
  lastReceived_ = now;
  probed_.reset();
  probesDue_ = 0;
  schemaDue_ = serverDue_ = true;
  serverRows_.clear();
  request(schemaId, "get_schema", json::array({schema_.database()}), now);
  const json columns = json::array({"name", "connected"});
  request(serverId, "monitor_cond_since",
          json::array({"_Server", serverId, json{{"Database", json::array({json{{"columns", columns}}})}},
                       noTransaction}),
          now);
}

void Session::failed(std::string_view why, double now) {
  if (state_ != SessionState::backoff) {
    drop(std::string{why}, End::failure, now);
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

void Session::drop(const std::string& why, End end, double now) {
  const double lasted = state_ == SessionState::following ? now - followingSince_ : -1;
  const bool delivered = state_ == SessionState::following || walk_.has_value();
  // A server that is at fault again and again is not asked again at once.
  if (lasted >= (end == End::failure ? options_.firstBackoff : options_.faultKept)) {
    failures_ = end == End::failure ? 0 : 1;
  } else {
    ++failures_;
  }
  lastError_ = remote().text() + ": " + why;
  faults_ += end == End::fault ? 1U : 0U;
  contained_ += end == End::contained ? 1U : 0U;
  fault_ = end == End::failure ? "" : lastError_;
  if (lastError_ != lastLogged_) {
    lastLogged_ = lastError_;
    log_(lastError_);
  }
  enter(SessionState::backoff, now);
  dropped_ = true;
  remote_ = (remote_ + 1) % options_.remotes.size();
  if (walk_) {
    // A part of the update was applied: only a full snapshot can tell the present state.
    walk_.reset();
    lastTransaction_ = noTransaction;
  }
  input_.clear();
  framer_.reset();
  output_.clear();
  output_.shrink_to_fit();
  if (delivered) {
    sink_.sessionLost(now);
  }
}

void Session::send(std::string_view text, double now) {
  if (output_.empty()) {
    sending_.begin(now);
  }
  output_ += text;
}

void Session::request(std::string_view id, std::string_view method, json params, double now) {
  send(json{{"id", id}, {"method", method}, {"params", std::move(params)}}.dump(), now);
}

void Session::written(std::size_t size, double now) {
  output_.erase(0, size);
  sending_.moved(size, now);
}

void Session::goOn(double now) {
  held_ = false;
  lastReceived_ = now;
  receiving_.begin(now);
  if (probed_) {
    probed_ = now;
  }
}

void Session::received(std::size_t size, double now) {
  if (input_.unread().empty()) {
    receiving_.begin(now);
  }
  input_.filled(size);
  receiving_.moved(size, now);
  lastReceived_ = now;
  probed_.reset();
  if (state_ == SessionState::requesting && input_.unread().size() > options_.largestOther) {
    due_ = now + options_.answerTimeout;  // this is the answer, on its way
  }
}

bool Session::work(std::size_t items, double now) {
  if (!connectionUp() || outputFull()) {
    return false;
  }
  try {
    if (!walk_) {
      return takeMessage(now);
    }
    if (!walk_->step(items, sink_)) {
      endWalk(now);
    }
    return true;
  } catch (const ProtocolError& error) {
    drop(error.what(), End::fault, now);
  } catch (const std::exception& error) {
    drop(std::string{"what came could not be taken: "} + error.what(), End::contained, now);
  }
  return false;
}

// Takes the message at the front, if it is whole; returns whether there was one.
bool Session::takeMessage(double now) {
  if (!framer_.scan(input_.unread())) {
    return false;
  }
  dispatch(envelopeOf(framer_.members(input_.unread())), now);
  if (connectionUp() && !walk_) {
    consumeMessage(now);
  }
  return connectionUp();
}

void Session::consumeMessage(double now) {
  input_.consume(framer_.length());
  framer_.next();
  receiving_.begin(now);
}

void Session::dispatch(const Envelope& message, double now) {
  const MessageKind kind = kindOf(message);
  const bool due = (kind != MessageKind::probeAnswer || probesDue_ > 0) &&
                   (kind != MessageKind::schemaAnswer || schemaDue_) &&
                   (kind != MessageKind::serverAnswer || serverDue_) &&
                   (kind != MessageKind::serverUpdate || !serverDue_);
  if (!due || !mayCome(kind, state_)) {
    throw ProtocolError(std::string{nameOf(kind)} + " came unasked while " + std::string{nameOf(state_)});
  }
  switch (kind) {
    case MessageKind::echo:
      echo(message, now);
      return;
    case MessageKind::canceled:
      drop("the server canceled the monitor: the database was removed or its schema changed", End::failure,
           now);
      return;
    case MessageKind::probeAnswer:
      --probesDue_;
      return;
    case MessageKind::schemaAnswer:
      answerSchema(message, now);
      return;
    case MessageKind::serverAnswer:
      answerServer(message, now);
      return;
    case MessageKind::serverUpdate:
      updateServer(message, now);
      return;
    case MessageKind::rowsAnswer:
      answerRows(message, now);
      return;
    case MessageKind::rowsUpdate:
      beginWalk(message.params, false, now);
      return;
  }
}

// The parameters go back as the peer wrote them.
void Session::echo(const Envelope& message, double now) {
  const std::string_view params = valueOf(message.params, options_.largestOther, "an echo request");
  if (!isNull(message.id)) {
    const std::string_view id = valueOf(message.id, longestId, "an id");
    send(R"({"error":null,"id":)", now);
    send(id, now);
    send(R"(,"result":)", now);
    send(params, now);
    send("}", now);
  }
}

void Session::answerSchema(const Envelope& message, double now) {
  if (!isNull(message.error)) {
    drop("no schema of database \"" + std::string{schema_.database()} +
             "\": " + printable(message.error, longestQuoted),
         End::failure, now);
    return;
  }
  if (const std::string objection =
          schema_.objection(parseSmall(message.result, options_.largestOther, "the schema"));
      !objection.empty()) {
    drop(objection, End::failure, now);
    return;
  }
  schemaDue_ = false;
  monitorWhenChecked(now);
}

void Session::answerServer(const Envelope& message, double now) {
  if (isNull(message.error)) {
    const json result = parseSmall(message.result, options_.largestOther, "the server's status");
    if (!result.is_array() || result.size() != 3) {
      throw ProtocolError("the server's status is not [found, last transaction, rows]");
    }
    serverRows(result[2]);
  }
  // A server without a database "_Server" knows no clusters.
  serverDue_ = false;
  if (lostCluster()) {
    drop("this member is not connected to its cluster", End::failure, now);
    return;
  }
  monitorWhenChecked(now);
}

void Session::updateServer(const Envelope& message, double now) {
  const json params = parseSmall(message.params, options_.largestOther, "the server's status");
  if (!params.is_array() || params.size() != 3) {
    throw ProtocolError("the server's status is not [monitor, last transaction, rows]");
  }
  serverRows(params[2]);
  if (lostCluster()) {
    drop("this member lost the connection to its cluster", End::failure, now);
  }
}

bool Session::lostCluster() const {
  return std::any_of(serverRows_.begin(), serverRows_.end(),
                     [](const auto& row) { return row.second.ours && !row.second.connected; });
}

// Takes <table-updates2> of "_Server" into account.
void Session::serverRows(const json& updates) {
  const auto check = [](bool holds) {
    if (!holds) {
      throw ProtocolError("the server's status is not in the form of table updates");
    }
  };
  check(updates.is_object());
  const json rows = updates.value("Database", json::object());
  check(rows.is_object());
  for (const auto& [uuid, update] : rows.items()) {
    check(update.is_object() && update.size() == 1 && Uuid::parse(uuid));
    if (update.contains("delete")) {
      serverRows_.erase(uuid);
      continue;
    }
    const json& columns = update.front();
    check(columns.is_object());
    ServerRow& row = serverRows_[uuid];
    check(serverRows_.size() <= mostServerRows);
    if (columns.contains("name")) {
      row.ours = columns["name"] == schema_.database();
    }
    if (columns.contains("connected") && columns["connected"].is_boolean()) {
      row.connected = columns["connected"];
    }
  }
}

void Session::monitorWhenChecked(double now) {
  if (!schemaDue_ && !serverDue_) {
    enter(SessionState::requesting, now);
    request(rowsId, "monitor_cond_since",
            json::array({schema_.database(), rowsId, schema_.monitorRequests(), lastTransaction_}), now);
  }
}

void Session::answerRows(const Envelope& message, double now) {
  if (!isNull(message.error)) {
    const std::string error = printable(message.error, longestQuoted);
    drop("the server refused to be monitored by \"monitor_cond_since\": " + error +
             (error.find("unknown method") != std::string::npos ? "; a newer server is needed" : ""),
         End::failure, now);
    return;
  }
  beginWalk(message.result, true, now);
}

// Enters [found or monitor's name, last transaction, table updates].
void Session::beginWalk(std::string_view array, bool answer, double now) {
  JsonReader reader(array);
  const auto next = [&reader] {
    if (!reader.nextElement()) {
      reader.fail("want three elements");
    }
  };
  reader.beginArray();
  next();
  bool found = false;
  if (answer) {
    found = reader.boolean();
  } else {
    reader.string();
  }
  next();
  std::string transaction = reader.string();
  next();
  if (!Uuid::parse(transaction)) {
    throw ProtocolError("the name of a transaction is not a UUID: " + printable(transaction));
  }
  if (!array.ends_with(']')) {
    reader.fail("want three elements");
  }
  if (found && lastTransaction_ == noTransaction) {
    throw ProtocolError("the server goes on behind a transaction that was not asked for");
  }
  resumptions_ += found ? 1U : 0U;
  const std::size_t begin = reader.offset();
  walk_.emplace(schema_, array.substr(begin, array.size() - begin - 1));
  walkTransaction_ = std::move(transaction);
  sink_.beginUpdate(answer && !found, now);
}

void Session::endWalk(double now) {
  sink_.endUpdate(now);
  walk_.reset();
  consumeMessage(now);
  lastTransaction_ = walkTransaction_;
  lastReceived_ = now;
  ++updates_;
  if (state_ == SessionState::requesting) {
    enter(SessionState::following, now);
    followingSince_ = now;
    reconnects_ += everFollowed_ ? 1 : 0;
    everFollowed_ = true;
    lastLogged_.clear();
    log_(remote().text() + ": following");
  }
}

void Session::remotesAre(std::vector<Remote> remotes, double now) {
  Service::require(!remotes.empty(), "a session has at least one remote");
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

// Whether a message has begun to come of which the rest is not there.
bool Session::lacksRest() const {
  return !walk_ && !outputFull() && !input_.unread().empty() && framer_.length() == input_.unread().size();
}

void Session::tick(double now) {
  if (state_ == SessionState::connecting && now >= due_) {
    drop("no connection after " + seconds(options_.connectTimeout), End::failure, now);
    return;
  }
  if (!connectionUp() || held_) {
    return;
  }
  if (!output_.empty() && now >= sending_.since + probe()) {
    drop("the peer does not read: " + std::to_string(output_.size()) + " bytes wait for " +
             seconds(now - sending_.since),
         End::fault, now);
  } else if (lacksRest() && now >= receiving_.since + probe()) {
    drop("the peer is too slow: less than " + bytesInWords(leastProgress) + " of a message came in " +
             seconds(now - receiving_.since),
         End::fault, now);
  } else if (now >= due_) {
    drop("what was asked for did not come in " + seconds(options_.answerTimeout), End::fault, now);
  } else if (walk_ || outputFull()) {
    return;
  } else if (!probed_ && now >= lastReceived_ + probe()) {
    request(probeId, "echo", json::array(), now);
    ++probesDue_;
    probed_ = now;
  } else if (probed_ && now >= *probed_ + probe()) {
    drop("no answer for " + seconds(now - lastReceived_), End::failure, now);
  }
}

double Session::nextWakeup() const {
  if (!connectionUp()) {
    return due_;
  }
  double next = std::numeric_limits<double>::infinity();
  if (held_) {
    return next;
  }
  next = std::min(next, due_);
  if (!output_.empty()) {
    next = std::min(next, sending_.since + probe());
  }
  if (lacksRest()) {
    next = std::min(next, receiving_.since + probe());
  }
  if (!walk_ && !outputFull()) {
    next = std::min(next, probed_.value_or(lastReceived_) + probe());
  }
  return next;
}

std::string Session::problem(double now) const {
  if (state_ != SessionState::following) {
    return lastError_;
  }
  return now < followingSince_ + options_.faultKept ? fault_ : std::string{};
}

}  // namespace Ovsdb
