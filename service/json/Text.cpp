#include "service/json/Text.h"

namespace Service {

namespace {

using nlohmann::json;

// Raises BadJson where arrays and objects stand too deep inside one another; nothing is built for that.
void checkNesting(std::string_view text) {
  Nesting nesting;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      }
      inString = c != '"';
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      nesting.open();
    } else if (c == '}' || c == ']') {
      nesting.close();
    }
  }
}

BadJson notJson(std::size_t byte) {
  return BadJson("not JSON at byte " + std::to_string(byte), byte);
}

}  // namespace

void Nesting::open() {
  if (depth_ == deepestJson) {
    throw BadJson("nested deeper than " + std::to_string(deepestJson) + " levels");
  }
  ++depth_;
}

json parseJson(std::string_view text) {
  // The parser takes a zero byte for the end of the text.
  if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
    throw notJson(zero + 1);
  }
  checkNesting(text);
  try {
    return json::parse(text);
  } catch (const json::parse_error& error) {
    throw notJson(error.byte);
  } catch (const json::out_of_range&) {
    throw BadJson("a number is out of range");
  }
}

json partAt(const json& document, const std::string& pointer) {
  const json::json_pointer at(pointer);
  try {
    return document.contains(at) ? document.at(at) : json();
  } catch (const json::out_of_range&) {
    return {};  // an index that no array can have
  }
}

}  // namespace Service
