#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "service/loop/UniqueFd.h"

namespace Service {

// What the loop did not look at its descriptors for: the length of each turn, from the return of one poll to
// the beginning of the next. Everything the agent answers waits that long at worst.
struct LoopStall {
  // Upper bounds of the histogram's buckets, inclusive; what is longer falls into the last, unbounded bucket.
  static constexpr std::array<std::chrono::microseconds, 13> bounds{
      std::chrono::microseconds{100},      std::chrono::microseconds{250},
      std::chrono::microseconds{500},      std::chrono::microseconds{1'000},
      std::chrono::microseconds{2'500},    std::chrono::microseconds{5'000},
      std::chrono::microseconds{10'000},   std::chrono::microseconds{20'000},
      std::chrono::microseconds{50'000},   std::chrono::microseconds{100'000},
      std::chrono::microseconds{250'000},  std::chrono::microseconds{500'000},
      std::chrono::microseconds{1'000'000}};

  std::uint64_t turns = 0;                                // turns measured
  std::chrono::nanoseconds total{0};                      // sum of their lengths
  std::chrono::nanoseconds longest{0};                    // the longest of them
  std::array<std::uint64_t, bounds.size() + 1> counts{};  // turns per bucket, not cumulative

  // Takes a turn of this length into account.
  void add(std::chrono::nanoseconds length) noexcept;
};

// The one thread of the agent: descriptors, timers, signals, bulk work and the embedded reactive framework,
// in turns.
//
// A turn, in this order:
//   1. poll; it waits for the next timer or the embedded loop's wake-up, and not at all while work is
//   pending;
//   2. the handlers of the descriptors that are ready, each at most once;
//   3. the timers that were due when the poll returned, by due time, ties in the order of arming;
//   4. one turn of each embedded loop;
//   5. slices of bulk work, round-robin, until the work budget of the turn is used up, at least one;
//   6. the turn hooks.
// So bulk work never starves a descriptor or a timer, and they never starve the work: each turn does some of
// all.
//
// Every callback may watch, change and forget any descriptor, arm and cancel any timer, add and drop any work
// or hook, including its own, and stop the loop. A forgotten, cancelled or dropped callback is not called
// again, not even when it was already due in this turn. A new watch of a descriptor number that was in use
// before does not see events of the old one.
//
// An exception that a callback throws leaves through run() or runOnce(); the loop stays whole, and what was
// not yet called is called when it is run again. Work whose slice throws is dropped. After containErrors() no
// exception of a callback leaves: it is counted and told, the rest of the turn goes on, and a descriptor or
// a work that threw rests for a moment and is called again then, so that an error that stays does not keep
// the loop from all else.
//
// Time is monotonic. The loop belongs to one thread: no operation may be called from another.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimeSource = std::function<Clock::time_point()>;
  using Handler = std::function<void()>;
  using FdHandler = std::function<void(std::uint32_t events)>;
  using Slice = std::function<bool()>;
  // Takes what a callback threw: what it was called for, such as "a timer", and the text.
  using ErrorHandler = std::function<void(std::string_view where, std::string_view what)>;
  enum class TimerId : std::uint64_t { none = 0 };
  enum class WorkId : std::uint64_t { none = 0 };
  enum class HookId : std::uint64_t { none = 0 };

  // Another loop that runs inside this one: the reactive framework's activity loop.
  class Embedded {
   public:
    virtual ~Embedded() = default;
    // Runs one turn; returns whether more is due now, so that this loop polls without waiting.
    virtual bool turn() = 0;
    // Seconds from now until turn() has something to do: zero or less is now, plus infinity is never.
    virtual double nextWakeup() = 0;
  };

