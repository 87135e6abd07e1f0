#include "service/control/Request.h"

#include <array>
#include <optional>

#include "service/json/Text.h"

namespace Control {

namespace {

using nlohmann::json;

constexpr std::array<std::pair<std::string_view, Request::Verb>, 4> verbs{
    {{"patch", Request::Verb::patch},
     {"get", Request::Verb::get},
     {"subscribe", Request::Verb::subscribe},
     {"call", Request::Verb::call}}};
constexpr std::size_t longestId = 256;
constexpr std::size_t longestPointer = 4096;

json parseText(std::string_view line) {
  try {
    return Service::parseJson(line);
  } catch (const Service::BadJson& error) {
    throw BadRequest(nullptr, error.what());
  }
}

json takeId(json& request) {
  const auto found = request.find("id");
  if (found == request.end()) {
    return nullptr;
  }
  if (!found->is_string() && !found->is_number()) {
    throw BadRequest(nullptr, "\"id\" is a string or a number");
  }
  if (found->is_string() && found->get_ref<const std::string&>().size() > longestId) {
    throw BadRequest(nullptr, "\"id\" has at most " + std::to_string(longestId) + " bytes");
  }
  json id = std::move(*found);
  request.erase(found);
  return id;
}

std::string pointerOf(const json& id, std::string_view verb, const json& value) {
  if (!value.is_string()) {
    throw BadRequest(id, '"' + std::string(verb) + "\" takes a JSON Pointer");
  }
  const auto& text = value.get_ref<const std::string&>();
  if (text.size() > longestPointer) {
    throw BadRequest(id, "a JSON Pointer has at most " + std::to_string(longestPointer) + " bytes");
  }
  try {
    const json::json_pointer checked{text};
  } catch (const json::parse_error&) {
    throw BadRequest(
        id, '"' + text + "\" is no JSON Pointer: one is empty or begins with \"/\", and writes ~ as ~0");
  }
  return text;
}

json takeParams(const json& id, json& request) {
  const auto found = request.find("params");
  if (found == request.end()) {
    return json::object();
  }
  if (!found->is_object()) {
    throw BadRequest(id, "\"params\" is an object");
  }
  json params = std::move(*found);
  request.erase(found);
  return params;
}

// The line of an answer: its id, if any, then the rest.
std::string line(const json& id, const std::string& rest) {
  return id.is_null() ? "{" + rest + "}" : "{\"id\":" + lineText(id) + "," + rest + "}";
}

}  // namespace

Request Request::parse(std::string_view text) {
  return of(parseText(text));
}

Request Request::of(json object) {
  if (!object.is_object()) {
    throw BadRequest(nullptr, "a request is a JSON object");
  }
  Request request;
  request.id = takeId(object);
  std::string_view name;
  for (const auto& [key, verb] : verbs) {
    if (object.contains(key)) {
      if (!name.empty()) {
        throw BadRequest(request.id,
                         '"' + std::string(name) + "\" and \"" + std::string(key) + "\" in one request");
      }
      name = key;
      request.verb = verb;
    }
  }
  if (name.empty()) {
    throw BadRequest(request.id, "one of \"patch\", \"get\", \"subscribe\" and \"call\" is asked for");
  }
  json value = std::move(object[std::string(name)]);
  object.erase(std::string(name));
  switch (request.verb) {
    case Verb::patch:
      request.content = std::move(value);
      break;
    case Verb::get:
    case Verb::subscribe:
      request.target = pointerOf(request.id, name, value);
      break;
    case Verb::call:
      if (!value.is_string()) {
        throw BadRequest(request.id, "\"call\" takes the name of a method");
      }
      request.target = value.get<std::string>();
      request.content = takeParams(request.id, object);
      break;
  }
  if (!object.empty()) {
    throw BadRequest(request.id, "unknown member \"" + object.begin().key() + '"');
  }
  return request;
}

std::string lineText(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string okLine(const json& id) {
  return line(id, "\"ok\":true");
}

std::string valueLine(const json& id, const json& value) {
  return valueHead(id) + lineText(value) + '}';
}

std::string valueHead(const json& id) {
  return id.is_null() ? "{\"value\":" : "{\"id\":" + lineText(id) + ",\"value\":";
}

std::string mergeLine(const json& id, const std::string& merge) {
  return line(id, "\"merge\":" + merge);
}

std::string cutLine(const json& id) {
  return line(id, "\"cut\":true");
}

std::string errorLine(const json& id, std::string_view kind, const Refusal& refusal) {
  const json error{{"kind", kind}, {"pointer", refusal.pointer}, {"reason", refusal.reason}};
  return line(id, "\"error\":" + lineText(error));
}

std::string errorLine(const json& id, const RequestError& error) {
  const bool notFound = error.kind() == RequestError::Kind::notFound;
  return errorLine(id, notFound ? "notFound" : "refused", Refusal{error.pointer(), error.what()});
}

}  // namespace Control
