#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Agent::Kernel::Test {

// A network namespace of its own, gone with the object and the sockets in it.
class Namespace {
 public:
  // Why namespaces cannot be made here, for the reason of a skipped test; nothing when they can.
  static std::optional<std::string> whyNot();

  Namespace();
  ~Namespace();
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;

  // A path under which this process can open it.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
  // Runs a command of iproute2 in it; the test fails when the command does. Returns its output.
  std::string run(const std::string& command) const;
  // Runs `body` with the calling thread in it.
  template <typename Body>
  auto within(Body body) const {
    Visit visit(fd_);
    return body();
  }
  // Makes a pair of connected devices, `here` in this namespace and `there` in the other, both up.
  void connect(const std::string& here, const Namespace& other, const std::string& there) const;
  // The lines of `bridge fdb show` that contain all the words.
  std::vector<std::string> entries(const std::vector<std::string>& words) const;

 private:
  class Visit {
   public:
    explicit Visit(int fd);
    ~Visit();
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

   private:
    int home_;
  };

  int fd_ = -1;
};

}  // namespace Agent::Kernel::Test
