#include "service/ovsdb/Remote.h"

#include <charconv>

namespace Ovsdb {

namespace {

// The longest path that fits the kernel's address of a unix socket, without the final zero.
constexpr std::size_t longestPath = 107;

[[noreturn]] void refuse(std::string_view text, std::string_view why) {
  throw std::invalid_argument("\"" + std::string{text} + "\": " + std::string{why});
}

Remote parseHostPort(Remote::Kind kind, std::string_view whole, std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) {
    refuse(whole, "want HOST:PORT");
  }
  std::string_view host = text.substr(0, colon);
  if (host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string_view::npos) {
    refuse(whole, "an IPv6 address stands in brackets");
  }
  const std::string_view digits = text.substr(colon + 1);
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (error != std::errc{} || end != digits.data() + digits.size() || port == 0) {
    refuse(whole, "the port is not a number from 1 to 65535");
  }
  if (host.empty()) {
    refuse(whole, "want HOST:PORT");
  }
  return {.kind = kind, .host = std::string{host}, .port = port};
}

}  // namespace

Remote Remote::parse(std::string_view text) {
  if (text.starts_with("unix:")) {
    const std::string_view path = text.substr(5);
    if (path.empty() || path.size() > longestPath) {
      refuse(text, "the path of a unix socket has 1 to 107 bytes");
    }
    return {.kind = Kind::unixSocket, .host = std::string{path}, .port = 0};
  }
  if (text.starts_with("tcp:")) {
    return parseHostPort(Kind::tcp, text, text.substr(4));
  }
  if (text.starts_with("ssl:")) {
    return parseHostPort(Kind::ssl, text, text.substr(4));
  }
  refuse(text, "want unix:PATH, tcp:HOST:PORT or ssl:HOST:PORT");
}

std::vector<Remote> Remote::parseList(std::string_view text) {
  std::vector<Remote> remotes;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t comma = std::min(text.find(',', begin), text.size());
    remotes.push_back(parse(text.substr(begin, comma - begin)));
    begin = comma + 1;
  }
  return remotes;
}

std::string Remote::text() const {
  if (kind == Kind::unixSocket) {
    return "unix:" + host;
  }
  const bool brackets = host.find(':') != std::string::npos;
  return (kind == Kind::tcp ? "tcp:" : "ssl:") + (brackets ? "[" + host + "]" : host) + ":" +
         std::to_string(port);
}

}  // namespace Ovsdb
