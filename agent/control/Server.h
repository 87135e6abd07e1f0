#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "agent/control/Access.h"
#include "agent/control/Connection.h"
#include "agent/control/Listener.h"
#include "agent/control/Request.h"
#include "agent/control/Service.h"
#include "agent/control/Subscriptions.h"
#include "agent/json/PieceParser.h"
#include "agent/loop/EventLoop.h"

namespace Agent::Control {

// Where the server listens, whom it lets in, and how much of the agent a client may take.
struct ServerOptions {
  std::string path{};  // of the socket file
  Access access{};
  std::function<Peer(int socket)> identify = &peerOf;  // raises std::system_error
  std::size_t mostClients = 64;
  std::size_t longestLine = std::size_t{16} << 20;        // bytes of a request of who may patch
  std::size_t longestReaderLine = std::size_t{64} << 10;  // bytes of a request of who may only read
  std::size_t mostPending = std::size_t{1} << 20;         // bytes of updates that may wait for one client
  std::size_t mostSubscriptions = 16;                     // of one client
  std::chrono::nanoseconds interval =
      std::chrono::milliseconds{100};  // between two updates of a followed part
  std::chrono::nanoseconds patience =
      std::chrono::seconds{30};                 // with a client that takes nothing of what waits
  std::function<void(std::string_view)> log{};  // one line without newline for each client that is dropped
};

// What the server has done since it began.
struct ServerStats {
  std::uint64_t accepted = 0;  // connections
  std::uint64_t requests = 0;  // lines answered, also those refused
  std::uint64_t refused = 0;   // of them, answered by an error
  std::uint64_t cut = 0;       // subscriptions that their reader was too slow for
  std::uint64_t dropped = 0;   // clients that were sent away
};

// The control socket: JSON Lines over a unix socket, one request, one answer, in the order asked; subscribers
// are told of changes between their answers.
//
// It takes in the clients' requests and gives out what the service answers. No client holds up the agent or
// another client: a turn of the loop answers one request of each client at most; what is answered to somebody
// who does not read waits, and meanwhile nothing more is read from him; updates for a reader who is too slow
// are bounded, and then the subscription is cut and he is told so, and may subscribe anew. Who takes nothing
// at all for a while is dropped.
//
// Changes are gathered: a part of the document is read and compared once an interval at most, and less often
// when that takes long, so that following a large part never takes more than a twentieth of the agent's time.
class Server {
 public:
  // Listens and serves until it is destroyed; `loop` and `service` outlive it. Raises std::runtime_error when
  // the socket cannot be had, with the path and why.
  Server(EventLoop& loop, Service& service, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Who may do what from now on; those who are connected keep what they have. Raises std::runtime_error when
  // the socket file cannot be changed.
  void accessIs(const Access& access);

  std::size_t clients() const { return sessions_.size(); }
  const ServerStats& stats() const { return stats_; }

 private:
  using ClientId = Subscriptions::ClientId;

  struct Session {
    Connection connection;
    std::string name;
    Right right;
    bool leaving = false;  // told why; goes when that is out
    bool busy = false;     // with a request that takes more than one turn
    std::unique_ptr<PieceParser> parser{};
    EventLoop::WorkId parsing = EventLoop::WorkId::none;
    EventLoop::Clock::time_point progress{};
    EventLoop::TimerId patience = EventLoop::TimerId::none;
    EventLoop::TimerId next = EventLoop::TimerId::none;
    std::uint32_t events = 0;  // that the loop watches for
  };

  void acceptClients();
  void restAccepting();
  void admit(UniqueFd socket);
  void onReady(ClientId client, std::uint32_t events);
  void advance(ClientId client);
  void advanceSoon(ClientId client, Session& session);
  bool isDone(ClientId client, const Session& session) const;
  bool takesRequests(const Session& session) const;
  void watchFor(Session& session);
  void keepPatience(ClientId client, Session& session);
  void losePatience(ClientId client);
  void flush(Session& session);
  void drop(ClientId client, std::string_view why);
  void sendAway(Session& session, std::string_view why);

  void answerNext(ClientId client, Session& session);
  void parseInPieces(ClientId client, Session& session, std::string line);
  bool parsePiece(ClientId client);
  template <typename Read>
  void answer(ClientId client, Session& session, Read read);
  void carryOut(ClientId client, Session& session, Request request);
  void patch(ClientId client, Session& session, Request request);
  std::string carriedOut(ClientId client, const Request& request);
  std::string refuse(std::string line);
  bool deliver(ClientId client, const nlohmann::json& id, const std::string& merge);

  void changed();
  void refresh();
  void log(std::string_view text) const;

  EventLoop& loop_;
  Service& service_;
  ServerOptions options_;
  Listener listener_;
  Subscriptions subscriptions_;
  std::map<ClientId, std::unique_ptr<Session>> sessions_;
  ClientId lastClient_ = 0;
  ServerStats stats_;
  EventLoop::TimerId resting_ = EventLoop::TimerId::none;     // armed while no descriptor is left
  EventLoop::TimerId refreshing_ = EventLoop::TimerId::none;  // armed while a change is to be told
  EventLoop::Clock::time_point earliestRefresh_{};
};

}  // namespace Agent::Control
