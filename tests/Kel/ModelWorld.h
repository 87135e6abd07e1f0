// The rules of delivery written down plainly, as a world of the random programs.
#pragma once

#include <algorithm>
#include <array>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "World.h"

namespace scenario {

// For each device a list of who is bound; one queue; one list of what is armed. Nothing is clever.
class ModelWorld final : public World {
 public:
  ModelWorld() {
    for (std::uint32_t at = 0; at < listeners; ++at) {
      listeners_.push_back(newListener(at));
    }
  }

  void up(std::uint32_t device, bool value) override {
    if (std::exchange(devices_[device].up, value) != value) {
      notify(device, "up");
    }
  }
  void load(std::uint32_t device, int value) override {
    if (std::exchange(devices_[device].load, value) != value) {
      notify(device, "load");
    }
  }
  void counter(std::uint32_t device, std::uint32_t key, int value) override {
    Counters& counters = devices_[device].counters;
    auto at = std::find_if(counters.begin(), counters.end(),
                           [&](const auto& one) { return one && one->first == key; });
    if (at != counters.end() && (*at)->second == value) {
      return;
    }
    if (at == counters.end()) {
      at = std::find(counters.begin(), counters.end(),
                     std::nullopt);  // the first free place; there is one a key
    }
    *at = {key, value};
    notify(device, "counter " + std::to_string(key));
  }
  void counterDel(std::uint32_t device, std::uint32_t key) override {
    for (auto& one : devices_[device].counters) {
      if (one && one->first == key) {
        one.reset();
        return notify(device, "counter " + std::to_string(key));
      }
    }
  }
  void counterDelAll(std::uint32_t device) override {
    const Counters before = std::exchange(devices_[device].counters, {});
    if (before != Counters()) {
      handler([&] {
        for (const auto& one : before) {
          if (one) {
            notify(device, "counter " + std::to_string(one->first));
          }
        }
      });
    }
  }
  void part(std::uint32_t device, std::uint32_t key, std::uint32_t what) override {
    if (std::exchange(devices_[device].parts[key], what) != what) {
      notify(device, std::string("part ") + partName[key]);
    }
  }
  void partDel(std::uint32_t device, std::uint32_t key) override {
    if (std::exchange(devices_[device].parts[key], std::nullopt)) {
      notify(device, std::string("part ") + partName[key]);
    }
  }
  void partDelAll(std::uint32_t device) override {
    const Parts before = std::exchange(devices_[device].parts, {});
    if (before != Parts()) {
      handler([&] {
        for (std::uint32_t key = 0; key < keys; ++key) {
          if (before[key]) {
            notify(device, std::string("part ") + partName[key]);
          }
        }
        callAtOnce(device, "parts");
      });
    }
  }
  void ping(std::uint32_t device, std::uint32_t key) override {
    notify(device, "ping " + std::to_string(key));
  }
  void alarmAll(std::uint32_t device) override { callAtOnce(device, "alarms"); }

  void bind(std::uint32_t listener, int device) override {
    bind(listeners_[listener], device < 0 ? std::nullopt : Device(device));
  }
  void active(std::uint32_t listener, bool active) override { listeners_[listener]->active = active; }
  void zombie(std::uint32_t listener, bool zombie) override { listeners_[listener]->zombie = zombie; }
  void renew(std::uint32_t listener) override {
    bind(listeners_[listener], std::nullopt);
    listeners_[listener] = newListener(listener);
  }

