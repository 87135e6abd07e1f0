#include "service/loop/EventLoop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <exception>
#include <system_error>

#include "service/loop/Fatal.h"

namespace Service {

namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds forever = nanoseconds::max();
constexpr std::size_t readyAtOnce = 64;  // the rest is found ready again by the next poll

[[noreturn]] void raise(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

nanoseconds fromSeconds(double seconds) {
  if (seconds <= 0) {
    return nanoseconds::zero();
  }
  constexpr double tooLong = 1e9;  // three decades, and NaN: as good as never
  if (!(seconds < tooLong)) {
    return forever;
  }
  return nanoseconds{static_cast<nanoseconds::rep>(std::ceil(seconds * 1e9))};
}

}  // namespace

void LoopStall::add(nanoseconds length) noexcept {
  ++turns;
  total += length;
  longest = std::max(longest, length);
  const auto bucket = std::lower_bound(bounds.begin(), bounds.end(), length);
  ++counts.at(static_cast<std::size_t>(bucket - bounds.begin()));
}

EventLoop::EventLoop(TimeSource now) : now_(std::move(now)), epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (epoll_ < 0) {
    raise("epoll_create1");
  }
}

EventLoop::~EventLoop() {
  if (signals_ >= 0) {
    close(signals_);
  }
  close(epoll_);
}

void EventLoop::watch(int fd, std::uint32_t events, FdHandler handler) {
  require(!watches(fd), "a descriptor is watched once");
  const std::uint64_t id = ++lastId_;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) < 0) {
    raise("watch a descriptor");
  }
  ids_[fd] = id;
  watches_[id] = std::make_shared<Watch>(Watch{fd, std::move(handler), events});
}

void EventLoop::change(int fd, std::uint32_t events) {
  const auto found = ids_.find(fd);
  require(found != ids_.end(), "only a watched descriptor's events can change");
  Watch& watch = *watches_.at(found->second);
  watch.events = events;
  if (watch.resting) {
    return;
  }
  epoll_event event{};
  event.events = events;
  event.data.u64 = found->second;
  if (epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event) < 0) {
    raise("change the events of a descriptor");
  }
}

void EventLoop::forget(int fd) {
  const auto found = ids_.find(fd);
  if (found == ids_.end()) {
    return;
  }
  epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);       // fails only for a descriptor that is closed already
  const auto watch = watches_.extract(found->second);  // what the handler owns goes last
  ids_.erase(found);
}

EventLoop::TimerId EventLoop::after(nanoseconds delay, Handler handler) {
  const Clock::time_point now = now_();
  const nanoseconds farthest = Clock::time_point::max() - now;
  const Clock::time_point due = now + std::clamp(delay, nanoseconds::zero(), farthest);
  const TimerId id{++lastId_};
  timers_.emplace(TimerKey{due, id}, std::move(handler));
  due_.emplace(id, due);
  return id;
}

bool EventLoop::cancel(TimerId id) {
  const auto found = due_.find(id);
  if (found == due_.end()) {
    return false;
  }
  const auto timer = timers_.extract(TimerKey{found->second, id});  // what the handler owns goes last
  due_.erase(found);
  return true;
}

EventLoop::WorkId EventLoop::addWork(Slice slice) {
  const WorkId id{++lastId_};
  works_.push_back({id, std::move(slice)});
  return id;
}

bool EventLoop::dropWork(WorkId id) {
  if (sliceRuns_ && running_ == id && id != WorkId::none) {
    running_ = WorkId::none;
    return true;
  }
  return std::erase_if(works_, [id](const Work& work) { return work.id == id; }) != 0 ||
         resting_.erase(id) != 0;
}

bool EventLoop::budgetLeft() const {
  return sliceRuns_ && now_() < sliceEnd_;
}

void EventLoop::embed(Embedded& loop) {
  require(std::find(embedded_.begin(), embedded_.end(), &loop) == embedded_.end(), "a loop is embedded once");
  embedded_.push_back(&loop);
  embeddedDue_ = true;
}

