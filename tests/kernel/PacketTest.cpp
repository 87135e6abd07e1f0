#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include "Addresses.h"
#include "Namespace.h"
#include "agent/kernel/Adapter.h"

// Packets through the kernel that the adapter programs: three leaves on an underlay, a host behind each. The
// host that moves is there twice, with the same addresses, behind the second leaf and behind the third.
namespace Agent::Kernel::Test {
namespace {

using std::chrono::milliseconds;

constexpr std::uint16_t udpPort = 7777;
constexpr const char* moving = "02:00:00:00:10:02";
constexpr const char* movingIp = "192.168.10.2";

// A UDP socket in a namespace.
class Endpoint {
 public:
  explicit Endpoint(const Namespace& where) {
    fd_ = where.within([] { return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    int big = 64 << 20;
    int on = 1;
    (void)::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big));
    (void)::setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    sockaddr_in address = to("0.0.0.0");
    const void* any = &address;
    EXPECT_EQ(::bind(fd_, static_cast<const sockaddr*>(any), sizeof(address)), 0);
  }
  ~Endpoint() { ::close(fd_); }
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  bool send(const char* destination) const {
    sockaddr_in address = to(destination);
    const void* any = &address;
    return ::sendto(fd_, "x", 1, 0, static_cast<const sockaddr*>(any), sizeof(address)) == 1;
  }
  // How many datagrams arrive until `wanted` have, or until none has for `patience`.
  int received(int wanted, milliseconds patience = milliseconds(3000)) const {
    int count = 0;
    pollfd poller{fd_, POLLIN, 0};
    while (count < wanted && ::poll(&poller, 1, static_cast<int>(patience.count())) == 1) {
      count += take();
    }
    return count + take();
  }
  // Whether something arrives at one of them in that time.
  static bool await(const Endpoint& one, const Endpoint& other, milliseconds patience) {
    std::array<pollfd, 2> pollers{pollfd{one.fd_, POLLIN, 0}, pollfd{other.fd_, POLLIN, 0}};
    return ::poll(pollers.data(), pollers.size(), static_cast<int>(patience.count())) > 0;
  }

 private:
  static sockaddr_in to(const char* destination) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(udpPort);
    EXPECT_EQ(::inet_pton(AF_INET, destination, &address.sin_addr), 1);
    return address;
  }
  int take() const {
    int count = 0;
    char octet = 0;
    while (::recv(fd_, &octet, 1, MSG_DONTWAIT) >= 0) {
      ++count;
    }
    return count;
  }

  int fd_ = -1;
};

struct Leaf {
  explicit Leaf(int which) : number(which) {}

  std::string address() const { return "10.0.0." + std::to_string(number); }

