"""The house rules for documents: what they name is there.

Each rule takes the tree of tidy.py and yields findings; tidy_test.py shows each of them going red."""

import fnmatch
import os
import re

# Folders of the tree that documents name.
TOP = ("scripts/", "docs/", "platform/", "Vxlan/", "service/", "agent/", "controller/", "tools/", "tests/", "bench/", "cmake/",
       "packaging/", "examples/", "man/", "fuzz/", "sim/", ".ci/")
DECLARATION = re.compile(r"\b(?:vcc_room|vcc_program|vcc_test|vcc_bench|vcc_shared_library|add_custom_target|add_library|add_executable)"
                         r"\(\s*([\w.-]+)")
MACHINE = re.compile(r"^class\s+(?:KEL_API\s+)?(\w+(?:Sm|SmBase|SmWrapper))\b[^;{]*\{", re.MULTILINE)


def documents(tree):
    return [name for name in tree.files if name.endswith(".md")]


def targets(tree):
    found = set()
    for name in tree.files:
        if name.endswith("CMakeLists.txt") or name.endswith(".cmake"):
            found.update(DECLARATION.findall(tree.text(name)))
    return found


def in_tree(tree, path):
    """Whether a file or folder of the tree has this path, in which * stands for any text."""
    path = path.rstrip("/")
    if "*" in path or "?" in path:
        return any(fnmatch.fnmatch(name, path) for name in tree.files)
    return path in tree.files or any(name.startswith(path + "/") for name in tree.files)


def rule_documented_paths(tree):
    """A path of the tree that a document names is there."""
    for name in documents(tree):
        for number, line in tree.lines(name):
            for path in re.findall(r"`([\w./*-]+)`", line):
                if path.startswith(TOP) and not in_tree(tree, path):
                    yield name, number, f"`{path}` is not in the tree"
            for link in re.findall(r"\]\(([^)#\s]+)(?:#[^)]*)?\)", line):
                path = os.path.normpath(os.path.join(os.path.dirname(name), link))
                if "://" not in link and not in_tree(tree, path):
                    yield name, number, f"the link to {link} leads nowhere"


def rule_documented_targets(tree):
    """A target of the build that a document or a script's usage names is there."""
    known = targets(tree) | {"install", "package", "all"}
    for name in documents(tree) + [f for f in tree.files if f.startswith("scripts/")]:
        for number, line in tree.lines(name):
            for target in re.findall(r"--target[ =]([A-Za-z][\w.-]*)|# target: (\w+)", line):
                target = target[0] or target[1]
                if target not in known:
                    yield name, number, f"there is no target {target}"


def rule_documented_commands(tree):
    """A script of the project that a document runs is there."""
    for name in documents(tree):
        for number, line in tree.lines(name):
            for path in re.findall(r"^\s{4,}(?:sudo )?((?:scripts|\.ci)/[\w./-]+)", line):
                if path not in tree.files:
                    yield name, number, f"there is no command {path}"


def rule_tour(tree):
    """The tour names every room and every state machine."""
    tour = "docs/architecture.md"
    if tour not in tree.files:
        return
    text = tree.text(tour)
    for name in tree.files:
        if not name.endswith("CMakeLists.txt"):
            continue
        folder = os.path.dirname(name)
        if folder.startswith(("platform/", "service/", "agent/", "controller/", "tools/", "Vxlan")) \
                and re.search(r"\bvcc_(room|program)\(", tree.text(name)) and not re.search(rf"(?<![\w/]){re.escape(folder)}(?![\w/]*\w)", text):
            yield tour, 1, f"does not name the room `{folder}`"
    header = "Vxlan/VxlanControllerSm.h"
    if header in tree.files:
        for machine in MACHINE.findall(tree.text(header)):
            if not re.search(rf"`{machine}`", text):
                yield tour, 1, f"does not name the machine `{machine}`"
