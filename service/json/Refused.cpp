#include "service/json/Refused.h"

#include <algorithm>
#include <array>

namespace Service {
namespace {

using Kind = Refused::Kind;

constexpr std::array<std::pair<Kind, std::string_view>, 4> names{{{Kind::refused, "refused"},
                                                                  {Kind::notFound, "notFound"},
                                                                  {Kind::denied, "denied"},
                                                                  {Kind::failed, "failed"}}};

}  // namespace

std::string_view nameOf(Kind kind) {
  return std::ranges::find(names, kind, &std::pair<Kind, std::string_view>::first)->second;
}

Kind refusedKindOf(std::string_view name) {
  const auto found = std::ranges::find(names, name, &std::pair<Kind, std::string_view>::second);
  return found == names.end() ? Kind::refused : found->first;
}

}  // namespace Service
