#include "Kel/Name.h"

#include <ostream>
#include <unordered_set>

namespace Kel {
namespace {

// Never destroyed: names may outlive the statics of every other source.
std::unordered_set<std::string>& pool() {
  static auto* names = new std::unordered_set<std::string>;
  return *names;
}

const std::string& emptyText() {
  static const std::string& text = *pool().emplace().first;
  return text;
}

}  // namespace

Name::Name() noexcept : text_(&emptyText()) {}

Name::Name(std::string_view text) : text_(&*pool().emplace(text).first) {}

std::ostream& operator<<(std::ostream& stream, const Name& name) {
  return stream << name.text();
}

}  // namespace Kel
