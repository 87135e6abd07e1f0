#!/usr/bin/env python3
"""The house rules that a program can check.

    tidy.py --root TREE [--compile-commands FILE [--without FOLDER]...]

Prints one line a finding, "file:line: rule: what", and ends with 1 when there is any. The rules are the functions
named rule_...; each takes the tree and yields findings. tidy_test.py shows each of them going red.
"""

import argparse
import json
import os
import re
import subprocess
import sys

import rules_text

# The rooms and what each may include, in the direction of the includes: those before it, and itself.
ROOMS = ["Files", "RingLog", "Memtab", "Vxlan/hosts", "Kel", "Entdb", "Vxlan/types", "Vxlan/framework", "Vxlan", "service", "agent", "tools"]
ROOM_FOLDERS = {"platform/Files": "Files", "platform/RingLog": "RingLog", "platform/Memtab": "Memtab", "platform/Kel": "Kel",
                "platform/Entdb": "Entdb", "Vxlan/hosts": "Vxlan/hosts", "Vxlan/types": "Vxlan/types", "Vxlan/framework": "Vxlan/framework",
                "Vxlan": "Vxlan", "service": "service", "agent": "agent", "tools": "tools"}
# The first does not stand on the second: what any daemon needs knows no VXLAN, and a tool is a program beside the agent.
APART = {("Memtab", "RingLog"), ("tools", "agent"),
         ("service", "Vxlan"), ("service", "Vxlan/types"), ("service", "Vxlan/framework"), ("service", "Vxlan/hosts")}
# Rooms that stand on the standard library and POSIX alone, and the prefixes of what that excludes.
CORE = ("platform/", "Vxlan/")
FOREIGN = ("fmt/", "nlohmann/", "CLI/", "libmnl/", "systemd/", "openssl/", "prometheus/", "gtest/", "gmock/",
           "benchmark/", "boost/")
SOURCE_FOLDERS = ("platform", "Vxlan", "service", "agent", "tools", "tests", "bench", "fuzz", "examples")
LONGEST = 600

# Written with brackets so that this file passes its own rules.
UNFINISHED = re.compile(r"\b(T[O]DO|F[I]XME|X[X]X)\b|not implemente[d]|(?<!armed )\bfor no[w]\b")
UNMENTIONED = re.compile(
    r"sp[e]cification|sp[e]c\.md|\bthe sp[e]c\b|\bP[a]rt [1-5]\.[1-5]\b|\.\./s[h]ared|/[w]ork/", re.IGNORECASE)
TYPE_HEAD = re.compile(r"^(?:template\s*<.*>\s*)?(?:class|struct)\s+(?:\[\[[^\]]*\]\]\s*|[A-Z_]+(?:\([^)]*\))?\s+)*"
                       r"(\w+(?:::\w+)*)\s*(?:final\b\s*)?(<)?", re.DOTALL)


class Tree:
    """The files of the project, as git knows them, or all of them where there is no git."""

    def __init__(self, root, compile_commands=None, without=()):
        self.root = os.path.realpath(root)
        self.compile_commands = compile_commands
        self.without = tuple(folder.rstrip("/") + "/" for folder in without)
        self.files = sorted(self._tracked() or self._walked())
        self._texts = {}

    def _tracked(self):
        if not os.path.exists(os.path.join(self.root, ".git")):
            return []
        listed = subprocess.run(["git", "-C", self.root, "ls-files", "-z"], capture_output=True, text=True, check=False)
        return [name for name in listed.stdout.split("\0")
                if name and os.path.isfile(os.path.join(self.root, name))]

    def _walked(self):
        names = []
        for folder, folders, files in os.walk(self.root):
            folders[:] = [name for name in folders if name not in (".git", "build", "__pycache__")]
            names += [os.path.relpath(os.path.join(folder, name), self.root) for name in files]
        return names

    def text(self, name):
        """The text of a file; empty for a binary one."""
        if name not in self._texts:
            with open(os.path.join(self.root, name), "rb") as file:
                data = file.read()
            self._texts[name] = "" if b"\0" in data[:8000] else data.decode("utf-8", "replace")
        return self._texts[name]

    def lines(self, name):
        return enumerate(self.text(name).splitlines(), 1)

    def sources(self, *endings):
        return [name for name in self.files
                if name.endswith(endings or (".h", ".cpp")) and name.startswith(tuple(f + "/" for f in SOURCE_FOLDERS))]

    def listed(self, name):
        """The lines of a list of exceptions, comments aside."""
        if name not in self.files:
            return []
        return [line.split("#")[0].strip() for line in self.text(name).splitlines() if line.split("#")[0].strip()]


def room_of_file(name):
    for folder in sorted(ROOM_FOLDERS, key=len, reverse=True):
        if name.startswith(folder + "/"):
            return ROOM_FOLDERS[folder]
    return None


def room_of_include(path):
    for room in sorted(ROOMS, key=len, reverse=True):
        if path.startswith(room + "/"):
            return room
    return None


def includes(tree, name):
    for number, line in tree.lines(name):
        found = re.match(r'\s*#\s*include\s*(["<])([^">]+)', line)
        if found:
            yield number, found.group(1) == '"', found.group(2)


