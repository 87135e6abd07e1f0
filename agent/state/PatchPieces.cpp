#include "agent/state/PatchPieces.h"

#include <algorithm>
#include <map>
#include <utility>

#include "agent/state/JsonChecks.h"

namespace Agent {
namespace {

using nlohmann::json;

constexpr const char* hostTable = "macVtepTable";

// The member at the end of a path of names, if there are objects all the way.
json* memberAt(json& value, std::initializer_list<const char*> path) {
  json* at = &value;
  for (const char* name : path) {
    const auto found = at->is_object() ? at->find(name) : at->end();
    if (!at->is_object() || found == at->end()) {
      return nullptr;
    }
    at = &*found;
  }
  return at->is_object() ? at : nullptr;
}

bool isUpper(const std::string& key) {
  return std::any_of(key.begin(), key.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// Moves up to `most` members over.
std::size_t move(json::object_t& from, json& to, std::size_t most) {
  std::size_t moved = 0;
  for (; moved < most && !from.empty(); ++moved) {
    to.get_ref<json::object_t&>().insert(from.extract(from.begin()));
  }
  return moved;
}

}  // namespace

PatchPieces::PatchPieces(const World& world, json patch, std::size_t hosts)
    : world_(world), hosts_(std::max<std::size_t>(hosts, 1)), head_(std::move(patch)) {
  if (json* fdb = memberAt(head_, {"controller", "fdb"})) {
    try {
      takeVnis(*fdb);
    } catch (const Refused&) {
      // So will the whole be.
    }
  }
}

// Takes the VNIs out of the head.
void PatchPieces::takeVnis(json& fdb) {
  std::map<std::uint32_t, std::string> names;
  for (auto vni = fdb.begin(); vni != fdb.end(); ++vni) {
    if (vni->is_object()) {
      names.emplace(vniKey(Place(Place(), vni.key())).value(), vni.key());
    } else if (!vni->is_null()) {
      return;  // announced, in its place among the others
    }
  }
  for (auto& [number, name] : names) {
    Vni vni{name, std::move(fdb[name]), {}, false};
    fdb.erase(name);
    if (Kel::ptrCast<VxlanController::VniFdbStatusV2>(world_.fdb->entityPtr(Kel::Name(name)))) {
      part(vni);
    }
    vnis_.push_back(std::move(vni));
  }
  gone_ = std::exchange(fdb, json::object());
}

// Hosts that go are put aside. A MAC that is not in lower case could be there twice, which is found out only
// where all hosts are together.
void PatchPieces::part(Vni& vni) {
  json* table = memberAt(vni.tables, {hostTable});
  if (table == nullptr) {
    return;
  }
  auto& hosts = table->get_ref<Members&>();
  if (std::any_of(hosts.begin(), hosts.end(), [](const auto& host) { return isUpper(host.first); })) {
    return;
  }
  for (auto host = hosts.begin(); host != hosts.end();) {
    const auto next = std::next(host);
    if (host->second.is_null()) {
      vni.removed.insert(hosts.extract(host));
    }
    host = next;
  }
  vni.parted = true;
}

bool PatchPieces::next(json& piece) {
  if (!std::exchange(begun_, true)) {
    piece = std::move(head_);
    return true;
  }
  piece = json::object();
  json& fdb = piece["controller"]["fdb"] = json::object();
  if (!gone_.empty()) {
    fdb = std::exchange(gone_, nullptr);
    return true;
  }
  for (std::size_t room = hosts_; room > 0 && !vnis_.empty();) {
    if (nextOfVni(fdb, room)) {
      vnis_.pop_front();
    }
  }
  return !fdb.empty();
}

// Puts as much of the first VNI into the piece as there is room for; returns whether that was all of it.
bool PatchPieces::nextOfVni(json& fdb, std::size_t& room) {
  Vni& vni = vnis_.front();
  json& entry = fdb[vni.name] = json::object();
  json* table = memberAt(vni.tables, {hostTable});
  if (!vni.parted) {
    room -= std::min(room, 1 + (table == nullptr ? 0 : table->size()));
    entry = std::move(vni.tables);
    return true;
  }
  auto& set = table->get_ref<Members&>();
  json hosts = json::object();
  room -= move(vni.removed, hosts, room);
  room -= move(set, hosts, room);
  entry[hostTable] = std::move(hosts);
  if (!vni.removed.empty() || !set.empty()) {
    return false;
  }
  vni.tables.erase(hostTable);
  entry.update(vni.tables);
  return true;
}

}  // namespace Agent
