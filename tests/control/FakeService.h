#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/control/Ownership.h"
#include "agent/control/Service.h"

namespace TestControl {

// An agent that is nothing but its document: patches go into "input"; "explode" is a member that it refuses.
class FakeService : public Agent::Control::Service {
 public:
  using json = nlohmann::json;
  using RequestError = Agent::Control::RequestError;

  void patch(json&& patch, std::string_view who, Answer answer) override {
    lastWho = who;
    if (takesItsTime) {
      later.emplace_back(
          [this, patch = std::move(patch), name = std::string(who), answer] { answer(apply(patch, name)); });
    } else {
      answer(apply(patch, who));
    }
  }

  std::optional<Agent::Control::Refusal> apply(const json& patch, std::string_view who) {
    if (auto refusal = ownership.check(patch, who)) {
      return refusal;
    }
    if (patch.contains("explode")) {
      return Agent::Control::Refusal{"/explode", "unknown member"};
    }
    document["input"].merge_patch(patch);
    tellChange();
    return std::nullopt;
  }

  json get(const std::string& pointer) override {
    ++reads;
    if (onGet) {
      onGet();
    }
    const json::json_pointer at{pointer};
    if (!document.contains(at)) {
      throw RequestError(RequestError::Kind::notFound, pointer, "nothing is there");
    }
    return document.at(at);
  }

  json call(const std::string& method, const json& params) override {
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
  Agent::Control::Ownership ownership;
  std::string lastWho;
  std::function<void()> onGet;
  int reads = 0;
  int flushes = 0;
  bool takesItsTime = false;                 // patches wait in `later`
  std::vector<std::function<void()>> later;  // which carry them out and answer them

 private:
  std::function<void()> listener_;
};

}  // namespace TestControl