void EventLoop::unembed(Embedded& loop) {
  std::replace(embedded_.begin(), embedded_.end(), &loop, static_cast<Embedded*>(nullptr));
}

EventLoop::HookId EventLoop::addTurnHook(Handler hook) {
  const HookId id{++lastId_};
  hooks_.push_back({id, std::make_shared<Handler>(std::move(hook))});
  return id;
}

bool EventLoop::dropTurnHook(HookId id) {
  const auto found =
      std::find_if(hooks_.begin(), hooks_.end(), [id](const Hook& hook) { return hook.id == id; });
  if (found == hooks_.end() || !found->call) {
    return false;
  }
  found->call.reset();
  return true;
}

void EventLoop::onSignal(int signal, Handler handler) {
  signalHandlers_[signal] = std::make_shared<Handler>(std::move(handler));
  sigset_t followed;
  sigemptyset(&followed);
  for (const auto& [number, call] : signalHandlers_) {
    sigaddset(&followed, number);
  }
  if (const int error = pthread_sigmask(SIG_BLOCK, &followed, nullptr); error != 0) {
    throw std::system_error(error, std::generic_category(), "block a signal");
  }
  const int fd = signalfd(signals_, &followed, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) {
    raise("signalfd");
  }
  if (signals_ < 0) {
    signals_ = fd;
    watch(fd, EPOLLIN, [this](std::uint32_t) { readSignals(); });
  }
}

void EventLoop::readSignals() {
  signalfd_siginfo info{};
  while (read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    const auto found = signalHandlers_.find(static_cast<int>(info.ssi_signo));
    if (found != signalHandlers_.end()) {
      const std::shared_ptr<Handler> call = found->second;
      contained("a signal", [&] { (*call)(); });
    }
  }
}

// Calls a callback; false when it threw and that was contained.
template <typename Call>
bool EventLoop::contained(const char* where, const Call& call) {
  if (!onError_) {
    call();
    return true;
  }
  try {
    call();
    return true;
  } catch (const std::exception& error) {
    tell(where, error.what());
  } catch (...) {
    tell(where, "an exception of an unknown type");
  }
  return false;
}

void EventLoop::tell(const char* where, const char* what) noexcept {
  ++errors_;
  try {
    onError_(where, what);
  } catch (...) {  // NOLINT(bugprone-empty-catch): who cannot take an error can take no other either
  }
}

// Takes a descriptor whose handler threw out of the poll for a moment; it would be ready again at once.
void EventLoop::rest(std::uint64_t watchId) {
  const auto found = watches_.find(watchId);
  if (found == watches_.end()) {
    return;
  }
  found->second->resting = true;
  epoll_ctl(epoll_, EPOLL_CTL_DEL, found->second->fd, nullptr);
  after(restAfterError, [this, watchId] { wake(watchId); });
}

void EventLoop::wake(std::uint64_t watchId) {
  const auto found = watches_.find(watchId);
  if (found == watches_.end()) {
    return;
  }
  Watch& watch = *found->second;
  watch.resting = false;
  epoll_event event{};
  event.events = watch.events;
  event.data.u64 = watchId;
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, watch.fd, &event) < 0) {
    raise("watch a descriptor again");
  }
}

void EventLoop::rest(Work work) {
  const WorkId id = work.id;
  resting_.emplace(id, std::move(work));
  after(restAfterError, [this, id] {
    if (auto rested = resting_.extract(id); !rested.empty()) {
      works_.push_back(std::move(rested.mapped()));
    }
  });
}

void EventLoop::run() {
  while (!stopped_) {
    runOnce(forever);
  }
}

