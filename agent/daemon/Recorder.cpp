#include "agent/daemon/Recorder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <system_error>

namespace Agent {

Recorder::Recorder(const std::string& path, double now) : path_(path), last_(now) {
  if (path.empty()) {
    return;
  }
  file_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0640);
  if (file_ < 0) {
    throw std::system_error(errno, std::generic_category(), "the recording \"" + path + "\" cannot be made");
  }
  write("# Inputs of vxlan-agent, recorded; times are seconds since the line before.\n");
}

Recorder::~Recorder() {
  if (file_ >= 0) {
    ::close(file_);
  }
}

void Recorder::patch(const nlohmann::json& patch, double now) {
  if (file_ < 0) {
    return;
  }
  // Within a line the patch comes before the advance: the time that has passed is a line of its own.
  std::string text;
  if (now > last_) {
    text = nlohmann::json{{"advance", now - last_}}.dump() + '\n';
    last_ = now;
  }
  write(text + nlohmann::json{{"patch", patch}}.dump() + '\n');
}

void Recorder::write(const std::string& text) {
  for (std::size_t done = 0; file_ >= 0 && done < text.size();) {
    const ssize_t written = ::write(file_, text.data() + done, text.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      problem_ = "the recording \"" + path_ + "\" ended: " + std::strerror(errno);
      std::cerr << "vxlan-agent: " << problem_ << '\n';
      ::close(file_);
      file_ = -1;
    }
  }
}

}  // namespace Agent
