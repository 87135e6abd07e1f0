#include "agent/daemon/Recorder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "agent/daemon/Recordings.h"

namespace Agent {

Recorder::Recorder(const std::string& path, double now, std::int64_t wallClock) : last_(now) {
  if (path.empty()) {
    return;
  }
  const EarlierRuns earlier = Recordings(path).makeRoom(wallClock);
  // A new file, so that nothing that somebody puts there meanwhile is followed, waited for or written to.
  file_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                 0640);
  if (file_ < 0) {
    throw std::system_error(errno, std::generic_category(), "the recording \"" + path + "\" cannot be made");
  }
  write(RecordingMarks::head(wallClock, earlier));
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
  // Text that is no UTF-8 is no reason to lose the line.
  constexpr auto replace = nlohmann::json::error_handler_t::replace;
  write(text + nlohmann::json{{"patch", patch}}.dump(-1, ' ', false, replace) + '\n');
}

void Recorder::ends() {
  write(RecordingMarks::end());
}

void Recorder::write(const std::string& text) {
  std::size_t done = 0;
  while (file_ >= 0 && done < text.size()) {
    const ssize_t written = ::write(file_, text.data() + done, text.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno != EINTR) {
      problem_ = "the recording ends here: " + std::string(std::strerror(errno));
      // Without the part of a line that was written yet.
      static_cast<void>(::ftruncate(file_, whole_) == 0);
      ::close(file_);
      file_ = -1;
    }
  }
  whole_ += static_cast<off_t>(done);
}

}  // namespace Agent
