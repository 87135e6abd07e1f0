#include "agent/daemon/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>

namespace Agent {
namespace {

constexpr std::string_view program = "vxlan-agent: ";

// A text as one line of bounded length, whatever the names in it are made of.
std::string oneLine(std::string_view text) {
  std::string line;
  for (const char character : text.substr(0, Log::longestLine)) {
    if (const auto code = static_cast<unsigned char>(character); code < 0x20 || code == 0x7f) {
      constexpr const char* digits = "0123456789abcdef";
      line += {'\\', 'u', '0', '0', digits[code >> 4], digits[code & 0xf]};
    } else {
      line += character;
    }
  }
  return text.size() > Log::longestLine ? line + " ..." : line;
}

// A description of one's own of the same pipe or terminal, so that it can be one that never waits; -1 where
// there is none to be had.
int openAgain(int fd) {
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

}  // namespace

Log::Log(int fd, Service::EventLoop::TimeSource now, const Limits& limits)
    : now_(std::move(now)),
      limits_(limits),
      fd_(fd),
      kind_(Kind::shared),
      tokens_(limits.burst),
      filled_(now_()) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  struct stat what {};
  if (::fstat(fd, &what) != 0) {
    return;
  }
  if (S_ISREG(what.st_mode)) {
    kind_ = Kind::file;
  } else if (S_ISSOCK(what.st_mode)) {
    kind_ = Kind::socket;
  } else if (const int own = openAgain(fd); own >= 0) {
    fd_ = own;
    kind_ = Kind::opened;
  }
}

Log::~Log() {
  drain();
  if (kind_ == Kind::opened) {
    ::close(fd_);
  }
}

void Log::line(std::string_view text) {
  if (!mayCome()) {
    leaveOut(1);
    return;
  }
  tellLeftOut();
  if (!append(program, oneLine(text))) {
    leaveOut(1);
  }
  drain();
}

void Log::trace(std::string_view text) {
  if (!append("", text)) {
    leaveOut(1);
  }
  drain();
}

void Log::flush() {
  if (untold_ != 0 && mayCome()) {
    tellLeftOut();
  }
  drain();
}

// Takes a token; they come back with time.
bool Log::mayCome() {
  const Service::EventLoop::Clock::time_point now = now_();
  const double passed = std::chrono::duration<double>(now - filled_).count();
  filled_ = now;
  tokens_ = std::min(limits_.burst, tokens_ + passed * limits_.perSecond);
  if (tokens_ < 1) {
    return false;
  }
  tokens_ -= 1;
  return true;
}

void Log::leaveOut(std::uint64_t lines) {
  leftOut_ += lines;
  untold_ += lines;
}

void Log::tellLeftOut() {
  if (untold_ != 0 && append(program, std::to_string(untold_) + " lines were left out here")) {
    untold_ = 0;
  }
}

// False where it does not fit beside what waits.
bool Log::append(std::string_view before, std::string_view line) {
  const std::size_t bytes = before.size() + line.size() + 1;
  if (waiting_.size() + bytes > limits_.waiting) {
    drain();
    if (waiting_.size() + bytes > limits_.waiting) {
      return false;
    }
  }
  waiting_.append(before).append(line) += '\n';
  return true;
}

void Log::drain() {
  std::size_t done = 0;
  while (done < waiting_.size()) {
    const long written = writeSome(std::string_view(waiting_).substr(done));
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (written == 0 || errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {  // the reader has gone, or the disk is full
      leaveOut(static_cast<std::uint64_t>(
          std::count(waiting_.begin() + static_cast<long>(done), waiting_.end(), '\n')));
      done = waiting_.size();
    }
  }
  waiting_.erase(0, done);
}

// What one call takes without waiting: bytes, 0 for nothing at present, -1 for an error.
long Log::writeSome(std::string_view text) const {
  switch (kind_) {
    case Kind::socket:
      return ::send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    case Kind::shared: {
      // A pipe that is ready takes so much without waiting.
      pollfd ready{fd_, POLLOUT, 0};
      if (::poll(&ready, 1, 0) <= 0) {
        return 0;
      }
      return ::write(fd_, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    }
    case Kind::file:
    case Kind::opened:
      break;
  }
  return ::write(fd_, text.data(), text.size());
}

}  // namespace Agent
