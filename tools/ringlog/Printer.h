#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "RingLog/Reader.h"

// One of the forms in which records are printed to standard output.
class Printer {
 public:
  virtual ~Printer() = default;
  virtual void begin(const RingLog::TraceInfo&) {}
  virtual void print(const RingLog::Record& record) = 0;
  virtual void end() {}
};

std::unique_ptr<Printer> textPrinter();        // a line a record: time, level, function, message
std::unique_ptr<Printer> jsonPrinter();        // JSON Lines: an object a record
std::unique_ptr<Printer> traceEventPrinter();  // one JSON document, as timeline viewers open it

// The function and the message, as the text form has them: one line, with control characters escaped.
std::string described(const RingLog::Record& record);

// nanoseconds since 1970-01-01 UTC as 2026-01-31T23:59:59.123456789Z.
std::string timeText(std::int64_t nanoseconds);

// The name in a function's signature: "VxlanSm::onVni" of "void VxlanSm::onVni(unsigned) const". What does
// not look like a signature is given back as it is.
std::string nameIn(const std::string& signature);
