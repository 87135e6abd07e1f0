// Merge patches on the input document, turned into changes of the state database.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "agent/state/World.h"

namespace Agent {

// A patch, or another text from outside, that was not accepted: where (a JSON Pointer) and why. Nothing was
// changed.
class Refused : public std::runtime_error {
 public:
  Refused(std::string pointer, const std::string& reason)
      : std::runtime_error(reason), pointer_(std::move(pointer)) {}
  const std::string& pointer() const { return pointer_; }

 private:
  std::string pointer_;
};

// A change of the state database. Those of the hosts of one VNI name their table.
struct Change {
  explicit Change(std::function<void()> change, const void* table = nullptr)
      : make(std::move(change)), hostsOf(table) {}

  std::function<void()> make;
  const void* hostsOf;  // only compared
};

// A JSON Merge Patch (RFC 7396) on the input document, checked whole and taken apart into single changes of
// the state database, in the order that the document's contract gives: sections, then at every level first
// what is removed, then what is set, keys ascending. Each change is delivered to the client before the next
// is made.
//
// A patch that has been checked is valid for the database as it is then: carry it out, all of it, before the
// next one is checked. It may be carried out a few changes at a time.
class InputPatch {
 public:
  // Checks the patch against the database. Raises Refused; nothing has been changed then.
  InputPatch(World& world, const nlohmann::json& patch);

  // The most hosts that are made as one handler.
  static constexpr std::size_t hostsInHandler = 128;

  // Carries out the next change; false when there is none left. What a handler throws leaves through here,
  // and the change counts as made.
  bool step() { return step(1); }
  // The same for up to `hosts` consecutive changes of the hosts of one VNI, which are made in one handler:
  // they are delivered in their order when the last is made, and are published together. Every other change
  // stands alone. If a change throws, those behind it are left for the next step.
  bool step(std::size_t hosts);
  // Carries out all changes.
  void carryOut() {
    while (step()) {
    }
  }

 private:
  std::deque<Change> changes_;
};

}  // namespace Agent
