#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agent/vtep/Mapper.h"
#include "service/loop/EventLoop.h"
#include "service/ovsdb/Session.h"
#include "service/ovsdb/Transport.h"

namespace Agent::Vtep {

// The status of the adapter.
struct AdapterStatus {
  Ovsdb::SessionState session = Ovsdb::SessionState::backoff;
  std::string remote;  // in use, or tried last
  std::uint64_t reconnects = 0;
  std::uint64_t resumptions = 0;  // of them, those that went on where the last session ended
  std::string lastError;          // empty: none so far
  std::string problem;            // what an operator should know of the session now; empty: nothing
  std::uint64_t faults = 0;       // sessions that were left for a fault of the server
  std::uint64_t contained = 0;    // and for an exception
  std::string lastTransaction;
  std::uint64_t updates = 0;
  std::map<std::string, std::size_t> rows;  // by table
  std::size_t hostsPublished = 0;
  std::size_t duplicates = 0;
  std::map<std::string, std::size_t> problems;  // by kind, of those that there are
  bool converging = false;
  double convergingFor = 0;      // seconds; 0 when it is not
  std::string convergenceCause;  // of the last convergence
  std::uint64_t convergences = 0;
  std::chrono::nanoseconds longestSlice{0};  // of the adapter's own work in one piece

  nlohmann::json json() const;
};

// The controller database on the agent's event loop: session, transport and mapper put together. It reads,
// decides and answers by itself, a slice at a time; the agent takes the patches with next() whenever
// `onPending` has told that there are some, and until there are none. An exception while rows are taken,
// settled or published is contained here: the session is left, the reason counted and told, and it is tried
// again later.
class Adapter {
 public:
  struct Options {
    Ovsdb::SessionOptions session;
    MapperOptions mapper;
    Ovsdb::TlsOptions tls;
    std::size_t rowsPerSlice = 512;
    std::size_t bytesPerRead = std::size_t{256} * 1024;
  };

  // `loop` must outlive the adapter. `onPending` may call next(), and must not destroy the adapter. Raises
  // std::invalid_argument for options that cannot be.
  Adapter(Service::EventLoop& loop, Options options, std::function<void()> onPending,
          Ovsdb::Session::Log log);
  ~Adapter();
  Adapter(const Adapter&) = delete;
  Adapter& operator=(const Adapter&) = delete;

  // The next patch of the input document, with at most about `hosts` hosts; nothing when there is none now.
  std::optional<nlohmann::json> next(std::size_t hosts);
  bool pending() const;
  // JSON Pointers to the members of the input document that are the adapter's alone, whatever the database
  // has: all VTIs and their maps among them, so that no other VTI stands in its way.
  static std::vector<std::string> ownedPointers();

  // Other remotes, at least one; and other times of a convergence.
  void remotesAre(std::vector<Ovsdb::Remote> remotes);
  void convergenceOptionsAre(Convergence::Options options);

  AdapterStatus status() const;
  std::vector<Problem> problems(std::size_t most) const { return mapper_.problems(most); }
  nlohmann::json explain(Mac mac, std::optional<std::uint32_t> vni, std::optional<std::uint16_t> vlan) const {
    return mapper_.explain(mac, vni, vlan);
  }
  const Mapper& mapper() const { return mapper_; }

 private:
  double now() const;
  void turn();
  void timer();
  void ready();
  void connect();
  void establish();
  void flush();
  void watch();
  void forget();
  void arm();
  void startWork();
  bool slice();
  bool sliceOnce();
  bool readMore();
  bool settle();
  void holdWhileSettling();
  void contain(const std::string& why);
  void fail(const std::string& why);
  template <typename Part>
  auto measured(Part part);

  Service::EventLoop& loop_;
  Options options_;
  std::function<void()> onPending_;
  Mapper mapper_;
  Ovsdb::Session session_;
  Ovsdb::Transport transport_;
  bool up_ = false;  // the transport carries the session
  int watched_ = -1;
  std::uint32_t events_ = 0;
  Service::EventLoop::TimerId timer_ = Service::EventLoop::TimerId::none;
  double timerDue_ = 0;
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
  std::uint64_t contained_ = 0;
  double pausedUntil_ = 0;  // after an exception
  std::chrono::nanoseconds longestSlice_{0};
};

}  // namespace Agent::Vtep
