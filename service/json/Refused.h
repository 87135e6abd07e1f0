// One answer for all that is not done.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Service {

// Why something that was asked for from outside is not done: what kind of no it is, where (a JSON Pointer;
// empty where no place is meant), and the reason. It is raised, or handed on as a value. Nothing was changed,
// unless the kind is `failed`.
class Refused : public std::runtime_error {
 public:
  // What a program can do about it.
  enum class Kind {
    refused,   // wrong in itself
    notFound,  // well asked, but nothing is there
    denied,    // not for who asks
    failed,    // an error of our own, perhaps when a part was done
  };

  Refused(std::string pointer, const std::string& reason, Kind kind = Kind::refused)
      : std::runtime_error(reason), pointer_(std::move(pointer)), kind_(kind) {}

  const std::string& pointer() const { return pointer_; }
  // The same as what().
  std::string reason() const { return what(); }
  Kind kind() const { return kind_; }
  // Where and why, in one line.
  std::string text() const { return pointer_.empty() ? reason() : pointer_ + ": " + reason(); }

  bool operator==(const Refused& other) const {
    return pointer_ == other.pointer_ && reason() == other.reason() && kind_ == other.kind_;
  }

 private:
  std::string pointer_;
  Kind kind_;
};

// The name of a kind, as it stands in an answer.
std::string_view nameOf(Refused::Kind kind);
// The kind of this name; one that is not known is `refused`.
Refused::Kind refusedKindOf(std::string_view name);

}  // namespace Service