def masked(text):
    """The text with comments and the insides of literals blanked, line for line and column for column."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|(?<![0-9a-zA-Z_])\'(?:\\.|[^\'\\\n])*\'',
                         re.DOTALL)
    return pattern.sub(lambda found: re.sub(r"[^\n]", " ", found.group()), text)


def public_types(text):
    """Each class or struct defined at namespace level: (line, name). Leaves out detail namespaces and
    specialisations, which belong to the story of their template."""
    code = re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", lambda found: re.sub(r"[^\n]", " ", found.group()), masked(text), flags=re.M)
    spaces, start = [], 0
    for at, mark in enumerate(code):
        if mark in ";}":
            if mark == "}" and spaces:
                spaces.pop()
            start = at + 1
        elif mark == "{":
            head = code[start:at]
            lead = len(head) - len(head.lstrip())
            begin, head = start + lead, head.strip()
            space = re.match(r"(?:inline\s+)?namespace\b\s*([\w:]*)|extern\b", head)
            found = TYPE_HEAD.match(head)
            open_here = all(name is not None and not {"detail", "internal", ""} & set(name.split("::")) for name in spaces)
            if found and not found.group(2) and not space and open_here and not re.match(r"template\s*<\s*>", head):
                yield code.count("\n", 0, begin) + 1, found.group(1)
            spaces.append((space.group(1) if space.group(1) is not None else "C") if space else None)
            start = at + 1


def lists_of(tree, name):
    """The CMakeLists.txt that a file belongs to, as (folder, text)."""
    folder = os.path.dirname(name)
    while folder and folder + "/CMakeLists.txt" not in tree.files:
        folder = os.path.dirname(folder)
    return folder, tree.text(folder + "/CMakeLists.txt") if folder else ""


def beside_a_program(tree, name, header):
    """Whether the header is private to a program, which has no include root of its own: it lies beside the sources of
    a folder that declares a program and no room."""
    folder, lists = lists_of(tree, name)
    return "vcc_program(" in lists and "vcc_room(" not in lists and f"{folder}/{header}" in tree.files


def rule_include_direction(tree):
    """Includes go one way between the rooms."""
    for name in tree.sources():
        room = room_of_file(name)
        if room is None:
            continue
        for number, quoted, path in includes(tree, name):
            other = room_of_include(path)
            if other is None:
                if quoted and not beside_a_program(tree, name, path):
                    yield name, number, f'"{path}" names no room; write "Room/Header.h"'
            elif ROOMS.index(other) > ROOMS.index(room) or (room, other) in APART:
                yield name, number, f"{room} must not include {other} (\"{path}\")"


def rule_no_foreign_library(tree):
    """platform/ and Vxlan/ stand on the standard library and POSIX alone."""
    for name in tree.sources():
        if name.startswith(CORE):
            for number, _, path in includes(tree, name):
                if path.startswith(FOREIGN):
                    yield name, number, f"<{path}> is neither the standard library nor POSIX"


def rule_no_parent_include(tree):
    """No include climbs out of its folder."""
    for name in tree.sources():
        for number, _, path in includes(tree, name):
            if ".." in path.split("/"):
                yield name, number, f"include of {path}; include from the roots"


def rule_pragma_once(tree):
    for name in tree.sources(".h"):
        if not any(line.strip() == "#pragma once" for _, line in tree.lines(name)):
            yield name, 1, "a header begins with #pragma once"


def rule_story(tree):
    """Every class of a room's header has its story right above it."""
    for name in tree.sources(".h"):
        if room_of_file(name) is None:
            continue
        text = tree.text(name)
        lines = text.splitlines()
        for number, type_name in public_types(text):
            above = lines[number - 2].strip() if number > 1 else ""
            if not (above.startswith(("//", "*")) or above.endswith("*/")):
                yield name, number, f"{type_name} has no comment right above it"


def rule_header_listed(tree):
    """Every header of a room stands in its CMakeLists.txt, and so is compiled alone and installed."""
    for name in tree.sources(".h"):
        folder, lists = lists_of(tree, name)
        if room_of_file(name) is None or beside_a_program(tree, name, os.path.basename(name)):
            continue
        relative = os.path.relpath(name, folder or ".")
        if not re.search(r"(?<![\w/.])" + re.escape(relative) + r"(?![\w.])", lists):
            yield name, 1, f"is not among the HEADERS of {folder or 'any'}/CMakeLists.txt"


def own_project(tree, name):
    """Whether a CMakeLists.txt at or above the file, short of the top, starts a project of its own."""
    folder = os.path.dirname(name)
    while folder:
        lists = folder + "/CMakeLists.txt"
        if lists in tree.files and re.search(r"^\s*project\s*\(", tree.text(lists), re.MULTILINE):
            return True
        folder = os.path.dirname(folder)
    return False


def rule_source_in_target(tree):
    """Every source is compiled by some target."""
    if tree.compile_commands is None:
        return
    with open(tree.compile_commands, encoding="utf-8") as file:
        compiled = {os.path.realpath(os.path.join(entry["directory"], entry["file"])) for entry in json.load(file)}
    for name in tree.sources(".cpp"):
        if name.startswith(tree.without) and tree.without:
            continue
        if os.path.join(tree.root, name) not in compiled and not own_project(tree, name):
            yield name, 1, "belongs to no target"


