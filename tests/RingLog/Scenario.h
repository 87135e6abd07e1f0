#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "RingLog/Reader.h"
#include "RingLog/RingLog.h"

// The vocabulary of the scenarios.

// A directory that is there for one scenario.
class Directory {
 public:
  Directory() {
    std::string name = (std::filesystem::temp_directory_path() / "ringlog-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { std::filesystem::remove_all(path_); }

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

 private:
  std::string path_;
};

inline std::unique_ptr<RingLog::Log> openInMemory(RingLog::Options options = {}) {
  unsetenv("RINGLOG_DIR");
  return RingLog::Log::open("Test.rl", options);
}

inline std::unique_ptr<RingLog::Log> openIn(const Directory& directory, RingLog::Options options = {}) {
  options.directory = directory.path();
  return RingLog::Log::open("Test.rl", options);
}

inline RingLog::Trace readBack(const RingLog::Log& log) {
  return RingLog::Trace::parse(log.image());
}

inline std::vector<std::string> messages(const RingLog::Trace& trace) {
  std::vector<std::string> result;
  for (const RingLog::Record& record : trace.records()) {
    result.push_back(record.message());
  }
  return result;
}

inline std::vector<std::string> messages(const RingLog::Log& log) {
  return messages(readBack(log));
}

// The numbers that records of one unsigned argument carry.
inline std::vector<std::uint64_t> numbers(const RingLog::Trace& trace) {
  std::vector<std::uint64_t> result;
  for (const RingLog::Record& record : trace.records()) {
    result.push_back(std::get<std::uint64_t>(record.arguments.at(0)));
  }
  return result;
}

inline std::vector<std::byte> copyOf(std::span<const std::byte> image) {
  return {image.begin(), image.end()};
}

// The name of this process as the system has it, which keeps 15 characters.
inline std::string processName() {
  return std::string(program_invocation_short_name).substr(0, 15);
}

// The text of the error that `action` ends with.
template <class Error, class Action>
std::string errorOf(Action action) {
  try {
    action();
  } catch (const Error& error) {
    return error.what();
  }
  return "no error";
}
