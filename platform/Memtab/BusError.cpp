#include "Memtab/BusError.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string_view>

namespace Memtab {
namespace {

constexpr int exitStatus = 2;
constexpr std::size_t mostTables = 32;  // that are named; of further ones nothing is known

// Readable in a signal handler: the name is there before the address is, and stays until it is gone.
struct Mapped {
  std::atomic<std::uintptr_t> base{0};
  std::size_t bytes = 0;
  std::array<char, 128> name{};
};

std::array<Mapped, mostTables> mappedTables;
std::mutex registration;
const char* programName = "";
struct sigaction before {};

const Mapped* tableAt(std::uintptr_t address) {
  for (const Mapped& mapped : mappedTables) {
    const std::uintptr_t base = mapped.base.load(std::memory_order_acquire);
    if (base != 0 && address >= base && address - base < mapped.bytes) {
      return &mapped;
    }
  }
  return nullptr;
}

void say(std::string_view text) {
  static_cast<void>(::write(STDERR_FILENO, text.data(), text.size()) < 0);
}

void onBusError(int /*signal*/, siginfo_t* info, void* /*context*/) {
  const Mapped* table = tableAt(reinterpret_cast<std::uintptr_t>(info->si_addr));
  if (table == nullptr) {
    ::sigaction(SIGBUS, &before, nullptr);  // the access is repeated, and ends as it would have
    return;
  }
  say(programName);
  say(": memtab ");
  say(table->name.data());
  say(": it was truncated while it was in use, or the system has no memory left for it; the program ends\n");
  ::_exit(exitStatus);
}

}  // namespace

void endOnTruncation(const char* program) {
  programName = program;
  struct sigaction action {};
  action.sa_sigaction = &onBusError;
  action.sa_flags = SA_SIGINFO;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(SIGBUS, &action, &before);
}

void addressesAre(const void* base, std::size_t bytes, const std::string& name) {
  const std::scoped_lock lock(registration);
  for (Mapped& mapped : mappedTables) {
    if (mapped.base.load(std::memory_order_relaxed) == 0) {
      mapped.bytes = bytes;
      mapped.name[name.copy(mapped.name.data(), mapped.name.size() - 1)] = '\0';
      mapped.base.store(reinterpret_cast<std::uintptr_t>(base), std::memory_order_release);
      return;
    }
  }
}

void addressesAreGone(const void* base) {
  const std::scoped_lock lock(registration);
  for (Mapped& mapped : mappedTables) {
    if (mapped.base.load(std::memory_order_relaxed) == reinterpret_cast<std::uintptr_t>(base)) {
      mapped.base.store(0, std::memory_order_release);
      return;
    }
  }
}

}  // namespace Memtab
