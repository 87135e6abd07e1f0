#include "service/control/Places.h"

#include <algorithm>
#include <functional>

namespace Control {

namespace {

using Client = Places::Client;

std::size_t countOf(const std::vector<Client>& clients, const std::function<bool(const Client&)>& which) {
  return static_cast<std::size_t>(std::ranges::count_if(clients, which));
}

}  // namespace

Places::Verdict Places::newcomer(uid_t user, bool mayPatch, const std::vector<Client>& here,
                                 Clock::time_point now) const {
  const auto isReader = [](const Client& client) { return !client.mayPatch; };
  const auto isOwn = [user](const Client& client) { return !client.mayPatch && client.user == user; };
  const auto longestIdle = [&](const std::function<bool(const Client&)>& which) {
    std::optional<Client> found;
    for (const Client& client : here) {
      const bool isIdle = client.idleSince && now - *client.idleSince >= idle;
      if (isIdle && which(client) && (!found || *client.idleSince < *found->idleSince)) {
        found = client;
      }
    }
    return found ? std::optional(found->id) : std::nullopt;
  };

  if (!mayPatch && countOf(here, isOwn) >= ofReader) {
    const auto leaves = longestIdle(isOwn);
    return {leaves.has_value(), leaves,
            "too many clients of this user: " + std::to_string(ofReader) + " are here already"};
  }
  const std::size_t taken = mayPatch ? here.size() : countOf(here, isReader);
  const std::size_t room = mayPatch ? all : all - std::min(all, reserved);
  if (here.size() < all && taken < room) {
    return {true, {}, {}};
  }
  auto leaves = longestIdle(isReader);
  if (!leaves && mayPatch) {
    leaves = longestIdle([](const Client& client) { return client.mayPatch; });
  }
  return {leaves.has_value(), leaves,
          "too many clients: " + std::to_string(here.size()) + " are here already"};
}

}  // namespace Control
