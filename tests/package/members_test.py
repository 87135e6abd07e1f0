#!/usr/bin/env python3
"""What members.py names of a header, and what it leaves out."""

import os
import tempfile
import unittest

import members

HEADER = """
#pragma once
#include <sys/stat.h>
#define API __attribute__((visibility("default")))
namespace Example {
struct Value {
  int hidden() const;
};
class API Machine {
 public:
  struct Reactor {
    virtual void onChange(int) {}
  };
  explicit Machine(const Value& value);
  Machine(const Machine&) = delete;
  virtual ~Machine();
  static Machine* make(Value value);
  void look(const struct stat& status);
  static const int type;
  virtual void act() = 0;
  virtual void react() const;
  int attribute() const { return attribute_; }
  bool operator==(const Machine&) const;
  explicit operator bool() const;
  template <class T>
  T as() const;

 protected:
  void step();

 private:
  void inner();
  int attribute_ = 0;
};
class API Concrete final : public Machine {
 public:
  Concrete(int first, Value second);
  Concrete(const Concrete&) = delete;
  void act() override;
};
API int answer(const Value& value);
int question();
extern API int number;
}  // namespace Example
"""
CALLS = [
    "some<::Example::Machine::Reactor&>().::Example::Machine::Reactor::onChange(some<int>());",
    "some<::Example::Machine&>().::Example::Machine::~Machine();",
    "::Example::Machine::make(some<Example::Value>());",
    "some<::Example::Machine&>().::Example::Machine::look(some<const struct stat &>());",
    "nothing = const_cast<void*>(static_cast<const void*>(&::Example::Machine::type));",
    "some<::Example::Machine&>().act();",
    "some<const ::Example::Machine&>().::Example::Machine::react();",
    "some<const ::Example::Machine&>().::Example::Machine::attribute();",
    "some<const ::Example::Machine&>().::Example::Machine::operator==(some<const Example::Machine &>());",
    "some<const ::Example::Machine&>().::Example::Machine::operator bool();",
    "::new (place) ::Example::Concrete(some<int>(), some<Example::Value>());",
    "some<::Example::Concrete&>().::Example::Concrete::act();",
    "::Example::answer(some<const Example::Value &>());",
    "nothing = const_cast<void*>(static_cast<const void*>(&::Example::number));",
]


class Members(unittest.TestCase):
    def test_each_public_member_of_what_is_exported_is_named_and_nothing_else(self):
        members.load_library()
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(os.path.join(folder, "Example"))
            with open(os.path.join(folder, "Example", "Machine.h"), "w", encoding="utf-8") as file:
                file.write(HEADER)
            source, count, skipped = members.source_of(folder)
        named = [line.strip() for line in source[len(members.HEAD):].splitlines() if line.startswith("  ")]
        self.assertEqual(named, CALLS)
        self.assertEqual(count, len(CALLS))
        self.assertEqual(skipped, ["Example::Machine::as"])


if __name__ == "__main__":
    unittest.main()
