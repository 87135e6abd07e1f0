#!/usr/bin/env python3
"""Shows that the project's scripts go red when something is wrong: each runs in a small tree of its own, where cmake
and ctest are stand-ins that do as the scenario says."""

import os
import shutil
import subprocess
import tempfile
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))

SUMMARY = '''echo "$2: 100% tests passed, 0 tests failed out of 3"\n'''
ONE_FAILED = '''echo " 1/3 Test #1: a ***Failed"\necho "66% tests passed, 1 tests failed out of 3"\nexit 8\n'''
TALLY = '''echo "$1" >>"$VCC_TALLY"\n'''


class Scripts(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = os.path.realpath(folder.name)
        for name in ["scripts/common.sh", "scripts/test", "scripts/lint", "scripts/demo", "scripts/mutate",
                     "scripts/exports", ".ci/run"]:
            os.makedirs(os.path.dirname(os.path.join(self.root, name)), exist_ok=True)
            shutil.copy(os.path.join(PROJECT, name), os.path.join(self.root, name))
        self.script("scripts/setup", "exit 0\n")
        self.script("scripts/abi", "exit 0\n")
        self.script("bin/cmake", "exit 0\n")
        self.script("bin/ctest", SUMMARY)

    def script(self, name, body):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write("#!/bin/bash\n" + body)
        os.chmod(path, 0o755)

    def write(self, name, text):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)

    ci = "full"

    def run_script(self, *command):
        env = dict(os.environ, PATH=os.path.join(self.root, "bin") + ":" + os.environ["PATH"], VCC_TALLY="", VCC_CI=self.ci,
                   GIT_CONFIG_GLOBAL="/dev/null")
        done = subprocess.run(command, cwd=self.root, env=env, capture_output=True, text=True, check=False,
                              stdin=subprocess.DEVNULL)
        return done.returncode, done.stdout + done.stderr

    def ends(self, code, last, *command):
        result, output = self.run_script(*command)
        self.assertEqual((code, last), (result, output.strip().splitlines()[-1]), output)
        return output

    def test_tests_of_both_builds_are_counted(self):
        self.ends(0, "6 passed, 0 failed", "scripts/test")
        self.ends(0, "3 passed, 0 failed", "scripts/test", "--quick")

    def test_a_failed_test_is_counted_and_shown(self):
        self.script("bin/ctest", ONE_FAILED)
        output = self.ends(1, "2 passed, 1 failed", "scripts/test", "--quick")
        self.assertIn("a ***Failed", output)

    def test_only_tests_of_real_servers_are_run_again(self):
        """With the real ctest: each test fails the first time, and passes the second."""
        os.remove(os.path.join(self.root, "bin/ctest"))
        self.script("once", 'test -e "$1" || { touch "$1"; exit 1; }\n')
        names = ["live.slow", "unit.wrong", "vtep_live_test.Slow"]
        self.write("build/dev/CTestTestfile.cmake",
                   "".join(f'add_test({name} "{self.root}/once" "{self.root}/{name}")\n' for name in names))
        output = self.ends(1, "2 passed, 1 failed", "scripts/test", "--quick")
        self.assertIn("2 of those that wait for real servers passed when they were run alone:", output)

    def test_no_test_at_all_is_a_failure(self):
        self.script("bin/ctest", "echo No tests were found\nexit 1\n")
        self.ends(1, "0 passed, 1 failed", "scripts/test", "--quick")

    def test_a_failed_build_is_a_failure_and_shown(self):
        self.script("bin/cmake", 'case "$*" in --build*) echo "x.cpp:1: error: no"; exit 1 ;; esac\n')
        output = self.ends(1, "0 passed, 1 failed", "scripts/test", "--quick")
        self.assertIn("error: no", output)

    def everything_is_fine(self):
        self.script("scripts/test", TALLY.replace("$1", "7 0"))
        self.script("scripts/lint", TALLY.replace("$1", "2 0"))

    def test_ci_adds_up_its_parts(self):
        self.everything_is_fine()
        self.ends(0, "18 passed, 0 failed", ".ci/run")
        self.ci = ""
        self.ends(0, "20 passed, 0 failed", ".ci/run")

    def test_ci_fails_with_any_part(self):
        self.everything_is_fine()
        for name, body in [("scripts/test", TALLY.replace("$1", "6 1") + "exit 1\n"), ("scripts/lint", "exit 1\n"),
                           ("scripts/lint", TALLY.replace("$1", "1 1") + "exit 1\n"), ("bin/ctest", ONE_FAILED),
                           ("bin/cmake", 'case "$*" in *verify*) exit 1 ;; esac\n'),
                           ("bin/cmake", 'case "$*" in *clang*) exit 1 ;; esac\n'),
                           ("bin/cmake", 'case "$*" in *tsan*) exit 1 ;; esac\n'),
                           ("bin/cmake", 'case "$*" in *release*) exit 1 ;; esac\n'),
                           ("bin/cmake", 'case "$*" in *abi*) exit 1 ;; esac\n'), ("scripts/abi", "exit 1\n")]:
            with self.subTest(name + ": " + body):
                path = os.path.join(self.root, name)
                with open(path, encoding="utf-8") as file:
                    before = file.read()
                self.script(name, body)
                result, output = self.run_script(".ci/run")
                self.assertEqual(1, result, output)
                self.assertRegex(output.strip().splitlines()[-1], r"^\d+ passed, [12] failed$")
                self.write(name, before)

    def test_ci_goes_on_after_a_failure(self):
        self.everything_is_fine()
        self.script("scripts/test", "exit 1\n")
        self.ends(1, "11 passed, 1 failed", ".ci/run")

    def test_a_demo_runs_its_steps_in_order_and_tells_what_it_left_out(self):
        self.script("scripts/demo.d/20-second.sh", "# The second step.\necho two\n")
        self.script("scripts/demo.d/10-first.sh", '# The first step.\ntest -d "$VCC_SCRATCH" && echo one\n')
        self.script("scripts/demo.d/30-third.sh", "# The third step.\necho there is no server here\nexit 77\n")
        output = self.ends(0, "2 passed, 0 failed", "scripts/demo")
        steps = [line for line in output.splitlines() if line.startswith("== The") or line in ("one", "two")]
        self.assertEqual(["== The first step.", "one", "== The second step.", "two", "== The third step."], steps)
        self.assertIn("1 skipped", output)
        self.ends(0, "1 passed, 0 failed", "scripts/demo", "second")

    def test_a_demo_fails_with_a_step(self):
        self.script("scripts/demo.d/10-first.sh", "exit 3\n")
        self.ends(1, "0 passed, 1 failed", "scripts/demo")

    def repository(self):
        """A committed tree whose one test fails when the file state says "broken"."""
        self.write("state", "whole\n")
        self.script("bin/ctest", 'grep -q whole "${2%/build}/state" && ' + SUMMARY + "[ $? -eq 0 ] && exit 0\n" + ONE_FAILED)
        for command in [("init", "-q"), ("add", "-A"),
                        ("-c", "user.name=a", "-c", "user.email=a@b", "commit", "-q", "-m", "Begin")]:
            subprocess.run(("git",) + command, cwd=self.root, check=True)

    def mutant(self, name, after, head="# target: X\n# test: .\n"):
        self.write(f"tests/mutants/{name}.patch",
                   f"# What went wrong.\n{head}diff --git a/state b/state\n--- a/state\n+++ b/state\n@@ -1 +1 @@\n"
                   f"-whole\n+{after}\n")

    def test_a_mutant_is_caught_when_a_test_fails(self):
        self.repository()
        self.mutant("bug", "broken")
        self.ends(0, "1 passed, 0 failed", "scripts/mutate")

    def test_a_mutant_that_no_test_notices_is_missed(self):
        self.repository()
        self.mutant("bug", "broken")
        self.mutant("harmless", "whole as before")
        output = self.ends(1, "1 passed, 1 failed", "scripts/mutate")
        self.assertIn("harmless is not noticed", output)
        self.ends(0, "1 passed, 0 failed", "scripts/mutate", "bug")

    def test_some_mutants_are_chosen_by_the_commit(self):
        self.repository()
        for name in "abcdef":
            self.mutant(name, "broken " + name)
        self.write("tests/mutants/header.patch", "# target: X\n# test: .\n--- a/x.h\n+++ b/x.h\n@@ -1 +1 @@\n-a\n+b\n")
        first = self.ends(0, "3 passed, 0 failed", "scripts/mutate", "--some", "3")
        self.assertEqual(first, self.ends(0, "3 passed, 0 failed", "scripts/mutate", "--some", "3"))
        self.assertNotIn("header", self.ends(0, "6 passed, 0 failed", "scripts/mutate", "--some", "9"))
        self.assertIn("usage", self.run_script("scripts/mutate", "--some", "none")[1])

    def test_a_mutant_proves_nothing_when_it_cannot_be_tried(self):
        self.repository()
        self.mutant("nameless", "broken", head="")
        self.assertIn("nameless has no", self.ends(1, "0 passed, 1 failed", "scripts/mutate", "nameless"))
        self.write("tests/mutants/stale.patch", "# target: X\n# test: .\n--- a/gone\n+++ b/gone\n@@ -1 +1 @@\n-a\n+b\n")
        self.assertIn("stale does not apply", self.ends(1, "0 passed, 1 failed", "scripts/mutate", "stale"))
        self.mutant("rubble", "broken")
        self.script("bin/cmake", 'case "$1" in --build) grep -q whole "${2%/build}/state" ;; esac\n')
        self.assertIn("rubble does not build, which", self.ends(1, "0 passed, 1 failed", "scripts/mutate", "rubble"))

    def test_exports_compare_what_is_visible(self):
        if shutil.which("g++") is None:
            self.skipTest("there is no g++")
        os.makedirs(os.path.join(self.root, "packaging"))

        def library(source):
            self.write("x.cpp", source)
            subprocess.run(["g++", "-shared", "-fPIC", "-fvisibility=hidden", "x.cpp", "-o", "libx.so"], cwd=self.root,
                           check=True)

        shown = '__attribute__((visibility("default"))) '
        library(f"namespace Kel {{ {shown}int seen(int) {{ return 1; }} int unseen() {{ return 2; }} }}\n")
        self.ends(0, "exports: 1 symbols in packaging/exports.txt", "scripts/exports", "libx.so", "--update")
        with open(os.path.join(self.root, "packaging/exports.txt"), encoding="utf-8") as file:
            self.assertEqual("Kel::seen(int)\n", file.read())
        self.ends(0, "exports: all 1 symbols as committed", "scripts/exports", "libx.so")
        library(f"namespace Kel {{ {shown}int other(int) {{ return 1; }} }}\n")
        result, output = self.run_script("scripts/exports", "libx.so")
        self.assertEqual(1, result)
        self.assertIn("-Kel::seen(int)\n+Kel::other(int)", output)


if __name__ == "__main__":
    unittest.main()
