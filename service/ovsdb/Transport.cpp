#include "service/ovsdb/Transport.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Ovsdb {

namespace {

[[noreturn]] void fail(std::string_view what, int error) {
  throw TransportError(std::string{what} + ": " + std::generic_category().message(error));
}

// Encrypted bytes beyond which no more are taken.
constexpr std::size_t mostBacklog = std::size_t{256} * 1024;
// Bytes that are encrypted at a time.
constexpr std::size_t mostEncrypted = std::size_t{64} * 1024;

template <typename SocketAddress>
std::string bytesOf(const SocketAddress& address) {
  std::string bytes(sizeof address, '\0');
  std::memcpy(bytes.data(), &address, sizeof address);
  return bytes;
}

}  // namespace

// A look-up in the C library's hands; it must stay where it is until it is done or canceled.
struct Transport::Lookup {
  std::string host;
  std::string port;
  addrinfo hints{};
  gaicb request{};

  ~Lookup() {
    if (request.ar_result != nullptr) {
      freeaddrinfo(request.ar_result);
    }
  }
};

Transport::Transport(TlsOptions tls) : tlsOptions_(std::move(tls)) {}

Transport::~Transport() {
  close();
  for (const std::unique_ptr<Lookup>& lookup : abandoned_) {
    const gaicb* const request[] = {&lookup->request};
    while (gai_error(&lookup->request) == EAI_INPROGRESS) {
      gai_suspend(request, 1, nullptr);
    }
  }
}

void Transport::open(const Remote& remote) {
  close();
  remote_ = remote;
  if (remote.kind == Remote::Kind::unixSocket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    remote.host.copy(address.sun_path, sizeof address.sun_path - 1);
    addresses_.push_back({AF_UNIX, bytesOf(address)});
    tryNextAddress();
    return;
  }
  sockaddr_in ipv4{};
  sockaddr_in6 ipv6{};
  if (inet_pton(AF_INET, remote.host.c_str(), &ipv4.sin_addr) == 1) {
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(remote.port);
    addresses_.push_back({AF_INET, bytesOf(ipv4)});
    tryNextAddress();
  } else if (inet_pton(AF_INET6, remote.host.c_str(), &ipv6.sin6_addr) == 1) {
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(remote.port);
    addresses_.push_back({AF_INET6, bytesOf(ipv6)});
    tryNextAddress();
  } else {
    startLookup();
  }
}

void Transport::startLookup() {
  lookup_ = std::make_unique<Lookup>();
  lookup_->host = remote_.host;
  lookup_->port = std::to_string(remote_.port);
  lookup_->hints.ai_socktype = SOCK_STREAM;
  lookup_->request.ar_name = lookup_->host.c_str();
  lookup_->request.ar_service = lookup_->port.c_str();
  lookup_->request.ar_request = &lookup_->hints;
  gaicb* requests[] = {&lookup_->request};
  if (const int error = getaddrinfo_a(GAI_NOWAIT, requests, 1, nullptr); error != 0) {
    lookup_.reset();
    throw TransportError("looking up \"" + remote_.host + "\": " + gai_strerror(error));
  }
}

bool Transport::finishLookup() {
  const int error = gai_error(&lookup_->request);
  if (error == EAI_INPROGRESS) {
    return false;
  }
  const std::unique_ptr<Lookup> done = std::move(lookup_);
  if (error != 0) {
    throw TransportError("looking up \"" + remote_.host + "\": " + gai_strerror(error));
  }
  for (const addrinfo* at = done->request.ar_result; at != nullptr; at = at->ai_next) {
    std::string bytes(at->ai_addrlen, '\0');
    std::memcpy(bytes.data(), at->ai_addr, at->ai_addrlen);
    addresses_.push_back({at->ai_family, std::move(bytes)});
  }
  tryNextAddress();
  return true;
}

