#include "service/control/Connection.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "service/loop/Fatal.h"

namespace Control {

namespace {

constexpr std::size_t readAtOnce = std::size_t{64} * 1024;

bool mayTryAgain(int error) {
  return error == EAGAIN || error == EINTR;
}

}  // namespace

Connection::Connection(UniqueFd socket, std::size_t longestLine)
    : socket_(std::move(socket)), longestLine_(longestLine) {}

void Connection::fill() {
  std::array<char, readAtOnce> buffer;
  const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), 0);
  if (got < 0) {
    ended_ = ended_ || !mayTryAgain(errno);
    return;
  }
  if (got == 0) {
    ended_ = true;
    return;
  }
  if (taken_ > 0) {
    in_.erase(0, taken_);
    scanned_ -= taken_;
    taken_ = 0;
  }
  in_.append(buffer.data(), static_cast<std::size_t>(got));
  const std::size_t newline = in_.find('\n', scanned_);
  scanned_ = newline == std::string::npos ? in_.size() : newline;
}

bool Connection::hasLine() const {
  return scanned_ < in_.size() || (ended_ && taken_ < in_.size());
}

std::string Connection::takeLine() {
  Service::require(hasLine(), "a line is taken when there is one");
  std::string line = in_.substr(taken_, scanned_ - taken_);
  taken_ = std::min(scanned_ + 1, in_.size());
  const std::size_t newline = in_.find('\n', taken_);
  scanned_ = newline == std::string::npos ? in_.size() : newline;
  if (taken_ == in_.size()) {
    in_.clear();
    in_.shrink_to_fit();
    taken_ = scanned_ = 0;
  }
  return line;
}

bool Connection::lineTooLong() const {
  return scanned_ - taken_ > longestLine_;
}

void Connection::stopReading() {
  in_.clear();
  in_.shrink_to_fit();
  taken_ = scanned_ = 0;
  ended_ = true;
}

void Connection::queue(std::string line, Kind kind) {
  line += '\n';
  queueChunk(std::move(line), kind);
}

void Connection::queuePiece(std::string text) {
  queueChunk(std::move(text), Kind::answer);
}

void Connection::queueChunk(std::string text, Kind kind) {
  if (deaf_ || text.empty()) {
    return;
  }
  pending_ += text.size();
  pendingUpdates_ += kind == Kind::update ? text.size() : 0;
  out_.push_back({std::move(text), kind});
}

std::size_t Connection::flush() {
  std::size_t total = 0;
  while (!out_.empty()) {
    const Chunk& first = out_.front();
    const ssize_t sent = send(socket_.get(), first.text.data() + sent_, first.text.size() - sent_,
                              MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (!mayTryAgain(errno)) {
        becomeDeaf();
      }
      break;
    }
    const auto bytes = static_cast<std::size_t>(sent);
    total += bytes;
    sent_ += bytes;
    pending_ -= bytes;
    pendingUpdates_ -= first.kind == Kind::update ? bytes : 0;
    if (sent_ == first.text.size()) {
      out_.pop_front();
      sent_ = 0;
    }
  }
  return total;
}

void Connection::becomeDeaf() {
  deaf_ = true;
  out_.clear();
  sent_ = pending_ = pendingUpdates_ = 0;
}

}  // namespace Control
