#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace Control {

// The process at the other end of a unix socket, as the kernel noted when it connected.
struct Peer {
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
  std::vector<gid_t> groups{};  // supplementary ones

  // As it stands in the log: "uid 1000 (pid 4711)".
  std::string name() const;
};

// Asks the kernel who is connected to `socket`. Raises std::system_error.
Peer peerOf(int socket);

enum class Right {
  none,   // is told so and dropped
  read,   // may ask: get, subscribe, methods that change nothing
  patch,  // may do everything
};

// The rights of users. The superuser and the owner may do everything, so may the members of a group; all
// others may read if they are let.
struct Access {
  uid_t owner = 0;
  std::optional<gid_t> group{};
  bool othersRead = false;

  Right of(const Peer& peer) const;
  // The mode of the socket file that lets in just those who have a right.
  mode_t socketMode() const;
};

}  // namespace Control
