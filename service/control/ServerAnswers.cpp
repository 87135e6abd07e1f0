// How the server answers what its clients ask for.
#include <algorithm>
#include <stdexcept>
#include <utility>

#include "service/control/Server.h"

namespace Control {

namespace {

using nlohmann::json;

constexpr std::size_t largeLine = std::size_t{64} << 10;  // is read a part at a time
constexpr std::size_t pieceOfLine = std::size_t{32} << 10;
constexpr std::size_t requestItems = 32;  // what a request counts for
constexpr std::size_t fewestItems = 256;  // of a piece of an answer

}  // namespace

// `others`: how many clients wait for their share of the turn.
void Server::serve(ClientId client, Session& session, std::size_t others, Favour favour) {
  session.served = turn_;
  session.idleSince = loop_.now();
  if (!session.answer) {
    budget_.use(requestItems);
    answerNext(client, session);
  }
  const bool mayGoOn = favour == Favour::time ? budget_.items() > 0 : budget_.left();
  if (session.answer && session.connection.pending() < options_.mostAhead && mayGoOn) {
    continueAnswer(client, session, others);
  }
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
  session.parser = std::make_unique<Service::PieceParser>(std::move(line));
  session.parsing = loop_.addWork([this, client] {
    bool more = false;
    contained(client, [&] { more = parsePiece(client); });
    return more;
  });
}

bool Server::parsePiece(ClientId client) {
  Session& session = *sessions_.at(client);
  if (session.parser->step(pieceOfLine)) {
    return true;
  }
  const std::unique_ptr<Service::PieceParser> parser = std::move(session.parser);
  session.parsing = Service::EventLoop::WorkId::none;
  session.busy = false;
  answer(client, session,
         [&] { return parser->well() ? Request::of(parser->take()) : Request::parse(parser->text()); });
  settle(client);
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
  } catch (const std::exception& error) {
    session.connection.queue(failed(nullptr, session.name, error), Connection::Kind::answer);
    return;
  }
  carryOut(client, session, std::move(request));
}

void Server::carryOut(ClientId client, Session& session, Request request) {
  const json id = request.id;
  std::string line;
  try {
    const bool changes = request.verb == Request::Verb::patch ||
                         (request.verb == Request::Verb::call && service_.callChanges(request.target));
    if (changes && session.right != Right::patch) {
      line = refuse(errorLine(id, "denied", {"", session.name + " may only read"}));
    } else if (request.verb == Request::Verb::patch) {
      patch(client, session, std::move(request));
    } else {
      line = ask(client, session, request);
    }
  } catch (const RequestError& error) {
    line = refuse(errorLine(id, error));
  } catch (const std::exception& error) {
    line = failed(id, session.name, error);
  }
  if (!line.empty()) {
    session.busy = false;
    session.connection.queue(std::move(line), Connection::Kind::answer);
  }
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
                   Session& asker = *found->second;
                   asker.busy = false;
                   std::string line = okLine(id);
                   if (refusal && refusal->failed) {
                     line = failed(id, asker.name, std::runtime_error(refusal->reason));
                   } else if (refusal) {
                     line = refuse(errorLine(id, "refused", *refusal));
                   }
                   asker.connection.queue(std::move(line), Connection::Kind::answer);
                   asker.idleSince = loop_.now();
                   wait(client, asker);
                 });
}

// Asks the service for what is no patch. Returns the answer, or nothing if it comes in pieces.
std::string Server::ask(ClientId client, Session& session, const Request& request) {
  if (session.connection.deaf() && request.verb != Request::Verb::call) {
    return {};  // it changes nothing, and nobody hears it
  }
  switch (request.verb) {
    case Request::Verb::subscribe:
      if (subscriptions_.count(client) >= options_.mostSubscriptions) {
        return refuse(
            errorLine(request.id, "refused",
                      {"", "at most " + std::to_string(options_.mostSubscriptions) + " subscriptions"}));
      }
      session.busy = true;
      subscriptions_.subscribe(client, request.target, request.id);
      advanceSubscriptions();
      serveSoon();
      return {};
    case Request::Verb::call:
      try {
        return valueLine(request.id, service_.call(request.target, request.content));
      } catch (const json::exception& error) {  // a parameter of another type than the method takes
        return refuse(errorLine(request.id, "refused", {"", error.what()}));
      }
    case Request::Verb::get:
    case Request::Verb::patch:
      break;
  }
  beginAnswer(session, std::make_unique<Answer>(request.id, request.target, service_.part(request.target),
                                                Answer::Nothing::isError));
  return {};
}

