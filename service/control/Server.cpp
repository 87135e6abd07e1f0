#include "service/control/Server.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "service/loop/Fatal.h"

namespace Control {

namespace {

using nlohmann::json;

constexpr int fewestAccepted = 16;  // in a turn, whatever else there is to do
constexpr int mostAccepted = 128;

constexpr std::chrono::seconds rest{1};  // after the system had no descriptor left
constexpr int idleShare = 19;            // for each moment of comparing, that many without

}  // namespace

Server::Server(Service::EventLoop& loop, Backend& service, ServerOptions options)
    : loop_(loop),
      service_(service),
      options_(std::move(options)),
      listener_(options_.path, options_.access),
      subscriptions_(service, subscriptionHooks(), options_.mostFollowed),
      budget_(options_.turn, [this] { return loop_.now(); }) {
  turnHook_ = loop_.addTurnHook([this] {
    budget_.renew();
    ++turn_;
  });
  loop_.watch(listener_.fd(), EPOLLIN, [this](std::uint32_t) { acceptClients(); });
  service_.onChange([this] { changed(); });
}

Server::~Server() {
  service_.onChange({});
  loop_.forget(listener_.fd());
  loop_.cancel(resting_);
  loop_.cancel(refreshing_);
  loop_.cancel(serving_);
  loop_.dropTurnHook(turnHook_);
  for (const auto& [client, session] : sessions_) {
    loop_.forget(session->connection.fd());
    loop_.cancel(session->patience);
    loop_.dropWork(session->parsing);
  }
}

void Server::accessIs(const Access& access) {
  listener_.accessIs(access);
  options_.access = access;
}

void Server::acceptClients() {
  for (int i = 0; i < fewestAccepted || (i < mostAccepted && budget_.left()); ++i) {
    Service::UniqueFd socket = listener_.accept();
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
    resting_ = Service::EventLoop::TimerId::none;
    loop_.change(listener_.fd(), EPOLLIN);
  });
}

void Server::admit(Service::UniqueFd socket) {
  Peer peer;
  try {
    peer = options_.identify(socket.get());
  } catch (const std::system_error& error) {
    log(std::string("control socket: ") + error.what());
    return;
  }
  ++stats_.accepted;
  const Right right = options_.access.of(peer);
  const std::string refusal = makeRoom(peer, right);
  const std::size_t longest = right == Right::patch ? options_.longestLine : options_.longestReaderLine;
  const ClientId client = ++lastClient_;
  auto& session =
      *sessions_
           .emplace(client, std::make_unique<Session>(Session{Connection(std::move(socket), longest),
                                                              peer.name(), peer.uid, right, loop_.now()}))
           .first->second;
  loop_.watch(session.connection.fd(), 0,
              [this, client](std::uint32_t events) { contained(client, [&] { onReady(client, events); }); });
  if (!refusal.empty()) {
    sendAway(session, refusal);
  }
  advance(client);
}

// Finds a place for a newcomer; somebody else may have to go. Returns why there is none.
std::string Server::makeRoom(const Peer& peer, Right right) {
  if (right == Right::none) {
    return "may not use this socket";
  }
  std::vector<Places::Client> here;
  for (const auto& [client, session] : sessions_) {
    here.push_back({client, session->user, session->right == Right::patch, idleSince(client, *session)});
  }
  const Places::Verdict verdict =
      options_.places.newcomer(peer.uid, right == Right::patch, here, loop_.now());
  if (verdict.leaves) {
    Session& leaving = *sessions_.at(*verdict.leaves);
    if (leaving.leaving) {
      drop(*verdict.leaves, "");
    } else {
      sendAway(leaving, "idle, and its place is needed");
      settle(*verdict.leaves);
    }
  }
  return verdict.admitted ? "" : verdict.reason;
}

std::optional<Service::EventLoop::Clock::time_point> Server::idleSince(ClientId client,
                                                                       const Session& session) const {
  const Connection& connection = session.connection;
  if (session.leaving) {
    return Service::EventLoop::Clock::time_point::min();
  }
  const bool speaks = connection.hasLine() || (session.right == Right::patch && connection.midLine());
  if (session.busy || speaks || connection.pending() > 0 || subscriptions_.count(client) > 0) {
    return std::nullopt;
  }
  return session.idleSince;
}

void Server::onReady(ClientId client, std::uint32_t events) {
  Session& session = *sessions_.at(client);
  if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
    session.connection.becomeDeaf();  // what it still has sent to be changed is carried out all the same
  }
  if (session.leaving || (session.connection.deaf() && session.right != Right::patch)) {
    session.connection.stopReading();
  } else if ((events & EPOLLIN) != 0 || session.connection.deaf()) {
    session.connection.fill();
  }
  advance(client);
}

// Serves a client at once, unless others have waited for longer, or one who may patch waits.
void Server::advance(ClientId client) {
  Session& session = *sessions_.at(client);
  const bool othersFirst = backlog_ || (session.right != Right::patch && !patchers_.empty());
  if (wantsService(session) && !othersFirst && session.served != turn_ && budget_.left()) {
    serve(client, session, 0, Favour::none);
  }
  settle(client);
}

// Brings out what the socket takes, and sees to what comes next.
void Server::settle(ClientId client) {
  const auto found = sessions_.find(client);
  if (found == sessions_.end()) {
    return;
  }
  Session& session = *found->second;
  flush(session);
  if (session.connection.deaf() && session.answer) {
    endAnswer(session);
  }
  if (isDone(client, session)) {
    drop(client, "");
    return;
  }
  if (wantsService(session)) {
    wait(client, session);
  }
  keepPatience(client, session);
  watchFor(session);
}

