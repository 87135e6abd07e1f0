// What the random programs act upon: a few devices, listeners and clocks, and one state machine.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace scenario {

// Devices, listeners, clocks and keys are numbers. There are two worlds, the framework and a plain model of
// its rules, which must come to the same history when they are treated alike.
class World {
 public:
  static constexpr std::uint32_t devices = 3;
  static constexpr std::uint32_t listeners = 3;
  static constexpr std::uint32_t clocks = 2;
  static constexpr std::uint32_t keys = 4;
  static constexpr const char* partName[keys] = {"a", "b", "c", "d"};

  World() = default;
  World(const World&) = delete;
  World& operator=(const World&) = delete;
  virtual ~World() = default;

  // The attributes of a device.
  virtual void up(std::uint32_t device, bool value) = 0;
  virtual void load(std::uint32_t device, int value) = 0;
  virtual void counter(std::uint32_t device, std::uint32_t key, int value) = 0;
  virtual void counterDel(std::uint32_t device, std::uint32_t key) = 0;
  virtual void counterDelAll(std::uint32_t device) = 0;
  virtual void part(std::uint32_t device, std::uint32_t key, std::uint32_t what) = 0;
  virtual void partDel(std::uint32_t device, std::uint32_t key) = 0;
  virtual void partDelAll(std::uint32_t device) = 0;
  virtual void ping(std::uint32_t device, std::uint32_t key) = 0;
  virtual void alarmAll(std::uint32_t device) = 0;

  // Listeners; -1 binds to none. `renew` puts a new one in place of the old.
  virtual void bind(std::uint32_t listener, int device) = 0;
  virtual void active(std::uint32_t listener, bool active) = 0;
  virtual void zombie(std::uint32_t listener, bool zombie) = 0;
  virtual void renew(std::uint32_t listener) = 0;

  // The machine: it follows a device and that device's parts. What is done to it while there is none is
  // nothing.
  virtual void machineIs(std::uint32_t device) = 0;
  virtual void machineDel() = 0;
  virtual void machineInput(int device) = 0;
  virtual void machineActive(bool active) = 0;
  virtual void machineZombie(bool zombie) = 0;
  // Its guards, each following a device.
  virtual void guardIs(std::uint32_t key, std::uint32_t device) = 0;
  virtual void guardDel(std::uint32_t key) = 0;

  virtual void arm(std::uint32_t clock, double due) = 0;
  virtual void handler(const std::function<void()>& function) = 0;
  virtual void turn(double now) = 0;

  // Called with what is heard; goes on with the program.
  std::function<void(const std::string&)> heard;
};

}  // namespace scenario
