#include "agent/json/Text.h"

#include <algorithm>

namespace Agent {

namespace {

using nlohmann::json;

// How deep arrays and objects stand inside one another, found without building them.
int depthOf(std::string_view text) {
  int depth = 0;
  int deepest = 0;
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
      deepest = std::max(deepest, ++depth);
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return deepest;
}

BadJson notJson(std::size_t byte) {
  return BadJson("not JSON at byte " + std::to_string(byte), byte);
}

}  // namespace

json parseJson(std::string_view text) {
  // The parser takes a zero byte for the end of the text.
  if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
    throw notJson(zero + 1);
  }
  if (depthOf(text) > deepestJson) {
    throw BadJson("nested deeper than " + std::to_string(deepestJson) + " levels");
  }
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

}  // namespace Agent
