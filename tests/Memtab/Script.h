#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "Hosts.h"

namespace Memtab::Test {

// A reproducible life of a table, turn by turn, to run in one process and to expect in another.
class Script {
 public:
  struct Change {
    Key key;
    std::uint64_t stamp;
    bool del;
  };
  using Turn = std::vector<Change>;

  // TURNS turns of at most CHANGES changes of KEYS keys each. Which keys tend to be there rises and falls,
  // so that the table grows and shrinks. Keys below CONSTANT are added in the first turn, and from then on
  // there after each turn.
  Script(std::uint64_t seed, std::size_t turns, std::size_t changes, Key keys, Key constant) {
    std::mt19937_64 random(seed);
    Stamps now;
    for (std::size_t number = 0; number < turns; ++number) {
      Turn turn;
      for (Key key = 0; number == 0 && key < constant; ++key) {
        turn.push_back({key, key, false});
      }
      const std::uint64_t addPerTen = number / 8 % 2 == 0 ? 7 : 3;
      for (std::size_t change = 1 + random() % changes; change > 0; --change) {
        const Key key = random() % keys;
        const bool del = random() % 10 >= addPerTen;
        turn.push_back({key, random() >> 1U, del});
        if (del && key < constant) {
          turn.push_back({key, random() >> 1U, false});  // deleted and added again in one turn
        }
      }
      turn.push_back({keys, number, false});  // each turn changes something
      for (const Change& change : turn) {
        apply(change, now);
      }
      turns_.push_back(std::move(turn));
      after_.push_back(now);
    }
  }

  const std::vector<Turn>& turns() const { return turns_; }

  // Content after the first COUNT turns.
  const Stamps& after(std::size_t count) const {
    static const Stamps none;
    return count == 0 ? none : after_.at(count - 1);
  }

  // Whether a table that was published after COUNT turns, and perhaps had values replaced by the next, looks
  // like CONTENT; if not, how.
  std::string mistakeIn(const Stamps& content, std::size_t count) const {
    std::map<Key, std::set<std::uint64_t>> possible;
    for (const auto& [key, stamp] : after(count)) {
      possible[key].insert(stamp);
      if (!content.contains(key)) {
        return "key " + std::to_string(key) + " is missing";
      }
    }
    for (std::size_t i = 0; count < turns_.size() && i < turns_[count].size(); ++i) {
      const Change& change = turns_[count][i];
      if (!change.del && possible.contains(change.key)) {
        possible[change.key].insert(change.stamp);
      }
    }
    for (const auto& [key, stamp] : content) {
      if (!possible.contains(key)) {
        return "key " + std::to_string(key) + " should not be there";
      }
      if (!possible[key].contains(stamp)) {
        return "key " + std::to_string(key) + " has a value never written";
      }
    }
    return "";
  }

  static void run(const Turn& turn, HostWriter& writer) {
    for (const Change& change : turn) {
      if (change.del) {
        writer.del(change.key);
      } else {
        writer.is(change.key, hostOf(change.key, change.stamp));
      }
    }
    writer.publish();
  }

 private:
  static void apply(const Change& change, Stamps& content) {
    if (change.del) {
      content.erase(change.key);
    } else {
      content[change.key] = change.stamp;
    }
  }

  std::vector<Turn> turns_;
  std::vector<Stamps> after_;
};

}  // namespace Memtab::Test
