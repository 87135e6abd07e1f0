// A large patch in pieces.
#pragma once

#include <cstddef>
#include <deque>
#include <nlohmann/json.hpp>

#include "agent/state/World.h"

namespace Agent {

// Takes a merge patch of the input document apart into pieces that make, one after the other, the same
// changes in the same order, so that each can be checked and planned in a moment. A patch that is not of the
// form of one stays whole. Hosts of one VNI are parted where it is instantiated; a new VNI is filled before
// it is entered, and so stays whole.
class PatchPieces {
 public:
  // Pieces with about `hosts` hosts each.
  PatchPieces(const World& world, nlohmann::json patch, std::size_t hosts);

  // Cuts the next piece off; false when nothing is left.
  bool next(nlohmann::json& piece);

 private:
  using Members = nlohmann::json::object_t;
  struct Vni {
    std::string name;
    nlohmann::json tables;
    Members removed;  // of its hosts, those that go; they go first
    bool parted;      // its hosts may be in several pieces
  };

  void takeVnis(nlohmann::json& fdb);
  static void part(Vni& vni);
  bool nextOfVni(nlohmann::json& fdb, std::size_t& room);

  const World& world_;
  std::size_t hosts_;
  nlohmann::json head_;   // all but the VNIs
  nlohmann::json gone_;   // VNIs that go
  std::deque<Vni> vnis_;  // ascending
  bool begun_ = false;    // the head is out
};

}  // namespace Agent
