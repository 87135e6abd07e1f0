#include "service/control/Access.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace Control {

namespace {

// The kernel tells the room it needs when the first try was too small; an old one knows no such option, and
// then the primary group alone counts.
std::vector<gid_t> groupsOf(int socket) {
  std::vector<gid_t> groups(32);
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
    const std::size_t needed = bytes / sizeof(gid_t);
    if (result == 0) {
      groups.resize(needed);
      return groups;
    }
    if (errno != ERANGE) {
      break;
    }
    groups.resize(needed);
  }
  return {};
}

}  // namespace

std::string Peer::name() const {
  return "uid " + std::to_string(uid) + " (pid " + std::to_string(pid) + ")";
}

Peer peerOf(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "SO_PEERCRED");
  }
  return {credentials.uid, credentials.gid, credentials.pid, groupsOf(socket)};
}

Right Access::of(const Peer& peer) const {
  if (peer.uid == 0 || peer.uid == owner) {
    return Right::patch;
  }
  if (group && (peer.gid == *group || std::ranges::find(peer.groups, *group) != peer.groups.end())) {
    return Right::patch;
  }
  return othersRead ? Right::read : Right::none;
}

mode_t Access::socketMode() const {
  if (othersRead) {
    return 0666;
  }
  return group ? 0660 : 0600;
}

}  // namespace Control
