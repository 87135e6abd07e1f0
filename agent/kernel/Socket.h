#pragma once

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/kernel/Types.h"

namespace Agent::Kernel {

// Why the kernel cannot be talked to at all.
class SocketError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A non-blocking rtnetlink socket.
class Socket {
 public:
  enum class Heard { nothing, messages, overrun };

  // Opens it in the network namespace at the path, or in the process's own if that is empty. `buffer`: the
  // octets that the kernel may queue for it; `message`: those of the longest message or part of a dump.
  // Raises SocketError with what failed and why.
  Socket(const std::string& netns, std::size_t buffer, std::size_t message, std::size_t messagesAtOnce);
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }
  // Also receives the reports to the multicast group (RTNLGRP_...); false if the kernel has no such group.
  bool join(unsigned group);
  // Sends messages; the kernel has worked them off when this returns. Returns 0 or an errno.
  int send(const char* data, std::size_t size);
  // Gives what has arrived, up to `most` and messagesAtOnce datagrams, to `use`, message by message.
  template <typename Use>
  Heard receive(std::size_t most, Use use) {
    int count = receiveSome(most);
    if (count < 0) {
      return count == overrun ? Heard::overrun : Heard::nothing;
    }
    bool truncated = false;
    for (int n = 0; n < count; ++n) {
      const mmsghdr& arrived = headers_[static_cast<std::size_t>(n)];
      if ((arrived.msg_hdr.msg_flags & MSG_TRUNC) != 0) {
        truncated = true;
      } else {
        forEach(static_cast<std::size_t>(n), arrived.msg_len, use);
      }
    }
    return truncated ? Heard::overrun : Heard::messages;
  }

 private:
  static constexpr int overrun = -2;

  int receiveSome(std::size_t most);
  template <typename Use>
  void forEach(std::size_t slot, std::size_t size, Use& use) {
    const char* at = buffer_.data() + slot * message_;
    while (size >= sizeof(nlmsghdr)) {
      const auto& message = *static_cast<const nlmsghdr*>(static_cast<const void*>(at));
      if (message.nlmsg_len < sizeof(nlmsghdr) || message.nlmsg_len > size) {
        return;
      }
      use(message);
      std::size_t step = (message.nlmsg_len + 3U) & ~3U;
      if (step >= size) {
        return;
      }
      at += step;
      size -= step;
    }
  }

  int fd_ = -1;
  std::size_t message_;
  std::vector<char> buffer_;
  std::vector<iovec> vectors_;
  std::vector<mmsghdr> headers_;
};

}  // namespace Agent::Kernel
