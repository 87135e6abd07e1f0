#include "agent/kernel/Socket.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace Agent::Kernel {

namespace {

std::string reason() {
  return std::generic_category().message(errno);
}

// A socket belongs to the namespace that its maker is in at that moment.
int openIn(const std::string& netns) {
  auto open = [] { return ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE); };
  if (netns.empty()) {
    return open();
  }
  int home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  int there = ::open(netns.c_str(), O_RDONLY | O_CLOEXEC);
  if (home < 0 || there < 0 || ::setns(there, CLONE_NEWNET) != 0) {
    std::string why = reason();
    if (home >= 0) {
      ::close(home);
    }
    if (there >= 0) {
      ::close(there);
    }
    throw SocketError("network namespace " + netns + ": cannot be entered: " + why +
                      " (the capability CAP_SYS_ADMIN is needed)");
  }
  int fd = open();
  int error = errno;
  require(::setns(home, CLONE_NEWNET) == 0, "a thread returns to the network namespace that it came from");
  ::close(home);
  ::close(there);
  errno = error;
  return fd;
}

}  // namespace

Socket::Socket(const std::string& netns, std::size_t buffer, std::size_t message, std::size_t messagesAtOnce)
    : fd_(openIn(netns)),
      message_(message),
      buffer_(message * messagesAtOnce),
      vectors_(messagesAtOnce),
      headers_(messagesAtOnce) {
  if (fd_ < 0) {
    throw SocketError("rtnetlink socket: cannot be opened: " + reason());
  }
  int size = static_cast<int>(buffer);
  if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
    (void)::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  }
  int on = 1;
  (void)::setsockopt(fd_, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof(on));
  (void)::setsockopt(fd_, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof(on));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  const void* any = &address;
  if (::bind(fd_, static_cast<const sockaddr*>(any), sizeof(address)) != 0) {
    std::string why = reason();
    ::close(fd_);
    throw SocketError("rtnetlink socket: cannot be bound: " + why);
  }
  for (std::size_t n = 0; n < messagesAtOnce; ++n) {
    vectors_[n] = {buffer_.data() + n * message_, message_};
    headers_[n].msg_hdr.msg_iov = &vectors_[n];
    headers_[n].msg_hdr.msg_iovlen = 1;
  }
}

Socket::~Socket() {
  ::close(fd_);
}

bool Socket::join(unsigned group) {
  return ::setsockopt(fd_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) == 0;
}

int Socket::send(const char* data, std::size_t size) {
  while (::send(fd_, data, size, 0) < 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int Socket::receiveSome(std::size_t most) {
  auto limit = static_cast<unsigned>(std::min(most, headers_.size()));
  for (;;) {
    int count = ::recvmmsg(fd_, headers_.data(), limit, MSG_DONTWAIT, nullptr);
    if (count >= 0) {
      return count == 0 ? -1 : count;
    }
    if (errno == EINTR) {
      continue;
    }
    return errno == ENOBUFS ? overrun : -1;
  }
}

}  // namespace Agent::Kernel
