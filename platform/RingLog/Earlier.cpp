#include "RingLog/Earlier.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <system_error>
#include <vector>

#include "RingLog/Format.h"

namespace RingLog::detail {

namespace {

constexpr std::size_t mostFiles = 64;   // that are looked for
constexpr std::time_t surelyMade = 60;  // seconds; no process takes that long to make a file

std::string numbered(const std::string& path, std::size_t number) {
  return number == 0 ? path : path + "." + std::to_string(number);
}

// A file as it is found beside the new one.
struct Found {
  bool isFile = false;
  bool living = false;  // a process writes to it, or that is not known
  bool closed = false;  // in good order
  std::time_t changed = 0;
};

Found look(const std::string& path) {
  Found found;
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return found;
  }
  found.isFile = true;
  found.changed = status.st_mtime;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    found.living = true;
    return found;
  }
  found.living = ::flock(fd, LOCK_SH | LOCK_NB) != 0;
  Format::Header header{};
  found.closed = ::pread(fd, &header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) &&
                 header.magic == Format::magic && header.closed == 1;
  ::close(fd);
  return found;
}

// Removes the files of ended processes that are not kept.
void removeOld(const std::string& path) {
  std::size_t ended = 0;
  bool hasUnclosed = false;
  for (std::size_t number = 0; number < mostFiles; ++number) {
    const Found found = look(numbered(path, number));
    if (!found.isFile || found.living) {
      continue;
    }
    const bool latestUnclosed = !found.closed && !hasUnclosed;
    if (ended >= keptRuns && !latestUnclosed) {
      ::unlink(numbered(path, number).c_str());
    }
    hasUnclosed = hasUnclosed || !found.closed;
    ++ended;
  }
}

bool isTemporary(const std::string& name, const std::string& file) {
  constexpr std::string_view end = ".new";
  if (!name.starts_with(file + ".") || !name.ends_with(end) || name.size() <= file.size() + 1 + end.size()) {
    return false;
  }
  const std::string process = name.substr(file.size() + 1, name.size() - file.size() - 1 - end.size());
  return process.find_first_not_of("0123456789") == std::string::npos;
}

// Removes what processes left that died between making a file and giving it its name.
void removeUnfinished(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
  const std::string file = path.substr(slash == std::string::npos ? 0 : slash + 1);
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(folder.c_str()), &::closedir);
  if (directory == nullptr) {
    return;
  }
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (!isTemporary(name, file)) {
      continue;
    }
    const Found found = look(folder + "/" + name);
    if (found.isFile && !found.living && found.changed + surelyMade < std::time(nullptr)) {
      ::unlink((folder + "/" + name).c_str());
    }
  }
}

void moveOn(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
    throw std::system_error(errno, std::generic_category(), "RingLog: cannot keep " + from + " as " + to);
  }
}

}  // namespace

void markLiving(int fd) {
  static_cast<void>(::flock(fd, LOCK_EX | LOCK_NB));
}

void keepEarlier(const std::string& path) {
  removeUnfinished(path);
  removeOld(path);
  std::size_t free = 0;
  while (free < mostFiles && look(numbered(path, free)).isFile) {
    ++free;
  }
  for (; free > 0; --free) {
    moveOn(numbered(path, free - 1), numbered(path, free));
  }
}

}  // namespace RingLog::detail
