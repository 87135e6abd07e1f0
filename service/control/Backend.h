#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "service/json/Parts.h"

namespace Control {

// Why a patch was not taken: where in the input document (a JSON Pointer) and what is wrong with it there.
// One that `failed` met an error of the agent's own, perhaps when a part of it was carried out.
struct Refusal {
  std::string pointer;
  std::string reason;
  bool failed = false;

  bool operator==(const Refusal&) const = default;
};

// A question that has no positive answer. `kind` tells a script what to do about it.
class RequestError : public std::runtime_error {
 public:
  enum class Kind {
    notFound,  // well formed, but what it asks about is not there
    refused,   // wrong in itself: an unknown method, a parameter out of range
  };

  RequestError(Kind kind, std::string pointer, const std::string& reason)
      : std::runtime_error(reason), kind_(kind), pointer_(std::move(pointer)) {}

  Kind kind() const { return kind_; }
  const std::string& pointer() const { return pointer_; }

 private:
  Kind kind_;
  std::string pointer_;
};

// What the agent offers at its control socket. The agent implements it; the server calls it from the loop's
// thread.
class Backend {
 public:
  virtual ~Backend() = default;

  // Told why a patch was not taken, or nothing when it was carried out.
  using Answer = std::function<void(const std::optional<Refusal>&)>;

  // Applies a merge patch to the input document, whole or not at all. `who` names the one who asks, for the
  // log and for members that have an owner. Calls `answer` once: before it returns, or in a later turn of the
  // loop if the patch is large. Patches are carried out in the order in which they came.
  virtual void patch(nlohmann::json&& patch, std::string_view who, Answer answer) = 0;

  // The part of the document {"input": ..., "output": ..., "agent": ...} that a well-formed JSON Pointer
  // leads to; "" is all of it. Nothing when it leads nowhere; a branch that turns out to have no record is
  // nothing as well. The part may be walked later, until the service is gone.
  virtual Service::Part part(const std::string& pointer) = 0;

  // Carries out a named method ("explain", "flush", "problems", ...) with its parameters, an object. Raises
  // RequestError: notFound when there is no such thing, refused for an unknown method or bad parameters.
  virtual nlohmann::json call(const std::string& method, const nlohmann::json& params) = 0;

  // Whether a method changes anything, so that only who may patch may call it. Asked before call(), also for
  // a method that does not exist.
  virtual bool callChanges(const std::string& method) const = 0;

  // Who is to be told that something in the document may have changed, once or more a turn; one listener at a
  // time, an empty function is none. The listener only takes note: it reads later.
  virtual void onChange(std::function<void()> listener) = 0;
};

}  // namespace Control
