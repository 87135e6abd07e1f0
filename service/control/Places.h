#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Control {

// How many clients there may be, and who may come when the places run out.
//
// Those who may patch have places that nobody else gets, and a user who may only read has a limit of his own,
// so that neither many users nor one of them lock out an operator who has to repair something. The client
// that has been idle for longest makes room: a reader for his own user first and then for everybody, one who
// may patch only for another who may.
struct Places {
  using Clock = std::chrono::steady_clock;

  struct Client {
    std::uint64_t id = 0;
    uid_t user = 0;
    bool mayPatch = false;
    // Since when it has nothing asked for, nothing to take and no subscription; none: it is busy.
    std::optional<Clock::time_point> idleSince{};
  };

  struct Verdict {
    bool admitted = false;
    std::optional<std::uint64_t> leaves{};  // the client that makes room
    std::string reason{};                   // of a refusal
  };

  std::size_t all = 64;
  std::size_t reserved = 8;   // of them, for those who may patch
  std::size_t ofReader = 16;  // of one user who may only read
  std::chrono::nanoseconds idle{
      std::chrono::seconds{1}};  // a client is idle when nothing happens for so long

  // Whether a client of this user may come; `here` are those who hold a place now.
  Verdict newcomer(uid_t user, bool mayPatch, const std::vector<Client>& here, Clock::time_point now) const;
};

}  // namespace Control
