// The patches from the control socket, on their way into the state database.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "agent/state/InputPatch.h"
#include "agent/state/PatchPieces.h"
#include "service/loop/EventLoop.h"

namespace Agent {

// Carries out patches one after the other: a small one at once, a large one in pieces, in slices of the
// loop's bulk work, so that the loop goes on while it is checked and carried out. All pieces are checked
// before the first is carried out, and recorded before it is carried out. The first has all but the VNIs and
// is carried out at once, since others may change meanwhile what it was checked against, and so that no clock
// fires between the maps of two VTIs. VTIs that map anything map the same VNIs: that is judged on the whole
// patch, before it is cut. Whatever is thrown on the way ends that patch, with an answer that says so.
class PatchQueue {
 public:
  struct Hooks {
    std::function<void()> begin;  // before something is checked or changed: nothing else is half done then
    std::function<void(const std::function<void()>& change)> guarded;  // keeps what a change throws
    std::function<void(const nlohmann::json& patch)> record;           // before it is carried out
  };
  // Told why a patch was refused (Refused) or what else stopped it, or null when it was carried out.
  using Done = std::function<void(const std::exception*)>;

  // `loop` and `world` must outlive the queue.
  PatchQueue(Service::EventLoop& loop, World& world, Hooks hooks);
  ~PatchQueue();
  PatchQueue(const PatchQueue&) = delete;
  PatchQueue& operator=(const PatchQueue&) = delete;

  // Takes a patch in; `done` is called when it is carried out, at once or in a later turn.
  void add(nlohmann::json patch, Done done);
  // Carries out all that waits.
  void finish();

 private:
  // A patch on its way: it is cut, and each piece is checked as it comes; then the pieces are carried out.
  struct Patch {
    nlohmann::json whole;
    Done done;
    std::optional<PatchPieces> cut{};
    nlohmann::json renewed{};  // mappings to be signalled once more behind the head
    bool checked = false;
    std::deque<nlohmann::json> pieces{};
    std::optional<InputPatch> current{};  // of the first piece
    bool headIsOut = false;
  };

  bool slice();
  void advance();
  bool step(Patch& patch);
  void check(Patch& patch);
  void carryOut(Patch& patch);
  void renewMaps(Patch& patch);
  void end(const std::exception* error);

  Service::EventLoop& loop_;
  World& world_;
  Hooks hooks_;
  std::deque<Patch> patches_;
  Service::EventLoop::WorkId work_ = Service::EventLoop::WorkId::none;
};

}  // namespace Agent
