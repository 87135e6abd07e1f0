#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "service/control/Backend.h"
#include "service/control/Mirror.h"
#include "service/control/TurnBudget.h"

namespace Control {

// The clients that follow parts of the document. A part that several follow is read and compared once for all
// of them, a piece at a time. A part that is not there has the value null, and may come to be there.
class Subscriptions {
 public:
  using ClientId = std::uint64_t;
  using Id = nlohmann::json;  // of a subscription: that of the request that began it

  struct Hooks {
    // Hands a client the text of a merge patch; returns whether the client could take it: if not, that
    // subscription ends.
    std::function<bool(ClientId client, const Id& id, const std::string& merge)> deliver;
    // The subscription begins, with this value; what is delivered later applies to it. `value` may be walked
    // at leisure.
    std::function<void(ClientId client, const Id& id, Service::Part value)> begin;
    // The part cannot be read. The subscription ends; `began`: whether it had begun.
    std::function<void(ClientId client, const Id& id, bool began, const std::exception& why)> fail;
  };

  // `mostBytes`: of memory for all that is followed, about; beyond it new subscriptions are refused.
  Subscriptions(Backend& service, Hooks hooks, std::size_t mostBytes);

  // Follows the part at a well-formed `pointer`, begun again if the client follows it already. It begins when
  // the part has been read. Raises Service::Refused when there is no memory for it.
  void subscribe(ClientId client, const std::string& pointer, const Id& id);
  // Ends all that `client` follows.
  void unsubscribe(ClientId client);
  std::size_t count(ClientId client) const;
  bool empty() const { return topics_.empty(); }

  // Every part that is followed is to be read, and what has changed since it was read last handed out.
  void refresh();
  // Whether there is something to read, or memory to be given back.
  bool due() const { return !due_.empty() || memory_->due(); }
  // Whether a refresh is under way: some of what was followed then is still to be read.
  bool refreshing() const;
  // Goes on with that, as far as the budget of this turn goes.
  void advance(TurnBudget& budget);

  std::size_t bytes() const { return memory_->bytes(); }

 private:
  using Clients = std::map<ClientId, Id>;

  struct Topic {
    explicit Topic(const std::shared_ptr<MirrorMemory>& memory) : mirror(memory) {}

    Mirror mirror;
    Clients followers{};
    Clients joining{};   // wait for the round that is under way
    Clients arriving{};  // wait for the next
    std::optional<Service::Records> records{};
    bool inRound = false;
    bool isDue = false;
    bool ofRefresh = false;    // is to be read for a refresh
    bool endsRefresh = false;  // the round that is under way does
    bool isNew = true;         // nothing is known yet
  };

  void becomesDue(const std::string& pointer, Topic& topic);
  bool step(const std::string& pointer, Topic& topic, TurnBudget& budget);
  void beginRound(const std::string& pointer, Topic& topic);
  bool read(const std::string& pointer, Topic& topic, std::size_t& items);
  void tell(const std::string& pointer, Topic& topic);
  void endRound(const std::string& pointer, Topic& topic);
  void fail(const std::string& pointer, Topic& topic, const std::exception& why);
  void ended(ClientId client, const std::string& pointer);
  void dropIfUnfollowed(const std::string& pointer);

  Backend& service_;
  Hooks hooks_;
  std::size_t mostBytes_;
  std::shared_ptr<MirrorMemory> memory_ = std::make_shared<MirrorMemory>();
  std::map<std::string, Topic> topics_;                 // by pointer; none is without clients
  std::map<ClientId, std::set<std::string>> followed_;  // the pointers of each client
  std::deque<std::string> due_;  // pointers of topics to be read, some of which may be gone
};

}  // namespace Control
