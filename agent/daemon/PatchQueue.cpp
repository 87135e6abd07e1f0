#include "agent/daemon/PatchQueue.h"

#include <utility>

#include "agent/state/AgreedMaps.h"

namespace Agent {
namespace {

using nlohmann::json;

constexpr std::size_t hostsPerPiece = 256;

// Whether a patch has more than so many members, at any depth.
bool isLarge(const json& value, std::size_t& room) {
  if (!value.is_object()) {
    return false;
  }
  for (const json& member : value) {
    if (room == 0 || isLarge(member, --room)) {
      return true;
    }
  }
  return false;
}

bool isLarge(const json& patch) {
  std::size_t room = 4 * hostsPerPiece;
  return isLarge(patch, room);
}

}  // namespace

PatchQueue::PatchQueue(Service::EventLoop& loop, World& world, Hooks hooks)
    : loop_(loop), world_(world), hooks_(std::move(hooks)) {}

PatchQueue::~PatchQueue() {
  loop_.dropWork(work_);
}

void PatchQueue::add(json patch, Done done) {
  const bool waits = !patches_.empty() || isLarge(patch);
  patches_.push_back({std::move(patch), std::move(done)});
  if (!waits) {
    finish();
  } else if (work_ == Service::EventLoop::WorkId::none) {
    work_ = loop_.addWork([this] { return slice(); });
  }
}

void PatchQueue::finish() {
  while (!patches_.empty()) {
    advance();
  }
}

bool PatchQueue::slice() {
  while (!patches_.empty() && loop_.budgetLeft()) {
    advance();
  }
  if (patches_.empty()) {
    work_ = Service::EventLoop::WorkId::none;
  }
  return !patches_.empty();
}

// A step of the first patch: a piece is checked, or a change made.
void PatchQueue::advance() {
  bool carriedOut = false;
  try {
    hooks_.begin();
    carriedOut = !step(patches_.front());
  } catch (const std::exception& error) {
    end(&error);
  }
  if (carriedOut) {
    end(nullptr);
  }
}

// False when the patch is carried out.
bool PatchQueue::step(Patch& patch) {
  if (!patch.checked) {
    check(patch);
  } else if (!patch.pieces.empty()) {
    carryOut(patch);
  } else {
    return false;
  }
  return true;
}

void PatchQueue::check(Patch& patch) {
  if (!patch.cut) {
    AgreedPatch agreed = agreedPatch(world_, std::move(patch.whole));
    patch.renewed = std::move(agreed.renewed);
    patch.cut.emplace(world_, std::move(agreed.patch), hostsPerPiece);
  }
  json piece;
  if (patch.cut->next(piece)) {
    const InputPatch checked(world_, piece);
    patch.pieces.push_back(std::move(piece));
  } else {
    patch.checked = true;
  }
}

void PatchQueue::carryOut(Patch& patch) {
  if (!patch.current) {
    patch.current.emplace(world_, patch.pieces.front());
    hooks_.record(patch.pieces.front());
  }
  bool more = true;
  do {
    hooks_.guarded([&] { more = patch.current->step(InputPatch::hostsInHandler); });
  } while (more && !patch.headIsOut);
  if (!more) {
    patch.headIsOut = true;
    patch.current.reset();
    patch.pieces.pop_front();
    renewMaps(patch);
  }
}

// What the client dropped with the last VNI of a VTI, it takes up again where other VTIs map it.
void PatchQueue::renewMaps(Patch& patch) {
  const json renewed = std::exchange(patch.renewed, nullptr);
  if (!renewed.is_null()) {
    const auto [removal, setting] = asPatches(renewed);
    hooks_.record(removal);
    hooks_.record(setting);
    hooks_.guarded([&] { renew(world_, renewed); });
  }
}

void PatchQueue::end(const std::exception* error) {
  const Done done = std::move(patches_.front().done);
  patches_.pop_front();
  done(error);
}

}  // namespace Agent
