// The lines that the agent says on standard error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "service/loop/EventLoop.h"

namespace Agent {

// Writes lines to a descriptor that others made and may share: a file, a terminal, a pipe, a socket. Writing
// never waits and never ends the process, whatever becomes of the reader, and the flags of the shared
// description stay as they are. What a reader does not take at once waits in a buffer; what does not fit
// there, what comes faster than the limit, and what is left when the reader has gone is left out and counted,
// and a line says how much as soon as lines are taken again.
class Log {
 public:
  // How much may wait, and how many lines may come: so many at once, then so many a second.
  struct Limits {
    std::size_t waiting = std::size_t{64} << 10;  // bytes
    double burst = 200;
    double perSecond = 20;
  };
  static constexpr std::size_t longestLine = 2'000;  // bytes; what is longer is cut

  // Takes SIGPIPE from the process, which would otherwise end with the reader of any pipe or socket.
  explicit Log(int fd) : Log(fd, &Service::EventLoop::Clock::now, Limits()) {}
  Log(int fd, Service::EventLoop::TimeSource now, const Limits& limits);
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Says a line; its control characters are shown as \u000a.
  void line(std::string_view text);
  // Says a line of a trace as it is, however many there are; it is left out only where nobody takes it.
  void trace(std::string_view text);
  // Gives the reader what waits, as far as he takes it, and says what was left out. To be called now and
  // then.
  void flush();
  // Lines left out since the start, and bytes that wait.
  std::uint64_t leftOut() const { return leftOut_; }
  std::size_t waiting() const { return waiting_.size(); }

 private:
  enum class Kind { file, socket, opened, shared };

  bool mayCome();
  void drain();
  void leaveOut(std::uint64_t lines);
  void tellLeftOut();
  bool append(std::string_view before, std::string_view line);
  long writeSome(std::string_view text) const;

  Service::EventLoop::TimeSource now_;
  Limits limits_;
  int fd_;
  Kind kind_;
  std::string waiting_;
  double tokens_;
  Service::EventLoop::Clock::time_point filled_;  // when the tokens were counted last
  std::uint64_t leftOut_ = 0;
  std::uint64_t untold_ = 0;  // of them, those that no line has reported
};

}  // namespace Agent
