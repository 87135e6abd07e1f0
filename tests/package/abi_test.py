#!/usr/bin/env python3
"""Shows the gate of the binary interface going red: each change that breaks a program under the same soname.

    abi_test.py ABI COMPILER
"""

import os
import subprocess
import sys
import tempfile
import unittest

COMPILER = sys.argv.pop()
ABI = sys.argv.pop()

RELEASED = """
struct __attribute__((visibility("default"))) Machine {
  virtual ~Machine();
  virtual int first() const;
  virtual int second() const;
  int value = 1;
};
Machine::~Machine() = default;
int Machine::first() const { return value; }
int Machine::second() const { return value; }
__attribute__((visibility("default"))) Machine* machine() { return nullptr; }
__attribute__((visibility("default"))) int answer() { return 42; }
"""


class Gate(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.description = self.path("last.abi.xz")
        done = self.gate(self.library(RELEASED), "--update", self.description)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def tearDown(self):
        self.folder.cleanup()

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def library(self, source, soname="libexample.so.3", options=("-g",)):
        with open(self.path("example.cpp"), "w", encoding="utf-8") as file:
            file.write(source)
        library = self.path("libexample.so")
        subprocess.run([COMPILER, "-std=c++20", "-shared", "-fPIC", "-fvisibility=hidden", *options, f"-Wl,-soname,{soname}",
                        self.path("example.cpp"), "-o", library], check=True)
        return library

    def gate(self, *arguments):
        return subprocess.run([ABI, *arguments], capture_output=True, text=True, check=False)

    def changed(self, before, after, **how):
        self.assertIn(before, RELEASED)
        return self.gate(self.library(RELEASED.replace(before, after), **how), self.description)

    def passes(self, done, text):
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertIn(text, done.stdout)

    def fails(self, done, text):
        self.assertEqual(done.returncode, 1, done.stdout + done.stderr)
        self.assertIn(text, done.stdout + done.stderr)

    def test_the_same_library_passes(self):
        self.passes(self.gate(self.library(RELEASED), self.description), "holds what the last release promised")

    def test_what_is_added_passes(self):
        self.passes(self.changed("int answer()", "int another() { return 1; }\n"
                                 "__attribute__((visibility(\"default\"))) int answer()"), "holds what")

    def test_another_body_passes(self):
        self.passes(self.changed("return 42;", "return 43;"), "holds what")

    def test_a_removed_symbol_fails(self):
        self.fails(self.changed("__attribute__((visibility(\"default\"))) int answer()", "int answer()"), "answer")

    def test_a_changed_layout_fails(self):
        self.fails(self.changed("int value = 1;", "int before = 0;\n  int value = 1;"), "data member insertion")

    def test_a_virtual_function_that_is_put_between_fails(self):
        self.fails(self.changed("  virtual int second() const;\n",
                                "  virtual int between() const { return 0; }\n  virtual int second() const;\n"),
                   "change to the vtable")

    def test_the_next_soname_passes(self):
        self.passes(self.changed("int value = 1;", "long value = 1;", soname="libexample.so.4"), "takes the place of")

    def test_a_soname_that_is_left_out_fails(self):
        self.fails(self.changed("int value = 1;", "long value = 1;", soname="libexample.so.5"), "once between two releases")

    def test_a_library_without_debugging_information_is_refused(self):
        self.fails(self.changed("return 42;", "return 42;", options=()), "no debugging information")

    def test_a_description_that_is_none_is_refused(self):
        with open(self.description, "w", encoding="utf-8") as file:
            file.write("nothing")
        self.fails(self.gate(self.library(RELEASED), self.description), "cannot be read")


if __name__ == "__main__":
    unittest.main()
