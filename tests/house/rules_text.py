"""The house rules for documents, and for the one dialect of C++ that all rooms share.

Each rule takes the tree of tidy.py and yields findings; tidy_test.py shows each of them going red."""

import fnmatch
import os
import re

# Folders of the tree that documents name.
TOP = ("scripts/", "docs/", "platform/", "Vxlan/", "service/", "agent/", "controller/", "tools/", "tests/", "bench/", "cmake/",
       "packaging/", "examples/", "man/", "fuzz/", "sim/", ".ci/")
WORDS = "tests/house/words.txt"
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


def comments(text):
    """Each comment of a C++, Python or shell source as (line, text)."""
    for number, line in enumerate(text.splitlines(), 1):
        found = re.search(r"(?:^|[^:\"'])//(.*)$|^\s*#(?!\s*include|\s*pragma|\s*define|!)(.*)$|^\s*\*(.*)$", line)
        if found:
            yield number, next(group for group in found.groups() if group is not None)


def rule_plain_words(tree):
    """Comments and documents use the field's terms and plain words: those of words.txt have a plainer one."""
    listed = [line.split("->") for line in tree.listed(WORDS)]
    plain = [(re.compile(rf"\b{word.strip()}\b", re.IGNORECASE), better.strip()) for word, better in listed]
    for name in tree.files:
        if name == "CHANGELOG.md":
            continue  # it says what was said at the time
        if name.endswith(".md") or name.startswith("man/"):
            lines = tree.lines(name)
        elif name in tree.sources() or name.endswith((".py", ".sh")) or name.startswith(("scripts/", ".ci/")):
            lines = comments(tree.text(name))
        else:
            continue
        for number, line in lines:
            for pattern, better in plain:
                found = pattern.search(line)
                if found:
                    yield name, number, f'"{found.group()}": write {better}'


def code_of(tree, name):
    text = re.sub(r"/\*.*?\*/", lambda found: re.sub(r"[^\n]", " ", found.group()), tree.text(name), flags=re.DOTALL)
    return enumerate(text.splitlines(), 1)


def rule_one_comment_style(tree):
    """Comments begin with two slashes."""
    for name in tree.sources():
        for number, line in tree.lines(name):
            if re.match(r"\s*///", line):
                yield name, number, "a comment begins with two slashes"


def rule_constants(tree):
    """Constants are camelCase, like every other value."""
    for name in tree.sources():
        for number, line in code_of(tree, name):
            found = re.search(r"\bconstexpr\b[^=({]*\b(k[A-Z]\w*)\s*[={]", line.split("//")[0])
            if found:
                yield name, number, f"{found.group(1)}: constants are camelCase, without a k"


def rule_test_names(tree):
    """Cases of a test are UpperCamel."""
    for name in tree.sources(".cpp"):
        if name.startswith("tests/"):
            for number, line in tree.lines(name):
                found = re.match(r"\s*TEST(?:_F|_P)?\(\w+,\s*([a-z]\w*)", line)
                if found:
                    yield name, number, f"{found.group(1)}: names of tests are UpperCamel"


def rule_target_names(tree):
    """Programs that test end in _test, benchmarks in _bench; both are snake_case."""
    for name in tree.files:
        if name.endswith("CMakeLists.txt"):
            for number, line in tree.lines(name):
                found = re.match(r"\s*vcc_(test|bench)\(\s*(\w+)", line)
                if found and not re.fullmatch(rf"[a-z0-9_]+_{found.group(1)}", found.group(2)):
                    yield name, number, f"{found.group(2)}: name it as something_{found.group(1)}"
