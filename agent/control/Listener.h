#pragma once

#include <sys/types.h>

#include <string>

#include "agent/control/Access.h"
#include "agent/control/UniqueFd.h"

namespace Agent::Control {

// The listening unix socket and its file. The file of an agent that was killed is replaced; that of one that
// lives is left alone. While this is decided the folder is locked, so that two agents that start together do
// not both win.
class Listener {
 public:
  // Listens at `path`, with the file's mode and group as `access` wants them. Raises std::runtime_error, with
  // the path and what is in the way: a live agent, a file that is no socket, a path that is too long, the
  // system's refusal.
  Listener(std::string path, const Access& access);
  // Removes the file, unless another has put its own there meanwhile.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int fd() const { return socket_.get(); }
  const std::string& path() const { return path_; }

  // The next connection that waits, non-blocking; an empty one with errno set when there is none or the
  // system has no descriptor left.
  UniqueFd accept() const;
  // Lets others in. Raises std::runtime_error when the file cannot be changed.
  void accessIs(const Access& access) const;

 private:
  void bindSocket(const Access& access);
  void makeRoom() const;

  std::string path_;
  UniqueFd socket_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace Agent::Control