// Begins to connect to the next address; raises the last one's error when there is none.
void Transport::tryNextAddress() {
  int error = EADDRNOTAVAIL;
  while (nextAddress_ < addresses_.size()) {
    const Address& address = addresses_[nextAddress_++];
    closeSocket();
    fd_ = socket(address.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
      error = errno;
      continue;
    }
    if (address.family != AF_UNIX) {
      const int on = 1;
      setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    sockaddr_storage storage{};
    std::memcpy(&storage, address.bytes.data(), std::min(address.bytes.size(), sizeof storage));
    const void* const place = &storage;
    if (connect(fd_, static_cast<const sockaddr*>(place), static_cast<socklen_t>(address.bytes.size())) ==
            0 ||
        errno == EINPROGRESS) {
      connecting_ = true;
      return;
    }
    error = errno;
  }
  close();
  fail("connecting", error);
}

bool Transport::finishConnect() {
  int error = 0;
  socklen_t size = sizeof error;
  sockaddr_storage peer{};
  socklen_t peerSize = sizeof peer;
  void* const place = &peer;
  if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
    error = errno;
  }
  if (error == 0 && getpeername(fd_, static_cast<sockaddr*>(place), &peerSize) != 0) {
    if (errno == ENOTCONN) {
      return false;
    }
    error = errno;
  }
  if (error != 0) {
    if (nextAddress_ == addresses_.size()) {
      close();
      fail("connecting", error);
    }
    tryNextAddress();
    return false;
  }
  connecting_ = false;
  return true;
}

bool Transport::establish() {
  if (lookup_ && !finishLookup()) {
    return false;
  }
  if (connecting_ && !finishConnect()) {
    return false;
  }
  return remote_.kind != Remote::Kind::ssl || handshake();
}

bool Transport::handshake() {
  try {
    if (!tls_) {
      tls_ = std::make_unique<Tls>(tlsOptions_);
    }
    bool done = tls_->handshake();
    flush();
    std::array<char, 16384> bytes{};
    while (!done) {
      const std::optional<std::size_t> got = receive(bytes);
      if (!got) {
        return false;
      }
      tls_->feed({bytes.data(), *got});
      done = tls_->handshake();
      flush();
    }
    return true;
  } catch (const TransportError&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw TransportError(error.what());
  }
}

std::optional<std::size_t> Transport::receive(std::span<char> into) {
  const ssize_t got = recv(fd_, into.data(), into.size(), 0);
  if (got > 0) {
    return static_cast<std::size_t>(got);
  }
  if (got == 0) {
    throw TransportError("the peer closed the connection");
  }
  if (errno == EAGAIN || errno == EINTR) {
    return std::nullopt;
  }
  fail("receiving", errno);
}

std::optional<std::size_t> Transport::read(std::span<char> into) {
  if (!tls_) {
    return receive(into);
  }
  try {
    bool closed = false;
    std::size_t size = tls_->read(into, closed);
    std::array<char, 65536> bytes{};
    while (size == 0 && !closed) {
      const std::optional<std::size_t> got = receive(bytes);
      if (!got) {
        return std::nullopt;
      }
      tls_->feed({bytes.data(), *got});
      size = tls_->read(into, closed);
    }
    if (size == 0) {
      throw TransportError("the peer closed the connection");
    }
    return size;
  } catch (const TransportError&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw TransportError(error.what());
  }
}

std::size_t Transport::write(std::string_view bytes) {
  if (tls_) {
    if (backlog_.size() > mostBacklog) {
      flush();
      return 0;
    }
    const std::string_view piece = bytes.substr(0, mostEncrypted);
    tls_->write(piece);
    flush();
    return piece.size();
  }
  const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent >= 0) {
    return static_cast<std::size_t>(sent);
  }
  if (errno == EAGAIN || errno == EINTR) {
    return 0;
  }
  fail("sending", errno);
}

// Sends what TLS has for the peer.
void Transport::flush() {
  backlog_ += std::exchange(tls_->output(), {});
  while (!backlog_.empty()) {
    const ssize_t sent = send(fd_, backlog_.data(), backlog_.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EAGAIN || errno == EINTR) {
        return;
      }
      fail("sending", errno);
    }
    backlog_.erase(0, static_cast<std::size_t>(sent));
  }
}

void Transport::closeSocket() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

void Transport::close() {
  closeSocket();
  connecting_ = false;
  tls_.reset();
  backlog_.clear();
  addresses_.clear();
  nextAddress_ = 0;
  std::erase_if(abandoned_, [](const auto& lookup) { return gai_error(&lookup->request) != EAI_INPROGRESS; });
  if (lookup_) {
    gai_cancel(&lookup_->request);
    if (gai_error(&lookup_->request) == EAI_INPROGRESS) {
      abandoned_.push_back(std::move(lookup_));
    }
    lookup_.reset();
  }
}

}  // namespace Ovsdb