def rule_finished(tree):
    for name in tree.files:
        if name.endswith((".h", ".cpp", ".cmake", ".py", ".sh", "CMakeLists.txt")) or name.startswith(("scripts/", ".ci/")):
            for number, line in tree.lines(name):
                found = UNFINISHED.search(line)
                if found:
                    yield name, number, f'unfinished: "{found.group()}"'


def rule_unmentioned(tree):
    """Words and paths that mean nothing to a reader of this project."""
    for name in tree.files:
        for number, line in tree.lines(name):
            found = UNMENTIONED.search(line)
            if found and name != "LICENSE" and not re.search(r"\bRFC\b", line):
                yield name, number, f'"{found.group()}" has no place here'


def rule_length(tree):
    """No file is too long to be one idea, those in long-files.txt aside."""
    allowed = tree.listed("tests/house/long-files.txt")
    for name in tree.sources():
        length = len(tree.text(name).splitlines())
        if length > LONGEST and name not in allowed:
            yield name, LONGEST, f"has {length} lines, more than {LONGEST}"
    for name in allowed:
        if name not in tree.files or len(tree.text(name).splitlines()) <= LONGEST:
            yield "tests/house/long-files.txt", 1, f"{name} is not too long; take it off the list"


def rule_own_assertion(tree):
    """assert() is silent in a release build; the fatal assertion is not."""
    for name in tree.sources():
        for number, line in enumerate(masked(tree.text(name)).splitlines(), 1):
            if re.search(r"(?<![\w.>:])assert\s*\(|#\s*include\s*<(cassert|assert\.h)>", line):
                yield name, number, "assert(); use the fatal assertion, which holds in every build"


def rule_json_from_outside(tree):
    """Texts from outside are read by service/json, which bounds their nesting."""
    for name in tree.sources():
        if name.startswith(("service/", "agent/", "tools/")) and not name.startswith("service/json/"):
            for number, line in enumerate(masked(tree.text(name)).splitlines(), 1):
                if re.search(r"\bjson::(parse|accept|sax_parse|from_\w+)\s*\(", line):
                    yield name, number, "a JSON text is read past service/json; use parseJson"


def rule_no_sleep(tree):
    """Tests wait for what happens, never for time to pass."""
    for name in tree.sources():
        if name.startswith("tests/"):
            for number, line in enumerate(masked(tree.text(name)).splitlines(), 1):
                found = re.search(r"\b(sleep_for|sleep_until|usleep|nanosleep|sleep)\s*\(", line)
                if found:
                    yield name, number, f"{found.group(1)}() in a test"


def test_names(tree):
    """The tests that the page may name: Suite.Name, and FOLDER.FILE.SCENARIO of those that are run as a whole."""
    names = set()
    for name in tree.files:
        if name.startswith("tests/") and name.endswith(".cpp"):
            names.update(".".join(found) for found in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", tree.text(name),
                                                                 re.MULTILINE))
        scenarios = re.fullmatch(r"tests/(\w+)/(\w+)\.py", name)
        if scenarios:
            names.update(".".join([*scenarios.groups(), found])
                         for found in re.findall(r"^def scenario_(\w+)", tree.text(name), re.MULTILINE))
    return names


def rule_shown_by_tests(tree):
    """The page of threats names tests that there are, and a test in each row of its tables."""
    page = "docs/security.md"
    if page not in tree.files:
        return
    tests = test_names(tree)
    for number, line in tree.lines(page):
        named = re.findall(r"`(\w+\.[A-Za-z]\w+(?:\.\w+)?)`", line)
        yield from ((page, number, f"there is no test {name}") for name in named if name not in tests)
        row = line.startswith("|") and not re.match(r"\| it may \||\|-", line)
        if row and not named:
            yield page, number, "no test shows it"


def rule_runnable(tree):
    """A script with a first line that names its interpreter can be run."""
    for name in tree.files:
        if tree.text(name).startswith("#!") and not os.access(os.path.join(tree.root, name), os.X_OK):
            yield name, 1, "is a script and not executable"


RULES = [value for key, value in sorted({**globals(), **vars(rules_text)}.items()) if key.startswith("rule_")]


def findings(tree):
    for rule in RULES:
        for name, number, what in rule(tree):
            yield f"{name}:{number}: {rule.__name__[5:].replace('_', '-')}: {what}"


def main():
    parser = argparse.ArgumentParser(description="Checks the house rules.")
    parser.add_argument("--root", required=True)
    parser.add_argument("--compile-commands")
    parser.add_argument("--without", action="append", default=[], metavar="FOLDER",
                        help="a folder that this build leaves out")
    options = parser.parse_args()
    tree = Tree(options.root, options.compile_commands, options.without)
    if not tree.sources():
        print(f"{options.root} has no sources")
        return 1
    found = list(findings(tree))
    print("\n".join(found) if found else f"{len(tree.files)} files, {len(RULES)} rules, nothing found")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
