#include "Files/Owners.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <charconv>

namespace Files {
namespace {

constexpr std::size_t entryBytes = 16384;

std::string octal(mode_t mode) {
  std::string text = "0";
  for (unsigned shift = 9; shift > 0; shift -= 3) {
    text += static_cast<char>('0' + (mode >> (shift - 3) & 7U));
  }
  return text;
}

}  // namespace

Owners::Owners(std::optional<uid_t> also) : own_(::geteuid()), also_(also) {}

std::string Owners::against(const struct stat& status, mode_t forbidden) const {
  if (!has(status.st_uid)) {
    return "belongs to " + userText(status.st_uid) + ", expected is " + text();
  }
  if ((status.st_mode & forbidden) != 0) {
    const char* what = (forbidden & S_IRGRP) != 0 ? "be opened" : "be written to";
    return std::string("may ") + what + " by others, its mode is " + octal(status.st_mode);
  }
  return "";
}

std::string Owners::text() const {
  std::string all = userText(0);
  if (own_ != 0) {
    all += " or " + userText(own_);
  }
  if (also_ && *also_ != 0 && *also_ != own_) {
    all += " or " + userText(*also_);
  }
  return all;
}

std::string userText(uid_t user) {
  struct passwd entry {};
  struct passwd* found = nullptr;
  std::array<char, entryBytes> room{};
  const bool known = ::getpwuid_r(user, &entry, room.data(), room.size(), &found) == 0 && found != nullptr;
  return (known ? std::string(found->pw_name) : "user") + " (" + std::to_string(user) + ")";
}

std::optional<uid_t> userOf(const std::string& name) {
  struct passwd entry {};
  struct passwd* found = nullptr;
  std::array<char, entryBytes> room{};
  if (::getpwnam_r(name.c_str(), &entry, room.data(), room.size(), &found) == 0 && found != nullptr) {
    return found->pw_uid;
  }
  uid_t number = 0;
  const char* end = name.data() + name.size();
  const auto [at, error] = std::from_chars(name.data(), end, number);
  return error == std::errc() && at == end && number != static_cast<uid_t>(-1) ? std::optional(number)
                                                                               : std::nullopt;
}

}  // namespace Files
