#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Agent::Vtep::Testing {

// A folder below the system's temporary one that goes with everything in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// A program in the foreground, as a child that dies with the test. Its output goes to a file.
class Process {
 public:
  Process() = default;
  Process(const std::vector<std::string>& command, const std::string& output);
  ~Process() { kill(); }
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;

  // SIGKILL, and waits for the end.
  void kill();
  pid_t pid() const { return pid_; }
  // Waits for the end; the exit code, or -1 after a signal.
  int wait();

 private:
  pid_t pid_ = -1;
};

// The path of a program, looked for in PATH and the folders of system programs; empty if it is not installed.
std::string programPath(const std::string& name);
// Why the live tests cannot run here; empty if they can.
std::string reasonToSkip();

// Runs a program to its end; raises std::runtime_error with its output when it fails.
void run(const std::vector<std::string>& command, const std::string& output);
// TCP ports of 127.0.0.1 that are free now.
std::vector<int> freePorts(std::size_t count);

// A database client that waits for each answer: the controller's part of a test. `remote` is the path of a
// unix socket.
class Controller {
 public:
  // Tries until the server answers; raises std::runtime_error after half a minute.
  explicit Controller(const std::string& path);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  // Carries out a transaction; returns its results. Raises std::runtime_error when one is refused.
  nlohmann::json transact(const nlohmann::json& operations);
  // What the server says of its database: "connected" to its cluster, or "leader" of it.
  bool serverSays(const std::string& column);

 private:
  nlohmann::json request(const std::string& method, const nlohmann::json& params);

  int fd_ = -1;
};

// The same of the server at `path`, by a connection of its own; false if it hangs up, as servers do when they
// join their cluster.
bool memberSays(const std::string& path, const std::string& column);

// A switch "leaf1" at 10.0.0.1 whose port t0 binds VLAN 10 to the logical switch "ls10" of VNI 5010.
nlohmann::json switchOperations();
// A logical switch with that many hosts, whose MACs count up from 02:00:00:00:00:00 plus `first`, all behind
// `vtep`, which no other locator has yet.
nlohmann::json hostOperations(const std::string& logicalSwitch, int vni, std::uint64_t first,
                              std::size_t count, const std::string& vtep);

}  // namespace Agent::Vtep::Testing
