#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/control/Service.h"

namespace Agent::Control {

// Who follows which part of the document. A part that several follow is read and compared once for all of
// them. A part that is not there has the value null, and may come to be there.
class Subscriptions {
 public:
  using ClientId = std::uint64_t;
  // Hands a client the text of a merge patch, with the id of its subscription; returns whether the client
  // could take it: if not, that subscription ends.
  using Deliver = std::function<bool(ClientId client, const nlohmann::json& id, const std::string& merge)>;

  Subscriptions(Service& service, Deliver deliver);

  // Follows the part at a well-formed `pointer` from now on, begun anew if the client follows it already.
  // Returns what is there now: the next patch that this client is given applies to it.
  nlohmann::json subscribe(ClientId client, const std::string& pointer, const nlohmann::json& id);
  // Ends all that `client` follows.
  void unsubscribe(ClientId client);
  std::size_t count(ClientId client) const;
  bool empty() const { return topics_.empty(); }

  // Reads every part that is followed and hands out what has changed since it was read last.
  void refresh();

 private:
  struct Topic {
    nlohmann::json value;                          // as all its followers know it
    std::map<ClientId, nlohmann::json> followers;  // with the ids of their subscriptions
  };

  nlohmann::json read(const std::string& pointer) const;
  void refresh(const std::string& pointer, Topic& topic);
  void dropUnfollowed();

  Service& service_;
  Deliver deliver_;
  std::map<std::string, Topic> topics_;  // by pointer; none is without followers
};

}  // namespace Agent::Control