  int number;
  Namespace space;
  Namespace host;
  std::unique_ptr<Adapter> adapter;
};

class PacketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto why = Namespace::whyNot()) {
      GTEST_SKIP() << *why;
    }
    underlay_ = std::make_unique<Namespace>();
    underlay_->run("ip link add wire type bridge && ip link set wire up mtu 1600");
    for (int number = 1; number <= 3; ++number) {
      makeLeaf(number);
    }
    // A port forwards once the kernel has noticed, in its own time, that its device has a carrier.
    for (int number = 1; number <= 3; ++number) {
      awaitForwarding(*underlay_, "leaf" + std::to_string(number));
      awaitForwarding(leaf(number).space, "t0");
      awaitForwarding(leaf(number).space, "vx5010");
    }
    // The first host knows the moving one, so that no address resolution comes in between.
    leaf(1).host.run(std::string("ip neigh add ") + movingIp + " lladdr " + moving +
                     " dev eth0 nud permanent");
  }

  Leaf& leaf(int number) { return *leaves_[static_cast<std::size_t>(number - 1)]; }
  Adapter& adapter(int number) { return *leaf(number).adapter; }
  void run(int number) {
    while (adapter(number).run(milliseconds(2))) {
    }
  }
  void start(int number, Vni vni = 5010) {
    Options options;
    options.netns = leaf(number).space.path();
    options.renumberPause = milliseconds(500);
    leaf(number).adapter = std::make_unique<Adapter>(options);
    tell(number, vni);
  }
  void tell(int number, Vni vni) {
    adapter(number).vniIs(vni, 10, "Vxlan1", ip(leaf(number).address()), {"t0"});
    if (number != 1) {
      adapter(number).hostIs(10, mac("02:00:00:00:10:01"), ip("10.0.0.1"));
    }
  }
  void floodToAll(int number, FloodType type = FloodType::all) {
    std::vector<Ip4> others;
    for (int other = 1; other <= 3; ++other) {
      if (other != number) {
        others.push_back(ip(leaf(other).address()));
      }
    }
    adapter(number).floodIs(10, Mac{}, type, others);
    run(number);
  }
  void movingIsAt(int number) {
    adapter(1).hostIs(10, mac(moving), ip(leaf(number).address()));
    run(1);
  }

  std::unique_ptr<Namespace> underlay_;
  std::vector<std::unique_ptr<Leaf>> leaves_;

 private:
  static void awaitForwarding(const Namespace& space, const std::string& port) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (space.run("bridge link show dev " + port).find("state forwarding") == std::string::npos) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << port << " does not forward";
    }
  }
  void makeLeaf(int number) {
    leaves_.push_back(std::make_unique<Leaf>(number));
    Leaf& leaf = *leaves_.back();
    std::string port = "leaf" + std::to_string(number);
    underlay_->connect(port, leaf.space, "wire0");
    underlay_->run("ip link set " + port + " master wire mtu 1600");
    leaf.space.run("ip addr add " + leaf.address() + "/24 dev wire0 && ip link set wire0 mtu 1600");
    leaf.space.connect("t0", leaf.host, "eth0");
    std::string last = number == 1 ? "1" : "2";
    leaf.host.run("ip link set eth0 address 02:00:00:00:10:0" + last);
    leaf.host.run("ip addr add 192.168.10." + last + "/24 dev eth0 brd 192.168.10.255");
    start(number);
    run(number);
  }
};

