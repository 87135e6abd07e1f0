#include "service/control/Listener.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace Control {

namespace {

constexpr int backlog = 128;

[[noreturn]] void raise(const std::string& path, const std::string& what, int error = 0) {
  std::string message = "control socket " + path + ": " + what;
  if (error != 0) {
    message += ": " + std::generic_category().message(error);
  }
  throw std::runtime_error(message);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    raise(path, "a path has 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

UniqueFd streamSocket(const std::string& path) {
  UniqueFd fd{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
  if (!fd) {
    raise(path, "no socket", errno);
  }
  return fd;
}

Files::LockFile lockOf(const std::string& path) {
  try {
    return Files::LockFile(path + ".lock");
  } catch (const Files::LockHeld& holder) {
    raise(path, std::string("another agent listens there: ") + holder.what());
  } catch (const Files::LockRefused& refused) {
    raise(path, refused.what());
  }
}

// The process at the other end, where the system tells.
std::string peerOf(const UniqueFd& connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid != 0
             ? ": process " + std::to_string(peer.pid)
             : "";
}

}  // namespace

Listener::Listener(std::string path, const Access& access) : path_(std::move(path)) {
  addressOf(path_);
  socket_ = streamSocket(path_);
  lock_ = lockOf(path_);
  makeRoom();
  bindSocket(access);
  if (listen(socket_.get(), backlog) != 0) {
    raise(path_, "listen", errno);
  }
}

Listener::~Listener() {
  struct stat status {};
  if (stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
    unlink(path_.c_str());
  }
}

// A killed agent leaves a file that nobody listens at.
void Listener::makeRoom() const {
  struct stat status {};
  if (lstat(path_.c_str(), &status) != 0) {
    return;
  }
  if (!S_ISSOCK(status.st_mode)) {
    raise(path_, "there is something else than a socket");
  }
  const UniqueFd probe = streamSocket(path_);
  const sockaddr_un address = addressOf(path_);
  const bool refused =
      connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno == ECONNREFUSED;
  if (!refused) {
    raise(path_, "another agent listens there" + peerOf(probe));
  }
  if (unlink(path_.c_str()) != 0) {
    raise(path_, "cannot remove the file that " + Files::userText(status.st_uid) + " has left there", errno);
  }
}

void Listener::bindSocket(const Access& access) {
  const mode_t mode = access.socketMode();
  fchmod(socket_.get(), mode & S_IRWXU);  // so that the file is at no moment open to others
  const sockaddr_un address = addressOf(path_);
  if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    raise(path_, "bind", errno);
  }
  struct stat status {};
  if (lstat(path_.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode) || status.st_uid != geteuid()) {
    raise(path_,
          "the file was taken away while it was made; choose a folder that only the agent can write to");
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  try {
    accessIs(access);
  } catch (const std::runtime_error&) {
    unlink(path_.c_str());
    throw;
  }
}

// By a descriptor of the very file: where others can write to the folder, the name may lead elsewhere by now.
void Listener::accessIs(const Access& access) const {
  const UniqueFd file{open(path_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0 || status.st_dev != device_ || status.st_ino != inode_) {
    raise(path_, "the agent's file is no more there");
  }
  const std::string itself = "/proc/self/fd/" + std::to_string(file.get());
  if (access.group && chown(itself.c_str(), static_cast<uid_t>(-1), *access.group) != 0) {
    raise(path_, "cannot give the file to the configured group", errno);
  }
  if (chmod(itself.c_str(), access.socketMode()) != 0) {
    raise(path_, "chmod", errno);
  }
}

UniqueFd Listener::accept() const {
  return UniqueFd{accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)};
}

}  // namespace Control