void EventLoop::runOnce(nanoseconds timeout) {
  require(!turning_, "a turn does not begin inside another");
  const int wait = pollTimeout(timeout);
  turning_ = true;
  struct Turn {
    EventLoop& loop;
    Clock::time_point began;
    ~Turn() {
      loop.stall_.add(loop.now_() - began);
      loop.turning_ = false;
    }
  };
  std::array<epoll_event, readyAtOnce> ready{};
  const int count = epoll_wait(epoll_, ready.data(), static_cast<int>(ready.size()), wait);
  const int error = errno;
  const Turn turn{*this, now_()};
  const std::uint64_t lastArmed = lastId_;  // what is armed from here on waits for the next turn
  if (count < 0 && error != EINTR) {
    throw std::system_error(error, std::generic_category(), "epoll_wait");
  }
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = ready.at(static_cast<std::size_t>(i));
    const std::uint64_t id = event.data.u64;  // out of the packed event, before anything refers to it
    if (const auto found = watches_.find(id); found != watches_.end()) {
      const std::shared_ptr<Watch> watch = found->second;  // lives through its own forget()
      if (!contained("a descriptor", [&] { watch->handler(event.events); })) {
        rest(id);
      }
    }
  }
  fireTimers(turn.began, lastArmed);
  turnEmbedded();
  runSlices();
  runHooks();
}

int EventLoop::pollTimeout(nanoseconds atMost) {
  if (!works_.empty() || embeddedDue_) {
    return 0;
  }
  nanoseconds wait = atMost;
  if (!timers_.empty()) {
    wait = std::min(wait, nanoseconds{timers_.begin()->first.first - now_()});
  }
  for (Embedded* loop : embedded_) {
    if (loop != nullptr) {
      wait = std::min(wait, fromSeconds(loop->nextWakeup()));
    }
  }
  if (wait <= nanoseconds::zero()) {
    return 0;
  }
  constexpr nanoseconds longest = std::chrono::hours{1};
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(std::min(wait, longest)).count());
}

void EventLoop::fireTimers(Clock::time_point now, std::uint64_t lastArmed) {
  while (!timers_.empty()) {
    const auto first = timers_.begin();
    const auto [due, id] = first->first;
    if (due > now || static_cast<std::uint64_t>(id) > lastArmed) {
      return;
    }
    const Handler handler = std::move(first->second);
    timers_.erase(first);
    due_.erase(id);
    contained("a timer", [&] { handler(); });
  }
}

void EventLoop::turnEmbedded() {
  embeddedDue_ = true;  // stays when a turn throws
  bool due = false;
  const std::size_t count = embedded_.size();  // a loop embedded meanwhile begins with the next turn
  for (std::size_t i = 0; i < count; ++i) {
    if (embedded_[i] != nullptr) {
      Embedded& loop = *embedded_[i];
      contained("an embedded loop", [&] { due = loop.turn() || due; });
    }
  }
  embeddedDue_ = due || embedded_.size() > count;
  std::erase(embedded_, nullptr);
}

void EventLoop::runSlices() {
  if (works_.empty()) {
    return;
  }
  sliceEnd_ = now_() + workBudget_;
  do {
    runOneSlice();
  } while (!works_.empty() && !stopped_ && now_() < sliceEnd_);
}

void EventLoop::runOneSlice() {
  Work work = std::move(works_.front());
  works_.pop_front();
  running_ = work.id;
  sliceRuns_ = true;
  struct Slicing {
    EventLoop& loop;
    ~Slicing() {
      loop.sliceRuns_ = false;
      loop.running_ = WorkId::none;
    }
  } slicing{*this};
  bool more = false;
  const bool well = contained("bulk work", [&] { more = work.slice(); });
  if (running_ == WorkId::none) {
    return;
  }
  if (!well) {
    rest(std::move(work));
  } else if (more) {
    works_.push_back(std::move(work));
  }
}

void EventLoop::runHooks() {
  const std::size_t count = hooks_.size();  // a hook added by a hook begins with the next turn
  for (std::size_t i = 0; i < count; ++i) {
    if (const std::shared_ptr<Handler> call = hooks_[i].call) {
      contained("a turn hook", [&] { (*call)(); });
    }
  }
  std::erase_if(hooks_, [](const Hook& hook) { return !hook.call; });
}

}  // namespace Service
