#include "Files/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <utility>

namespace Files {
namespace {

// The file may go away between opening and locking it as often as another process lets go just then.
constexpr int mostAttempts = 100;
constexpr int openFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

std::string holderIn(int file) {
  std::array<char, 16> text{};
  const ssize_t bytes = ::pread(file, text.data(), text.size(), 0);
  long process = 0;
  if (bytes <= 0 || std::from_chars(text.data(), text.data() + bytes, process).ec != std::errc()) {
    return "another process";
  }
  std::string program;
  std::ifstream comm("/proc/" + std::to_string(process) + "/comm");
  std::getline(comm, program);
  return "process " + std::to_string(process) + (program.empty() ? "" : " (" + program + ")");
}

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
  throw LockRefused("its lock file " + path + " " + what);
}

// Why the file could not be opened, with its owner where that is the reason.
[[noreturn]] void refuseOpening(const std::string& path, int error) {
  struct stat status {};
  if (error == ENOENT) {
    refuse(path, "cannot be made: no such folder");
  }
  if (error == ELOOP) {
    refuse(path, "is a link; remove it");
  }
  if (error == EACCES && ::lstat(path.c_str(), &status) == 0) {
    refuse(path, "belongs to " + userText(status.st_uid) + " and cannot be opened; remove it");
  }
  refuse(path, std::string("cannot be opened: ") + std::strerror(error));
}

}  // namespace

LockFile::LockFile(std::string path, const Owners& owners) : path_(std::move(path)), holder_(::getpid()) {
  for (int attempt = 0; attempt < mostAttempts; ++attempt) {
    if (tryTake(owners)) {
      return;
    }
  }
  refuse(path_, "comes and goes");
}

LockFile::LockFile(LockFile&& other) noexcept
    : path_(std::move(other.path_)), file_(std::exchange(other.file_, -1)), holder_(other.holder_) {}

LockFile& LockFile::operator=(LockFile&& other) noexcept {
  LockFile taken(std::move(other));
  std::swap(path_, taken.path_);
  std::swap(file_, taken.file_);
  std::swap(holder_, taken.holder_);
  return *this;
}

LockFile::~LockFile() {
  if (file_ < 0) {
    return;
  }
  if (holder_ == ::getpid() && stillThere()) {
    ::unlink(path_.c_str());
  }
  ::close(file_);
}

// Returns whether the lock is held; not when its file went away meanwhile.
bool LockFile::tryTake(const Owners& owners) {
  const int file = openOrMake(owners);
  if (file < 0) {
    return false;
  }
  if (::flock(file, LOCK_EX | LOCK_NB) != 0) {
    const int failure = errno;
    const std::string holder = holderIn(file);
    ::close(file);
    if (failure == EWOULDBLOCK) {
      throw LockHeld(holder);
    }
    refuse(path_, std::string("cannot be locked: ") + std::strerror(failure));
  }
  file_ = file;
  if (!stillThere()) {
    ::close(std::exchange(file_, -1));
    return false;
  }
  const std::string number = std::to_string(holder_) + "\n";
  static_cast<void>(::ftruncate(file_, 0) == 0 && ::pwrite(file_, number.data(), number.size(), 0) > 0);
  return true;
}

// Without O_CREAT where there is a file: the system may refuse that for another's file in a sticky folder,
// and would say less about it than its owner does.
int LockFile::openOrMake(const Owners& owners) const {
  int file = ::open(path_.c_str(), openFlags);
  if (file < 0 && errno == ENOENT) {
    file = ::open(path_.c_str(), openFlags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    if (file < 0 && errno == EEXIST) {
      return -1;
    }
  }
  if (file < 0) {
    refuseOpening(path_, errno);
  }
  struct stat status {};
  ::fstat(file, &status);
  std::string against = owners.againstPrivate(status);
  if (!S_ISREG(status.st_mode)) {
    against = "is no regular file";
  } else if (status.st_nlink > 1) {
    against = "has other names too";
  }
  if (!against.empty()) {
    ::close(file);
    refuse(path_, against + "; remove it");
  }
  return file;
}

bool LockFile::stillThere() const {
  struct stat mine {};
  struct stat there {};
  return ::fstat(file_, &mine) == 0 && ::lstat(path_.c_str(), &there) == 0 && mine.st_dev == there.st_dev &&
         mine.st_ino == there.st_ino;
}

}  // namespace Files
