#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "service/ovsdb/Remote.h"
#include "service/ovsdb/Tls.h"

namespace Ovsdb {

// The connection failed, or the peer closed it.
class TransportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One connection to a remote at a time; no operation waits. A host's name is looked up by the C library
// beside the caller, then the addresses are tried one after the other. All operations but close() raise
// TransportError; the connection is of no use then.
class Transport {
 public:
  explicit Transport(TlsOptions tls);
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  void open(const Remote& remote);
  void close();
  bool isOpen() const { return lookup_ != nullptr || fd_ >= 0; }

  // Goes on until it is up; returns whether it is. While resolving(), there is no descriptor to wait on: ask
  // again a little later. The descriptor may be another one afterwards.
  bool establish();
  bool resolving() const { return lookup_ != nullptr; }
  // To wait on; -1 if there is none.
  int fd() const { return fd_; }
  // Whether it waits for the descriptor to become writable.
  bool wantsOutput() const { return connecting_ || !backlog().empty(); }

  // Reads what is there; nothing if there is none now.
  std::optional<std::size_t> read(std::span<char> into);
  // Returns how many of the bytes were taken.
  std::size_t write(std::string_view bytes);

 private:
  struct Address {
    int family = 0;
    std::string bytes;  // the socket address
  };
  struct Lookup;

  void startLookup();
  bool finishLookup();
  void tryNextAddress();
  bool finishConnect();
  bool handshake();
  std::optional<std::size_t> receive(std::span<char> into);
  void flush();
  std::string_view backlog() const { return backlog_; }
  void closeSocket();

  TlsOptions tlsOptions_;
  Remote remote_;
  std::unique_ptr<Lookup> lookup_;
  std::list<std::unique_ptr<Lookup>> abandoned_;  // that could not be canceled
  std::vector<Address> addresses_;
  std::size_t nextAddress_ = 0;
  int fd_ = -1;
  bool connecting_ = false;
  std::unique_ptr<Tls> tls_;
  std::string backlog_;  // of TLS: encrypted, not sent yet
};

}  // namespace Ovsdb
