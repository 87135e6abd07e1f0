// From a change to the callbacks it causes. The argument is how many reactors follow.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "Kel/Entity.h"
#include "Kel/StateMachine.h"

namespace {

using Kel::Ptr;

// An entity with a scalar, a hashed collection, and an attribute without a value.
class Source final : public Kel::Entity {
 public:
  struct Reactor : Kel::Reactor {
    virtual void onValue() {}
    virtual void onRow(std::uint64_t) {}
    virtual void onEvent(std::uint64_t) {}
  };
  std::uint64_t value() const { return value_; }
  void valueIs(std::uint64_t value) { value_ = value; }
  void rowIs(std::uint64_t key, std::uint64_t value) { row_.is(key, value); }
  void event(std::uint64_t key) { event_.signal(key); }
  const char* typeName() const override { return "bench::Source"; }
  void attributes(Kel::Attributes& list) const override {
    list("value", value_);
    list("row", row_);
    list("event", event_);
  }

 private:
  Kel::Attribute<std::uint64_t, &Reactor::onValue> value_{*this, 0};
  Kel::Collection<Kel::Table, std::uint64_t, std::uint64_t, &Reactor::onRow> row_{*this};
  Kel::Notification<std::uint64_t, &Reactor::onEvent> event_{*this};
};

struct Sink final : Kel::Follows<Source> {
  explicit Sink(std::uint64_t& all) : sum(all) {}
  void onValue() override { sum += notifier()->value(); }
  void onRow(std::uint64_t key) override { sum += key; }
  void onEvent(std::uint64_t key) override { sum += key; }
  std::uint64_t& sum;
};

// A machine that follows, as the system's own do.
class SinkSm final : public Kel::StateMachine {
 public:
  struct KelSource : Kel::Reacts<Source, SinkSm> {
    using Kel::Reacts<Source, SinkSm>::Reacts;
    void onValue() override { owner().sum_ += notifier()->value(); }
    void onEvent(std::uint64_t key) override { owner().sum_ += key; }
  };
  SinkSm(std::uint64_t& all, const Ptr<const Source>& source) : sum_(all) { source_.is(source); }
  const Kel::TypeNode& fwkType() const override {
    static constexpr Kel::TypeNode type{"bench::SinkSm"};
    return type;
  }

 private:
  std::uint64_t& sum_;
  Kel::Input<const Source, KelSource> source_{*this, "source"};
};

// The code that a notification replaces: a virtual call of each follower by the writer itself.
struct Called {
  virtual ~Called() = default;
  virtual void onValue(std::uint64_t value) = 0;
};
struct Adder final : Called {
  explicit Adder(std::uint64_t& all) : sum(all) {}
  void onValue(std::uint64_t value) override { sum += value; }
  std::uint64_t& sum;
};

class Followed {
 public:
  explicit Followed(std::int64_t followers) {
    for (std::int64_t at = 0; at < followers; ++at) {
      sinks_.push_back(Kel::make<Sink>(sum));
      sinks_.back()->notifierIs(source);
    }
  }
  Ptr<Source> source = Kel::make<Source>();
  std::uint64_t sum = 0;

 private:
  std::vector<Ptr<Sink>> sinks_;
};

// Counts callbacks a second, or changes where nobody follows.
void report(benchmark::State& state, std::uint64_t sum) {
  state.SetItemsProcessed(state.iterations() * std::max<std::int64_t>(state.range(0), 1));
  state.counters["checksum"] = static_cast<double>(sum % 1'000'003);
}

void directVirtualCall(benchmark::State& state) {
  std::uint64_t sum = 0;
  std::vector<std::unique_ptr<Called>> followers;
  for (std::int64_t at = 0; at < state.range(0); ++at) {
    followers.push_back(std::make_unique<Adder>(sum));
  }
  std::uint64_t value = 0;
  for (auto _ : state) {
    ++value;
    for (const auto& follower : followers) {
      follower->onValue(value);
    }
    benchmark::ClobberMemory();
  }
  report(state, sum);
}
BENCHMARK(directVirtualCall)->Arg(1)->Arg(4);

void scalarFromOutside(benchmark::State& state) {
  Followed followed(state.range(0));
  std::uint64_t value = 0;
  for (auto _ : state) {
    followed.source->valueIs(++value);
  }
  report(state, followed.sum);
}
BENCHMARK(scalarFromOutside)->Arg(0)->Arg(1)->Arg(4);

void keyedFromOutside(benchmark::State& state) {
  Followed followed(state.range(0));
  std::uint64_t key = 0;
  for (auto _ : state) {
    followed.source->event(++key);
  }
  report(state, followed.sum);
}
BENCHMARK(keyedFromOutside)->Arg(0)->Arg(1)->Arg(4);

// A row of a collection of 1,024 is replaced.
void rowFromOutside(benchmark::State& state) {
  Followed followed(state.range(0));
  std::uint64_t value = 0;
  for (auto _ : state) {
    ++value;
    followed.source->rowIs(value % 1'024, value);
  }
  report(state, followed.sum);
}
BENCHMARK(rowFromOutside)->Arg(0)->Arg(1)->Arg(4);

// 256 changes inside one handler, delivered when it ends.
template <class Change>
void inside(benchmark::State& state, const Change& change) {
  constexpr std::uint64_t batch = 256;
  Followed followed(state.range(0));
  std::uint64_t value = 0;
  for (auto _ : state) {
    Kel::ActivityLoop::instance().asHandler([&] {
      for (std::uint64_t at = 0; at < batch; ++at) {
        change(*followed.source, ++value);
      }
    });
  }
  report(state, followed.sum);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(batch) * state.range(0));
}
void scalarFromInside(benchmark::State& state) {
  inside(state, [](Source& source, std::uint64_t value) { source.valueIs(value); });
}
BENCHMARK(scalarFromInside)->Arg(1)->Arg(4);
void keyedFromInside(benchmark::State& state) {
  inside(state, [](Source& source, std::uint64_t value) { source.event(value); });
}
BENCHMARK(keyedFromInside)->Arg(1)->Arg(4);

// The follower is the reactor of a state machine.
void scalarToMachine(benchmark::State& state) {
  std::uint64_t sum = 0;
  const auto source = Kel::make<Source>();
  std::vector<Ptr<SinkSm>> machines;
  for (std::int64_t at = 0; at < state.range(0); ++at) {
    machines.push_back(Kel::live<SinkSm>(sum, source));
  }
  std::uint64_t value = 0;
  for (auto _ : state) {
    source->valueIs(++value);
  }
  report(state, sum);
}
BENCHMARK(scalarToMachine)->Arg(1)->Arg(4);

}  // namespace