// Sends without a pause from a thread of its own until it is stopped, and counts what arrives at either
// endpoint. Only so many packets are under way at a time that no queue on the way can overflow.
class Stream {
 public:
  Stream(const Endpoint& from, const char* to, const Endpoint& one, const Endpoint& other)
      : one_(one), other_(other) {
    thread_ = std::thread([this, &from, to] {
      while (!stop_) {
        if (from.send(to)) {
          ++sent_;
        }
        take(underWay);
      }
      take(0);
    });
  }
  ~Stream() { stop(); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // Waits until so many more have been sent.
  void await(int more) const {
    for (int until = sent_ + more; sent_ < until;) {
      std::this_thread::yield();
    }
  }
  void stop() {
    stop_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  int sent() const { return sent_; }
  int atOne() const { return atOne_; }
  int atOther() const { return atOther_; }
  int lost() const { return sent_ - atOne_ - atOther_; }

 private:
  static constexpr int underWay = 64;

  // Takes what has arrived until at most so many are under way; what takes a second is lost and not waited
  // for again.
  void take(int most) {
    do {
      atOne_ += one_.received(0);
      atOther_ += other_.received(0);
    } while (lost() - givenUp_ > most && Endpoint::await(one_, other_, milliseconds(1000)));
    if (lost() - givenUp_ > most) {
      givenUp_ = lost();
    }
  }

  const Endpoint& one_;
  const Endpoint& other_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<int> sent_{0};
  std::atomic<int> atOne_{0};
  std::atomic<int> atOther_{0};
  int givenUp_ = 0;
};

TEST_F(PacketTest, HostsReachEachOther) {
  Endpoint from(leaf(1).host);
  Endpoint second(leaf(2).host);
  Endpoint third(leaf(3).host);
  movingIsAt(2);
  ASSERT_TRUE(from.send(movingIp));
  EXPECT_EQ(second.received(1), 1);
  movingIsAt(3);
  ASSERT_TRUE(from.send(movingIp));
  EXPECT_EQ(third.received(1), 1);
  EXPECT_EQ(second.received(1, milliseconds(20)), 0);
}

TEST_F(PacketTest, FloodReachesEachVtepOnceAndAnyExactlyOne) {
  Endpoint from(leaf(1).host);
  Endpoint second(leaf(2).host);
  Endpoint third(leaf(3).host);
  floodToAll(1);
  ASSERT_TRUE(from.send("192.168.10.255"));
  EXPECT_EQ(second.received(1), 1);
  EXPECT_EQ(third.received(1), 1);
  floodToAll(1, FloodType::any);
  ASSERT_TRUE(from.send("192.168.10.255"));
  int arrived = second.received(1, milliseconds(200)) + third.received(1, milliseconds(200));
  EXPECT_EQ(arrived, 1);
}

TEST_F(PacketTest, NoPacketIsLostOrDoubledWhileTheHostMovesAHundredTimes) {
  Endpoint from(leaf(1).host);
  Endpoint second(leaf(2).host);
  Endpoint third(leaf(3).host);
  movingIsAt(2);
  Stream stream(from, movingIp, second, third);
  for (int n = 0; n < 100; ++n) {
    movingIsAt(n % 2 == 0 ? 3 : 2);
    stream.await(100);
  }
  stream.stop();
  EXPECT_EQ(stream.lost(), 0) << "of " << stream.sent();
  EXPECT_GT(stream.atOne(), 1000);
  EXPECT_GT(stream.atOther(), 1000);
}

TEST_F(PacketTest, NoPacketIsLostWhileTheAgentRestarts) {
  Endpoint from(leaf(1).host);
  Endpoint second(leaf(2).host);
  Endpoint third(leaf(3).host);
  movingIsAt(2);
  adapter(1).initialSyncComplete();
  run(1);
  Stream stream(from, movingIp, second, third);
  for (int n = 0; n < 5; ++n) {
    leaf(1).adapter.reset();
    stream.await(50);
    start(1);
    run(1);
    movingIsAt(2);
    adapter(1).initialSyncComplete();
    run(1);
    stream.await(50);
  }
  stream.stop();
  EXPECT_EQ(stream.lost(), 0) << "of " << stream.sent();
  EXPECT_EQ(stream.atOther(), 0);
}

TEST_F(PacketTest, NoPacketIsLostWhileTheVniIsRenumberedOnOneLeafAfterTheOther) {
  Endpoint from(leaf(1).host);
  Endpoint second(leaf(2).host);
  Endpoint third(leaf(3).host);
  movingIsAt(2);
  Stream stream(from, movingIp, second, third);
  for (int number = 1; number <= 2; ++number) {
    adapter(number).vniDel(10, "Vxlan1");
    tell(number, 6010);
    run(number);
  }
  auto there = [this](int number) {
    return leaf(number).space.run("ip link show").find("vx5010") != std::string::npos;
  };
  while (there(1) || there(2)) {
    run(1);
    run(2);
  }
  stream.await(100);
  stream.stop();
  EXPECT_EQ(stream.lost(), 0) << "of " << stream.sent();
}

TEST_F(PacketTest, NoPacketIsLostWhileAHostChangesBetweenOneVtepAndAny) {
  Endpoint from(leaf(1).host);
  Endpoint second(leaf(2).host);
  Endpoint third(leaf(3).host);
  movingIsAt(2);
  Stream stream(from, movingIp, second, third);
  for (int n = 0; n < 50; ++n) {
    if (n % 2 == 0) {
      adapter(1).floodIs(10, mac(moving), FloodType::any, {ip("10.0.0.2"), ip("10.0.0.3")});
    } else {
      adapter(1).floodDel(10, mac(moving));
    }
    run(1);
    stream.await(50);
  }
  stream.stop();
  EXPECT_EQ(stream.lost(), 0) << "of " << stream.sent();
}

}  // namespace
}  // namespace Agent::Kernel::Test
