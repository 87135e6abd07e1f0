#include "service/control/Mirror.h"

#include <algorithm>
#include <utility>

#include "service/control/MergeDiff.h"
#include "service/json/Text.h"

namespace Control {

namespace {

using nlohmann::json;
using Path = std::vector<std::string>;

constexpr std::size_t memberBytes = 200;  // of a member, beside the texts of its name and its record

bool sameParent(const Path& one, const Path& other) {
  return one.size() == other.size() && std::equal(one.begin(), one.end() - 1, other.begin());
}

}  // namespace

// Walks what is known while rounds go on.
class MirrorBranch final : public Service::Branch {
 public:
  explicit MirrorBranch(std::shared_ptr<const Mirror::Level> level) : level_(std::move(level)) {}

  Service::Walked next(std::string& name, Service::Part& part) override {
    const auto at = begun_ ? level_->members.upper_bound(last_) : level_->members.begin();
    if (at == level_->members.end()) {
      return Service::Walked::end;
    }
    begun_ = true;
    name = last_ = at->first;
    part = partOf(at->second);
    return Service::Walked::member;
  }
  Service::Part find(const std::string& name) override {
    const auto found = level_->members.find(name);
    return found == level_->members.end() ? Service::Part() : partOf(found->second);
  }

  static Service::Part partOf(const Mirror::Known& known) {
    return known.level ? Service::Part(std::make_unique<MirrorBranch>(known.level))
                       : Service::Part(known.record);
  }

