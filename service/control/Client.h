#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "service/control/UniqueFd.h"

namespace Control {

// Nobody answers at the socket: no file, no agent behind it, no answer in time, or the agent went away.
class Unreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The agent's "error" answer. `kind` is "refused", "notFound" or "denied".
class Refused : public std::runtime_error {
 public:
  Refused(std::string kind, std::string pointer, const std::string& reason)
      : std::runtime_error(pointer.empty() ? reason : pointer + ": " + reason),
        kind_(std::move(kind)),
        pointer_(std::move(pointer)) {}

  const std::string& kind() const { return kind_; }
  const std::string& pointer() const { return pointer_; }

 private:
  std::string kind_;
  std::string pointer_;
};

// A program's end of the control socket. It waits for each answer.
class Client {
 public:
  // Connects to the agent's socket. `patience` is how long an answer may take; none is for ever. Raises
  // Unreachable.
  explicit Client(const std::string& path,
                  std::optional<std::chrono::milliseconds> patience = std::chrono::seconds{30});

  // Each asks and returns the value of the answer. They raise Refused and Unreachable.
  void patch(const nlohmann::json& patch);
  nlohmann::json get(const std::string& pointer);
  nlohmann::json call(const std::string& method, nlohmann::json params = nlohmann::json::object());

  // Follows a part of the document; returns what is there now. Afterwards only next() is used.
  nlohmann::json subscribe(const std::string& pointer);
  // Waits, however long, for the next update: {"merge": ...}, or {"cut": true} when this reader was too slow.
  nlohmann::json next();

 private:
  nlohmann::json ask(const nlohmann::json& request);
  void send(const std::string& line);
  nlohmann::json receive(std::optional<std::chrono::milliseconds> patience);
  bool receiveMore(std::optional<std::chrono::milliseconds> patience);

  std::string path_;
  std::optional<std::chrono::milliseconds> patience_;
  UniqueFd socket_;
  std::string in_;
};

}  // namespace Control