void Server::wait(ClientId client, Session& session) {
  if (!std::exchange(session.waits, true)) {
    (session.right == Right::patch ? patchers_ : readers_).push_back(client);
    serveSoon();
  }
}

void Server::serveSoon() {
  if (serving_ == Service::EventLoop::TimerId::none) {
    serving_ = loop_.after(std::chrono::nanoseconds::zero(), [this] { serveTurn(); });
  }
}

// Waiting work takes its share of a turn. One client who may patch is served even where newcomers and others
// have used up the time of the turn. Clients and followed parts take turns at being first.
void Server::serveTurn() {
  serving_ = Service::EventLoop::TimerId::none;
  if (!patchers_.empty() && budget_.items() > 0) {
    serveNext(patchers_, 0, Favour::time);
  }
  if (turn_ % 2 == 0) {
    advanceSubscriptions();
    serveLanes();
  } else {
    serveLanes();
    advanceSubscriptions();
  }
  backlog_ = backlog_ && !(patchers_.empty() && readers_.empty());
  if (!patchers_.empty() || !readers_.empty() || subscriptions_.due()) {
    serveSoon();
  }
}

// Each client that waits has its turn, one who may patch and one who may not by turns; those that want more
// wait again.
void Server::serveLanes() {
  Lane patchers = std::exchange(patchers_, {});
  Lane readers = std::exchange(readers_, {});
  while ((!patchers.empty() || !readers.empty()) && budget_.left()) {
    for (Lane* const lane : {&patchers, &readers}) {
      if (!lane->empty() && budget_.left()) {
        serveNext(*lane, patchers.size() + readers.size() - 1, Favour::none);
      }
    }
  }
  backlog_ = !patchers.empty() || !readers.empty();
  patchers_.insert(patchers_.begin(), patchers.begin(), patchers.end());
  readers_.insert(readers_.begin(), readers.begin(), readers.end());
}

// Serves the first client of a lane; `others` wait beside it.
void Server::serveNext(Lane& lane, std::size_t others, Favour favour) {
  const ClientId client = lane.front();
  lane.pop_front();
  const auto found = sessions_.find(client);
  if (found == sessions_.end()) {
    return;
  }
  Session& session = *found->second;
  session.waits = false;
  contained(client, [&] {
    if (wantsService(session) && session.served != turn_) {
      serve(client, session, others, favour);
    }
    settle(client);
  });
}

// An error of a client ends that client alone.
void Server::contained(ClientId client, const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& error) {
    if (const auto found = sessions_.find(client); found != sessions_.end()) {
      failed(nullptr, found->second->name, error);
      ++stats_.dropped;
      drop(client, error.what());
    }
  }
}

// Whether there is something to do for it now: an answer to go on with, or a request.
bool Server::wantsService(const Session& session) const {
  const Connection& connection = session.connection;
  if (session.leaving) {
    return false;
  }
  if (session.answer) {
    return connection.pending() < options_.mostAhead;
  }
  return !session.busy && (connection.hasLine() || connection.lineTooLong()) &&
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
  const bool isTimed = session.patience != Service::EventLoop::TimerId::none;
  if (waits && !isTimed) {
    session.progress = loop_.now();
    session.patience = loop_.after(options_.patience, [this, client] { losePatience(client); });
  } else if (!waits && isTimed) {
    loop_.cancel(std::exchange(session.patience, Service::EventLoop::TimerId::none));
  }
}

void Server::losePatience(ClientId client) {
  Session& session = *sessions_.at(client);
  session.patience = Service::EventLoop::TimerId::none;
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
  loop_.forget(session.connection.fd());
  loop_.cancel(session.patience);
  loop_.dropWork(session.parsing);
  sessions_.erase(found);
  subscriptions_.unsubscribe(client);
  if (subscriptions_.due()) {
    serveSoon();  // to give memory back
  }
}

// Tells a client why it must go; it is dropped when that is out.
void Server::sendAway(Session& session, std::string_view why) {
  ++stats_.dropped;
  log("control client " + session.name + " dropped: " + std::string(why));
  session.connection.stopReading();
  session.connection.queue(
      errorLine(nullptr, Service::Refused("", std::string(why), Service::Refused::Kind::denied)),
      Connection::Kind::answer);
  session.leaving = true;
}

ServerStats Server::stats() const {
  ServerStats stats = stats_;
  stats.mostItems = budget_.most();
  return stats;
}

void Server::changed() {
  if (refreshing_ != Service::EventLoop::TimerId::none || subscriptions_.empty()) {
    return;
  }
  if (refreshIsOn_) {
    changedMeanwhile_ = true;
    return;
  }
  refreshing_ = loop_.after(earliestRefresh_ - loop_.now(), [this] { refresh(); });
}

void Server::refresh() {
  refreshing_ = Service::EventLoop::TimerId::none;
  refreshIsOn_ = true;
  refreshCost_ = {};
  subscriptions_.refresh();
  advanceSubscriptions();
  if (subscriptions_.due()) {
    serveSoon();
  }
}

void Server::advanceSubscriptions() {
  const Service::EventLoop::Clock::time_point began = loop_.now();
  subscriptions_.advance(budget_);
  if (!refreshIsOn_) {
    return;
  }
  const Service::EventLoop::Clock::time_point now = loop_.now();
  refreshCost_ += now - began;
  if (!subscriptions_.refreshing()) {
    refreshIsOn_ = false;
    earliestRefresh_ = now + std::max(options_.interval, idleShare * refreshCost_);
    if (std::exchange(changedMeanwhile_, false)) {
      changed();
    }
  }
}

void Server::log(std::string_view text) const {
  if (options_.log) {
    options_.log(text);
  }
}

}  // namespace Control
