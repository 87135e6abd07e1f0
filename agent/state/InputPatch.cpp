#include "agent/state/InputPatch.h"

#include "Kel/Activity.h"
#include "agent/state/PatchSections.h"

namespace Agent {
namespace {

const nlohmann::json empty = nlohmann::json::object();

// What a section's patch says of one of its members: the member's value, or an empty object if it is not
// named.
const nlohmann::json& memberOr(const nlohmann::json& object, const char* name, const nlohmann::json& absent) {
  const auto member = object.find(name);
  return member == object.end() ? absent : *member;
}

void requireKnown(const Place& place, const nlohmann::json& object,
                  std::initializer_list<std::string_view> known) {
  for (auto member = object.begin(); member != object.end(); ++member) {
    if (std::find(known.begin(), known.end(), member.key()) == known.end()) {
      unknownMember(Place(place, member.key()));
    }
  }
}

void planController(World& world, const Place& place, const nlohmann::json& patch, Changes& changes) {
  static const nlohmann::json both = {{"fdb", nullptr}, {"state", nullptr}};
  const nlohmann::json& sections = patch.is_null() ? both : objectAt(place, patch);
  requireKnown(place, sections, {"fdb", "state"});
  // The controller's state comes first: whether it converges decides what is done about its VNIs.
  planControllerState(world, Place(place, "state"), memberOr(sections, "state", empty), changes);
  planControllerFdb(world, Place(place, "fdb"), memberOr(sections, "fdb", empty), changes);
}

}  // namespace

InputPatch::InputPatch(World& world, const nlohmann::json& patch) {
  const Place root;
  objectAt(root, patch);
  requireKnown(root, patch, {"vtiStatus", "vlanVniMap", "mlag", "hardware", "controller"});
  planVtiStatus(world, Place(root, "vtiStatus"), memberOr(patch, "vtiStatus", empty), changes_);
  planVlanVniMap(world, Place(root, "vlanVniMap"), memberOr(patch, "vlanVniMap", empty), changes_);
  planMlag(world, Place(root, "mlag"), memberOr(patch, "mlag", empty), changes_);
  planHardware(world, Place(root, "hardware"), memberOr(patch, "hardware", empty), changes_);
  planController(world, Place(root, "controller"), memberOr(patch, "controller", empty), changes_);
}

bool InputPatch::step(std::size_t hosts) {
  if (changes_.empty()) {
    return false;
  }
  const auto makeNext = [this] {
    const std::function<void()> make = std::move(changes_.front().make);
    changes_.pop_front();
    make();
  };
  const void* const table = changes_.front().hostsOf;
  if (table == nullptr || hosts == 1) {
    makeNext();
    return true;
  }
  Kel::ActivityLoop::instance().asHandler([&] {
    for (std::size_t made = 0; made < hosts && !changes_.empty() && changes_.front().hostsOf == table;
         ++made) {
      makeNext();
    }
  });
  return true;
}

void sortByText(std::vector<Qnet::IpAddr>& addresses) {
  std::sort(addresses.begin(), addresses.end(),
            [](Qnet::IpAddr a, Qnet::IpAddr b) { return a.text() < b.text(); });
}

AddressPatch readAddresses(const Place& place, const nlohmann::json& patch) {
  AddressPatch addresses;
  // The members of a JSON object come in the order of their text.
  for (auto member = objectAt(place, patch).begin(); member != patch.end(); ++member) {
    const Place at(place, member.key());
    const Qnet::IpAddr address = ipKey(at);
    if (member->is_null()) {
      addresses.removed.push_back(address);
    } else {
      addresses.set.emplace_back(address, boolAt(at, *member));
    }
  }
  return addresses;
}

}  // namespace Agent
