#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "service/control/Access.h"
#include "service/control/Answer.h"
#include "service/control/Backend.h"
#include "service/control/Connection.h"
#include "service/control/Listener.h"
#include "service/control/Places.h"
#include "service/control/Request.h"
#include "service/control/Subscriptions.h"
#include "service/control/TurnBudget.h"
#include "service/json/PieceParser.h"
#include "service/loop/EventLoop.h"

namespace Control {

// Where the server listens, whom it lets in, and how much of the agent a client may take.
struct ServerOptions {
  std::string path{};  // of the socket file
  Access access{};
  std::function<Peer(int socket)> identify = &peerOf;  // raises std::system_error
  Places places{};
  TurnBudget::Limits turn{};                              // of all clients together
  std::size_t longestLine = std::size_t{16} << 20;        // bytes of a request of who may patch
  std::size_t longestReaderLine = std::size_t{64} << 10;  // bytes of a request of who may only read
  std::size_t mostPending = std::size_t{1} << 20;         // bytes of updates that may wait for one client
  std::size_t mostAhead = std::size_t{256} << 10;         // bytes of an answer that may wait for one client
  std::size_t mostSubscriptions = 16;                     // of one client
  std::size_t mostFollowed = std::size_t{256} << 20;      // bytes of memory for all that is followed
  std::chrono::nanoseconds interval =
      std::chrono::milliseconds{100};  // between two updates of a followed part
  std::chrono::nanoseconds patience =
      std::chrono::seconds{30};                 // with a client that takes nothing of what waits
  std::function<void(std::string_view)> log{};  // one line without newline for each client that is dropped
  // Called for a request that met an error of the agent's own: with its method or place, and the error's
  // text.
  std::function<void(std::string_view where, std::string_view text)> failed{};
};

// The counts of the server since it began.
struct ServerStats {
  std::uint64_t accepted = 0;  // connections
  std::uint64_t requests = 0;  // lines answered, also those refused
  std::uint64_t refused = 0;   // of them, answered by an error
  std::uint64_t cut = 0;       // subscriptions that their reader was too slow for
  std::uint64_t failed = 0;    // requests and subscriptions that met an error of the agent's own
  std::uint64_t dropped = 0;   // clients that were sent away
  std::size_t mostItems = 0;   // that were dealt with in one turn of the loop, for all clients
};

// The control socket: JSON Lines over a unix socket, one request, one answer, in the order asked; subscribers
// get changes between their answers.
//
// It takes in the clients' requests and gives out what the service answers. No client holds up the agent or
// another client: all together have a budget a turn of the loop, of which requests, answers and followed
// parts take their shares in turn, those who may patch first; a turn answers one request of each client at
// most. A part of the document is printed a piece at a time, as far as its reader takes it: what fits into
// the first piece is one instant, more may span turns. An answer to a client that does not read waits, and
// meanwhile nothing more is read from it; updates for a reader that is too slow are bounded, and then the
// subscription is cut, which the reader is told; it may subscribe again. A client that takes nothing at all
// for a while is dropped. Places are given as Places says.
//
// An exception that leaves the service is answered as "failed", counted and told; the agent goes on.
//
// Changes are gathered: a part of the document is read and compared once an interval at most, and less often
// when that takes long, so that following a large part never takes more than a twentieth of the agent's time.
class Server {
 public:
  // Listens and serves until it is destroyed; `loop` and `service` outlive it. Raises std::runtime_error when
  // the socket cannot be had, with the path and why.
  Server(Service::EventLoop& loop, Backend& service, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The rights of users from now on; connected clients keep theirs. Raises std::runtime_error when
  // the socket file cannot be changed.
  void accessIs(const Access& access);

  std::size_t clients() const { return sessions_.size(); }
  ServerStats stats() const;

 private:
  using ClientId = Subscriptions::ClientId;

  struct Session {
    Connection connection;
    std::string name;
    uid_t user;
    Right right;
    Service::EventLoop::Clock::time_point idleSince;  // the last request, or the beginning
    bool leaving = false;                             // told why; goes when that is out
    bool busy = false;                                // with a request that takes more than one turn
    bool waits = false;                               // is in a lane
    std::uint64_t served = 0;                         // the turn in which it was served last
    std::unique_ptr<Service::PieceParser> parser{};
    Service::EventLoop::WorkId parsing = Service::EventLoop::WorkId::none;
    std::unique_ptr<Answer> answer{};                             // on its way out
    std::deque<std::pair<std::string, Connection::Kind>> held{};  // lines that come after it
    std::size_t heldBytes = 0;
    Service::EventLoop::Clock::time_point progress{};
    Service::EventLoop::TimerId patience = Service::EventLoop::TimerId::none;
    std::uint32_t events = 0;  // that the loop watches for
  };
  using Lane = std::deque<ClientId>;
  enum class Favour { none, time };  // time: served also when the time of the turn is used up

  void acceptClients();
  void restAccepting();
  void admit(Service::UniqueFd socket);
  std::string makeRoom(const Peer& peer, Right right);
  std::optional<Service::EventLoop::Clock::time_point> idleSince(ClientId client,
                                                                 const Session& session) const;
  void onReady(ClientId client, std::uint32_t events);
  void advance(ClientId client);
  void settle(ClientId client);
  bool isDone(ClientId client, const Session& session) const;
  bool wantsService(const Session& session) const;
  void watchFor(Session& session);
  void keepPatience(ClientId client, Session& session);
  void losePatience(ClientId client);
  void flush(Session& session);
  void drop(ClientId client, std::string_view why);
  void sendAway(Session& session, std::string_view why);

  void wait(ClientId client, Session& session);
  void serveSoon();
  void serveTurn();
  void serveLanes();
  void serveNext(Lane& lane, std::size_t others, Favour favour);
  void serve(ClientId client, Session& session, std::size_t others, Favour favour);
  void contained(ClientId client, const std::function<void()>& work);

  void answerNext(ClientId client, Session& session);
  void continueAnswer(ClientId client, Session& session, std::size_t others);
  void beginAnswer(Session& session, std::unique_ptr<Answer> answer);
  void endAnswer(Session& session);
  void parseInPieces(ClientId client, Session& session, std::string&& line);
  bool parsePiece(ClientId client);
  template <typename Read>
  void answer(ClientId client, Session& session, Read read);
  void carryOut(ClientId client, Session& session, Request request);
  void patch(ClientId client, Session& session, Request request);
  void answerLate(ClientId client, const nlohmann::json& id, const std::optional<Service::Refused>& refused,
                  std::string line);
  std::string ask(ClientId client, Session& session, const Request& request);
  std::string refuse(std::string line);
  std::string failed(const nlohmann::json& id, std::string_view who, const std::exception& error);
  Subscriptions::Hooks subscriptionHooks();
  void subscriptionFails(ClientId client, const nlohmann::json& id, bool began, const std::exception& why);
  bool deliver(ClientId client, const nlohmann::json& id, const std::string& merge);
  void queueBehind(Session& session, std::string line, Connection::Kind kind);

  void changed();
  void refresh();
  void advanceSubscriptions();
  void log(std::string_view text) const;

  Service::EventLoop& loop_;
  Backend& service_;
  ServerOptions options_;
  Listener listener_;
  Subscriptions subscriptions_;
  std::map<ClientId, std::unique_ptr<Session>> sessions_;
  ClientId lastClient_ = 0;
  ServerStats stats_;

  TurnBudget budget_;
  std::uint64_t turn_ = 1;
  Lane patchers_;  // clients that wait to be served, in their order
  Lane readers_;
  bool backlog_ = false;  // some of them could not be served in the last turn
  Service::EventLoop::HookId turnHook_ = Service::EventLoop::HookId::none;
  Service::EventLoop::TimerId serving_ = Service::EventLoop::TimerId::none;  // armed while somebody waits
  Service::EventLoop::TimerId resting_ =
      Service::EventLoop::TimerId::none;  // armed while no descriptor is left
  Service::EventLoop::TimerId refreshing_ =
      Service::EventLoop::TimerId::none;  // armed while a change is to be told
  bool refreshIsOn_ = false;
  bool changedMeanwhile_ = false;
  std::chrono::nanoseconds refreshCost_{};
  Service::EventLoop::Clock::time_point earliestRefresh_{};
};

}  // namespace Control
