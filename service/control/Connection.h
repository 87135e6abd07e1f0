#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>

#include "service/loop/UniqueFd.h"

namespace Control {

// The two byte streams of one client: lines that came in and are not yet taken, and lines that are not yet
// out. It never waits and knows nothing of what the lines mean.
class Connection {
 public:
  enum class Kind {
    answer,  // the client asked for it and takes one at a time
    update,  // comes unasked, and so must be bounded by the caller that queues it
  };

  // Takes over a non-blocking stream socket. A line may have up to `longestLine` bytes.
  Connection(Service::UniqueFd socket, std::size_t longestLine);

  int fd() const { return socket_.get(); }

  // Reads what is there, at most 64 KiB, so that a busy client does not keep the others waiting.
  void fill();
  // Whether nothing more will come in: the peer has closed its side, or the stream is broken.
  bool ended() const { return ended_; }
  // Whether a whole line waits; after the end of the stream what is left counts as one.
  bool hasLine() const;
  // Takes the first line off, without its newline. There must be one.
  std::string takeLine();
  // Whether what has come in without a newline is longer than a line may be.
  bool lineTooLong() const;
  // Whether a line has begun to come in.
  bool midLine() const { return taken_ < in_.size(); }
  // Throws away what has come in, and what may still come.
  void stopReading();

  // Puts a line at the end of what goes out; its newline is added. Goes nowhere once the peer does not listen
  // any more.
  void queue(std::string line, Kind kind);
  // Puts a piece of an answer there, as it is.
  void queuePiece(std::string text);
  // Writes as much as the socket takes; returns the number of bytes.
  std::size_t flush();
  // Whether the peer can no longer hear us.
  bool deaf() const { return deaf_; }
  // The peer is known to be gone: throws away what has not gone out.
  void becomeDeaf();
  std::size_t pending() const { return pending_; }
  std::size_t pendingUpdates() const { return pendingUpdates_; }

 private:
  void queueChunk(std::string text, Kind kind);

  struct Chunk {
    std::string text;
    Kind kind;
  };

  Service::UniqueFd socket_;
  std::size_t longestLine_;
  std::string in_;
  std::size_t taken_ = 0;    // of in_, bytes already taken as lines
  std::size_t scanned_ = 0;  // of in_, bytes known to hold no newline from taken_ on
  bool ended_ = false;

  std::deque<Chunk> out_;
  std::size_t sent_ = 0;  // of the first chunk
  std::size_t pending_ = 0;
  std::size_t pendingUpdates_ = 0;
  bool deaf_ = false;
};

}  // namespace Control