 private:
  std::shared_ptr<const Mirror::Level> level_;
  std::string last_;
  bool begun_ = false;
};

MirrorMemory::~MirrorMemory() {
  for (std::size_t steps = 1; free(steps); steps = 1) {
  }
}

bool MirrorMemory::free(std::size_t& steps) {
  while (steps > 0 && given_ != nullptr) {
    MirrorLevel* const level = given_;
    --steps;
    if (level->members.empty()) {
      given_ = level->next;
      delete level;
      continue;
    }
    const auto first = level->members.begin();
    bytes_ -= memberBytes + first->first.size() + first->second.record.size();
    level->members.erase(first);  // a level below it comes to the head of the list
  }
  return given_ != nullptr;
}

Mirror::~Mirror() {
  memory_->bytes_ -= root_.record.size();
}

// A level that goes to the memory's list, if that is still there, when its last user has gone.
std::shared_ptr<MirrorLevel> Mirror::makeLevel() const {
  return {new MirrorLevel, [memory = std::weak_ptr(memory_)](MirrorLevel* level) {
            if (const std::shared_ptr<MirrorMemory> there = memory.lock()) {
              level->next = std::exchange(there->given_, level);
            } else {
              delete level;
            }
          }};
}

void Mirror::begin(bool tells) {
  ++round_;
  tells_ = tells;
  lastLevel_ = nullptr;
  stamps_.clear();
  walked_.clear();
}

void Mirror::record(const Path& path, const std::string& text) {
  if (text == "null") {
    return;  // a patch cannot tell it from nothing
  }
  Known& known = meet(path);
  if (text == "{}") {
    levelOf(path, path.size(), known);
  } else if (known.level || known.record != text) {
    recordChanges(path, known, text);
  }
}

bool Mirror::branch(const Path& path, std::uint64_t stamp) {
  const Known* known = &root_;
  for (auto name = path.begin(); known != nullptr && name != path.end(); ++name) {
    known = find(*known, *name);
  }
  if (stamp != 0 && known != nullptr && known->level && known->level->stamp == stamp) {
    meet(path);
    return false;
  }
  stamps_.resize(path.size() + 1);
  stamps_.back() = stamp;
  return true;
}

const Mirror::Known* Mirror::find(const Known& known, const std::string& name) {
  if (!known.level) {
    return nullptr;
  }
  const auto found = known.level->members.find(name);
  return found == known.level->members.end() ? nullptr : &found->second;
}

Mirror::Known& Mirror::meet(Level& level, const std::string& name) {
  const auto [at, isNew] = level.members.try_emplace(name);
  Known& known = at->second;
  if (isNew) {
    memory_->bytes_ += memberBytes + name.size();
  }
  if (known.round != round_) {
    known.round = round_;
    ++level.met;
  }
  return known;
}

// The known content of a place, which counts as met in this round, and so do all above it.
Mirror::Known& Mirror::meet(const Path& path) {
  root_.round = round_;
  if (path.empty()) {
    return root_;
  }
  if (!lastLevel_ || !sameParent(path, lastPath_)) {
    Known* known = &root_;
    for (std::size_t depth = 0; depth + 1 < path.size(); ++depth) {
      known = &meet(*levelOf(path, depth, *known), path[depth]);
    }
    lastLevel_ = levelOf(path, path.size() - 1, *known);
    lastPath_ = path;
  }
  return meet(*lastLevel_, path.back());
}

// The level of the place that the first `depth` names of a path lead to; it counts as walked in this round.
std::shared_ptr<MirrorLevel> Mirror::levelOf(const Path& path, std::size_t depth, Known& known) {
  if (!known.level) {
    becomesLevel(path, depth, known);
  }
  if (known.level->round != round_) {
    known.level->round = round_;
    known.level->met = 0;
    known.level->stamp = depth < stamps_.size() ? stamps_[depth] : 0;
    walked_.push_back({Path(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(depth)), known.level});
  }
  return known.level;
}

void Mirror::becomesLevel(const Path& path, std::size_t depth, Known& known) {
  known.level = makeLevel();
  const std::string record = std::exchange(known.record, {});
  memory_->bytes_ -= record.size();
  if (!record.starts_with('{')) {
    put(path, depth, json::object());
    return;
  }
  const json members = Service::parseJson(record);
  for (const auto& [name, member] : members.items()) {
    Known& old = known.level->members[name];
    old.record = member.dump();
    memory_->bytes_ += memberBytes + name.size() + old.record.size();
  }
}

void Mirror::recordChanges(const Path& path, Known& known, const std::string& text) {
  if (tells_) {
    if (auto change = mergeDiff(jsonOf(known), Service::parseJson(text))) {
      put(path, path.size(), std::move(*change));
    }
  }
  forget(known);
  known.record = text;
  memory_->bytes_ += text.size();
}

bool Mirror::sweep(std::size_t& steps) {
  if (root_.round != round_) {
    sweepRoot();
  }
  lastLevel_ = nullptr;
  while (steps > 0 && !walked_.empty()) {
    Walk& walk = walked_.back();
    if (walk.level->met < walk.level->members.size()) {
      sweepLevel(walk, steps);
    } else {
      walked_.pop_back();
      --steps;
    }
  }
  return !walked_.empty();
}

// Nothing is there any more.
void Mirror::sweepRoot() {
  if (root_.level || !root_.record.empty()) {
    put({}, 0, nullptr);
  }
  forget(root_);
  root_.round = round_;
}

void Mirror::sweepLevel(Walk& walk, std::size_t& steps) {
  auto& members = walk.level->members;
  for (auto at = members.lower_bound(walk.next); at != members.end(); --steps) {
    if (steps == 0) {
      walk.next = at->first;
      return;
    }
    if (at->second.round == round_) {
      ++at;
      continue;
    }
    walk.path.push_back(at->first);
    put(walk.path, walk.path.size(), nullptr);
    walk.path.pop_back();
    memory_->bytes_ -= memberBytes + at->first.size();
    forget(at->second);
    at = members.erase(at);
  }
}

void Mirror::forget(Known& known) {
  memory_->bytes_ -= known.record.size();
  known.record.clear();
  known.level = nullptr;
}

std::optional<json> Mirror::takePatch() {
  changes_ = 0;
  if (!std::exchange(hasPatch_, false)) {
    return std::nullopt;
  }
  return std::exchange(patch_, json());
}

Service::Part Mirror::part() const {
  return MirrorBranch::partOf(root_);
}

// Puts a value where the first `depth` names of a path lead to in the patch.
void Mirror::put(const Path& path, std::size_t depth, json value) {
  if (!tells_) {
    return;
  }
  json* at = &patch_;
  for (std::size_t i = 0; i < depth; ++i) {
    at = &(*at)[path[i]];
  }
  *at = std::move(value);
  hasPatch_ = true;
  ++changes_;
}

json Mirror::jsonOf(const Known& known) {
  if (known.level) {
    return Service::jsonOf(MirrorBranch::partOf(known));
  }
  return known.record.empty() ? json() : Service::parseJson(known.record);
}

}  // namespace Control
