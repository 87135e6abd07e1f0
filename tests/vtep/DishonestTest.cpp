// Session, rows and mapper against a server that lies: nothing it says ends them, and no host is published
// that no row justifies.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "DishonestServer.h"
#include "agent/vtep/Mapper.h"
#include "service/ovsdb/Session.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

constexpr std::size_t itemsPerTurn = 16;

// Hands on to the mapper what comes, and counts it.
class Counting final : public UpdateSink {
 public:
  explicit Counting(Mapper& mapper) : mapper_(mapper) {}
  void beginUpdate(bool whole, double now) override { mapper_.beginUpdate(whole, now); }
  void row(const RowEvent& event) override {
    ++rows;
    for (const Cell& cell : event.cells) {
      elements += cell.uuids.size() + cell.texts.size() + cell.bindings.size() + cell.pairs.size();
    }
    mapper_.row(event);
  }
  void endUpdate(double now) override { mapper_.endUpdate(now); }
  void sessionLost(double now) override { mapper_.sessionLost(now); }

  // Since the turn began.
  std::size_t rows = 0;
  std::size_t elements = 0;

 private:
  Mapper& mapper_;
};

// A client and its dishonest server, turn by turn, on time that jumps to what comes next.
class World {
 public:
  explicit World(DishonestServer::Options options) : server(options) {}

  // Goes on until so many updates were taken in all.
  void run(std::uint64_t updates) {
    while (session.updates() < updates && !testing::Test::HasFailure()) {
      turn();
    }
  }

  void turn() {
    moved_ = false;
    connect();
    talk();
    work();
    session.tick(now_);
    mapper.tick(now_);
    settle();
    takePatches();
    if (session.connectionDropped()) {
      server.closed();
      wire_.clear();
    }
    checkSizes();
    now_ = moved_ ? now_ + 0.001
                  : std::clamp(std::min(session.nextWakeup(), mapper.nextWakeup()), now_ + 0.001, now_ + 1.0);
  }

  DishonestServer server;
  Mapper mapper{mapperOptions()};
  Counting sink{mapper};
  Session session{hardwareVtep(), sessionOptions(), sink, [](const std::string&) {}};
  json document = json::object();
  std::uint64_t comparisons = 0;
  std::uint64_t hostsSeen = 0;
  std::size_t mostHeld = 0;  // bytes, by everything in this process

 private:
  static SessionOptions sessionOptions() {
    SessionOptions options;
    options.remotes = Remote::parseList("unix:/one");
    return options;
  }
  static MapperOptions mapperOptions() {
    MapperOptions options;
    options.topology.switchName = "leaf1";
    options.convergence = {0.001, 0.01};
    return options;
  }

  void connect() {
    if (!session.connectTo(now_)) {
      return;
    }
    session.connecting(now_);
    if (server.below(10) == 0) {
      session.failed("connecting: Connection refused", now_);
      return;
    }
    session.connected(now_);
    server.connected();
  }

