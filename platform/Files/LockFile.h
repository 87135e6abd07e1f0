// A lock among processes, as a file that strangers can neither hold nor forge.
#pragma once

#include <stdexcept>
#include <string>

#include "Files/Export.h"
#include "Files/Owners.h"

namespace Files {

// Why a lock could not be had, to go on after the name of what it guards: "its lock file ... ".
class FILES_API LockRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Another process holds it: the text says which, such as "process 4711 (vxlan-agent)".
class FILES_API LockHeld : public LockRefused {
 public:
  using LockRefused::LockRefused;
};

// Holds a lock for as long as it lives. The lock is on a file of its own, of mode 0600, so that no other user
// can open it and thus none can hold it; a file of that name that belongs to a stranger is refused, not used.
// Nothing here waits: a lock is had at once or not at all. The system lets go of it when its process ends,
// however it ends. The file has the process's number in it, for the message to the second one, and
// goes with the lock.
class FILES_API LockFile {
 public:
  // Holds nothing.
  LockFile() = default;
  // Takes the lock at `path`. Raises LockHeld when another process has it, and LockRefused when the file
  // belongs to none of `owners` or can be opened by others, is a link or no file at all, or cannot be made.
  explicit LockFile(std::string path, const Owners& owners = Owners());
  LockFile(LockFile&& other) noexcept;
  LockFile& operator=(LockFile&& other) noexcept;
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;
  ~LockFile();

  explicit operator bool() const { return file_ >= 0; }

 private:
  bool tryTake(const Owners& owners);
  int openOrMake(const Owners& owners) const;
  bool stillThere() const;

  std::string path_;
  int file_ = -1;
  pid_t holder_ = 0;  // a child of the holder does not let go
};

}  // namespace Files
