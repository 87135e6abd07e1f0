// The recording of inputs: a journal that `vxlan-agent replay` runs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace Agent {

// Writes every change of the inputs as a line of a journal, with the time that passed since the one before,
// before it is carried out, so that the one that ends the agent is in it too. Each line is written whole and
// at once, so that a kill -9 loses nothing. When the disk is full, or the file cannot be written any more,
// the recording ends behind the last whole line, and problem() says why.
class Recorder {
 public:
  // An empty path records nothing. `now` is the loop's time and `wallClock` the seconds since 1970.
  // Recordings of earlier runs are kept beside the new one, see Recordings. Raises std::runtime_error when
  // the file cannot be made, or when what is there is no regular file.
  Recorder(const std::string& path, double now, std::int64_t wallClock);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Records a patch that is about to be carried out at this time (seconds).
  void patch(const nlohmann::json& patch, double now);
  // Says that the agent ends because it was told to.
  void ends();
  // Why the recording ended early; empty while it goes on.
  const std::string& problem() const { return problem_; }

 private:
  void write(const std::string& text);

  int file_ = -1;
  double last_;
  off_t whole_ = 0;  // bytes, of whole lines
  std::string problem_;
};

}  // namespace Agent
