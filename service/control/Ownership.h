#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "service/control/Backend.h"

namespace Control {

// Which parts of the input document belong to somebody: an adapter that takes them from elsewhere. A patch of
// them by another client would be overwritten at the next change there, and is refused with the owner's name
// instead.
class Ownership {
 public:
  // Gives the member that `pointer` leads to, with all below it, to `owner`. A claim inside or around another
  // one keeps both owners apart: the longer pointer counts for what is below it.
  void claim(std::string pointer, std::string owner);
  // Gives up all that `owner` has claimed.
  void release(std::string_view owner);
  // The owner of the member at `pointer`, itself or by a member above it.
  std::optional<std::string> ownerOf(std::string_view pointer) const;

  // Whether `who` may carry out a merge patch of the input document: it must not set, change or remove a
  // member that another owns, nor replace or remove one above it. Returns the first member in the way, and
  // whose it is.
  std::optional<Service::Refused> check(const nlohmann::json& patch, std::string_view who) const;

 private:
  std::optional<Service::Refused> checkAt(const std::string& pointer, const nlohmann::json& patch,
                                          std::string_view who) const;
  std::optional<Service::Refused> ownedBelow(const std::string& pointer, std::string_view who) const;

  std::map<std::string, std::string, std::less<>> owners_;  // by JSON Pointer
};

}  // namespace Control
