// The rules for the VLAN-VNI maps of a running agent, beyond their form.
#pragma once

#include <nlohmann/json.hpp>
#include <utility>

#include "agent/state/World.h"

namespace Agent {

// A patch that may be carried out, and what is to be done beside it.
struct AgreedPatch {
  nlohmann::json patch;
  nlohmann::json renewed;  // {INTF: {VLAN: VNI}}: mappings to be signalled once more; null for none
};

// VTIs that map anything map the same VNIs. The client writes flood state VTI by VTI and stops at the first
// one that does not map the VNI, so that flood sets of the others would no longer grow and its checks of them
// would fail.
//
// Takes a merge patch of the input document, whole, and judges the maps that it leaves: raises Refused where
// two VTIs that map anything would carry different sets of VNIs; the text says which VTI lacks which VNI. In
// the patch that is returned the map of a VTI that would map nothing beside one that does is removed: the
// client would stop at it as well. Where a VTI ceases to map anything, the client drops the machines of all
// its VNIs, and takes them up again where another VTI signals them: those mappings are to be renewed. A patch
// whose section is not of the form of one is returned as it is, to be refused where its form is read.
AgreedPatch agreedPatch(const World& world, nlohmann::json patch);

// Signals these mappings once more. An exception of a handler leaves through here, when all are signalled.
void renew(World& world, const nlohmann::json& renewed);
// The two patches that do the same to the client, one after the other.
std::pair<nlohmann::json, nlohmann::json> asPatches(const nlohmann::json& renewed);

}  // namespace Agent
