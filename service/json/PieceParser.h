// A large JSON text, read a part at a time.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "service/json/Text.h"

namespace Service {

// Reads a large JSON text a part at a time, so that nobody waits for the whole. What comes out is what
// parseJson makes of it.
class PieceParser {
 public:
  explicit PieceParser(std::string text) : text_(std::move(text)) {}

  // Goes on for about so many bytes; returns whether there is more. It ends at the end of the text, and where
  // parseJson would refuse it.
  bool step(std::size_t bytes);
  // Whether the text was read to its end, and the document, which is handed over then.
  bool well() const { return state_ == State::end; }
  nlohmann::json take() { return std::move(root_); }
  // The text, for parseJson to say what is wrong with it.
  const std::string& text() const { return text_; }

 private:
  enum class State { value, firstValue, key, firstKey, colon, next, end, broken };

  void token();
  void open(nlohmann::json container);
  void close(char bracket);
  void put(nlohmann::json value);
  void readKey();
  void readScalar();
  std::string_view quoted();
  bool skipBlanks();

  std::string text_;
  std::size_t at_ = 0;
  State state_ = State::value;
  nlohmann::json root_;
  std::vector<nlohmann::json*> open_;  // containers around the place, outermost first
  Nesting nesting_;
  std::string key_;
};

}  // namespace Service