  void talk() {
    if (session.state() < SessionState::checking) {
      return;
    }
    if (!server.isDeaf() && !session.output().empty()) {
      server.hears(session.output());
      session.written(session.output().size(), now_);
      moved_ = true;
    }
    if (wire_.size() < 65'536 && !server.hangsUp()) {
      wire_ += server.says();
    }
    if (wire_.empty() && server.hangsUp()) {
      session.failed("the peer closed the connection", now_);
      server.closed();
    } else if (session.wantsInput() && !wire_.empty()) {
      const std::size_t size = std::min<std::size_t>(wire_.size(), 1 + server.below(65'536));
      const std::span<char> room = session.room(size);
      std::copy_n(wire_.begin(), size, room.begin());
      wire_.erase(0, size);
      session.received(size, now_);
      moved_ = true;
    }
  }

  void work() {
    for (int part = 0; part < 200 && !mapper.settling(); ++part) {
      sink.rows = sink.elements = 0;
      const bool more = session.work(itemsPerTurn, now_);
      ASSERT_LE(sink.rows, itemsPerTurn);
      ASSERT_LE(sink.elements, itemsPerTurn + 3 * UpdateWalk::mostElements);
      if (!more) {
        return;
      }
      moved_ = true;
      if (session.updates() > updates_) {
        ++updates_;
        server.updateTaken();
      }
    }
  }

  void settle() {
    if (!mapper.settling()) {
      return;
    }
    session.hold();
    while (mapper.settle(itemsPerTurn, now_)) {
    }
    session.goOn(now_);
  }

  void takePatches() {
    bool changed = false;
    while (std::optional<json> patch = mapper.next(20)) {
      document.merge_patch(*patch);
      changed = true;
    }
    if (changed) {
      compare();
    }
  }

  // What was published at any time was justified at some time; without a convergence, it is justified now.
  void compare() {
    const std::set<SentRows::Host> justified = server.taken().justified();
    ever_.insert(justified.begin(), justified.end());
    const bool now = session.state() == SessionState::following && !mapper.convergence().inProgress();
    const json fdb = document.value("/controller/fdb"_json_pointer, json::object());
    std::size_t hosts = 0;
    for (const auto& [vni, entry] : fdb.items()) {
      const json table = entry.value("macVtepTable", json::object());
      for (const auto& [mac, host] : table.items()) {
        const SentRows::Host published{std::stoll(vni), mac, host.at("vtepIp")};
        ++hosts;
        ASSERT_TRUE((now ? justified : ever_).contains(published))
            << vni << " " << mac << " " << published.vtep << " after " << updates_ << " updates, "
            << (now ? "now" : "ever");
      }
    }
    ASSERT_EQ(mapper.publishedHosts(), hosts);
    comparisons += now && hosts > 0 ? 1U : 0U;
    hostsSeen += hosts;
  }

  void checkSizes() {
    ASSERT_EQ(session.contained(), 0U) << session.lastError();
    ASSERT_LE(session.output().size(), std::size_t{1'500'000});
    ASSERT_LE(session.lastError().size(), 1000U);
    const auto memory = mallinfo2();
    mostHeld = std::max(mostHeld, memory.uordblks + memory.hblkhd + session.held());
  }

  double now_ = 1000;
  std::string wire_;  // said and not received
  std::uint64_t updates_ = 0;
  bool moved_ = false;
  std::set<SentRows::Host> ever_;
};

std::uint64_t updatesAskedFor() {
  const char* const text = std::getenv("DISHONEST_UPDATES");
  return text == nullptr ? 4000 : std::strtoull(text, nullptr, 10);
}

}  // namespace

TEST(DishonestDatabase, EndsNothingAndHasNoHostPublishedThatNoRowJustifies) {
  constexpr std::uint32_t seeds = 4;
  std::uint64_t allFaults = 0;
  for (std::uint32_t seed = 1; seed <= seeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world({.seed = seed, .hosts = 40, .perUpdate = 6});
    world.run(updatesAskedFor() / seeds);
    allFaults += world.session.faults();
    EXPECT_GT(world.comparisons, world.session.updates() / 50) << "and is followed all the same";
    std::cout << "seed " << seed << ": " << world.session.updates() << " updates, "
              << world.session.reconnects() << " reconnects, " << world.session.faults() << " faults, "
              << world.comparisons << " comparisons, " << world.hostsSeen << " hosts\n";
    // Once it is honest, all is well.
    world.server.becomes(DishonestServer::Temper::honest);
    const std::uint64_t faults = world.session.faults();
    world.session.failed("the next connection", 0);
    world.run(world.session.updates() + 200);
    EXPECT_LE(world.session.faults(), faults);
  }
  EXPECT_GT(allFaults, 5U) << "it does lie";
}

TEST(DishonestDatabase, TenThousandRowsCostLessThanAHundredMegabytes) {
  World world({.seed = 7, .hosts = 10'000, .perUpdate = 100});
  world.run(20);
  EXPECT_GT(world.server.taken().rows(), 3000U);
  EXPECT_LT(world.mostHeld, std::size_t{100} << 20);
  std::cout << world.mostHeld / 1024 << " KiB at the most, the server's own included\n";
}

}  // namespace Agent::Vtep::Testing
