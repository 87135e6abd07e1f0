#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "service/control/Backend.h"

namespace Control {

// One line of a client: exactly one of "patch", "get", "subscribe" and "call", with "params" beside "call",
// and an optional "id", a number or a string of up to 256 bytes, that comes back in the answer. A pointer has
// up to 4096 bytes.
struct Request {
  enum class Verb { patch, get, subscribe, call };

  nlohmann::json id{};  // null: none given
  Verb verb = Verb::get;
  std::string target{};      // a well-formed JSON Pointer of get and subscribe, the method of call
  nlohmann::json content{};  // the patch, or the parameters of call (an object)

  // Reads a line. Raises BadRequest, which says what is wrong and carries the id if that could be read.
  static Request parse(std::string_view line);
  // The same of a line that is JSON already.
  static Request of(nlohmann::json object);
};

// The error in a line, and the id that its answer carries.
class BadRequest : public Service::Refused {
 public:
  BadRequest(nlohmann::json id, const std::string& reason) : Refused("", reason), id_(std::move(id)) {}
  const nlohmann::json& id() const { return id_; }

 private:
  nlohmann::json id_;
};

// The lines that a client gets, without their newline. `id` is null when the request had none.
std::string okLine(const nlohmann::json& id);
std::string valueLine(const nlohmann::json& id, const nlohmann::json& value);
// A value line up to its value; behind the value comes "}".
std::string valueHead(const nlohmann::json& id);
// `merge` is a patch that is text already: it is the same for all who follow the same part.
std::string mergeLine(const nlohmann::json& id, const std::string& merge);
std::string cutLine(const nlohmann::json& id);
std::string errorLine(const nlohmann::json& id, const Service::Refused& refused);

// Text of a value for a line: bytes that are not UTF-8 are replaced.
std::string lineText(const nlohmann::json& value);

}  // namespace Control
