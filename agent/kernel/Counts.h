// How many addresses of a VLAN are in which state, so that nothing has to walk them to count them.
#pragma once

#include <array>
#include <cstddef>

namespace Agent::Kernel {

// Counts addresses by their state, a set of four properties. Each address keeps the state that it is counted
// with and reports a change of it; a change that concerns all addresses at once is made to the counts, and
// each address makes it to its own state when it is next touched. So the cost follows the change.
class CountsByState {
 public:
  using State = unsigned;

  void enter(State state) { ++counts_[state]; }
  void leave(State state) { --counts_[state]; }
  // How many addresses have a state that fulfils the condition.
  template <typename Condition>
  std::size_t count(Condition condition) const {
    std::size_t sum = 0;
    for (State state = 0; state < counts_.size(); ++state) {
      sum += condition(state) ? counts_[state] : 0;
    }
    return sum;
  }
  // Every address goes from its state to `after(state)`.
  template <typename After>
  void changeAll(After after) {
    std::array<std::size_t, 16> changed{};
    for (State state = 0; state < counts_.size(); ++state) {
      changed[after(state)] += counts_[state];
    }
    counts_ = changed;
  }

 private:
  std::array<std::size_t, 16> counts_{};
};

// The unicast addresses of a VLAN.
class HostCounts {
 public:
  using State = CountsByState::State;
  static constexpr State desired = 1;   // Entries are wanted.
  static constexpr State inDevice = 2;  // Ours is in the device's table.
  static constexpr State inBridge = 4;  // Ours is in the bridge's table.
  static constexpr State matching = 8;  // Both are as wanted.

  // The next state when the device, or the bridge, is replaced by another.
  static State withoutDevice(State state) { return state & ~(inDevice | matching); }
  static State withoutBridge(State state) { return state & ~(inBridge | matching); }
  void deviceReplaced() { counts_.changeAll(&withoutDevice); }
  void bridgeReplaced() { counts_.changeAll(&withoutBridge); }
  void enter(State state) { counts_.enter(state); }
  void leave(State state) { counts_.leave(state); }

  std::size_t desiredHosts() const {
    return counts_.count([](State state) { return (state & desired) != 0; });
  }
  std::size_t actualHosts() const {
    return counts_.count([](State state) { return (state & inDevice) != 0 && (state & inBridge) != 0; });
  }
  // In a VLAN without a mapping nothing is wanted.
  std::size_t differingHosts(bool mapped) const {
    return counts_.count([mapped](State state) {
      return mapped && (state & desired) != 0 ? (state & matching) == 0
                                              : (state & (inDevice | inBridge)) != 0;
    });
  }

 private:
  CountsByState counts_;
};

// The group addresses of a VLAN.
class FloodCounts {
 public:
  using State = CountsByState::State;
  static constexpr State listed = 1;   // There is a flood list, maybe of the switch's own address alone.
  static constexpr State desired = 2;  // There is one with other VTEPs.
  static constexpr State actual = 4;   // An entry of ours is in the device's table.
  static constexpr State differs = 8;  // Actual and desired state differ, in a VLAN with a mapping.

  static State withoutDevice(State state) {
    return (state & (listed | desired)) | ((state & listed) != 0 ? differs : 0);
  }
  void deviceReplaced() { counts_.changeAll(&withoutDevice); }
  void enter(State state) { counts_.enter(state); }
  void leave(State state) { counts_.leave(state); }

  std::size_t desiredFloods(bool mapped) const {
    return counts_.count([mapped](State state) { return mapped && (state & desired) != 0; });
  }
  std::size_t actualFloods() const {
    return counts_.count([](State state) { return (state & actual) != 0; });
  }
  std::size_t differingFloods(bool mapped) const {
    return counts_.count([mapped](State state) { return (state & (mapped ? differs : actual)) != 0; });
  }

 private:
  CountsByState counts_;
};

}  // namespace Agent::Kernel
