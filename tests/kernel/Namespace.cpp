#include "Namespace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <system_error>

namespace Agent::Kernel::Test {

namespace {

int current() {
  return ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

void enter(int fd) {
  if (::setns(fd, CLONE_NEWNET) != 0) {
    (void)std::fprintf(stderr, "a network namespace cannot be entered\n");
    std::abort();
  }
}

struct Output {
  int status = 0;
  std::string text;
};

Output execute(const std::string& command) {
  Output output;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "re");  // NOLINT(cert-env33-c)
  if (pipe == nullptr) {
    return {-1, "cannot be started"};
  }
  std::array<char, 4096> part{};
  while (std::fgets(part.data(), part.size(), pipe) != nullptr) {
    output.text += part.data();
  }
  output.status = ::pclose(pipe);
  return output;
}

}  // namespace

std::optional<std::string> Namespace::whyNot() {
  int home = current();
  if (::unshare(CLONE_NEWNET) != 0) {
    std::string why = std::generic_category().message(errno);
    ::close(home);
    return "network namespaces cannot be made here: " + why;
  }
  Output made = execute("ip link add probe type bridge && ip link add probe2 type vxlan id 1 dstport 4789");
  enter(home);
  ::close(home);
  if (made.status != 0) {
    return "bridges and VXLAN devices cannot be made here: " + made.text;
  }
  return std::nullopt;
}

Namespace::Namespace() {
  int home = current();
  if (::unshare(CLONE_NEWNET) != 0) {
    std::abort();
  }
  fd_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  (void)execute("ip link set lo up");
  enter(home);
  ::close(home);
}

Namespace::~Namespace() {
  ::close(fd_);
}

Namespace::Visit::Visit(int fd) : home_(current()) {
  enter(fd);
}

Namespace::Visit::~Visit() {
  enter(home_);
  ::close(home_);
}

std::string Namespace::run(const std::string& command) const {
  Output output = within([&] { return execute(command); });
  EXPECT_EQ(output.status, 0) << command << ": " << output.text;
  return output.text;
}

void Namespace::connect(const std::string& here, const Namespace& other, const std::string& there) const {
  // The other namespace is named by a file descriptor that the command inherits.
  int fd = ::dup(other.fd_);
  run("ip link add " + here + " type veth peer name " + there + " netns /proc/self/fd/" + std::to_string(fd));
  ::close(fd);
  run("ip link set " + here + " up");
  other.run("ip link set " + there + " up");
}

std::vector<std::string> Namespace::entries(const std::vector<std::string>& words) const {
  std::istringstream lines(run("bridge fdb show"));
  std::vector<std::string> found;
  for (std::string line; std::getline(lines, line);) {
    bool all = true;
    for (const std::string& word : words) {
      all = all && (" " + line + " ").find(" " + word + " ") != std::string::npos;
    }
    if (all) {
      found.push_back(line);
    }
  }
  return found;
}

}  // namespace Agent::Kernel::Test
