#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "service/json/Parts.h"
#include "service/json/Refused.h"

namespace Control {

// The agent's side of its control socket. The agent implements it; the server calls it from the loop's
// thread.
class Backend {
 public:
  virtual ~Backend() = default;

  // Told why a patch was not taken, and where in the input document; or nothing when it was carried out.
  using Answer = std::function<void(const std::optional<Service::Refused>&)>;

  // Applies a merge patch to the input document, whole or not at all. `who` names the one who asks, for the
  // log and for members that have an owner. Calls `answer` once: before it returns, or in a later turn of the
  // loop if the patch is large. Patches are carried out in the order in which they came.
  virtual void patch(nlohmann::json&& patch, std::string_view who, Answer answer) = 0;

  // The part of the document {"input": ..., "output": ..., "agent": ...} that a well-formed JSON Pointer
  // leads to; "" is all of it. Nothing when it leads nowhere; a branch that turns out to have no record is
  // nothing as well. The part may be walked later, until the service is gone.
  virtual Service::Part part(const std::string& pointer) = 0;

  // Told the value of a method, or why it could not be carried out after it had begun.
  using CallAnswer = std::function<void(const std::optional<Service::Refused>&, const nlohmann::json& value)>;

  // Carries out a named method ("explain", "flush", "problems", ...) with its parameters, an object. Calls
  // `answer` once: before it returns, or in a later turn of the loop if the method takes long. Raises
  // Service::Refused instead: notFound when there is no such thing, refused for an unknown method or bad
  // parameters.
  virtual void call(const std::string& method, const nlohmann::json& params, CallAnswer answer) = 0;

  // Whether a method changes anything, so that only who may patch may call it. Asked before call(), also for
  // a method that does not exist.
  virtual bool callChanges(const std::string& method) const = 0;

  // Who is to be told that something in the document may have changed, once or more a turn; one listener at a
  // time, an empty function is none. The listener only takes note: it reads later.
  virtual void onChange(std::function<void()> listener) = 0;
};

}  // namespace Control