void Server::beginAnswer(Session& session, std::unique_ptr<Answer> answer) {
  session.busy = true;
  session.answer = std::move(answer);
}

// A piece of the answer: the first is one instant, the others are a share of the turn.
void Server::continueAnswer(ClientId client, Session& session, std::size_t others) {
  Answer& answer = *session.answer;
  const std::size_t items =
      answer.fresh() ? budget_.instant() : std::max(fewestItems, budget_.items() / (others + 1));
  std::string text;
  try {
    budget_.use(answer.step(items, text));
    if (!answer.ended()) {
      session.connection.queuePiece(std::move(text));
      return;
    }
  } catch (const RequestError& error) {
    text = refuse(errorLine(answer.id(), error));
  } catch (const std::exception& error) {
    const bool begun = answer.begun();
    text = failed(answer.id(), session.name, error);
    if (begun) {  // the line cannot be taken back
      ++stats_.dropped;
      drop(client, "an answer failed halfway");
      return;
    }
  }
  session.connection.queue(std::move(text), Connection::Kind::answer);
  endAnswer(session);
}

void Server::endAnswer(Session& session) {
  session.answer.reset();
  session.busy = false;
  for (auto& [line, kind] : std::exchange(session.held, {})) {
    session.connection.queue(std::move(line), kind);
  }
  session.heldBytes = 0;
}

std::string Server::refuse(std::string line) {
  ++stats_.refused;
  return line;
}

// The answer where the agent itself met an error. The text of the error is for the log and the problems.
std::string Server::failed(const json& id, std::string_view who, const std::exception& error) {
  ++stats_.failed;
  if (options_.failed) {
    options_.failed(who, error.what());
  }
  return refuse(errorLine(id, "failed", {"", std::string("an error of the agent: ") + error.what()}));
}

Subscriptions::Hooks Server::subscriptionHooks() {
  Subscriptions::Hooks hooks;
  hooks.deliver = [this](ClientId client, const json& id, const std::string& merge) {
    return deliver(client, id, merge);
  };
  hooks.begin = [this](ClientId client, const json& id, Service::Part value) {
    Session& session = *sessions_.at(client);
    beginAnswer(session, std::make_unique<Answer>(id, "", std::move(value), Answer::Nothing::isNull));
    wait(client, session);
  };
  hooks.fail = [this](ClientId client, const json& id, bool began, const std::exception& why) {
    subscriptionFails(client, id, began, why);
  };
  return hooks;
}

// A subscription that has begun is cut; one that has not is answered.
void Server::subscriptionFails(ClientId client, const json& id, bool began, const std::exception& why) {
  Session& session = *sessions_.at(client);
  if (began) {
    ++stats_.cut;
    failed(id, session.name, why);
    queueBehind(session, cutLine(id), Connection::Kind::answer);
  } else {
    const auto* refusal = dynamic_cast<const RequestError*>(&why);
    session.busy = false;
    session.connection.queue(
        refusal != nullptr ? refuse(errorLine(id, *refusal)) : failed(id, session.name, why),
        Connection::Kind::answer);
  }
  wait(client, session);
}

bool Server::deliver(ClientId client, const json& id, const std::string& merge) {
  Session& session = *sessions_.at(client);
  std::string line = mergeLine(id, merge);
  const bool fits =
      session.connection.pendingUpdates() + session.heldBytes + line.size() <= options_.mostPending;
  if (fits) {
    queueBehind(session, std::move(line), Connection::Kind::update);
  } else {
    ++stats_.cut;
    queueBehind(session, cutLine(id), Connection::Kind::answer);
  }
  wait(client, session);
  return fits;
}

// Queues a line, behind the answer that is on its way out.
void Server::queueBehind(Session& session, std::string line, Connection::Kind kind) {
  if (!session.answer) {
    session.connection.queue(std::move(line), kind);
  } else {
    session.heldBytes += line.size();
    session.held.emplace_back(std::move(line), kind);
  }
}

}  // namespace Control
