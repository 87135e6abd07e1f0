// The state machines of the framework's tests: a monitor that follows a device and the parts of that device,
// and owns a guard for some of the parts.
#pragma once

#include <array>

#include "Kel/Children.h"
#include "Scenario.h"

namespace scenario {

// Writes down what a machine hears, and does what it was told to do `when` that happens.
class Journal {
 public:
  explicit Journal(Heard& heard) : heard_(heard) {}
  void when(const std::string& what, std::function<void()> then) { then_[what] = std::move(then); }
  // Lets this happen each time anything is heard, but for the end of a machine.
  void always(std::function<void(const std::string&)> then) { always_ = std::move(then); }
  void hear(const std::string& what) {
    heard_.push_back(what);
    if (always_ && !what.ends_with(" gone")) {
      always_(what);
    }
    const auto at = then_.find(what);
    if (at != then_.end()) {
      const std::function<void()> then = at->second;
      then();
    }
  }

 private:
  Heard& heard_;
  std::map<std::string, std::function<void()>> then_;
  std::function<void(const std::string&)> always_;
};

// Follows one part. Made by a shadow mutator: key first, then the constructor parameters.
class GuardSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::TypeNode type{"scenario::GuardSm"};
  static constexpr Kel::Parameters<2> parameterNames{"_journal", "_part"};

  struct KelPart : Kel::Reacts<Device, GuardSm> {
    using Kel::Reacts<Device, GuardSm>::Reacts;
    void onUp() override { owner().hear("up"); }
  };

  GuardSm(const Name& key, Journal* journal, const Ptr<Device>& part) : key_(key), journal_(journal) {
    part_.is(part);
  }
  ~GuardSm() override { hear("gone"); }

  std::array<const void*, 2> parameters() const { return {journal_, part_.get().get()}; }
  const Kel::TypeNode& fwkType() const override { return type; }
  KelPart* reactor() const { return part_.reactor(); }
  void countIs(int count) { count_ = count; }

 private:
  void hear(const std::string& what) { journal_->hear("guard " + key_.text() + ' ' + what); }

  const Name key_;
  Journal* journal_;
  Kel::Input<Device, KelPart> part_{*this, "part"};
  Kel::Own<int> count_{*this, "count", 0};
};

// The one child of a monitor that has no key.
class ChiefSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::TypeNode type{"scenario::ChiefSm"};
  static constexpr Kel::Parameters<2> parameterNames{"_journal", "_part"};

  struct KelPart : Kel::Reacts<Device, ChiefSm> {
    using Kel::Reacts<Device, ChiefSm>::Reacts;
    void onUp() override { owner().journal_->hear("chief up"); }
  };

  ChiefSm(Journal* journal, const Ptr<Device>& part) : journal_(journal) { part_.is(part); }
  ~ChiefSm() override { journal_->hear("chief gone"); }
  std::array<const void*, 2> parameters() const { return {journal_, part_.get().get()}; }
  const Kel::TypeNode& fwkType() const override { return type; }

 private:
  Journal* journal_;
  Kel::Input<Device, KelPart> part_{*this, "part"};
};

// Follows a device, each of its parts, and owns guards and a chief.
class MonitorSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::TypeNode type{"scenario::MonitorSm"};

  struct KelDevice : Kel::Reacts<Device, MonitorSm> {
    using Kel::Reacts<Device, MonitorSm>::Reacts;
    void onUp() override { owner().journal.hear("monitor up"); }
    void onLoad() override { owner().journal.hear("monitor load"); }
    void onPart(Name name) override { owner().handlePart(name); }
    void onPartkelImmediate() override { owner().handleParts(); }
  };
  struct KelPart : Kel::Reacts<Device, MonitorSm> {
    KelPart(MonitorSm& owner, const Name& key) : Kel::Reacts<Device, MonitorSm>(owner), key_(key) {}
    void onLoad() override { owner().journal.hear("monitor load of " + key_.text()); }

   private:
    const Name key_;
  };
  // One that takes no key.
  struct KelQuiet : Kel::Reacts<Device, MonitorSm> {
    using Kel::Reacts<Device, MonitorSm>::Reacts;
    void onLoad() override { owner().journal.hear("monitor quiet load"); }
  };

  MonitorSm(Journal& what, const Ptr<const Device>& device) : journal(what) {
    deviceIs(device);
    handleParts();
  }
  ~MonitorSm() override { journal.hear("monitor gone"); }

  const Kel::TypeNode& fwkType() const override { return type; }

  void deviceIs(const Ptr<const Device>& device) { device_.is(device); }
  void deviceDel() { device_.del(); }
  KelDevice* deviceReactor() const { return device_.reactor(); }

  void handlePart(const Name& name) {
    journal.hear("monitor part " + name.text());
    parts.handle(name);
  }
  void handleParts() { parts.handle(); }

  // The shadow mutators of the guards.
  Ptr<GuardSm> guardShadowIs(const Name& name, const Ptr<Device>& part) {
    return guards.shadowIs(name, &journal, part);
  }
  Ptr<ChiefSm> chiefShadowIs(const Ptr<Device>& part) { return chief.shadowIs(&journal, part); }

  Journal& journal;

 private:
  Kel::Input<const Device, KelDevice> device_{*this, "device"};

 public:
  Kel::Followed<Kel::Input<const Device, KelDevice>, Device::Parts, &Device::parts, KelPart> parts{
      *this, "part", device_};
  Kel::Reactors<std::uint32_t, KelQuiet, Kel::Arrival::Silent> quiet{*this, "quiet"};
  Kel::Children<Kel::OrderedTable, Name, GuardSm> guards{*this, "guard"};
  Kel::Child<ChiefSm> chief{*this, "chief"};
  Kel::Held<Device> spare{*this, "spare"};
};

// Fixture: a live monitor on a device, with its journal.
class MachineTest : public KelTest {
 protected:
  ~MachineTest() override {
    if (monitor) {
      monitor->kelDoZombieReactors(true);
    }
  }
  Ptr<MonitorSm> newMonitor() { return Kel::live<MonitorSm>(journal, device); }
  // A part that the device has.
  Ptr<Device> part(const std::string& name) {
    const auto fresh = Kel::make<Device>();
    device->partIs(Name(name), fresh);
    return fresh;
  }

  Journal journal{heard};
  Ptr<MonitorSm> monitor = newMonitor();
};

}  // namespace scenario
