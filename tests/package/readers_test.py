#!/usr/bin/env python3
"""The readers of other processes, each built and run against an installed tree and nothing else: the examples in C++, C and
Python, beside a writer process.

    readers_test.py BUILD COMPILER CMAKE
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

CMAKE = sys.argv.pop()
COMPILER = sys.argv.pop()
BUILD = sys.argv.pop()
HERE = os.path.dirname(os.path.abspath(__file__))
EXAMPLES = os.path.join(os.path.dirname(os.path.dirname(HERE)), "examples")
C_COMPILER = COMPILER.replace("clang++", "clang").replace("g++", "gcc").replace("c++", "cc")


def run(*command, **how):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **how)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: exit code {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


class Conversation:
    """A program that answers what it is told."""

    def __init__(self, *command, environment=None):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=environment)

    def tell(self, text):
        self.process.stdin.write(text)
        self.process.stdin.flush()

    def until(self, last):
        """Its lines before one that ends with `last`."""
        lines = []
        for line in self.process.stdout:
            if line.rstrip("\n").endswith(last):
                return lines
            lines.append(line.rstrip("\n"))
        raise AssertionError(f"it ended after {lines}")

    def line(self):
        return self.process.stdout.readline().rstrip("\n")

    def end(self):
        self.process.stdin.close()
        self.process.stdout.close()
        return self.process.wait()


class Readers(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        first = os.path.join(cls.folder.name, "first")
        for component in ("library", "hosts", "development", "python"):
            run(CMAKE, "--install", BUILD, "--prefix", first, "--component", component)
        # Neither may remember where it was put first.
        cls.prefix = os.path.join(cls.folder.name, "installed")
        os.rename(first, cls.prefix)
        cls.built = os.path.join(cls.folder.name, "built")
        environment = {name: value for name, value in os.environ.items() if name != "CMAKE_CXX_COMPILER_LAUNCHER"}
        run(CMAKE, "-S", os.path.join(HERE, "readers"), "-B", cls.built, f"-DCMAKE_PREFIX_PATH={cls.prefix}",
            f"-DCMAKE_CXX_COMPILER={COMPILER}", f"-DCMAKE_C_COMPILER={C_COMPILER}", f"-DEXAMPLES={EXAMPLES}", env=environment)
        run(CMAKE, "--build", cls.built, env=environment)
        cls.libraries = os.path.dirname(cls.found("libvxlan-hosts.so"))

    @classmethod
    def found(cls, name):
        for folder, _, files in os.walk(cls.prefix):
            if name in files:
                return os.path.join(folder, name)
        raise AssertionError(f"{name} is not installed")

    @classmethod
    def program(cls, name):
        return os.path.join(cls.built, name)

    def setUp(self):
        self.table = os.path.join(self.folder.name, f"{self._testMethodName}.hosts")
        self.old_umask = os.umask(0o022)
        self.writer = Conversation(self.program("writer"), self.table)

    def tearDown(self):
        self.assertEqual(self.writer.end(), 0)
        os.umask(self.old_umask)

    def write(self, text):
        self.writer.tell(text + " publish\n")
        self.assertEqual(self.writer.line(), "published")

    def flags(self, package):
        environment = dict(os.environ, PKG_CONFIG_PATH=os.path.join(self.libraries, "pkgconfig"))
        return run("pkg-config", "--cflags", "--libs", package, env=environment).split()

    def test_a_program_in_cpp_follows(self):
        self.write("is 1")
        reader = Conversation(self.program("follow-hosts"), self.table, "5")
        self.assertEqual(reader.line(), "= all hosts:")
        self.assertEqual(reader.line(), "+ 02:00:00:00:00:01:10 behind 10.0.0.1")
        self.write("is 2")
        self.assertEqual(reader.line(), "+ 02:00:00:00:00:02:10 behind 10.0.0.2")
        self.write("del 1 is 3")
        self.assertEqual({reader.line(), reader.line()},
                         {"- 02:00:00:00:00:01:10", "+ 02:00:00:00:00:03:10 behind 10.0.0.3"})
        self.assertEqual(reader.end(), 0)

    def test_a_program_in_cpp_is_built_by_pkg_config(self):
        for example in ("follow-hosts", "dump-trace"):
            program = os.path.join(self.folder.name, f"{example}-by-pkg-config")
            run(COMPILER, "-std=c++20", os.path.join(EXAMPLES, example, "main.cpp"), "-o", program,
                *self.flags("vxlan-controller-client"))
        self.write("is 1")
        follow = os.path.join(self.folder.name, "follow-hosts-by-pkg-config")
        self.assertEqual(run(follow, self.table, "2", env=dict(os.environ, LD_LIBRARY_PATH=self.libraries)),
                         "= all hosts:\n+ 02:00:00:00:00:01:10 behind 10.0.0.1\n")

    def test_the_lines_of_the_readme_build_a_program(self):
        with open(os.path.join(os.path.dirname(EXAMPLES), "README.md"), encoding="utf-8") as file:
            shown = [line[4:] for line in file.read().splitlines() if line.startswith("    ")]
        cmake = [line for line in shown if line.startswith(("find_package(", "target_link_libraries("))]
        command = [line for line in shown if line.startswith("c++ ")]
        self.assertEqual((len(cmake), len(command)), (2, 1), "README.md shows two lines of CMake and one command")
        mine = os.path.join(self.folder.name, "my-agent")
        os.mkdir(mine)
        shutil.copy(os.path.join(EXAMPLES, "echo", "main.cpp"), os.path.join(mine, "my-agent.cpp"))
        with open(os.path.join(mine, "CMakeLists.txt"), "w", encoding="utf-8") as file:
            file.write("cmake_minimum_required(VERSION 3.25)\nproject(MyAgent LANGUAGES CXX)\n"
                       "add_executable(my-agent my-agent.cpp)\n" + "\n".join(cmake) + "\n")
        environment = dict(os.environ, PKG_CONFIG_PATH=os.path.join(self.libraries, "pkgconfig"), LD_LIBRARY_PATH=self.libraries)
        environment.pop("CMAKE_CXX_COMPILER_LAUNCHER", None)
        run(CMAKE, "-S", mine, "-B", os.path.join(mine, "build"), f"-DCMAKE_PREFIX_PATH={self.prefix}",
            f"-DCMAKE_CXX_COMPILER={COMPILER}", env=environment)
        run(CMAKE, "--build", os.path.join(mine, "build"), env=environment)
        run("sh", "-c", command[0], cwd=mine, env=environment)
        said = run(os.path.join(mine, "build", "my-agent"), env=environment)
        self.assertIn("the switch's view: converging", said)
        self.assertEqual(run(os.path.join(mine, "a.out"), env=environment), said)

    def test_a_program_dumps_its_own_trace(self):
        self.assertEqual(run(self.program("dump-trace")), "3 half of 12\n3 half of 6\n3 half of 3\n0 odd: 3\n")

    def test_an_error_leaves_the_library_as_what_it_is(self):
        with open(self.table + ".no", "w", encoding="utf-8") as file:
            file.write("no table at all" * 500)
        done = subprocess.run([self.program("follow-hosts"), self.table + ".no"], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 2)
        self.assertIn("follow-hosts: memtab " + self.table + ".no: ", done.stderr)

    def follows(self, reader):
        self.assertEqual(reader.until("told"), ["= all hosts:", "+ 02:00:00:00:00:01:10 behind 10.0.0.1"])
        self.write("is 2")
        reader.tell("\n")
        self.assertEqual(reader.until("told"), ["+ 02:00:00:00:00:02:10 behind 10.0.0.2"])
        self.write("del 1")
        reader.tell("\n")
        self.assertEqual(reader.until("told"), ["- 02:00:00:00:00:01:10"])
        reader.tell("\n")
        self.assertEqual(reader.until("told"), [])
        self.assertEqual(reader.end(), 0)

    def test_a_program_in_c_follows(self):
        self.write("is 1")
        self.follows(Conversation(self.program("show-hosts"), self.table))

    def test_a_program_in_c_looks_up_and_is_built_by_pkg_config(self):
        program = os.path.join(self.folder.name, "show-hosts-by-pkg-config")
        run(C_COMPILER, "-std=c11", "-Wall", "-Wextra", "-Werror", "-pedantic",
            os.path.join(EXAMPLES, "show-hosts", "show-hosts.c"), "-o", program, *self.flags("vxlan-hosts"))
        environment = dict(os.environ, LD_LIBRARY_PATH=self.libraries)
        self.write("is 1")
        self.assertEqual(run(program, self.table, "02:00:00:00:00:01", "10", env=environment),
                         "+ 02:00:00:00:00:01:10 behind 10.0.0.1\n")
        absent = subprocess.run([program, self.table, "02:00:00:00:00:01", "11"], env=environment, check=False)
        self.assertEqual(absent.returncode, 1)

    def test_the_c_library_stands_on_its_own(self):
        needed = run("readelf", "-d", self.found("libvxlan-hosts.so"))
        self.assertIn("Library soname: [libvxlan-hosts.so.1]", needed)
        self.assertNotIn("libVxlanControllerClient", needed)

    def python(self):
        module = os.path.dirname(self.found("vxlan_hosts.py"))
        return dict(os.environ, LD_LIBRARY_PATH=self.libraries, PYTHONPATH=module, PYTHONDONTWRITEBYTECODE="1")

    def test_a_script_follows(self):
        self.write("is 1")
        reader = Conversation(sys.executable, os.path.join(EXAMPLES, "show-hosts", "show-hosts.py"), self.table,
                              environment=self.python())
        self.assertEqual(reader.line(), "1 hosts")
        self.follows(reader)

    def test_a_script_looks_up_and_walks(self):
        self.write("is 1 is 2")
        script = """
import sys, vxlan_hosts
hosts = vxlan_hosts.Hosts(sys.argv[1], owner=0)
found = hosts.lookup("02:00:00:00:00:02", 10)
print(found.mac, found.vlan, found.vteps, found.entry_type, found.dest_type, found.learn_attr, hosts.attached)
print(hosts.lookup("02:00:00:00:00:02", 11), sorted(host.mac for host in hosts))
for wrong in (lambda: hosts.lookup("02:00", 1), lambda: vxlan_hosts.Hosts("/x", owner="no such user")):
    try:
        wrong()
    except vxlan_hosts.Error as error:
        print(error)
"""
        self.assertEqual(run(sys.executable, "-c", script, self.table, env=self.python()).splitlines(), [
            "02:00:00:00:00:02 10 ('10.0.0.2',) 0 1 16 True",
            "None ['02:00:00:00:00:01', '02:00:00:00:00:02']",
            '"02:00" and 1 are no MAC address and VLAN',
            'vxlan_hosts_open: there is no user "no such user"'])


if __name__ == "__main__":
    unittest.main()
