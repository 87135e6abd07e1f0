#include "agent/vtep/Adapter.h"

#include <sys/epoll.h>

#include <algorithm>
#include <limits>
#include <new>

namespace Agent::Vtep {

namespace {

// How often a look-up that is under way is asked for.
constexpr double lookupInterval = 0.02;
// Seconds after an exception of the mapper, before it is asked again.
constexpr double pauseAfterException = 1.0;

}  // namespace

nlohmann::json AdapterStatus::json() const {
  return {{"session", nameOf(session)},
          {"remote", remote},
          {"reconnects", reconnects},
          {"resumptions", resumptions},
          {"lastError", lastError},
          {"faults", faults},
          {"contained", contained},
          {"lastTransaction", lastTransaction},
          {"updates", updates},
          {"rows", rows},
          {"hostsPublished", hostsPublished},
          {"duplicates", duplicates},
          {"problems", problems},
          {"converging", converging},
          {"convergingFor", convergingFor},
          {"convergenceCause", convergenceCause},
          {"convergences", convergences},
          {"longestSlice", std::chrono::duration<double>(longestSlice).count()}};
}

Adapter::Adapter(Service::EventLoop& loop, Options options, std::function<void()> onPending,
                 Ovsdb::Session::Log log)
    : loop_(loop),
      options_(std::move(options)),
      onPending_(std::move(onPending)),
      mapper_(options_.mapper),
      session_(hardwareVtep(), options_.session, mapper_, std::move(log)),
      transport_(options_.tls) {
  // The first attempt and the first patch wait for the loop to run.
  startWork();
}

Adapter::~Adapter() {
  forget();
  loop_.cancel(timer_);
  loop_.dropWork(work_);
}

double Adapter::now() const {
  return std::chrono::duration<double>(loop_.now().time_since_epoch()).count();
}

// Runs a part of the adapter's own work and keeps how long the longest took.
template <typename Part>
auto Adapter::measured(Part part) {
  const auto begin = Service::EventLoop::Clock::now();
  auto result = part();
  longestSlice_ = std::max<std::chrono::nanoseconds>(longestSlice_, Service::EventLoop::Clock::now() - begin);
  return result;
}

std::optional<nlohmann::json> Adapter::next(std::size_t hosts) {
  if (!pending()) {
    return std::nullopt;
  }
  return measured([&]() -> std::optional<nlohmann::json> {
    try {
      return mapper_.next(hosts);
    } catch (const std::exception& error) {
      contain(error.what());
      turn();
      return std::nullopt;
    }
  });
}

bool Adapter::pending() const {
  return now() >= pausedUntil_ && mapper_.pending();
}

std::vector<std::string> Adapter::ownedPointers() {
  return {"/vtiStatus", "/vlanVniMap", "/hardware/bumStatus/bumReplicationMode", "/controller/fdb",
          "/controller/state"};
}

// --- the loop's events

void Adapter::ready() {
  if (!up_) {
    establish();
  }
  if (up_) {
    startWork();
  }
  turn();
}

void Adapter::timer() {
  timer_ = Service::EventLoop::TimerId::none;
  if (transport_.isOpen() && !up_) {
    establish();
  }
  session_.tick(now());
  mapper_.tick(now());
  holdWhileSettling();
  if (mapper_.settling()) {
    startWork();
  }
  turn();
}

// The time in which rows are settled is not the peer's.
void Adapter::holdWhileSettling() {
  if (mapper_.settling()) {
    session_.hold();
  }
}

void Adapter::startWork() {
  if (work_ == Service::EventLoop::WorkId::none) {
    work_ = loop_.addWork([this] { return slice(); });
  }
}

bool Adapter::slice() {
  const bool more = measured([&] { return sliceOnce(); });
  if (!more) {
    work_ = Service::EventLoop::WorkId::none;
  }
  turn();
  return more;
}

bool Adapter::sliceOnce() {
  if (mapper_.settling()) {
    return settle();
  }
  if (session_.work(options_.rowsPerSlice, now())) {
    holdWhileSettling();
    return true;
  }
  return up_ && readMore();
}

bool Adapter::settle() {
  if (now() < pausedUntil_) {
    return false;
  }
  try {
    if (!mapper_.settle(options_.rowsPerSlice, now())) {
      session_.goOn(now());
    }
    return true;
  } catch (const std::exception& error) {
    contain(error.what());
    return false;
  }
}

// The rows could not be evaluated or published: the session is left, and it is tried again after a
// pause.
void Adapter::contain(const std::string& why) {
  ++contained_;
  pausedUntil_ = now() + pauseAfterException;
  fail("what came could not be worked on: " + why);
}

bool Adapter::readMore() {
  if (!session_.wantsInput()) {
    return false;
  }
  try {
    const std::optional<std::size_t> got =
        transport_.read(session_.room(options_.bytesPerRead).first(options_.bytesPerRead));
    if (!got) {
      return false;
    }
    session_.received(*got, now());
    return true;
  } catch (const Ovsdb::TransportError& error) {
    fail(error.what());
  } catch (const std::bad_alloc&) {
    fail("there is no memory for a message as large as this one");
  }
  return false;
}

void Adapter::fail(const std::string& why) {
  forget();
  transport_.close();
  up_ = false;
  session_.failed(why, now());
}

// Acts on the last event: connections are opened and closed, bytes go out, the loop is told
// what to wait for, and the agent that there are patches.
void Adapter::turn() {
  if (session_.connectionDropped()) {
    forget();
    transport_.close();
    up_ = false;
  }
  connect();
  const bool wasFull = session_.outputFull();
  flush();
  if (wasFull && !session_.outputFull()) {
    startWork();  // what came meanwhile was left alone
  }
  watch();
  arm();
  if (pending()) {
    onPending_();
  }
}

void Adapter::connect() {
  const std::optional<Ovsdb::Remote> remote = session_.connectTo(now());
  if (!remote || mapper_.settling()) {
    return;
  }
  session_.connecting(now());
  try {
    transport_.open(*remote);
  } catch (const Ovsdb::TransportError& error) {
    fail(error.what());
    return;
  }
  establish();
}

void Adapter::establish() {
  forget();  // the next address has another descriptor, perhaps of the same number
  try {
    if (transport_.establish()) {
      up_ = true;
      session_.connected(now());
    }
  } catch (const Ovsdb::TransportError& error) {
    fail(error.what());
  }
}

void Adapter::flush() {
  try {
    while (up_ && !session_.output().empty()) {
      const std::size_t sent = transport_.write(session_.output());
      if (sent == 0) {
        return;
      }
      session_.written(sent, now());
    }
    if (up_ && transport_.wantsOutput()) {
      transport_.write({});
    }
  } catch (const Ovsdb::TransportError& error) {
    fail(error.what());
  }
}

void Adapter::watch() {
  const int fd = transport_.fd();
  if (fd != watched_) {
    forget();
  }
  if (fd < 0) {
    return;
  }
  // While work is pending the peer is held back: the slices read by themselves.
  const bool input = !up_ || (work_ == Service::EventLoop::WorkId::none && session_.wantsInput());
  const bool output = transport_.wantsOutput() || (up_ && !session_.output().empty());
  const std::uint32_t events = (input ? EPOLLIN : 0U) | (output ? EPOLLOUT : 0U);
  if (watched_ < 0) {
    loop_.watch(fd, events, [this](std::uint32_t) { ready(); });
    watched_ = fd;
  } else if (events != events_) {
    loop_.change(fd, events);
  }
  events_ = events;
}

void Adapter::forget() {
  if (watched_ >= 0) {
    loop_.forget(watched_);
    watched_ = -1;
  }
}

void Adapter::arm() {
  const double at = now();
  // Until the rows have settled there is nothing else to wake up for.
  double due = mapper_.settling() ? std::numeric_limits<double>::infinity()
                                  : std::min(session_.nextWakeup(), mapper_.nextWakeup());
  if (at < pausedUntil_) {
    due = std::min(due, pausedUntil_);
  }
  if (transport_.resolving()) {
    due = std::min(due, at + lookupInterval);
  }
  if (timer_ != Service::EventLoop::TimerId::none) {
    if (due == timerDue_) {
      return;
    }
    loop_.cancel(timer_);
    timer_ = Service::EventLoop::TimerId::none;
  }
  timerDue_ = due;
  if (due == std::numeric_limits<double>::infinity()) {
    return;
  }
  // Further than a day is as good as a day.
  const double delay = std::clamp(due - at, 0.0, 86'400.0);
  timer_ =
      loop_.after(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(delay)),
                  [this] { timer(); });
}

void Adapter::remotesAre(std::vector<Ovsdb::Remote> remotes) {
  session_.remotesAre(std::move(remotes), now());
  turn();
}

void Adapter::convergenceOptionsAre(Convergence::Options options) {
  mapper_.convergenceOptionsAre(options);
  turn();
}

// --- what it tells

AdapterStatus Adapter::status() const {
  AdapterStatus status;
  status.session = session_.state();
  status.remote = session_.remote().text();
  status.reconnects = session_.reconnects();
  status.resumptions = session_.resumptions();
  status.lastError = session_.lastError();
  status.problem = session_.problem(now());
  status.faults = session_.faults();
  status.contained = session_.contained() + contained_;
  status.lastTransaction = session_.lastTransaction();
  status.updates = session_.updates();
  for (std::size_t index = 0; index < tableCount; ++index) {
    const auto table = static_cast<Table>(index);
    status.rows[std::string{nameOf(table)}] = mapper_.rows().rows(table);
  }
  status.hostsPublished = mapper_.publishedHosts();
  status.duplicates = mapper_.duplicates();
  const ProblemCounts counts = mapper_.problemCounts();
  for (std::size_t kind = 1; kind < problemKinds; ++kind) {
    if (counts[kind] > 0) {
      status.problems[std::string{nameOf(static_cast<ProblemKind>(kind))}] = counts[kind];
    }
  }
  const Convergence& convergence = mapper_.convergence();
  status.converging = convergence.inProgress();
  status.convergingFor =
      convergence.inProgress() && convergence.cycles() > 0 ? now() - convergence.since() : 0;
  status.convergenceCause = convergence.cycles() > 0 ? nameOf(convergence.cause()) : "";
  status.convergences = convergence.cycles();
  status.longestSlice = longestSlice_;
  return status;
}

}  // namespace Agent::Vtep
