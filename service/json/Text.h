// JSON from outside: texts that are read, and pointers into documents.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Service {

// How deep arrays and objects may stand inside one another; more would let a text exhaust the stack of a
// recursive walk.
inline constexpr int deepestJson = 64;

// A text that is not taken as JSON; what() says why.
class BadJson : public std::runtime_error {
 public:
  explicit BadJson(const std::string& reason, std::size_t byte = 0)
      : std::runtime_error(reason), byte_(byte) {}
  // Where the text stops being JSON, counted from 1; 0 where it is not about one place.
  std::size_t byte() const { return byte_; }

 private:
  std::size_t byte_;
};

// How deep a reader stands inside arrays and objects. Everything that reads a text from outside counts with
// this class, before it builds or enters anything, so that the limit stands in one place.
class Nesting {
 public:
  // An array or object begins. Raises BadJson where it would be deeper than deepestJson.
  void open();
  // One ends. Has no effect outside of all, where a reader has its own objection.
  void close() { depth_ -= depth_ > 0 ? 1 : 0; }
  int depth() const { return depth_; }

 private:
  int depth_ = 0;
};

// Reads a text that is one JSON value. Raises BadJson for anything else, for a value that is nested too deep,
// and for a number that no double holds.
nlohmann::json parseJson(std::string_view text);

// The part of a document that a JSON Pointer leads to; null where it leads nowhere. Raises
// nlohmann::json::parse_error for a text that is no pointer.
nlohmann::json partAt(const nlohmann::json& document, const std::string& pointer);

}  // namespace Service
