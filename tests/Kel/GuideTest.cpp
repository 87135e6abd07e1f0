// The worked example of docs/kel.md, as it stands there.
#include <gmock/gmock.h>

#include <sstream>

#include "Kel/Children.h"
#include "Kel/Clock.h"
#include "Kel/Dir.h"
#include "Kel/System.h"

namespace {

// A room of a house: how warm it is, and which of its windows are open.
class Room final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onTemperature() {}
    virtual void onWindowOpen(Kel::Name) {}
  };

  double temperature() const { return temperature_; }
  void temperatureIs(double celsius) { temperature_ = celsius; }

  const auto& windowsOpen() const { return windowOpen_; }
  void windowOpenIs(const Kel::Name& window, bool open) { windowOpen_.is(window, open); }
  void windowOpenDel(const Kel::Name& window) { windowOpen_.del(window); }

  const char* typeName() const override { return "House::Room"; }
  void attributes(Kel::Attributes& list) const override {
    list("temperature", temperature_);
    list("windowOpen", windowOpen_);
  }

 private:
  Kel::Attribute<double, &Reactor::onTemperature> temperature_{*this, 20};
  Kel::Collection<Kel::OrderedTable, Kel::Name, bool, &Reactor::onWindowOpen> windowOpen_{*this};
};

class Heater final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onRunning() {}
  };

  bool running() const { return running_; }
  void runningIs(bool running) { running_ = running; }

  const char* typeName() const override { return "House::Heater"; }
  void attributes(Kel::Attributes& list) const override { list("running", running_); }

 private:
  Kel::Attribute<bool, &Reactor::onRunning> running_{*this, false};
};

// Runs the heater of one room while it is cold and all windows are closed.
class ThermostatSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::TypeNode type{"House::ThermostatSm"};
  static constexpr Kel::Parameters<2> parameterNames{"_room", "_heater"};

  struct KelRoom : Kel::Reacts<Room, ThermostatSm> {
    using Kel::Reacts<Room, ThermostatSm>::Reacts;
    void onTemperature() override { owner().handleRoom(); }
    void onWindowOpen(Kel::Name) override { owner().handleRoom(); }
  };

  ThermostatSm(const Kel::Name&, const Kel::Ptr<const Room>& room, const Kel::Ptr<Heater>& heater)
      : heater_(*this, "heater", heater) {
    room_.is(room);  // silent: nothing is called back while a machine is being constructed,
    handleRoom();    // so that it looks around for itself
  }

  const Kel::Ptr<const Room>& room() const { return room_.get(); }
  std::array<const void*, 2> parameters() const { return {rawValue(room_.get()), rawValue(heater_.get())}; }
  const Kel::TypeNode& fwkType() const override { return type; }

 private:
  void handleRoom() {
    bool closed = true;
    for (auto&& window : room_->windowsOpen()) {
      closed = closed && !window.value;
    }
    heater_->runningIs(closed && room_->temperature() < 19);
  }

  Kel::Input<const Room, KelRoom> room_{*this, "room"};
  Kel::Held<Heater> heater_;
};

// Has a thermostat for each room of the house, all on one heater.
class HouseSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::TypeNode type{"House::HouseSm"};

  struct KelRooms : Kel::Reacts<Kel::Dir, HouseSm> {
    using Kel::Reacts<Kel::Dir, HouseSm>::Reacts;
    void onEntityPtr(Kel::Name name) override { owner().handleRoom(name); }
    void onEntityPtrkelImmediate() override { owner().handleRooms(); }
  };

  HouseSm(const Kel::Ptr<const Kel::Dir>& rooms, const Kel::Ptr<Heater>& heater)
      : heater_(*this, "heater", heater) {
    rooms_.is(rooms);
    handleRooms();
  }
  const Kel::TypeNode& fwkType() const override { return type; }

 private:
  void handleRooms() {
    for (auto&& entry : *rooms_.get()) {
      handleRoom(entry.key);
    }
    for (const Kel::Name& name : thermostat_.keys()) {
      handleRoom(name);
    }
  }
  void handleRoom(const Kel::Name& name) {
    const auto room = Kel::ptrCast<Room>(rooms_->entityPtr(name));
    if (const auto present = thermostat_(name); present && present->room() != room) {
      thermostat_.del(name);  // the room is gone, or is another one
    }
    if (room) {
      thermostat_.shadowIs(name, room, heater_.get());
    }
  }

  Kel::Input<const Kel::Dir, KelRooms> rooms_{*this, "rooms"};
  Kel::Held<Heater> heater_;
  Kel::Children<Kel::OrderedTable, Kel::Name, ThermostatSm> thermostat_{*this, "thermostat"};
};

// Says so when the heater starts or stops, to a program outside all machines.
struct Lamp final : Kel::Follows<Heater> {
  explicit Lamp(std::vector<std::string>& what) : seen(what) {}
  void onRunning() override { seen.emplace_back(notifier()->running() ? "on" : "off"); }
  std::vector<std::string>& seen;
};

TEST(GuideTest, TheExampleDoesWhatThePageSays) {
  const auto rooms = Kel::make<Kel::Dir>();
  const auto heater = Kel::make<Heater>();
  const auto house = Kel::live<HouseSm>(rooms, heater);

  std::vector<std::string> seen;
  const auto lamp = Kel::make<Lamp>(seen);
  lamp->notifierIs(heater);
  EXPECT_THAT(seen, testing::ElementsAre("off"));  // binding counts as a change

  const auto kitchen = Kel::make<Room>();
  rooms->entityPtrIs(Kel::Name("kitchen"), kitchen);
  kitchen->temperatureIs(17);
  EXPECT_TRUE(heater->running());  // delivered before the line above returned
  kitchen->windowOpenIs(Kel::Name("east"), true);
  kitchen->temperatureIs(16);
  EXPECT_THAT(seen, testing::ElementsAre("off", "on", "off"));

  std::ostringstream tree;
  Kel::printTree(tree, *house);
  EXPECT_EQ(tree.str(),
            "House::HouseSm\n"
            "  rooms = Kel::Dir\n"
            "  heater = House::Heater\n"
            "  thermostat[kitchen]: House::ThermostatSm\n"
            "    room = House::Room\n"
            "    heater = House::Heater\n");

  const auto rebuilt = Kel::make<Room>();
  rooms->entityPtrIs(Kel::Name("kitchen"), rebuilt);
  rebuilt->temperatureIs(15);
  EXPECT_THAT(seen, testing::ElementsAre("off", "on", "off", "on"));
  EXPECT_EQ(kitchen->reactors(), 0U);

  rooms->entryDel(Kel::Name("kitchen"));
  EXPECT_EQ(rebuilt->reactors(), 0U);
}

}  // namespace
