#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/control/Backend.h"
#include "service/control/Ownership.h"

namespace TestControl {

// An agent that is nothing but its document: patches go into "input"; "explode" is a member that it refuses.
class FakeService : public Control::Backend {
 public:
  using json = nlohmann::json;
  using RequestError = Control::RequestError;

  void patch(json&& patch, std::string_view who, Answer answer) override {
    lastWho = who;
    throwIfAsked(patch.dump());
    if (takesItsTime) {
      later.emplace_back(
          [this, patch = std::move(patch), name = std::string(who), answer] { answer(apply(patch, name)); });
    } else {
      answer(apply(patch, who));
    }
  }

  std::optional<Control::Refusal> apply(const json& patch, std::string_view who) {
    if (auto refusal = ownership.check(patch, who)) {
      return refusal;
    }
    if (patch.contains("explode")) {
      return Control::Refusal{"/explode", "unknown member"};
    }
    document["input"].merge_patch(patch);
    tellChange();
    return std::nullopt;
  }

  Service::Part part(const std::string& pointer) override {
    ++reads;
    if (onGet) {
      onGet();
    }
    if (const auto found = parts.find(pointer); found != parts.end()) {
      return found->second();
    }
    return Service::partAt(Service::partOf(document), pointer);
  }

  json call(const std::string& method, const json& params) override {
    throwIfAsked(method);
    if (method == "echo") {
      return params;
    }
    if (method == "flush") {
      ++flushes;
      return json::object();
    }
    if (method == "double") {
      return 2 * params.at("number").get<int>();
    }
    throw RequestError(RequestError::Kind::refused, "", "unknown method \"" + method + '"');
  }

  bool callChanges(const std::string& method) const override { return method == "flush"; }

  void onChange(std::function<void()> listener) override { listener_ = std::move(listener); }

  void tellChange() const {
    if (listener_) {
      listener_();
    }
  }

  json document = {{"input", json::object()}, {"output", json::object()}, {"agent", json::object()}};
  Control::Ownership ownership;
  std::string lastWho;
  std::function<void()> onGet;
  std::map<std::string, std::function<Service::Part()>>
      parts;             // instead of those of the document, by pointer
  std::string throwsAt;  // patches and methods with this text throw
  int reads = 0;
  int flushes = 0;
  bool takesItsTime = false;                 // patches wait in `later`
  std::vector<std::function<void()>> later;  // which carry them out and answer them

 private:
  void throwIfAsked(const std::string& text) const {
    if (!throwsAt.empty() && text.find(throwsAt) != std::string::npos) {
      throw std::runtime_error("boom");
    }
  }

  std::function<void()> listener_;
};

}  // namespace TestControl
