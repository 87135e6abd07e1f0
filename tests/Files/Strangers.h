// A folder that everybody may write to, and another user who does.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

namespace TestFiles {

inline constexpr uid_t stranger = 65533;

// Such as /tmp, with the sticky bit; it goes with the test.
class SharedFolder {
 public:
  SharedFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "shared-XXXXXX").string();
    path_ = ::mkdtemp(name.data()) == nullptr ? "" : name;
    ::chmod(path_.c_str(), 01777);
  }
  ~SharedFolder() { std::filesystem::remove_all(path_); }
  SharedFolder(const SharedFolder&) = delete;
  SharedFolder& operator=(const SharedFolder&) = delete;
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline bool canPlayAStranger() {
  return ::geteuid() == 0;
}

// Runs WORK in a child that is the stranger, or this user; returns whether it ended with true.
inline bool inAChild(const std::function<bool()>& work, bool asStranger) {
  const pid_t child = ::fork();
  if (child == 0) {
    const bool changed =
        !asStranger || (::setgroups(0, nullptr) == 0 && ::setgid(stranger) == 0 && ::setuid(stranger) == 0);
    bool done = false;
    try {
      done = changed && work();
    } catch (...) {
      done = false;
    }
    ::_exit(done ? 0 : 1);
  }
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
inline bool asStranger(const std::function<bool()>& work) {
  return inAChild(work, true);
}

// Another user's process that holds a lock on a file or folder, exclusive on what it can only read, for as
// long as this lives.
class StrangersLock {
 public:
  explicit StrangersLock(const std::string& path) {
    std::array<int, 2> ready{};
    if (::pipe(ready.data()) != 0) {
      return;
    }
    child_ = ::fork();
    if (child_ == 0) {
      const bool other = ::setgroups(0, nullptr) == 0 && ::setgid(stranger) == 0 && ::setuid(stranger) == 0;
      const int file = ::open(path.c_str(), O_RDONLY);
      struct flock shared {};
      shared.l_type = F_RDLCK;
      shared.l_whence = SEEK_SET;
      static_cast<void>(::fcntl(file, F_OFD_SETLK, &shared));  // not on a folder
      const char held = other && ::flock(file, LOCK_EX | LOCK_NB) == 0 ? 1 : 0;
      static_cast<void>(::write(ready[1], &held, 1) == 1);
      for (;;) {
        ::pause();
      }
    }
    char held = 0;
    held_ = ::read(ready[0], &held, 1) == 1 && held == 1;
    ::close(ready[0]);
    ::close(ready[1]);
  }
  ~StrangersLock() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  StrangersLock(const StrangersLock&) = delete;
  StrangersLock& operator=(const StrangersLock&) = delete;
  bool held() const { return held_; }

 private:
  pid_t child_ = -1;
  bool held_ = false;
};

}  // namespace TestFiles

#define NEEDS_A_STRANGER()                             \
  if (!TestFiles::canPlayAStranger()) {                \
    GTEST_SKIP() << "only root can play another user"; \
  }                                                    \
  static_assert(true, "a semicolon follows")
