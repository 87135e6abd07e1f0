#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Ovsdb {

// Where a database server listens: "unix:PATH", "tcp:HOST:PORT" or "ssl:HOST:PORT"; HOST is a name, an IPv4
// address, or an IPv6 address in brackets.
struct Remote {
  enum class Kind : std::uint8_t { unixSocket, tcp, ssl };

  Kind kind = Kind::unixSocket;
  std::string host;  // the path of a unix socket
  std::uint16_t port = 0;

  // Raises std::invalid_argument with a text that names what is wrong.
  static Remote parse(std::string_view text);
  // A list with commas between; at least one.
  static std::vector<Remote> parseList(std::string_view text);
  std::string text() const;

  friend bool operator==(const Remote&, const Remote&) = default;
};

}  // namespace Ovsdb
