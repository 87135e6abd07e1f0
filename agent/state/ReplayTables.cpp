#include "agent/state/ReplayTables.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>

#include "Files/LockFile.h"
#include "Memtab/Name.h"
#include "Memtab/Segment.h"

namespace Agent {
namespace {

constexpr const char* folder = "/dev/shm";
constexpr std::string_view prefix = "vxlan-agent-replay-";

// When a process began, in the system's ticks since its start; nothing where there is none.
std::optional<std::string> beginOf(const std::string& process) {
  std::ifstream file("/proc/" + process + "/stat");
  std::string all;
  std::getline(file, all, '\0');
  const std::size_t name = all.rfind(')');  // the program's name may have spaces and brackets
  if (name == std::string::npos) {
    return std::nullopt;
  }
  std::istringstream fields(all.substr(name + 1));
  std::string field;
  for (int number = 3; number <= 22; ++number) {
    fields >> field;
  }
  return field;
}

// "vxlan-agent-replay-PROCESS-BEGIN", perhaps with an ending; as the table's name.
std::optional<std::string> tableIn(const std::string& file) {
  if (!file.starts_with(prefix)) {
    return std::nullopt;
  }
  return "/" + file.substr(0, file.find('.'));
}

bool lives(const std::string& table) {
  const std::string rest = table.substr(1 + prefix.size());
  const std::size_t dash = rest.find('-');
  const std::optional<std::string> begin = beginOf(rest.substr(0, dash));
  return begin && (dash == std::string::npos || rest.substr(dash + 1) == *begin);
}

bool isOwn(const std::string& file) {
  struct stat status {};
  return ::lstat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

void removeUnlessLocked(const std::string& table) {
  try {
    const Files::LockFile lock(Memtab::pathOf(Memtab::lockOf(table)));
    Memtab::remove(table);
  } catch (const std::exception&) {
    // Somebody has it, or it cannot be removed: it stays, and is no reason not to start.
  }
}

}  // namespace

std::string replayTable() {
  const std::string process = std::to_string(::getpid());
  return "/" + std::string(prefix) + process + "-" + beginOf(process).value_or("0");
}

void removeTablesOfDeadReplays() {
  std::set<std::string> tables;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(folder, none)) {
    const std::optional<std::string> table = tableIn(entry.path().filename().string());
    if (table && isOwn(entry.path().string())) {
      tables.insert(*table);
    }
  }
  for (const std::string& table : tables) {
    if (!lives(table)) {
      removeUnlessLocked(table);
    }
  }
}

}  // namespace Agent
