#pragma once

#include <bitset>
#include <string>

#include "RingLog/Format.h"

// The levels whose records are wanted.
class LevelSet {
 public:
  LevelSet() { wanted_.set(); }  // all

  // text: levels and ranges of levels, such as "8" or "0-3,8". Raises std::invalid_argument that says what is
  // wrong with it.
  static LevelSet parse(const std::string& text);

  // level: as a trace has it.
  bool has(unsigned level) const { return level < wanted_.size() && wanted_[level]; }

 private:
  std::bitset<RingLog::Format::maxLevels> wanted_;
};
