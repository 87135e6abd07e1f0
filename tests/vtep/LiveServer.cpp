#include "LiveServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "agent/vtep/Addresses.h"
#include "service/ovsdb/Framer.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

using nlohmann::json;

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "ovsdb-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("no temporary folder");
  }
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Process::Process(const std::vector<std::string>& command, const std::string& output) {
  std::vector<std::string> words = command;
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
}

Process::Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

Process& Process::operator=(Process&& other) noexcept {
  kill();
  pid_ = std::exchange(other.pid_, -1);
  return *this;
}

void Process::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    wait();
  }
}

int Process::wait() {
  int status = 0;
  waitpid(std::exchange(pid_, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string programPath(const std::string& name) {
  const char* const path = std::getenv("PATH");
  std::stringstream folders((path == nullptr ? std::string{} : std::string{path}) + ":/usr/sbin:/sbin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string candidate = folder + "/" + name;
    if (!folder.empty() && access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return "";
}

std::string reasonToSkip() {
  for (const char* const program : {"ovsdb-server", "ovsdb-tool"}) {
    if (programPath(program).empty()) {
      return std::string{program} + " is not installed";
    }
  }
  return std::filesystem::exists("/usr/share/openvswitch/vtep.ovsschema")
             ? ""
             : "the hardware_vtep schema is not installed";
}

void run(const std::vector<std::string>& command, const std::string& output) {
  if (Process(command, output).wait() != 0) {
    std::ifstream file(output);
    throw std::runtime_error(command[0] +
                             " failed: " + std::string{std::istreambuf_iterator<char>(file), {}});
  }
}

std::vector<int> freePorts(std::size_t count) {
  std::vector<int> sockets;
  std::vector<int> ports;
  while (ports.size() < count) {
    sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    void* const place = &address;
    socklen_t size = sizeof address;
    if (bind(sockets.back(), static_cast<sockaddr*>(place), size) != 0 ||
        getsockname(sockets.back(), static_cast<sockaddr*>(place), &size) != 0) {
      throw std::runtime_error("no free port");
    }
    ports.push_back(ntohs(address.sin_port));
  }
  for (const int open : sockets) {
    close(open);
  }
  return ports;
}

Controller::Controller(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const void* const place = &address;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  while (connect(fd_, static_cast<const sockaddr*>(place), sizeof address) != 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      close(fd_);
      throw std::runtime_error("no server at " + path);
    }
    poll(nullptr, 0, 10);
  }
}

Controller::~Controller() {
  close(fd_);
}

json Controller::request(const std::string& method, const json& params) {
  const std::string text = json{{"id", 1}, {"method", method}, {"params", params}}.dump();
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t size = send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (size <= 0) {
      throw std::runtime_error("the server closed the connection");
    }
    sent += static_cast<std::size_t>(size);
  }
  std::string pending;
  Framer framer;
  char bytes[65536];
  for (;;) {
    while (framer.scan(pending)) {
      const json message = json::parse(pending.substr(0, framer.length()));
      pending.erase(0, framer.length());
      framer.next();
      if (message.value("id", json()) == 1) {
        return message;
      }
    }
    const ssize_t size = recv(fd_, bytes, sizeof bytes, 0);
    if (size <= 0) {
      throw std::runtime_error("the server closed the connection");
    }
    pending.append(bytes, static_cast<std::size_t>(size));
  }
}

json Controller::transact(const json& operations) {
  json params = json::array({"hardware_vtep"});
  for (const json& operation : operations) {
    params.push_back(operation);
  }
  const json answer = request("transact", params);
  for (const json& result : answer["result"]) {
    if (result.is_object() && result.contains("error")) {
      throw std::runtime_error("transaction: " + result.dump());
    }
  }
  return answer["result"];
}

bool Controller::serverSays(const std::string& column) {
  const json where = json::array({json::array({"name", "==", "hardware_vtep"})});
  const json select{
      {"op", "select"}, {"table", "Database"}, {"where", where}, {"columns", json::array({column})}};
  const json answer = request("transact", json::array({"_Server", select}));
  const json& rows = answer["result"][0]["rows"];
  return !rows.empty() && rows[0][column] == true;
}

bool memberSays(const std::string& path, const std::string& column) {
  try {
    return Controller(path).serverSays(column);
  } catch (const std::runtime_error&) {
    return false;
  }
}

json switchOperations() {
  const auto named = [](const char* name) { return json::array({"named-uuid", name}); };
  const auto insert = [](const char* table, const char* name, const json& row) {
    return json{{"op", "insert"}, {"table", table}, {"uuid-name", name}, {"row", row}};
  };
  return json::array(
      {insert("Logical_Switch", "ls",
              {{"name", "ls10"}, {"tunnel_key", 5010}, {"replication_mode", "source_node"}}),
       insert("Physical_Port", "port",
              {{"name", "t0"},
               {"vlan_bindings", json::array({"map", json::array({json::array({10, named("ls")})})})}}),
       insert("Physical_Switch", "leaf",
              {{"name", "leaf1"}, {"tunnel_ips", "10.0.0.1"}, {"ports", named("port")}}),
       insert("Global", "global", {{"switches", named("leaf")}})});
}

json hostOperations(const std::string& logicalSwitch, int vni, std::uint64_t first, std::size_t count,
                    const std::string& vtep) {
  json operations = json::array();
  operations.push_back({{"op", "insert"},
                        {"table", "Physical_Locator"},
                        {"uuid-name", "locator"},
                        {"row", {{"dst_ip", vtep}, {"encapsulation_type", "vxlan_over_ipv4"}}}});
  operations.push_back({{"op", "insert"},
                        {"table", "Logical_Switch"},
                        {"uuid-name", "hosts"},
                        {"row", {{"name", logicalSwitch}, {"tunnel_key", vni}}}});
  for (std::size_t i = 0; i < count; ++i) {
    operations.push_back({{"op", "insert"},
                          {"table", "Ucast_Macs_Remote"},
                          {"row",
                           {{"MAC", macText(0x020000000000 + first + i)},
                            {"logical_switch", json::array({"named-uuid", "hosts"})},
                            {"locator", json::array({"named-uuid", "locator"})}}}});
  }
  return operations;
}

}  // namespace Agent::Vtep::Testing
