// The recording of inputs: a journal that `vxlan-agent replay` runs.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Agent {

// Writes every change of the inputs as a line of a journal, with the time that passed since the one before.
// Each line is written whole and at once, so that a kill -9 loses nothing. When the disk is full, or the file
// cannot be written any more, the recording ends, with one message; the agent goes on.
class Recorder {
 public:
  // An empty path records nothing. Raises std::system_error when the file cannot be made. An existing file is
  // replaced.
  Recorder(const std::string& path, double now);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Records a patch that was carried out at this time (seconds).
  void patch(const nlohmann::json& patch, double now);
  // Why the recording ended early; empty while it goes on.
  const std::string& problem() const { return problem_; }

 private:
  void write(const std::string& text);

  std::string path_;
  int file_ = -1;
  double last_;
  std::string problem_;
};

}  // namespace Agent