  void machineIs(std::uint32_t device) override {
    machineDel();
    Machine& fresh = *machines_.emplace_back(std::make_unique<Machine>());
    try {
      handler([&] {
        inputIs(fresh, device);
        reconcile(fresh);
        activeIs(fresh, true);
      });
    } catch (...) {
      destroy(fresh);
      throw;
    }
    if (Machine* other = std::exchange(machine_, &fresh)) {
      destroy(*other);  // one that was made meanwhile, by a handler
    }
  }
  void machineDel() override {
    if (Machine* dying = std::exchange(machine_, nullptr)) {
      destroy(*dying);
    }
  }
  void machineInput(int device) override {
    if (machine_ != nullptr) {
      inputIs(*machine_, device < 0 ? std::nullopt : Device(device));
    }
  }
  void machineActive(bool active) override {
    if (machine_ != nullptr) {
      activeIs(*machine_, active);
    }
  }
  void machineZombie(bool zombie) override {
    if (machine_ != nullptr && std::exchange(machine_->zombie, zombie) != zombie) {
      for (const Who& who : machine_->reactors()) {
        who->zombie = zombie;
      }
    }
  }
  void guardIs(std::uint32_t key, std::uint32_t device) override {
    if (machine_ == nullptr) {
      return;
    }
    if (const auto present = machine_->guards.find(key); present != machine_->guards.end()) {
      if (present->second->bound != device) {
        heard("name in use");
      }
      return;
    }
    handler([&] {
      const auto guard = std::make_shared<Follower>();
      guard->call = [this, key](const std::string& what) {
        if (what == "up") {
          heard(std::string("guard ") + partName[key] + " up");
        }
      };
      guard->active = false;
      guard->zombie = machine_->zombie;
      bind(guard, device);
      guard->active = true;
      machine_->guards[key] = guard;
    });
  }
  void guardDel(std::uint32_t key) override {
    if (machine_ != nullptr) {
      drop(machine_->guards, key);
    }
  }

  void arm(std::uint32_t clock, double due) override { armed_[clock] = {due, ++armings_}; }
  void handler(const std::function<void()>& function) override {
    inside(function);
    settle();
  }
  void turn(double now) override {
    settle();
    std::vector<std::pair<Armed, std::uint32_t>> due;
    for (std::uint32_t at = 0; at < clocks; ++at) {
      if (armed_[at].due <= now) {
        due.emplace_back(armed_[at], at);
      }
    }
    std::sort(due.begin(), due.end());
    for (const auto& [armed, at] : due) {
      if (armed_[at] == armed) {
        armed_[at].due = never;
        queue_.push_back({nullptr, 0, "C" + std::to_string(at)});
        settle();
      }
    }
  }

 private:
  static constexpr double never = std::numeric_limits<double>::infinity();

  using Device = std::optional<std::uint32_t>;
  using Counters = std::array<std::optional<std::pair<std::uint32_t, int>>, keys>;  // in the order of a walk
  using Parts = std::array<Device, keys>;
  struct State {
    bool up = false;
    int load = 0;
    Counters counters;
    Parts parts;
  };
  // One that hears: a listener of the program's, or a reactor of a machine's.
  struct Follower {
    std::function<void(const std::string&)> call;
    bool active = true;
    bool zombie = false;
    Device bound;
    std::uint32_t binding = 0;
  };
  using Who = std::shared_ptr<Follower>;
  using Reactors = std::map<std::uint32_t, Who>;
  // What is pending for one that hears, or, without one, what a clock says.
  struct Pending {
    Who who;
    std::uint32_t binding;
    std::string what;
    bool listens() const { return !who || (who->binding == binding && who->active && !who->zombie); }
  };
  struct Armed {
    double due = never;
    std::uint64_t sequence = 0;
    auto operator<=>(const Armed&) const = default;
  };
  struct Machine {
    bool gone = false;
    bool active = false;
    bool zombie = false;
    Device device;
    Who input;
    Reactors parts;
    Reactors guards;

    std::vector<Who> reactors() const {
      std::vector<Who> all;
      if (input) {
        all.push_back(input);
      }
      for (const Reactors* some : {&parts, &guards}) {
        for (const auto& [key, who] : *some) {
          all.push_back(who);
        }
      }
      return all;
    }
  };

  Who newListener(std::uint32_t at) {
    auto fresh = std::make_shared<Follower>();
    fresh->call = [this, at](const std::string& what) { heard("L" + std::to_string(at) + ' ' + what); };
    return fresh;
  }

  void notify(std::uint32_t device, const std::string& what) {
    for (const Who& who : bound_[device]) {
      queue_.push_back({who, who->binding, what});
    }
    if (!bound_[device].empty()) {
      settle();
    }
  }
  void callAtOnce(std::uint32_t device, const std::string& what) {
    std::vector<Pending> now;
    for (const Who& who : bound_[device]) {
      now.push_back({who, who->binding, what});
    }
    for (const Pending& one : now) {
      callAtOnce(one);
    }
  }
  void callAtOnce(const Pending& one) {
    if (one.listens()) {
      handler([&] { one.who->call(one.what); });
    }
  }
  void inside(const std::function<void()>& function) {
    struct Depth {
      int& depth;
      explicit Depth(int& counted) : depth(counted) { ++depth; }
      ~Depth() { --depth; }
    } const depth(depth_);
    function();
  }
  void settle() {
    if (depth_ != 0) {
      return;
    }
    inside([&] {
      while (!queue_.empty()) {
        const Pending one = queue_.front();
        queue_.pop_front();
        if (!one.who) {
          heard(one.what);
        } else if (one.listens()) {
          one.who->call(one.what);
        }
      }
    });
  }

