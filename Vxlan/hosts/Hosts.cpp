#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

#include "Files/Owners.h"
#include "Memtab/Error.h"
#include "Memtab/Reader.h"
#include "Vxlan/hosts/Record.h"
#include "Vxlan/hosts/vxlan_hosts.h"

using VxlanHosts::Key;
using VxlanHosts::Record;

struct vxlan_hosts {
  vxlan_hosts(const std::string& name, const std::optional<uid_t>& owner)
      : reader(name, VxlanHosts::schema, owner) {}

  Memtab::Reader<Key, Record> reader;
};

namespace {

// The caller's function has had enough.
struct Stopped {};

// The text of this thread's last failure: no memory is taken to say that there is none.
thread_local std::array<char, 512> lastError{};

int failed(int code, const char* text) noexcept {
  static_cast<void>(std::snprintf(lastError.data(), lastError.size(), "%s", text));
  return code;
}

// Runs what may raise, and returns what it returns; below 0 and with a text when it does raise.
template <class Call>
auto guarded(const Call& call) noexcept -> decltype(call()) {
  try {
    return call();
  } catch (const Stopped&) {
    return failed(VXLAN_HOSTS_ESTOPPED, "ended by the caller");
  } catch (const std::invalid_argument& error) {
    return failed(VXLAN_HOSTS_EINVAL, error.what());
  } catch (const Memtab::Damaged& error) {
    return failed(VXLAN_HOSTS_EDAMAGED, error.what());
  } catch (const Memtab::Error& error) {
    return failed(VXLAN_HOSTS_EREFUSED, error.what());
  } catch (const std::bad_alloc&) {
    return failed(VXLAN_HOSTS_ENOMEM, "vxlan_hosts: there is no memory");
  } catch (const std::exception& error) {
    return failed(VXLAN_HOSTS_EFAILED, error.what());
  } catch (...) {
    return failed(VXLAN_HOSTS_EFAILED, "vxlan_hosts: the caller's function raised an exception");
  }
}

void need(bool holds, const char* text) {
  if (!holds) {
    throw std::invalid_argument(text);
  }
}

std::optional<uid_t> ownerOf(const char* owner) {
  if (owner == nullptr) {
    return std::nullopt;
  }
  const std::optional<uid_t> found = Files::userOf(owner);
  if (!found) {
    throw std::invalid_argument("vxlan_hosts_open: there is no user \"" + std::string(owner) + "\"");
  }
  return found;
}

// Fills what the caller has room for; `size` becomes what was filled.
template <class Struct>
void give(const Struct& from, Struct* to) {
  const std::uint32_t bytes = std::min<std::uint32_t>(to->size, sizeof(Struct));
  std::memcpy(to, &from, bytes);
  to->size = bytes;
}

}  // namespace

int vxlan_hosts_open(const char* name, const char* owner, vxlan_hosts** hosts) {
  return guarded([&] {
    need(hosts != nullptr, "vxlan_hosts_open: hosts is null");
    *hosts = nullptr;
    need(name != nullptr, "vxlan_hosts_open: name is null");
    need(*name != '\0', "vxlan_hosts_open: name is empty");
    *hosts = new vxlan_hosts(name, ownerOf(owner));
    return 0;
  });
}

void vxlan_hosts_close(vxlan_hosts* hosts) {
  delete hosts;
}

int vxlan_hosts_stand(vxlan_hosts* hosts, vxlan_hosts_state* state) {
  return guarded([&] {
    need(hosts != nullptr, "vxlan_hosts_stand: hosts is null");
    need(state != nullptr && state->size >= sizeof *state,
         "vxlan_hosts_stand: state is null, or its size not set");
    vxlan_hosts_state now{};
    now.size = sizeof now;
    now.generation = hosts->reader.generation();
    now.attached = now.generation != 0 ? 1 : 0;
    now.turn = hosts->reader.turn();
    now.hosts = hosts->reader.size();
    now.limit = hosts->reader.limit();
    give(now, state);
    return 0;
  });
}

int vxlan_hosts_lookup(vxlan_hosts* hosts, const uint8_t mac[6], uint16_t vlan, vxlan_host* host) {
  return guarded([&] {
    need(hosts != nullptr, "vxlan_hosts_lookup: hosts is null");
    need(mac != nullptr, "vxlan_hosts_lookup: mac is null");
    need(host != nullptr && host->size >= sizeof *host,
         "vxlan_hosts_lookup: host is null, or its size not set");
    Key key{};
    std::memcpy(key.mac.data(), mac, key.mac.size());
    key.vlan = vlan;
    const std::optional<Record> found = hosts->reader.find(key);
    if (found) {
      give(VxlanHosts::hostOf(key, *found), host);
    }
    return found ? 1 : 0;
  });
}

int64_t vxlan_hosts_walk(vxlan_hosts* hosts, vxlan_hosts_visit visit, void* context) {
  return guarded([&] {
    need(hosts != nullptr, "vxlan_hosts_walk: hosts is null");
    need(visit != nullptr, "vxlan_hosts_walk: visit is null");
    return static_cast<int64_t>(hosts->reader.walk([&](const Key& key, const Record& record) {
      const vxlan_host host = VxlanHosts::hostOf(key, record);
      if (visit(context, &host) != 0) {
        throw Stopped();
      }
    }));
  });
}

int64_t vxlan_hosts_changes(vxlan_hosts* hosts, vxlan_hosts_cursor* cursor, vxlan_hosts_follow follow,
                            void* context) {
  return guarded([&] {
    need(hosts != nullptr, "vxlan_hosts_changes: hosts is null");
    need(cursor != nullptr, "vxlan_hosts_changes: cursor is null");
    need(follow != nullptr, "vxlan_hosts_changes: follow is null");
    const auto tell = [&](int event, const vxlan_host* host) {
      if (follow(context, event, host) != 0) {
        throw Stopped();
      }
    };
    Memtab::Position position{cursor->generation, cursor->change};
    const Memtab::Followed followed = hosts->reader.follow(
        position,
        [&](const Key& key, const std::optional<Record>& record) {
          const vxlan_host host = record ? VxlanHosts::hostOf(key, *record) : VxlanHosts::hostOf(key);
          tell(record ? VXLAN_HOSTS_IS : VXLAN_HOSTS_GONE, &host);
        },
        [&] { tell(VXLAN_HOSTS_BEGIN, nullptr); });
    *cursor = {position.generation, position.change, {}};
    return static_cast<int64_t>(followed.calls);
  });
}

const char* vxlan_hosts_error(void) {
  return lastError.data();
}

uint32_t vxlan_hosts_version(void) {
  return 1;
}
