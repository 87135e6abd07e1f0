// ringlog: prints what a process left in its trace.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "LevelSet.h"
#include "Printer.h"
#include "RingLog/Reader.h"

namespace {

constexpr int success = 0;
constexpr int failure = 1;     // usage, or a file that cannot be read
constexpr int unreadable = 2;  // no trace, or a damaged one

constexpr const char* about =
    "Prints the records of a trace file, merged over its levels in the order of time.\n"
    "\n"
    "A trace is a flight recorder: a file of fixed size in which the newest records overwrite the oldest,\n"
    "level by level. It can be read while its process runs, and after it was killed or has aborted. The "
    "trace\n"
    "of the run before stands in FILE.1.";

constexpr const char* details =
    "Forms:\n"
    "  text           a line a record: time (UTC), level, function with its signature, message\n"
    "  --json         an object a line with time, ns (since 1970-01-01 UTC), level, function, file, line,\n"
    "                 message, form (the message with {} for each argument), args\n"
    "  --trace-event  one JSON document for timeline viewers; levels are shown as threads, times count from\n"
    "                 the opening of the trace\n"
    "\n"
    "Where records are missing or damaged, a note goes to standard error.\n"
    "\n"
    "Exit status:\n"
    "  0  success\n"
    "  1  wrong usage, or a file that cannot be read or written\n"
    "  2  FILE is no trace, of another version, truncated or damaged\n"
    "\n"
    "Examples:\n"
    "  ringlog trace.rl                          everything that is still there\n"
    "  ringlog --level 6-7 --grep vtep trace.rl  rare events that mention \"vtep\"\n"
    "  ringlog --follow --json trace.rl | jq .   as it happens\n"
    "  ringlog --trace-event trace.rl >t.json    to be opened in a timeline viewer\n"
    "  ringlog trace.rl.1 | tail                 what led up to the last crash\n"
    "\n"
    "A process writes traces where RINGLOG_DIR, or its own configuration, names a directory.";

struct Request {
  std::string path;
  LevelSet levels;
  std::string grep;
  bool json = false;
  bool traceEvent = false;
  bool follow = false;
  bool info = false;
};

bool isWanted(const RingLog::Record& record, const Request& request) {
  return request.levels.has(record.place->level) &&
         (request.grep.empty() || described(record).find(request.grep) != std::string::npos);
}

void printRecords(const RingLog::Trace& trace, const Request& request, Printer& printer) {
  for (const RingLog::Record& record : trace.records()) {
    if (isWanted(record, request)) {
      printer.print(record);
    }
  }
}

void note(const std::string& path, std::uint64_t count, const char* what) {
  if (count != 0) {
    fmt::print(stderr, "ringlog: {}: {} {}\n", path, count, what);
  }
}

void printNotes(const RingLog::TraceInfo& info, const std::string& path) {
  note(path, info.tornRecords, "record(s) cut off: the process was stopped, or is writing them now");
  note(path, info.damagedBlocks, "block(s) damaged: their records are missing in part");
  note(path, info.droppedRecords,
       "record(s) never written: the site table was full, or they had no such level");
}

void printInfo(const RingLog::Trace& trace) {
  const RingLog::TraceInfo& info = trace.info();
  fmt::print("program          {} (process {})\n", info.program, info.pid);
  fmt::print("opened           {}\n", timeText(info.opened));
  fmt::print("closed           {}\n",
             info.closed ? "in good order" : "no: it is being written, or its process was killed");
  fmt::print("rings            {} levels of {} KiB\n", info.levels, info.ringBytes / 1024);
  fmt::print("call sites       {}\n", trace.places().size());
  fmt::print("records          {}\n", trace.records().size());
  fmt::print("cut off          {}\n", info.tornRecords);
  fmt::print("damaged blocks   {}\n", info.damagedBlocks);
  fmt::print("dropped records  {} of {} refused call sites\n", info.droppedRecords, info.droppedSites);
}

std::unique_ptr<Printer> printerOf(const Request& request) {
  return request.json ? jsonPrinter() : request.traceEvent ? traceEventPrinter() : textPrinter();
}

// Standard output takes everything, or there is an error.
void flush() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output: cannot write");
  }
}

// Until the process is stopped.
[[noreturn]] void follow(const Request& request) {
  constexpr auto pause = std::chrono::milliseconds(100);
  const std::unique_ptr<Printer> printer = printerOf(request);
  for (RingLog::Follower follower(request.path);; std::this_thread::sleep_for(pause)) {
    for (const RingLog::Follower::News& news : follower.poll()) {
      note(request.path, news.lostBlocks, "block(s) of records overwritten before they could be read");
      printRecords(news.trace, request, *printer);
    }
    flush();
  }
}

int run(const Request& request) {
  if (request.follow) {
    follow(request);
  }
  const RingLog::Trace trace = RingLog::Trace::read(request.path);
  if (request.info) {
    printInfo(trace);
  } else {
    const std::unique_ptr<Printer> printer = printerOf(request);
    printer->begin(trace.info());
    printRecords(trace, request, *printer);
    printer->end();
    printNotes(trace.info(), request.path);
  }
  flush();
  return success;
}

void describe(CLI::App& app, Request& request) {
  app.footer(details);
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::Throw);
  app.add_option("FILE", request.path, "The trace file")->required()->type_name("");
  auto* const json = app.add_flag("--json", request.json, "Print JSON Lines");
  auto* const event =
      app.add_flag("--trace-event", request.traceEvent, "Print a document for timeline viewers");
  auto* const info = app.add_flag("--info", request.info, "Print what the trace is, and not its records");
  auto* const followed = app.add_flag("-f,--follow", request.follow,
                                      "Go on with new records as they are written, also when a new process "
                                      "replaces the file, until stopped");
  app.add_option_function<std::string>(
         "-l,--level",
         [&request](const std::string& text) {
           try {
             request.levels = LevelSet::parse(text);
           } catch (const std::invalid_argument& error) {
             throw CLI::ValidationError("--level", error.what());
           }
         },
         "Print only these levels: 8, or 0-3,8")
      ->type_name("LEVELS");
  app.add_option("-g,--grep", request.grep, "Print only records whose function or message contains TEXT")
      ->type_name("TEXT");
  json->excludes(event)->excludes(info);
  event->excludes(info)->excludes(followed);
  info->excludes(followed);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(about, "ringlog");
  Request request;
  describe(app, request);
  try {
    app.parse(argc, argv);
    return run(request);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? success : failure;
  } catch (const RingLog::TraceError& error) {
    fmt::print(stderr, "ringlog: {}\n", error.what());
    return unreadable;
  } catch (const std::exception& error) {
    fmt::print(stderr, "ringlog: {}\n", error.what());
    return failure;
  }
}
