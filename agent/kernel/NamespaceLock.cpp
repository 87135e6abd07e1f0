#include "agent/kernel/NamespaceLock.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>
#include <utility>

namespace Agent::Kernel {

namespace {

constexpr const char* serviceUser = "vxlan-agent";
// A file is replaced between its opening and its lock only when its last holder ends just then.
constexpr int mostAttempts = 16;

// A file descriptor that is closed in the end.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) {
      (void)::close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

[[noreturn]] void refuse(const std::string& what, const std::string& why) {
  throw LockError("the lock of the network namespace: " + what + " " + why);
}

std::string reason() {
  return std::generic_category().message(errno);
}

std::string lockName(const std::string& netns) {
  const std::string path = netns.empty() ? "/proc/thread-self/ns/net" : netns;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw LockError("network namespace " + path + ": cannot be entered: " + reason());
  }
  return "netns-" + std::to_string(status.st_ino) + ".lock";
}

bool trusted(uid_t owner) {
  if (owner == 0 || owner == ::geteuid()) {
    return true;
  }
  std::array<char, 4096> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  (void)::getpwnam_r(serviceUser, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr && found->pw_uid == owner;
}

// Raises LockError when others than the trusted users own it or may write to it.
void checkOwner(const std::string& path, const struct stat& status) {
  if (!trusted(status.st_uid)) {
    refuse(path, "belongs to user " + std::to_string(status.st_uid) + ", not to root, the agent's user or " +
                     serviceUser);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    refuse(path, "can be written by others than its owner");
  }
}

int openFolder(const std::string& folder) {
  if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
    refuse(folder, "cannot be made: " + reason());
  }
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    refuse(folder, "cannot be opened as a folder: " + reason());
  }
  return fd;
}

std::string holder(int fd) {
  std::array<char, 32> text{};
  const ssize_t size = ::pread(fd, text.data(), text.size(), 0);
  pid_t pid = 0;
  if (size > 0) {
    (void)std::from_chars(text.data(), text.data() + size, pid);
  }
  return pid > 0 ? "process " + std::to_string(pid) : "another process";
}

bool sameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

NamespaceLock::NamespaceLock(const std::string& folder, const std::string& netns) {
  const std::string name = lockName(netns);
  path_ = folder + "/" + name;
  const Descriptor opened(openFolder(folder));
  struct stat status {};
  if (::fstat(opened.get(), &status) != 0) {
    refuse(folder, "cannot be looked at: " + reason());
  }
  checkOwner(folder, status);
  for (int attempt = 0; attempt < mostAttempts; ++attempt) {
    if (take(opened.get(), name)) {
      return;
    }
  }
  refuse(path_, "is replaced again and again");
}

// Opens the file and locks it; false when it was removed in between, so that the name leads to another file
// by now.
bool NamespaceLock::take(int folder, const std::string& name) {
  Descriptor file(
      ::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  if (file.get() < 0) {
    refuse(path_, "cannot be opened: " + reason());
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    refuse(path_, "is not a file");
  }
  checkOwner(path_, status);
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      refuse(path_, "cannot be locked: " + reason());
    }
    throw LockError("another agent programs this network namespace: " + holder(file.get()) + " holds " +
                    path_);
  }
  struct stat named {};
  if (::fstatat(folder, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 || !sameFile(status, named)) {
    return false;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::fchmod(file.get(), 0600) != 0 || ::ftruncate(file.get(), 0) != 0 ||
      ::pwrite(file.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    refuse(path_, "cannot be written: " + reason());
  }
  fd_ = file.release();
  return true;
}

NamespaceLock::~NamespaceLock() {
  (void)::unlink(path_.c_str());
  (void)::close(fd_);
}

}  // namespace Agent::Kernel
