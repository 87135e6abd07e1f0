// A reader process beside a writer process: no host is ever seen half. READS says how many reads there are at
// least.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>

#include "Table.h"

namespace HostsTest {
namespace {

constexpr std::uint32_t keys = 512;

// Adds, replaces and deletes until it is killed.
[[noreturn]] void write(const std::string& name, unsigned seed) {
  Writer writer(optionsOf(name, 4 * keys));
  std::mt19937 random(seed);
  for (;;) {
    for (int i = 0; i < 50; ++i) {
      const Key key = keyOf(random() % keys);
      if (random() % 8 == 0) {
        writer.del(key);
      } else {
        writer.is(key, recordOf(key, static_cast<std::uint32_t>(random())));
      }
    }
    writer.publish();
  }
}

// The number of reads, and of torn ones.
struct Seen {
  std::uint64_t reads = 0;
  std::uint64_t torn = 0;

  void look(const vxlan_host& host) {
    Key key{};
    std::copy(std::begin(host.mac), std::end(host.mac), key.mac.begin());
    key.vlan = host.vlan;
    Record record{};
    record.lastUpdateTime = host.last_update_time;
    record.sequence = host.sequence;
    record.moveCount = host.move_count;
    record.hostAttr = host.host_attr;
    record.learnAttr = host.learn_attr;
    record.entryType = host.entry_type;
    record.flags = host.flags;
    record.destType = host.dest_type;
    std::copy(std::begin(host.intf), std::end(host.intf), record.intf.begin());
    for (std::size_t slot = 0; slot < record.vtep.size(); ++slot) {
      record.vtep[slot].family = host.vtep[slot].family;
      std::copy(std::begin(host.vtep[slot].bytes), std::end(host.vtep[slot].bytes),
                record.vtep[slot].bytes.begin());
    }
    reads += 1;
    torn += whole(key, record) ? 0U : 1U;
  }
  static int visit(void* self, const vxlan_host* host) {
    static_cast<Seen*>(self)->look(*host);
    return 0;
  }
  static int follow(void* self, int event, const vxlan_host* host) {
    if (event == VXLAN_HOSTS_IS) {
      static_cast<Seen*>(self)->look(*host);
    }
    return 0;
  }
};

// The writer's process, which ends with this.
class Child {
 public:
  Child(const std::string& name, unsigned seed) : pid_(::fork()) {
    if (pid_ == 0) {
      write(name, seed);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  bool runs() const { return ::waitpid(pid_, nullptr, WNOHANG) == 0; }

 private:
  pid_t pid_;
};

TEST(Torn, NoHostIsSeenHalfBesideAWriterProcess) {
  const char* asked = std::getenv("READS");
  const std::uint64_t wanted = asked != nullptr ? std::strtoull(asked, nullptr, 10) : 200'000;
  const unsigned seed = std::random_device()();
  std::printf("seed %u\n", seed);
  const Name name;
  const Child writer(name.text(), seed);
  vxlan_hosts* hosts = nullptr;
  ASSERT_EQ(vxlan_hosts_open(name.text(), nullptr, &hosts), 0) << vxlan_hosts_error();
  Seen seen;
  vxlan_hosts_cursor cursor{};
  vxlan_hosts_state state{};
  state.size = sizeof state;
  std::uint64_t turns = 0;
  std::uint64_t last = 0;
  std::mt19937 random(seed + 1);
  // Also until the writer was seen at work: a processor of its own is not promised.
  while (writer.runs() && (seen.reads < wanted || turns < 100)) {
    for (int i = 0; i < 1000; ++i) {
      vxlan_host host{};
      host.size = sizeof host;
      const int found = vxlan_hosts_lookup(hosts, keyOf(random() % keys).mac.data(), 10, &host);
      ASSERT_GE(found, 0) << vxlan_hosts_error();
      if (found == 1) {
        seen.look(host);
      }
    }
    ASSERT_GE(vxlan_hosts_walk(hosts, &Seen::visit, &seen), 0) << vxlan_hosts_error();
    ASSERT_GE(vxlan_hosts_changes(hosts, &cursor, &Seen::follow, &seen), 0) << vxlan_hosts_error();
    ASSERT_EQ(vxlan_hosts_stand(hosts, &state), 0) << vxlan_hosts_error();
    turns += state.turn != last ? 1U : 0U;
    last = state.turn;
  }
  EXPECT_TRUE(writer.runs());
  EXPECT_EQ(seen.torn, 0U);
  EXPECT_GE(seen.reads, wanted);
  std::printf("%llu reads, %llu turns of the writer\n", static_cast<unsigned long long>(seen.reads),
              static_cast<unsigned long long>(state.turn));
  vxlan_hosts_close(hosts);
}

}  // namespace
}  // namespace HostsTest
