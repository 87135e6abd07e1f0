#include "agent/daemon/KernelDocuments.h"

#include <array>
#include <ctime>
#include <string>

namespace Agent {
namespace {

using nlohmann::json;

// Such as "2026-01-31T23:59:59Z".
std::string utcText(std::chrono::system_clock::time_point at) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(at);
  std::tm parts{};
  (void)::gmtime_r(&seconds, &parts);
  std::array<char, 32> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

const char* word(Kernel::Owner owner) {
  switch (owner) {
    case Kernel::Owner::none:
      return "none";
    case Kernel::Owner::ours:
      return "ours";
    case Kernel::Owner::foreign:
      return "foreign";
    case Kernel::Owner::learned:
      return "learned";
  }
  return "";
}

const char* word(Kernel::Explanation::Kind kind) {
  switch (kind) {
    case Kernel::Explanation::Kind::none:
      return "";
    case Kernel::Explanation::Kind::vtep:
      return "vtep";
    case Kernel::Explanation::Kind::any:
      return "any";
    case Kernel::Explanation::Kind::all:
      return "all";
  }
  return "";
}

json texts(const std::vector<Kernel::Ip4>& addresses) {
  json out = json::array();
  for (const Kernel::Ip4 address : addresses) {
    out.push_back(address.text());
  }
  return out;
}

json readBackDocument(const Kernel::ReadBack& found) {
  if (!found.there) {
    return {{"there", false}, {"answer", found.answer}};
  }
  json out{{"there", true}, {"marked", found.marked}};
  if (found.dst) {
    out["dst"] = found.dst.text();
  }
  if (found.nexthop != 0) {
    out["nexthop"] = found.nexthop;
  }
  if (!found.port.empty()) {
    out["port"] = found.port;
  }
  return out;
}

}  // namespace

json kernelDocument(const Kernel::AdapterStatus& status) {
  json out;
  for (const Kernel::Tally& tally : status.tallies) {
    json& kind = out["kinds"][tally.kind];
    kind = {{"wanted", tally.desired},
            {"there", tally.actual},
            {"differing", nullptr},
            {"unknown", tally.unknown}};
    if (tally.unknown == 0) {
      kind["differing"] = tally.differing;
    }
    kind["compared"] = status.compared ? json(utcText(*status.compared)) : json();
  }
  const Kernel::Counters& counters = status.counters;
  out["counters"] = {{"requests", counters.requests}, {"acknowledged", counters.acknowledged},
                     {"refused", counters.refused},   {"reports", counters.notifications},
                     {"overruns", counters.overruns}, {"audits", counters.audits},
                     {"repairs", counters.repairs}};
  out["adopted"] = status.adopted;
  out["longestSliceNs"] = status.longestSlice.count();
  out["problems"] = status.problems;
  return out;
}

json kernelAccount(const Kernel::FullExplanation& explanation) {
  const Kernel::Explanation& known = explanation.known;
  json out{{"vlan", explanation.vlan},
           {"mac", explanation.mac.text()},
           {"mapped", known.mapped},
           {"differs", known.differs}};
  if (known.mapped) {
    out["vni"] = known.vni;
  }
  out["wanted"] = json::object();
  if (known.desired != Kernel::Explanation::Kind::none) {
    out["wanted"] = {{"kind", word(known.desired)}, {"vteps", texts(known.desiredVteps)}};
  }
  json device{
      {"device", known.device}, {"row", word(known.deviceOwner)}, {"vteps", texts(known.deviceVteps)}};
  if (known.deviceNexthop != 0) {
    device["nexthop"] = known.deviceNexthop;
  }
  out["acknowledged"]["device"] = device;
  out["acknowledged"]["bridge"] = {
      {"bridge", known.bridge}, {"row", word(known.portOwner)}, {"port", known.port}};
  out["kernel"] = json::object();
  if (explanation.device) {
    out["kernel"]["device"] = readBackDocument(*explanation.device);
  }
  if (explanation.bridge) {
    out["kernel"]["bridge"] = readBackDocument(*explanation.bridge);
  }
  if (!known.problem.empty()) {
    out["problem"] = known.problem;
  }
  return out;
}

}  // namespace Agent
