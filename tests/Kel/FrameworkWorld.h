// The framework as a world of the random programs.
#pragma once

#include "Kel/System.h"
#include "Machines.h"
#include "World.h"

namespace scenario {

class FrameworkWorld final : public World {
 public:
  FrameworkWorld() {
    Kel::System::timeSourceIs(&time_);
    Kel::tableSeedIs(0);
    journal_.always([this](const std::string& what) { heard(what); });
    for (std::uint32_t at = 0; at < devices; ++at) {
      devices_.push_back(Kel::make<Device>());
    }
    for (std::uint32_t at = 0; at < listeners; ++at) {
      listeners_.push_back(newListener(at));
    }
    for (std::uint32_t at = 0; at < clocks; ++at) {
      clocks_.push_back(Kel::ActivityFacility::clock());
      ringers_.push_back(Kel::make<Ringer>(*this, at));
      ringers_.back()->notifierIs(clocks_.back());
      ringers_.back()->hasNotificationActiveIs(true);
    }
  }
  ~FrameworkWorld() override {
    heard = [](const std::string&) {};
    machineDel();
    for (const auto& device : devices_) {
      device->partDelAll();
    }
    Kel::ActivityLoop::instance().turn();
    Kel::System::timeSourceIs(nullptr);
  }

  void up(std::uint32_t device, bool value) override { devices_[device]->upIs(value); }
  void load(std::uint32_t device, int value) override { devices_[device]->loadIs(value); }
  void counter(std::uint32_t device, std::uint32_t key, int value) override {
    devices_[device]->counterIs(key, value);
  }
  void counterDel(std::uint32_t device, std::uint32_t key) override { devices_[device]->counterDel(key); }
  void counterDelAll(std::uint32_t device) override { devices_[device]->counterDelAll(); }
  void part(std::uint32_t device, std::uint32_t key, std::uint32_t what) override {
    devices_[device]->partIs(Name(partName[key]), devices_[what]);
  }
  void partDel(std::uint32_t device, std::uint32_t key) override {
    devices_[device]->partDel(Name(partName[key]));
  }
  void partDelAll(std::uint32_t device) override { devices_[device]->partDelAll(); }
  void ping(std::uint32_t device, std::uint32_t key) override { devices_[device]->ping(key); }
  void alarmAll(std::uint32_t device) override { devices_[device]->alarmAll(); }

  void bind(std::uint32_t listener, int device) override {
    const Ptr<Sink> keep = listeners_[listener];
    keep->notifierIs(device < 0 ? nullptr : devices_[static_cast<std::size_t>(device)]);
  }
  void active(std::uint32_t listener, bool active) override {
    listeners_[listener]->hasNotificationActiveIs(active);
  }
  void zombie(std::uint32_t listener, bool zombie) override { listeners_[listener]->zombieIs(zombie); }
  void renew(std::uint32_t listener) override {
    listeners_[listener]->notifierIs(nullptr);
    listeners_[listener] = newListener(listener);
  }

  void machineIs(std::uint32_t device) override {
    machineDel();
    machine_ = Kel::live<MonitorSm>(journal_, devices_[device]);
  }
  void machineDel() override {
    if (machine_) {
      machine_->kelDoZombieReactors(true);
      const Ptr<MonitorSm> dying = std::exchange(machine_, nullptr);
    }
  }
  void machineInput(int device) override {
    if (const Ptr<MonitorSm> keep = machine_) {
      if (device < 0) {
        keep->deviceDel();
      } else {
        keep->deviceIs(devices_[static_cast<std::size_t>(device)]);
      }
    }
  }
  void machineActive(bool active) override {
    if (machine_) {
      machine_->hasNotificationActiveIs(active);
    }
  }
  void machineZombie(bool zombie) override {
    if (machine_) {
      machine_->kelDoZombieReactors(zombie);
    }
  }
  void guardIs(std::uint32_t key, std::uint32_t device) override {
    if (const Ptr<MonitorSm> keep = machine_) {
      try {
        keep->guardShadowIs(Name(partName[key]), devices_[device]);
      } catch (const Kel::NameInUseException&) {
        heard("name in use");
      }
    }
  }
  void guardDel(std::uint32_t key) override {
    if (machine_) {
      machine_->guards.del(Name(partName[key]));
    }
  }

  void arm(std::uint32_t clock, double due) override { clocks_[clock]->timeMinIs(due); }
  void handler(const std::function<void()>& function) override {
    Kel::ActivityLoop::instance().asHandler(function);
  }
  void turn(double now) override {
    time_.timeIs(now);
    Kel::ActivityLoop::instance().turn();
  }

 private:
  struct Sink final : Kel::Follows<Device> {
    Sink(FrameworkWorld& owner, std::uint32_t number)
        : world(owner), name("L" + std::to_string(number) + ' ') {}
    void onUp() override { world.heard(name + "up"); }
    void onLoad() override { world.heard(name + "load"); }
    void onCounter(std::uint32_t key) override { world.heard(name + "counter " + std::to_string(key)); }
    void onPart(Name part) override { world.heard(name + "part " + part.text()); }
    void onPartkelImmediate() override { world.heard(name + "parts"); }
    void onPing(std::uint32_t key) override { world.heard(name + "ping " + std::to_string(key)); }
    void onAlarmkelImmediate() override { world.heard(name + "alarms"); }
    FrameworkWorld& world;
    const std::string name;
  };
  struct Ringer final : Kel::Follows<Kel::Clock> {
    Ringer(FrameworkWorld& owner, std::uint32_t which) : world(owner), number(which) {
      hasNotificationActiveIs(false);
    }
    void onTime() override { world.heard("C" + std::to_string(number)); }
    FrameworkWorld& world;
    const std::uint32_t number;
  };
  Ptr<Sink> newListener(std::uint32_t at) { return Kel::make<Sink>(*this, at); }

  Kel::SimulatedTime time_{0};
  Heard told_;
  Journal journal_{told_};
  std::vector<Ptr<Device>> devices_;
  std::vector<Ptr<Sink>> listeners_;
  std::vector<Ptr<Kel::Clock>> clocks_;
  std::vector<Ptr<Ringer>> ringers_;
  Ptr<MonitorSm> machine_;
};

}  // namespace scenario
