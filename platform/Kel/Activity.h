// The activity loop: the queue of pending notifications, the clocks, and the one thread's turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kel/Export.h"
#include "Kel/Ptr.h"

namespace Kel {

class Clock;
class Reactor;

// A key as it travels in the notification queue: every key type is a plain value of at most eight bytes.
class QueuedKey {
 public:
  QueuedKey() = default;
  template <class K>
  explicit QueuedKey(const K& key) {
    static_assert(std::is_trivially_copyable_v<K> && sizeof(K) <= sizeof bits_);
    std::memcpy(&bits_, &key, sizeof key);
  }
  template <class K>
  K as() const {
    K key;
    std::memcpy(static_cast<void*>(&key), &bits_, sizeof key);
    return key;
  }

 private:
  std::uint64_t bits_ = 0;
};

// How a queued notification reaches its callback: one function per attribute.
using Deliver = void (*)(Reactor&, QueuedKey);

// One thread, one queue. A change made outside any handler is delivered before its mutator returns; one made
// inside a handler is queued, first in first out, and delivered when the outermost handler ends. Clocks fire
// on turns, only while the queue is empty. The loop owns no thread: the program that embeds it runs turns and
// asks when to come back.
class KEL_API ActivityLoop {
 public:
  static ActivityLoop& instance() noexcept {
    if (theLoop == nullptr) [[unlikely]] {
      begin();
    }
    return *theLoop;
  }

  // One turn: delivers what is pending, then fires each clock that was due and armed when the turn began,
  // once, in the order of due time and then of arming, delivering what each one caused. Returns whether
  // anything ran. An exception of a handler leaves through here; the rest stays queued for later.
  bool turn();

  // Turns until idle, at most `bound` of them. Returns whether it is idle now.
  bool runUntilIdle(std::uint64_t bound = UINT64_MAX);

  // No notification is pending and no clock is due.
  bool idle() const;

  // When the next clock is due, in seconds of the framework's time; plus infinity when none is armed. A value
  // in the past, or pending notifications, mean now.
  double nextWakeup() const;

  // Whether a handler is running now.
  bool inHandler() const noexcept { return depth_ != 0; }

  // Queues one notification, held with a reference to the reactor. When all of one change is queued, call
  // `settle`.
  void enqueue(Ptr<Reactor> reactor, std::uint32_t binding, Deliver deliver, QueuedKey key) {
    if (tailAt_ == Block::records) [[unlikely]] {
      extend();
    }
    new (tail_->record() + tailAt_++) Record{reactor.detach(), deliver, key, binding};
    ++pending_;
  }
  // Counts a notification that is delivered without a stop in the queue: a callback that does nothing.
  void passOver() noexcept { ++delivered_; }
  // Nothing is queued and no handler runs.
  bool quiet() const noexcept { return depth_ == 0 && pending_ == 0; }
  // The work of `enqueue` and `settle` in a quiet loop: calls the reactor, if it listens, then delivers all
  // that it set off.
  template <class Call>
  void direct(Reactor& reactor, const Call& call);
  // Calls one reactor at once, if it still listens under this binding, as a handler.
  void now(Reactor& reactor, std::uint32_t binding, Deliver deliver);
  // Delivers what is pending, unless a handler is running, which will.
  void settle() {
    if (depth_ == 0 && (pending_ != 0 || written_)) {
      drain();
    }
  }

  // Runs the function as a handler: what it changes is delivered when it ends, if it is the outermost. A
  // factory wraps its work in this, so that what it returns is live.
  template <class Function>
  decltype(auto) asHandler(Function&& function) {
    using Result = std::invoke_result_t<Function>;
    if constexpr (std::is_void_v<Result>) {
      {
        const Depth depth(*this);
        std::forward<Function>(function)();
      }
      settle();
    } else {
      Result result = [&]() -> Result {
        const Depth depth(*this);
        return std::forward<Function>(function)();
      }();
      settle();
      return result;
    }
  }

  // Called at the end of every turn in which `turnHasWritten` was called: when an outermost handler has ended
  // and all that it set off has been delivered. That is when what was written to shared memory is published.
  using Hook = void (*)(void*);
  void atTurnEnd(Hook hook, void* context);
  void forgetTurnEnd(void* context);
  // Says that this turn has something to publish; outside any handler it is published at once.
  void turnHasWritten() {
    written_ = true;
    settle();
  }

  // Counts since the start, for metrics and benchmarks.
  std::uint64_t delivered() const noexcept { return delivered_; }
  std::uint64_t pending() const noexcept { return pending_; }
  std::uint64_t clocksFired() const noexcept { return clocksFired_; }

 private:
  friend class Clock;

  struct Record {
    Reactor* reactor;  // holds a reference
    Deliver deliver;
    QueuedKey key;
    std::uint32_t binding;
  };
  struct Block {
    static constexpr std::size_t records = 127;
    Block* next = nullptr;
    alignas(Record) std::byte storage[records * sizeof(Record)];
    Record* record() noexcept { return std::launder(reinterpret_cast<Record*>(storage)); }
  };
  class Depth {
   public:
    explicit Depth(ActivityLoop& loop) noexcept : loop_(loop) { ++loop_.depth_; }
    Depth(const Depth&) = delete;
    Depth& operator=(const Depth&) = delete;
    ~Depth() { --loop_.depth_; }

   private:
    ActivityLoop& loop_;
  };
  struct Armed {
    double due;
    std::uint64_t sequence;
    Clock* clock;
    bool operator<(const Armed& other) const noexcept {
      return due != other.due ? due < other.due : sequence < other.sequence;
    }
  };

  ActivityLoop() = default;
  static void begin();
  void extend();
  void drain();
  void deliverOne();
  void endTurn();
  void arm(Clock& clock, double due);
  void park(Clock& clock) noexcept;
  static Block* newBlock();

  static ActivityLoop* theLoop;

  // The queue: a chain of blocks of which one empty one is kept, so that a steady load allocates nothing and
  // a burst never moves what is queued.
  Block* head_ = newBlock();
  Block* tail_ = head_;
  std::size_t headAt_ = 0;
  std::size_t tailAt_ = 0;
  Block* spare_ = nullptr;

  std::uint64_t pending_ = 0;
  std::uint32_t depth_ = 0;
  std::uint64_t delivered_ = 0;
  std::uint64_t clocksFired_ = 0;
  std::uint64_t armings_ = 0;
  std::set<Armed> armed_;
  std::vector<std::pair<Hook, void*>> turnEnd_;
  bool written_ = false;
};

}  // namespace Kel