  // `now` is read several times a turn; a test gives its own. Raises std::system_error when the kernel
  // refuses an epoll instance.
  explicit EventLoop(TimeSource now = &Clock::now);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Calls `handler` in each turn that finds `fd` ready, with the events (EPOLLIN, EPOLLOUT, ...; EPOLLERR and
  // EPOLLHUP come unasked). Level-triggered unless `events` says EPOLLET. The descriptor stays the caller's,
  // who forgets it before closing it. `fd` must not be watched already. Raises std::system_error for a
  // descriptor that cannot be polled, such as a regular file.
  void watch(int fd, std::uint32_t events, FdHandler handler);
  // Waits for other events on a watched descriptor; the handler stays.
  void change(int fd, std::uint32_t events);
  // Ends a watch; nothing happens if `fd` is not watched.
  void forget(int fd);
  bool watches(int fd) const { return ids_.contains(fd); }

  // Calls `handler` once, `delay` from now (zero or less: in the next turn), never early and to the
  // millisecond.
  TimerId after(std::chrono::nanoseconds delay, Handler handler);
  // Returns whether the timer was still armed.
  bool cancel(TimerId id);

  // Bulk work: `slice` does a part and returns whether more is left; it is called again until nothing is. A
  // slice should take no longer than the budget and can ask budgetLeft() for how far it may go.
  WorkId addWork(Slice slice);
  // Returns whether the work was still there.
  bool dropWork(WorkId id);
  // How long the slices of one turn may take together; a hint that the loop checks between slices. 5 ms by
  // default.
  void workBudgetIs(std::chrono::nanoseconds budget) { workBudget_ = budget; }
  std::chrono::nanoseconds workBudget() const { return workBudget_; }
  // Whether the work budget of this turn is not yet used up. False outside a slice.
  bool budgetLeft() const;
  std::size_t works() const { return works_.size() + resting_.size() + (sliceRuns_ ? 1 : 0); }

  // Runs a turn of `loop` in each turn, until it is removed. It must outlive its stay here.
  void embed(Embedded& loop);
  void unembed(Embedded& loop);
  // Calls `hook` at the end of each turn, after all changes of the turn are made.
  HookId addTurnHook(Handler hook);
  bool dropTurnHook(HookId id);

  // Calls `handler` in a turn after the signal came; several signals of one number may be one call. The
  // signal is blocked in the calling thread and in threads it starts later, so this comes before other
  // threads. Raises std::system_error.
  void onSignal(int signal, Handler handler);

  // From now on no exception of a callback leaves the loop; `handler` is called with each. An exception of
  // the handler itself is dropped.
  void containErrors(ErrorHandler handler) { onError_ = std::move(handler); }
  // How many exceptions of callbacks were contained.
  std::uint64_t errors() const { return errors_; }
  // How long a descriptor or a work that threw is not called.
  static constexpr std::chrono::milliseconds restAfterError{100};

  // Turns until stop(). Returns at once if the loop has been stopped before.
  void run();
  // One turn that waits at most `timeout` in its poll.
  void runOnce(std::chrono::nanoseconds timeout);
  // Ends run() after the turn that is under way.
  void stop() { stopped_ = true; }
  bool stopped() const { return stopped_; }

  Clock::time_point now() const { return now_(); }
  const LoopStall& stall() const { return stall_; }

 private:
  struct Watch {
    int fd;
    FdHandler handler;
    std::uint32_t events;
    bool resting = false;  // its handler threw, and it is not polled for a moment
  };
  struct Work {
    WorkId id;
    Slice slice;
  };
  struct Hook {
    HookId id;
    std::shared_ptr<Handler> call;
  };
  using TimerKey = std::pair<Clock::time_point, TimerId>;

  int pollTimeout(std::chrono::nanoseconds atMost);
  void fireTimers(Clock::time_point now, std::uint64_t lastArmed);
  void turnEmbedded();
  void runSlices();
  void runOneSlice();
  void runHooks();
  void readSignals();
  template <typename Call>
  bool contained(const char* where, const Call& call);
  void tell(const char* where, const char* what) noexcept;
  void rest(std::uint64_t watchId);
  void wake(std::uint64_t watchId);
  void rest(Work work);

  TimeSource now_;
  UniqueFd epoll_;
  UniqueFd signals_;
  bool stopped_ = false;
  bool turning_ = false;
  std::uint64_t lastId_ = 0;
  LoopStall stall_;

  std::unordered_map<int, std::uint64_t> ids_;  // descriptor -> id of its watch
  std::unordered_map<std::uint64_t, std::shared_ptr<Watch>>
      watches_;  // by id, so that stale events find none

  std::map<TimerKey, Handler> timers_;
  std::unordered_map<TimerId, Clock::time_point> due_;  // of the armed timers

  std::deque<Work> works_;          // front runs next
  std::map<WorkId, Work> resting_;  // whose slice threw
  bool sliceRuns_ = false;
  WorkId running_ = WorkId::none;  // none: dropped by its own slice
  std::chrono::nanoseconds workBudget_ = std::chrono::milliseconds{5};
  Clock::time_point sliceEnd_;

  std::vector<Embedded*> embedded_;  // null: removed while turning
  bool embeddedDue_ = false;
  std::vector<Hook> hooks_;
  std::map<int, std::shared_ptr<Handler>> signalHandlers_;
  ErrorHandler onError_;
  std::uint64_t errors_ = 0;
};

}  // namespace Service
