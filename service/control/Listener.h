#pragma once

#include <sys/types.h>

#include <string>

#include "Files/LockFile.h"
#include "service/control/Access.h"
#include "service/loop/UniqueFd.h"

namespace Control {

// The listening unix socket and its file. The file of an agent that was killed is replaced; that of one that
// lives is left alone. A lock beside the socket, PATH.lock, is held for as long as this lives, so that of two
// agents that start together one wins, and the other gets an error. No other user can take that lock; see
// Files::LockFile.
class Listener {
 public:
  // Listens at `path`, with the file's mode and group as `access` wants them. Raises std::runtime_error, with
  // the path and what is in the way: a live agent and its process, a file that is no socket, a lock file of
  // another user, a path that is too long, the system's refusal. Never waits.
  Listener(std::string path, const Access& access);
  // Removes the file, unless another has put its own there meanwhile.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int fd() const { return socket_.get(); }
  const std::string& path() const { return path_; }

  // The next connection that waits, non-blocking; an empty one with errno set when there is none or the
  // system has no descriptor left.
  Service::UniqueFd accept() const;
  // Lets others in. Raises std::runtime_error when the file cannot be changed.
  void accessIs(const Access& access) const;

 private:
  void bindSocket(const Access& access);
  void makeRoom() const;

  std::string path_;
  Files::LockFile lock_;
  Service::UniqueFd socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace Control
