#include "Kel/Name.h"

#include <functional>
#include <ostream>
#include <unordered_set>

namespace Kel {
namespace {

// Finds a text without making a string of it.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};
using Pool = std::unordered_set<std::string, TextHash, std::equal_to<>>;

// Never destroyed: names may outlive the statics of every other source.
Pool& pool() {
  static auto* names = new Pool;
  return *names;
}

const std::string& textOf(std::string_view text) {
  const auto at = pool().find(text);
  return at != pool().end() ? *at : *pool().emplace(text).first;
}

}  // namespace

Name::Name(std::string_view text) : text_(text.empty() ? nullptr : &textOf(text)) {}

const std::string& Name::emptyText() {
  static const auto* text = new std::string;  // like the pool, never destroyed
  return *text;
}

std::ostream& operator<<(std::ostream& stream, const Name& name) {
  return stream << name.text();
}

}  // namespace Kel
