#include "agent/control/Server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "agent/loop/Fatal.h"

namespace Agent::Control {

namespace {

using nlohmann::json;

constexpr int acceptedAtOnce = 16;
constexpr std::chrono::seconds rest{1};                   // after the system had no descriptor left
constexpr std::size_t largeLine = std::size_t{64} << 10;  // is read a part at a time
constexpr std::size_t pieceOfLine = std::size_t{32} << 10;
constexpr int idleShare = 19;  // for each moment of comparing, that many without

}  // namespace

Server::Server(EventLoop& loop, Service& service, ServerOptions options)
    : loop_(loop),
      service_(service),
      options_(std::move(options)),
      listener_(options_.path, options_.access),
      subscriptions_(service, [this](ClientId client, const json& id, const std::string& merge) {
        return deliver(client, id, merge);
      }) {
  loop_.watch(listener_.fd(), EPOLLIN, [this](std::uint32_t) { acceptClients(); });
  service_.onChange([this] { changed(); });
}

Server::~Server() {
  service_.onChange({});
  loop_.forget(listener_.fd());
  loop_.cancel(resting_);
  loop_.cancel(refreshing_);
  for (const auto& [client, session] : sessions_) {
    loop_.forget(session->connection.fd());
    loop_.cancel(session->patience);
    loop_.cancel(session->next);
    loop_.dropWork(session->parsing);
  }
}

void Server::accessIs(const Access& access) {
  listener_.accessIs(access);
  options_.access = access;
}

void Server::acceptClients() {
  for (int i = 0; i < acceptedAtOnce; ++i) {
    UniqueFd socket = listener_.accept();
    if (socket) {
      admit(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      restAccepting();
      return;
    } else if (errno != ECONNABORTED && errno != EINTR) {
      return;
    }
  }
}

// The connection stays in the backlog and would be found ready in every turn.
void Server::restAccepting() {
  log("control socket: no descriptor left for another client");
  loop_.change(listener_.fd(), 0);
  resting_ = loop_.after(rest, [this] {
    resting_ = EventLoop::TimerId::none;
    loop_.change(listener_.fd(), EPOLLIN);
  });
}

void Server::admit(UniqueFd socket) {
  Peer peer;
  try {
    peer = options_.identify(socket.get());
  } catch (const std::system_error& error) {
    log(std::string("control socket: ") + error.what());
    return;
  }
  ++stats_.accepted;
  const Right right = options_.access.of(peer);
  const bool crowded = sessions_.size() >= options_.mostClients;
  const std::size_t longest = right == Right::patch ? options_.longestLine : options_.longestReaderLine;
  const ClientId client = ++lastClient_;
  auto& session = *sessions_
                       .emplace(client, std::make_unique<Session>(Session{
                                            Connection(std::move(socket), longest), peer.name(), right}))
                       .first->second;
  loop_.watch(session.connection.fd(), 0, [this, client](std::uint32_t events) { onReady(client, events); });
  if (right == Right::none) {
    sendAway(session, "may not use this socket");
  } else if (crowded) {
    sendAway(session, "too many clients: " + std::to_string(options_.mostClients) + " are here already");
  }
  advance(client);
}

void Server::onReady(ClientId client, std::uint32_t events) {
  Session& session = *sessions_.at(client);
  if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
    session.connection.becomeDeaf();  // what it still has sent is carried out all the same
  }
  if (session.leaving) {
    session.connection.stopReading();
  } else if ((events & EPOLLIN) != 0 || session.connection.deaf()) {
    session.connection.fill();
  }
  advance(client);
}

// Brings a session on as far as it goes in this turn: one request, and out with what the socket takes.
void Server::advance(ClientId client) {
  Session& session = *sessions_.at(client);
  if (takesRequests(session)) {
    answerNext(client, session);
  }
  flush(session);
  if (isDone(client, session)) {
    drop(client, "");
    return;
  }
  if (takesRequests(session)) {
    advanceSoon(client, session);
  }
  keepPatience(client, session);
  watchFor(session);
}

void Server::advanceSoon(ClientId client, Session& session) {
  if (session.next == EventLoop::TimerId::none) {
    session.next = loop_.after(std::chrono::nanoseconds::zero(), [this, client] {
      sessions_.at(client)->next = EventLoop::TimerId::none;
      advance(client);
    });
  }
}

bool Server::takesRequests(const Session& session) const {
  const Connection& connection = session.connection;
  return !session.leaving && !session.busy && (connection.hasLine() || connection.lineTooLong()) &&
         connection.pending() < options_.mostPending;
}

bool Server::isDone(ClientId client, const Session& session) const {
  const Connection& connection = session.connection;
  if (connection.pending() > 0 || session.busy) {
    return false;
  }
  if (session.leaving) {
    return true;
  }
  return connection.ended() && !connection.hasLine() &&
         (connection.deaf() || subscriptions_.count(client) == 0);
}

void Server::watchFor(Session& session) {
  const Connection& connection = session.connection;
  const bool reads = !connection.ended() && !connection.hasLine() && !session.leaving &&
                     connection.pending() < options_.mostPending;
  const std::uint32_t events = (reads ? EPOLLIN : 0U) | (connection.pending() > 0 ? EPOLLOUT : 0U);
  if (events != session.events) {
    loop_.change(connection.fd(), events);
    session.events = events;
  }
}

// The wait for a client begins with the first byte that it does not take at once.
void Server::keepPatience(ClientId client, Session& session) {
  const bool waits = session.connection.pending() > 0;
  const bool isTimed = session.patience != EventLoop::TimerId::none;
  if (waits && !isTimed) {
    session.progress = loop_.now();
    session.patience = loop_.after(options_.patience, [this, client] { losePatience(client); });
  } else if (!waits && isTimed) {
    loop_.cancel(std::exchange(session.patience, EventLoop::TimerId::none));
  }
}

void Server::losePatience(ClientId client) {
  Session& session = *sessions_.at(client);
  session.patience = EventLoop::TimerId::none;
  const std::chrono::nanoseconds waited = loop_.now() - session.progress;
  if (waited >= options_.patience) {
    ++stats_.dropped;
    drop(client, "takes nothing of what it asked for");
    return;
  }
  session.patience = loop_.after(options_.patience - waited, [this, client] { losePatience(client); });
}

void Server::flush(Session& session) {
  if (session.connection.flush() > 0) {
    session.progress = loop_.now();
  }
}

// `why` is empty when the client has left by itself.
void Server::drop(ClientId client, std::string_view why) {
  const auto found = sessions_.find(client);
  const Session& session = *found->second;
  if (!why.empty()) {
    log("control client " + session.name + " dropped: " + std::string(why));
  }
  subscriptions_.unsubscribe(client);
  loop_.forget(session.connection.fd());
  loop_.cancel(session.patience);
  loop_.cancel(session.next);
  loop_.dropWork(session.parsing);
  sessions_.erase(found);
}

// Tells a client why it must go; it is dropped when that is out.
void Server::sendAway(Session& session, std::string_view why) {
  ++stats_.dropped;
  log("control client " + session.name + " dropped: " + std::string(why));
  session.connection.stopReading();
  session.connection.queue(errorLine(nullptr, "denied", {"", std::string(why)}), Connection::Kind::answer);
  session.leaving = true;
}

void Server::answerNext(ClientId client, Session& session) {
  if (session.connection.lineTooLong()) {
    const std::size_t longest =
        session.right == Right::patch ? options_.longestLine : options_.longestReaderLine;
    ++stats_.refused;
    sendAway(session, "a request has at most " + std::to_string(longest) + " bytes");
    return;
  }
  std::string line = session.connection.takeLine();
  if (line.find_first_not_of(" \t\r") == std::string::npos) {
    return;
  }
  ++stats_.requests;
  if (line.size() > largeLine) {
    parseInPieces(client, session, std::move(line));
  } else {
    answer(client, session, [&] { return Request::parse(line); });
  }
}

void Server::parseInPieces(ClientId client, Session& session, std::string line) {
  session.busy = true;
  session.parser = std::make_unique<PieceParser>(std::move(line));
  session.parsing = loop_.addWork([this, client] { return parsePiece(client); });
}

bool Server::parsePiece(ClientId client) {
  Session& session = *sessions_.at(client);
  if (session.parser->step(pieceOfLine)) {
    return true;
  }
  const std::unique_ptr<PieceParser> parser = std::move(session.parser);
  session.parsing = EventLoop::WorkId::none;
  session.busy = false;
  answer(client, session,
         [&] { return parser->well() ? Request::of(parser->take()) : Request::parse(parser->text()); });
  advanceSoon(client, session);
  return false;
}

// Answers the request that `read` gives.
template <typename Read>
void Server::answer(ClientId client, Session& session, Read read) {
  Request request;
  try {
    request = read();
  } catch (const BadRequest& error) {
    session.connection.queue(refuse(errorLine(error.id(), error)), Connection::Kind::answer);
    return;
  }
  carryOut(client, session, std::move(request));
}

void Server::carryOut(ClientId client, Session& session, Request request) {
  const bool changes = request.verb == Request::Verb::patch ||
                       (request.verb == Request::Verb::call && service_.callChanges(request.target));
  std::string line;
  try {
    if (changes && session.right != Right::patch) {
      line = refuse(errorLine(request.id, "denied", {"", session.name + " may only read"}));
    } else if (request.verb == Request::Verb::patch) {
      patch(client, session, std::move(request));
      return;
    } else {
      line = carriedOut(client, request);
    }
  } catch (const RequestError& error) {
    line = refuse(errorLine(request.id, error));
  } catch (const json::exception& error) {  // a parameter of another type than the method takes
    line = refuse(errorLine(request.id, "refused", {"", error.what()}));
  }
  session.connection.queue(std::move(line), Connection::Kind::answer);
}

// The answer may come in a later turn, when the client may have gone.
void Server::patch(ClientId client, Session& session, Request request) {
  session.busy = true;
  service_.patch(std::move(request.content), session.name,
                 [this, client, id = request.id](const std::optional<Refusal>& refusal) {
                   const auto found = sessions_.find(client);
                   if (found == sessions_.end()) {
                     return;
                   }
                   found->second->busy = false;
                   found->second->connection.queue(
                       refusal ? refuse(errorLine(id, "refused", *refusal)) : okLine(id),
                       Connection::Kind::answer);
                   advanceSoon(client, *found->second);
                 });
}

// The answer to what is no patch.
std::string Server::carriedOut(ClientId client, const Request& request) {
  switch (request.verb) {
    case Request::Verb::subscribe:
      if (subscriptions_.count(client) >= options_.mostSubscriptions) {
        return refuse(
            errorLine(request.id, "refused",
                      {"", "at most " + std::to_string(options_.mostSubscriptions) + " subscriptions"}));
      }
      return valueLine(request.id, subscriptions_.subscribe(client, request.target, request.id));
    case Request::Verb::call:
      return valueLine(request.id, service_.call(request.target, request.content));
    case Request::Verb::get:
    case Request::Verb::patch:
      break;
  }
  return valueLine(request.id, service_.get(request.target));
}

std::string Server::refuse(std::string line) {
  ++stats_.refused;
  return line;
}

bool Server::deliver(ClientId client, const json& id, const std::string& merge) {
  Session& session = *sessions_.at(client);
  std::string line = mergeLine(id, merge);
  const bool fits = session.connection.pendingUpdates() + line.size() <= options_.mostPending;
  if (fits) {
    session.connection.queue(std::move(line), Connection::Kind::update);
  } else {
    ++stats_.cut;
    session.connection.queue(cutLine(id), Connection::Kind::answer);
  }
  advanceSoon(client, session);
  return fits;
}

void Server::changed() {
  if (refreshing_ != EventLoop::TimerId::none || subscriptions_.empty()) {
    return;
  }
  refreshing_ = loop_.after(earliestRefresh_ - loop_.now(), [this] { refresh(); });
}

void Server::refresh() {
  refreshing_ = EventLoop::TimerId::none;
  const EventLoop::Clock::time_point began = loop_.now();
  subscriptions_.refresh();
  const std::chrono::nanoseconds cost = loop_.now() - began;
  earliestRefresh_ = began + cost + std::max(options_.interval, idleShare * cost);
}

void Server::log(std::string_view text) const {
  if (options_.log) {
    options_.log(text);
  }
}

}  // namespace Agent::Control
