#include "service/metrics/Endpoint.h"

#include <netdb.h>
#include <netinet/in.h>
#include <prometheus/text_serializer.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace Service {

namespace {

constexpr int acceptedAtOnce = 16;
constexpr std::chrono::seconds rest{1};  // after the system had no descriptor left
constexpr std::string_view endOfHead = "\r\n\r\n";

struct Address {
  std::string host;  // empty: all interfaces
  std::string port;
};

// "HOST:PORT", "[HOST]:PORT" or "PORT".
Address parse(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  Address address;
  address.port = text.substr(colon == std::string::npos ? 0 : colon + 1);
  address.host = colon == std::string::npos ? "" : text.substr(0, colon);
  if (address.host.starts_with('[') && address.host.ends_with(']')) {
    address.host = address.host.substr(1, address.host.size() - 2);
  }
  return address;
}

int listenAt(const addrinfo& where) {
  const int fd =
      ::socket(where.ai_family, where.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, where.ai_protocol);
  const int on = 1;
  if (fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      ::bind(fd, where.ai_addr, where.ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0) {
    return fd;
  }
  const int error = errno;
  if (fd >= 0) {
    ::close(fd);
  }
  throw std::system_error(error, std::generic_category());
}

int listenAt(const std::string& text) {
  try {
    const Address address = parse(text);
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_family = address.host.empty() ? AF_INET : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const char* const host = address.host.empty() ? nullptr : address.host.c_str();
    if (const int error = ::getaddrinfo(host, address.port.c_str(), &hints, &found); error != 0) {
      throw std::runtime_error(::gai_strerror(error));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, &::freeaddrinfo);
    return listenAt(*addresses);
  } catch (const std::exception& error) {
    throw std::runtime_error("metrics endpoint " + text + ": " + error.what());
  }
}

std::string response(const char* status, const std::string& type, const std::string& body, bool headOnly) {
  return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
         (headOnly ? "" : body);
}

std::string refusal(const char* status, bool headOnly = false) {
  return response(status, "text/plain", std::string(status) + "\n", headOnly);
}

}  // namespace

MetricsEndpoint::MetricsEndpoint(EventLoop& loop, const std::string& address, Families families,
                                 const Limits& limits)
    : loop_(loop), families_(std::move(families)), limits_(limits), listener_(listenAt(address)) {
  loop_.watch(listener_, EPOLLIN, [this](std::uint32_t) { accept(); });
}

MetricsEndpoint::~MetricsEndpoint() {
  while (!clients_.empty()) {
    drop(clients_.begin()->first);
  }
  loop_.cancel(resting_);
  loop_.forget(listener_);
  ::close(listener_);
}

int MetricsEndpoint::port() const {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  // The port lies at the same place in both families.
  return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

void MetricsEndpoint::accept() {
  for (int i = 0; i < acceptedAtOnce; ++i) {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      admit(fd);
    } else if (errno == EAGAIN) {
      return;
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      // The connection stays in the backlog and would be found ready in every turn.
      loop_.change(listener_, 0);
      resting_ = loop_.after(rest, [this] { loop_.change(listener_, EPOLLIN); });
      return;
    }
  }
}

void MetricsEndpoint::admit(int fd) {
  if (clients_.size() >= limits_.clients) {
    drop(clients_.begin()->first);
  }
  const ClientId id = ++lastClient_;
  Client& client = clients_.emplace(id, Client{fd}).first->second;
  client.end = loop_.after(limits_.time, [this, id] { drop(id); });
  loop_.watch(fd, EPOLLIN, [this, id](std::uint32_t) { onReady(id); });
}

void MetricsEndpoint::onReady(ClientId id) {
  Client& client = clients_.at(id);
  bool goesOn = true;
  if (client.answer.empty()) {
    goesOn = read(client);
  }
  if (goesOn && !client.answer.empty()) {
    goesOn = write(client);
  }
  if (!goesOn) {
    drop(id);
  }
}

// Takes in what is there of the request, and prepares the answer when its head is whole. False when the
// client has gone before.
bool MetricsEndpoint::read(Client& client) const {
  std::array<char, 4096> some{};
  const ssize_t got = ::recv(client.fd, some.data(), some.size(), 0);
  if (got <= 0) {
    return got < 0 && (errno == EAGAIN || errno == EINTR);
  }
  client.request.append(some.data(), static_cast<std::size_t>(got));
  if (client.request.find(endOfHead) != std::string::npos) {
    client.answer = answer(client.request);
  } else if (client.request.size() > limits_.request) {
    client.answer = refusal("431 Request Header Fields Too Large");
  }
  return true;
}

// False when all is out, or the client has gone.
bool MetricsEndpoint::write(Client& client) {
  const ssize_t sent = ::send(client.fd, client.answer.data() + client.sent,
                              client.answer.size() - client.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && errno != EAGAIN && errno != EINTR) {
    return false;
  }
  client.sent += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
  if (client.sent == client.answer.size()) {
    ::shutdown(client.fd, SHUT_WR);
    return false;
  }
  loop_.change(client.fd, EPOLLOUT);
  return true;
}

// The answer to a request of which the head is whole: "GET /metrics HTTP/1.1" and header fields.
std::string MetricsEndpoint::answer(const std::string& request) const {
  const std::string line = request.substr(0, request.find("\r\n"));
  const std::size_t first = line.find(' ');
  const std::size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
  if (second == std::string::npos || !line.substr(second + 1).starts_with("HTTP/1.")) {
    return refusal("400 Bad Request");
  }
  const std::string method = line.substr(0, first);
  const std::string target = line.substr(first + 1, second - first - 1);
  const bool headOnly = method == "HEAD";
  if (method != "GET" && !headOnly) {
    return refusal("405 Method Not Allowed");
  }
  if (target.substr(0, target.find('?')) != "/metrics") {
    return refusal("404 Not Found", headOnly);
  }
  try {
    return response("200 OK", "text/plain; version=0.0.4; charset=utf-8",
                    prometheus::TextSerializer().Serialize(families_()), headOnly);
  } catch (const std::exception&) {
    return refusal("500 Internal Server Error", headOnly);
  }
}

void MetricsEndpoint::drop(ClientId id) {
  const auto client = clients_.find(id);
  loop_.cancel(client->second.end);
  loop_.forget(client->second.fd);
  ::close(client->second.fd);
  clients_.erase(client);
}

}  // namespace Service
