#include "agent/daemon/Recorder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace Agent {

namespace {

// What an earlier run recorded stays, under another name: it may be what led to its end.
void keepEarlier(const std::string& path) {
  struct stat there {};
  if (::stat(path.c_str(), &there) == 0 && S_ISREG(there.st_mode) && there.st_size != 0) {
    static_cast<void>(std::rename(path.c_str(), (path + ".1").c_str()));
  }
}

}  // namespace

Recorder::Recorder(const std::string& path, double now) : last_(now) {
  if (path.empty()) {
    return;
  }
  keepEarlier(path);
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
  std::size_t done = 0;
  while (file_ >= 0 && done < text.size()) {
    const ssize_t written = ::write(file_, text.data() + done, text.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      problem_ = "the recording ends here: " + std::string(std::strerror(errno));
      // Without the part of a line that was written yet; what is no regular file cannot be cut, and need not.
      static_cast<void>(::ftruncate(file_, whole_) == 0);
      ::close(file_);
      file_ = -1;
    }
  }
  whole_ += static_cast<off_t>(done);
}

}  // namespace Agent
