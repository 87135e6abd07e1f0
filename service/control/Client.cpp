#include "service/control/Client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "service/control/Request.h"
#include "service/json/Text.h"

namespace Control {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;

std::string textOf(int error) {
  return std::generic_category().message(error);
}

}  // namespace

Client::Client(const std::string& path, std::optional<milliseconds> patience)
    : path_(path), patience_(patience), socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw Unreachable(path + ": no path of a socket");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (!socket_ || connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw Unreachable("no agent at " + path + ": " + textOf(errno));
  }
}

void Client::patch(const json& patch) {
  ask({{"patch", patch}});
}

json Client::get(const std::string& pointer) {
  return ask({{"get", pointer}}).at("value");
}

json Client::call(const std::string& method, json params) {
  return ask({{"call", method}, {"params", std::move(params)}}).at("value");
}

json Client::subscribe(const std::string& pointer) {
  return ask({{"subscribe", pointer}}).at("value");
}

json Client::next() {
  return receive(std::nullopt);
}

json Client::ask(const json& request) {
  send(lineText(request));
  json answer = receive(patience_);
  if (const auto error = answer.find("error"); error != answer.end()) {
    throw Refused(error->value("kind", "refused"), error->value("pointer", ""), error->value("reason", ""));
  }
  return answer;
}

// An agent that does not want to hear the rest closes its end, but has said why before.
void Client::send(const std::string& line) {
  const std::string text = line + '\n';
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t bytes = ::send(socket_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (bytes >= 0) {
      sent += static_cast<std::size_t>(bytes);
    } else if (errno != EINTR) {
      return;
    }
  }
}

json Client::receive(std::optional<milliseconds> patience) {
  std::size_t newline = in_.find('\n');
  while (newline == std::string::npos) {
    const std::size_t scanned = in_.size();
    if (!receiveMore(patience)) {
      throw Unreachable("the agent at " + path_ + " has closed the connection");
    }
    newline = in_.find('\n', scanned);
  }
  const std::string line = in_.substr(0, newline);
  in_.erase(0, newline + 1);
  try {
    return Service::parseJson(line);
  } catch (const Service::BadJson&) {
    throw Unreachable("what answers at " + path_ + " is no agent");
  }
}

bool Client::receiveMore(std::optional<milliseconds> patience) {
  pollfd readable{socket_.get(), POLLIN, 0};
  int count = 0;
  do {
    count = poll(&readable, 1, patience ? static_cast<int>(patience->count()) : -1);
  } while (count < 0 && errno == EINTR);
  if (count == 0) {
    throw Unreachable("the agent at " + path_ + " has not answered within " +
                      std::to_string(patience->count()) + " ms");
  }
  std::array<char, 65536> buffer;
  const ssize_t bytes = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  if (bytes <= 0) {
    return false;
  }
  in_.append(buffer.data(), static_cast<std::size_t>(bytes));
  return true;
}

}  // namespace Control
