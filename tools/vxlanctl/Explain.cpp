#include "tools/vxlanctl/Explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <string>

#include "tools/vxlanctl/Sheet.h"

namespace Vxlanctl {

namespace {

using nlohmann::json;

std::string text(const json& object, const char* name) {
  const auto found = object.find(name);
  return found == object.end() ? "-" : cellText(*found);
}

// The steps' names are of different length; what was decided stands in one column.
std::size_t widthOf(const json& steps, const char* name) {
  std::size_t width = 0;
  for (const json& step : steps) {
    width = std::max(width, text(step, name).size());
  }
  return width;
}

}  // namespace

bool printExplanation(const json& answer, std::ostream& out) {
  out << fmt::format("{} in VLAN {} (VNI {})\n", text(answer, "mac"), text(answer, "vlan"),
                     text(answer, "vni"));
  const json steps = answer.value("steps", json::array());
  const std::size_t width = widthOf(steps, "step");
  int number = 0;
  for (const json& step : steps) {
    out << fmt::format("{:3}. {:<{}}  {:<3}  {}\n", ++number, text(step, "step"), width, text(step, "ok"),
                       text(step, "detail"));
  }
  const bool published = answer.value("published", false);
  out << fmt::format("{}: {}\n", published ? "published" : "not published", text(answer, "verdict"));
  return published;
}

}  // namespace Vxlanctl
