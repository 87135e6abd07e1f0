// Whose files are trusted: in a folder that others can write to, a name may lead to a stranger's file.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "Files/Export.h"

namespace Files {

// The users whose files a process trusts: root, its own user, and one more where one is named. No other user
// may be able to write to such a file, so that its content was written by one of them.
class FILES_API Owners {
 public:
  Owners() : Owners(std::nullopt) {}
  // Root, the effective user, and `also`.
  explicit Owners(std::optional<uid_t> also);

  bool has(uid_t user) const { return user == 0 || user == own_ || user == also_; }

  // The objection to the file that `status` describes: its owner, or that it may be written to (with a
  // lock: also read) by others. Empty when nothing does. The text goes on after "it".
  std::string againstWritten(const struct stat& status) const { return against(status, S_IWGRP | S_IWOTH); }
  std::string againstPrivate(const struct stat& status) const { return against(status, S_IRWXG | S_IRWXO); }

  // Such as "root (0) and vxlan-agent (993)".
  std::string text() const;

 private:
  std::string against(const struct stat& status, mode_t forbidden) const;

  uid_t own_;
  std::optional<uid_t> also_;
};

// Such as "nobody (65534)".
FILES_API std::string userText(uid_t user);

// The user of this name or number; nothing where there is none.
FILES_API std::optional<uid_t> userOf(const std::string& name);

}  // namespace Files