  void bind(Who who, Device device) {
    if (who->bound == device) {
      return;
    }
    if (who->bound) {
      std::erase(bound_[*who->bound], who);
    }
    who->bound = device;
    ++who->binding;
    if (device) {
      bound_[*device].push_back(who);
      if (who->active) {
        handler([&] { countAsBound(who, *device); });
      }
    }
  }
  void countAsBound(const Who& who, std::uint32_t device) {
    const std::uint32_t binding = who->binding;
    queue_.push_back({who, binding, "up"});
    queue_.push_back({who, binding, "load"});
    for (const auto& one : devices_[device].counters) {
      if (one) {
        queue_.push_back({who, binding, "counter " + std::to_string(one->first)});
      }
    }
    callAtOnce({who, binding, "parts"});
    callAtOnce({who, binding, "alarms"});
  }

  // The reactors of a machine.
  Who newReactor(const Machine& machine, std::function<void(const std::string&)> call) {
    auto fresh = std::make_shared<Follower>();
    fresh->call = std::move(call);
    fresh->active = machine.active;
    fresh->zombie = machine.zombie;
    return fresh;
  }
  void drop(const Who& who) {
    who->zombie = true;
    bind(who, std::nullopt);
  }
  void drop(Reactors& reactors, std::uint32_t key) {
    if (const auto at = reactors.find(key); at != reactors.end()) {
      const Who who = at->second;
      reactors.erase(at);
      drop(who);
    }
  }
  void destroy(Machine& machine) {
    machine.gone = true;
    for (const Who& who : machine.reactors()) {
      drop(who);
    }
  }
  void activeIs(Machine& machine, bool active) {
    if (std::exchange(machine.active, active) != active) {
      for (const Who& who : machine.reactors()) {
        who->active = active;
      }
    }
  }
  void inputIs(Machine& machine, Device device) {
    machine.device = device;
    if (!device) {
      if (const Who who = std::exchange(machine.input, nullptr)) {
        drop(who);
      }
      return;
    }
    if (!machine.input) {
      machine.input = newReactor(machine, [this, &machine](const std::string& what) { hear(machine, what); });
    }
    bind(machine.input, device);
  }
  void hear(Machine& machine, const std::string& what) {
    if (what == "up" || what == "load") {
      heard("monitor " + what);
    } else if (what == "parts") {
      reconcile(machine);
    } else if (what.starts_with("part ")) {
      heard("monitor " + what);
      if (machine.gone) {
        return;
      }
      const auto key = static_cast<std::uint32_t>(what.back() - 'a');
      if (machine.device && devices_[*machine.device].parts[key]) {
        partIs(machine, key, *devices_[*machine.device].parts[key]);
      } else {
        drop(machine.parts, key);
      }
    }
  }
  void reconcile(Machine& machine) {
    if (!machine.device) {
      return;
    }
    const Parts& wanted = devices_[*machine.device].parts;
    for (std::uint32_t key = 0; key < keys; ++key) {
      if (wanted[key]) {
        partIs(machine, key, *wanted[key]);
      }
    }
    for (std::uint32_t key = 0; key < keys; ++key) {
      if (!wanted[key]) {
        drop(machine.parts, key);
      }
    }
  }
  void partIs(Machine& machine, std::uint32_t key, std::uint32_t device) {
    Who& who = machine.parts[key];
    if (!who) {
      who = newReactor(machine, [this, key](const std::string& what) {
        if (what == "load") {
          heard(std::string("monitor load of ") + partName[key]);
        }
      });
    }
    bind(who, device);
  }

  std::array<State, devices> devices_;
  std::array<std::vector<Who>, devices> bound_;
  std::vector<Who> listeners_;
  std::vector<std::unique_ptr<Machine>> machines_;  // all there ever were; the last may be the present one
  Machine* machine_ = nullptr;
  std::array<Armed, clocks> armed_;
  std::uint64_t armings_ = 0;
  std::deque<Pending> queue_;
  int depth_ = 0;
};

}  // namespace scenario
