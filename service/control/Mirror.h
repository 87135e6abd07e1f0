#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "service/json/Parts.h"

namespace Control {

struct MirrorLevel;

// The memory of mirrors. Memory that a mirror gives up, or the last walk over it, comes back
// here as it is and is freed little by little, since freeing a large part at once takes long.
class MirrorMemory {
 public:
  MirrorMemory() = default;
  ~MirrorMemory();
  MirrorMemory(const MirrorMemory&) = delete;
  MirrorMemory& operator=(const MirrorMemory&) = delete;

  // About how many bytes all mirrors take, with what is not yet freed.
  std::size_t bytes() const { return bytes_; }
  // Whether there is something to free.
  bool due() const { return given_ != nullptr; }
  // Frees about `steps` members, which it counts down; returns whether there is more.
  bool free(std::size_t& steps);

 private:
  friend class Mirror;

  std::size_t bytes_ = 0;
  MirrorLevel* given_ = nullptr;  // a list of levels that nobody uses any more
};

// A part of the document as its followers know it, and what has to be told them.
//
// It is brought up to date in rounds, each a walk of the part: a record that differs from what is known goes
// into the patch, and when the walk is over, sweep() puts in what was not met. A branch that has not changed
// since the last round is not walked. Each step takes a short time, however large the part.
class Mirror {
 public:
  using Level = MirrorLevel;  // the members of an object

  explicit Mirror(std::shared_ptr<MirrorMemory> memory) : memory_(std::move(memory)) {}
  ~Mirror();
  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  // A round begins. `tells`: whether what changes goes into the patch; where nobody follows yet it need not.
  void begin(bool tells);
  // A record of the walk.
  void record(const std::vector<std::string>& path, const std::string& text);
  // A branch of the walk, with its stamp; returns whether its records are needed.
  bool branch(const std::vector<std::string>& path, std::uint64_t stamp);
  // The walk is over; goes on for about `steps` members, which it counts down, and returns whether there is
  // more.
  bool sweep(std::size_t& steps);

  // Number of changes in the patch.
  std::size_t changes() const { return changes_; }
  // Takes the patch: applied to what the followers knew it gives what is known now. Nothing if there is none.
  std::optional<nlohmann::json> takePatch();

  // The known content. It may be walked while rounds go on: it is then the old or the new of each record, and
  // the patches that come meanwhile make the new of all.
  Service::Part part() const;

 private:
  friend class MirrorBranch;
  friend class MirrorMemory;
  friend struct MirrorLevel;

  // The known content of a place: a record, a level or, of the root alone, nothing.
  struct Known {
    std::string record{};
    std::shared_ptr<Level> level{};
    std::uint64_t round = 0;  // in which it was met last
  };
  // A level that was walked in this round.
  struct Walk {
    std::vector<std::string> path;
    std::shared_ptr<Level> level;
    std::string next{};  // the member that the sweep goes on with
  };

  std::shared_ptr<Level> makeLevel() const;
  static const Known* find(const Known& known, const std::string& name);
  Known& meet(Level& level, const std::string& name);
  Known& meet(const std::vector<std::string>& path);
  std::shared_ptr<Level> levelOf(const std::vector<std::string>& path, std::size_t depth, Known& known);
  void becomesLevel(const std::vector<std::string>& path, std::size_t depth, Known& known);
  void recordChanges(const std::vector<std::string>& path, Known& known, const std::string& text);
  void sweepLevel(Walk& walk, std::size_t& steps);
  void sweepRoot();
  void forget(Known& known);
  void put(const std::vector<std::string>& path, std::size_t depth, nlohmann::json value);
  static nlohmann::json jsonOf(const Known& known);

  std::shared_ptr<MirrorMemory> memory_;
  Known root_;
  std::uint64_t round_ = 0;
  std::vector<std::string> lastPath_;  // of the last record
  std::shared_ptr<Level> lastLevel_;   // that it stands in
  std::vector<std::uint64_t> stamps_;  // of the branches that the walk stands in
  std::vector<Walk> walked_;

  bool tells_ = false;
  nlohmann::json patch_;
  bool hasPatch_ = false;
  std::size_t changes_ = 0;
};

// The members of an object, as they are known.
struct MirrorLevel {
  std::map<std::string, Mirror::Known> members{};
  std::size_t met = 0;          // members that were met in `round`
  std::uint64_t round = 0;      // in which it was walked last
  std::uint64_t stamp = 0;      // of the branch when that walk began
  MirrorLevel* next = nullptr;  // in the list of those that are to be freed
};

}  // namespace Control
