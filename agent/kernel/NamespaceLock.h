// One agent for each network namespace.
#pragma once

#include <stdexcept>
#include <string>

namespace Agent::Kernel {

// Why the lock of a network namespace cannot be had.
class LockError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Holds a network namespace as long as it lives, so that two agents do not program the same kernel tables. It
// is an flock on a file of mode 0600 that is named by the namespace's inode and holds our process number. The
// kernel gives it back when the process ends, however it ends; a file that is left behind blocks nothing.
//
// The lock is worth what its folder is worth: the folder and the file belong to root, to our user or to the
// user "vxlan-agent", and nobody else may write to them.
class NamespaceLock {
 public:
  // Takes the lock of the network namespace at the path `netns`; empty is the calling thread's own. The last
  // part of `folder` is made if it is not there, with mode 0755. Never waits. Raises LockError, which names
  // the holder's process if another one has it, or says what is wrong with the folder or the file.
  NamespaceLock(const std::string& folder, const std::string& netns);
  // Gives the lock back and removes the file.
  ~NamespaceLock();
  NamespaceLock(const NamespaceLock&) = delete;
  NamespaceLock& operator=(const NamespaceLock&) = delete;

  const std::string& path() const { return path_; }

 private:
  bool take(int folder, const std::string& name);

  std::string path_;
  int fd_ = -1;
};

}  // namespace Agent::Kernel
