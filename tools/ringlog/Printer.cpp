#include "Printer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <variant>

namespace {

using Json = nlohmann::ordered_json;

// Recorded text need not be UTF-8; other bytes are replaced, so that the document can be read.
std::string dumped(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

struct ToJson {
  Json operator()(bool value) const { return value; }
  Json operator()(std::uint64_t value) const { return value; }
  Json operator()(std::int64_t value) const { return value; }
  Json operator()(double value) const { return value; }
  template <class Other>
  Json operator()(const Other& value) const {
    return RingLog::toText(value);
  }
};

Json argumentsOf(const RingLog::Record& record) {
  Json result = Json::array();
  for (const RingLog::Value& value : record.arguments) {
    result.push_back(std::visit(ToJson{}, value));
  }
  return result;
}

class TextPrinter final : public Printer {
 public:
  void print(const RingLog::Record& record) override {
    fmt::print("{} {} {}\n", timeText(record.time), record.place->level, described(record));
  }
};

class JsonPrinter final : public Printer {
 public:
  void print(const RingLog::Record& record) override {
    const RingLog::Place& place = *record.place;
    const Json json{{"time", timeText(record.time)}, {"ns", record.time},    {"level", place.level},
                    {"function", place.function},    {"file", place.file},   {"line", place.line},
                    {"message", record.message()},   {"form", place.form()}, {"args", argumentsOf(record)}};
    fmt::print("{}\n", dumped(json));
  }
};

// An instant event a record; the levels are shown as threads. Times count in microseconds from the opening of
// the trace, so that a double holds them to the nanosecond.
class TraceEventPrinter final : public Printer {
 public:
  void begin(const RingLog::TraceInfo& info) override {
    pid_ = info.pid;
    opened_ = info.opened;
    const Json about{{"program", info.program}, {"opened", timeText(info.opened)}};
    fmt::print("{{\"displayTimeUnit\":\"ns\",\"otherData\":{},\"traceEvents\":[", dumped(about));
    event({{"name", "process_name"}, {"ph", "M"}, {"pid", pid_}, {"args", {{"name", info.program}}}});
  }

  void print(const RingLog::Record& record) override {
    const RingLog::Place& place = *record.place;
    if (named_.insert(place.level).second) {
      event({{"name", "thread_name"},
             {"ph", "M"},
             {"pid", pid_},
             {"tid", place.level},
             {"args", {{"name", fmt::format("level {}", place.level)}}}});
    }
    event({{"name", nameIn(place.function)},
           {"ph", "i"},
           {"s", "t"},
           {"ts", static_cast<double>(record.time - opened_) / 1000.0},
           {"pid", pid_},
           {"tid", place.level},
           {"args",
            {{"message", record.message()},
             {"function", place.function},
             {"place", fmt::format("{}:{}", place.file, place.line)},
             {"values", argumentsOf(record)}}}});
  }

  void end() override { fmt::print("\n]}}\n"); }

 private:
  void event(const Json& json) {
    fmt::print("{}\n{}", first_ ? "" : ",", dumped(json));
    first_ = false;
  }

  std::uint64_t pid_ = 0;
  std::int64_t opened_ = 0;
  bool first_ = true;
  std::set<unsigned> named_;
};

// One line, and nothing that would steer a terminal.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\n') {
      result += "\\n";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      result += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      result += c;
    }
  }
  return result;
}

}  // namespace

std::unique_ptr<Printer> textPrinter() {
  return std::make_unique<TextPrinter>();
}
std::unique_ptr<Printer> jsonPrinter() {
  return std::make_unique<JsonPrinter>();
}
std::unique_ptr<Printer> traceEventPrinter() {
  return std::make_unique<TraceEventPrinter>();
}

std::string described(const RingLog::Record& record) {
  const std::string message = record.message();
  const bool apart = !message.empty() && message.front() != ' ';
  return escaped(record.place->function + (apart ? " " : "") + message);
}

std::string timeText(std::int64_t nanoseconds) {
  constexpr std::int64_t second = 1'000'000'000;
  std::int64_t seconds = nanoseconds / second;
  std::int64_t rest = nanoseconds % second;
  if (rest < 0) {
    rest += second;
    --seconds;
  }
  const std::time_t time = seconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:09}Z", parts, rest);
}

std::string nameIn(const std::string& signature) {
  // The opening bracket of the parameters, past those of "(anonymous namespace)" and of "operator()".
  std::size_t open = signature.find('(');
  while (open != std::string::npos && (signature.compare(open, 11, "(anonymous ") == 0 ||
                                       (open >= 8 && signature.compare(open - 8, 10, "operator()") == 0))) {
    open = signature.find('(', open + 2);
  }
  if (open == std::string::npos) {
    return signature;
  }
  std::size_t begin = open;
  for (int depth = 0; begin > 0; --begin) {
    const char c = signature[begin - 1];
    depth += c == '>' || c == ')' ? 1 : c == '<' || c == '(' ? -1 : 0;
    if (depth == 0 && (c == ' ' || c == '*' || c == '&')) {
      break;
    }
  }
  return begin == open ? signature : signature.substr(begin, open - begin);
}
