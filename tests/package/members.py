#!/usr/bin/env python3
"""Writes a C++ source that names all that the installed headers offer of the shared library.

    members.py INCLUDE_FOLDER >calls.cpp

Each public member of each exported class (and of the classes within), each exported function and each exported
variable stands in a call that a linker has to resolve and nobody executes: a member that is not exported, or an inline
one that needs something hidden, fails the link. Virtual members are called by their qualified names, for a call through
the table of virtual functions needs no symbol. The headers themselves say what there is, so that a new member is
covered by itself. Templates are left out: they are instantiated by who uses them.
"""

import glob
import os
import re
import subprocess
import sys

from clang import cindex
from clang.cindex import AccessSpecifier, AvailabilityKind, CursorKind, TypeKind

CLASSES = (CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL)
HEAD = """// Generated from the installed headers. Compiled and linked, never executed.
#include <new>
#include <type_traits>

#include "everything.h"

namespace {

void* volatile nothing;
alignas(64) unsigned char place[1 << 16];

// An object of any type that nobody has made.
template <class T>
T&& some() {
  return static_cast<T&&>(*static_cast<std::remove_reference_t<T>*>(nothing));
}

}  // namespace

"""


def load_library():
    """Where the bindings cannot find libclang by themselves, the newest one that is installed."""
    try:
        cindex.Index.create()
    except cindex.LibclangError:
        cindex.Config.loaded = False
        found = sorted(glob.glob("/usr/lib/*/libclang-*.so.1") + glob.glob("/usr/lib/llvm-*/lib/libclang.so.1"))
        if not found:
            raise
        cindex.Config.set_library_file(found[-1])


def resource_folder():
    """libclang needs the compiler's own headers."""
    for compiler in ("clang", "clang-14"):
        try:
            return subprocess.run([compiler, "-print-resource-dir"], capture_output=True, text=True,
                                  check=True).stdout.strip()
        except (OSError, subprocess.CalledProcessError):
            continue
    return None


def full_name(cursor):
    parts = []
    while cursor and cursor.kind != CursorKind.TRANSLATION_UNIT:
        if cursor.spelling:
            parts.append(cursor.spelling)
        cursor = cursor.semantic_parent
    return "::".join(reversed(parts))


def exported(cursor):
    """Marked for export itself, or within a class that is."""
    while cursor and cursor.kind not in (CursorKind.TRANSLATION_UNIT, CursorKind.NAMESPACE):
        if any(child.kind == CursorKind.VISIBILITY_ATTR and child.spelling == "default"
               for child in cursor.get_children()):
            return True
        cursor = cursor.semantic_parent
    return False


class Writer:
    def __init__(self, folder):
        self.folder = os.path.realpath(folder)
        self.calls = []
        self.seen = set()
        self.skipped = []

    def ours(self, cursor):
        file = cursor.location.file
        return file is not None and os.path.realpath(file.name).startswith(self.folder + "/")

    def call(self, cursor, code):
        key = cursor.get_usr()
        if key not in self.seen:
            self.seen.add(key)
            self.calls.append(code)

    @staticmethod
    def type_name(of):
        """As code names it. A structure of the system's may share its name with a function, as stat does."""
        canonical = of.get_canonical()
        inner = canonical.get_pointee() if canonical.get_pointee().kind != TypeKind.INVALID else canonical
        declared = inner.get_declaration()
        if declared.kind == CursorKind.STRUCT_DECL and full_name(declared) == declared.spelling:
            return re.sub(rf"\b{re.escape(declared.spelling)}\b", f"struct {declared.spelling}", canonical.spelling, count=1)
        return canonical.spelling

    def arguments(self, cursor):
        return ", ".join(f"some<{self.type_name(argument.type)}>()" for argument in cursor.get_arguments())

    def walk(self, cursor):
        for child in cursor.get_children():
            if child.kind in (CursorKind.NAMESPACE, CursorKind.UNEXPOSED_DECL, CursorKind.LINKAGE_SPEC):
                self.walk(child)
            elif not self.ours(child):
                continue
            elif child.kind in CLASSES and child.is_definition():
                self.of_class(child)
            elif child.kind == CursorKind.FUNCTION_DECL and exported(child):
                self.call(child, f"::{full_name(child)}({self.arguments(child)});")
            elif child.kind == CursorKind.VAR_DECL and exported(child):
                self.call(child, f"nothing = const_cast<void*>(static_cast<const void*>(&::{full_name(child)}));")

    def of_class(self, cls):
        if not exported(cls):
            return
        name = full_name(cls)
        for child in cls.get_children():
            if child.access_specifier != AccessSpecifier.PUBLIC:
                continue
            if child.kind in CLASSES and child.is_definition():
                self.of_class(child)
            elif child.kind == CursorKind.FUNCTION_TEMPLATE:
                self.skipped.append(full_name(child))
            elif child.availability == AvailabilityKind.NOT_AVAILABLE:
                continue
            elif child.kind == CursorKind.CONSTRUCTOR:
                if not cls.is_abstract_record():
                    self.call(child, f"::new (place) ::{name}({self.arguments(child)});")
            elif child.kind == CursorKind.DESTRUCTOR:
                self.call(child, f"some<::{name}&>().::{name}::{child.spelling}();")
            elif child.kind in (CursorKind.CXX_METHOD, CursorKind.CONVERSION_FUNCTION):
                self.method(name, child)
            elif child.kind == CursorKind.VAR_DECL:
                self.call(child, f"nothing = const_cast<void*>(static_cast<const void*>(&::{name}::{child.spelling}));")

    def method(self, name, child):
        arguments = self.arguments(child)
        if child.is_static_method():
            self.call(child, f"::{name}::{child.spelling}({arguments});")
            return
        const = "const " if child.is_const_method() else ""
        qualified = "" if child.is_pure_virtual_method() else f"::{name}::"
        self.call(child, f"some<{const}::{name}&>().{qualified}{child.spelling}({arguments});")


def source_of(folder):
    """The source, how many calls are in it, and the names of the templates that are not."""
    headers = sorted(os.path.relpath(path, folder) for path in glob.glob(os.path.join(folder, "**/*.h"), recursive=True))
    everything = "".join(f'#include "{header}"\n' for header in headers)
    options = ["-x", "c++", "-std=c++20", "-I", folder]
    resources = resource_folder()
    if resources:
        options += ["-resource-dir", resources]
    name = os.path.join(folder, "everything.cpp")  # beside the headers, so that an include finds no others
    unit = cindex.Index.create().parse(name, args=options, unsaved_files=[(name, everything)])
    wrong = [str(item) for item in unit.diagnostics if item.severity >= cindex.Diagnostic.Error]
    if wrong:
        raise SystemExit("members.py: the headers cannot be read:\n" + "\n".join(wrong[:10]))
    writer = Writer(folder)
    writer.walk(unit.cursor)
    functions = "".join(f"void call{number}() {{\n  {code}\n}}\n" for number, code in enumerate(writer.calls))
    return HEAD + functions, len(writer.calls), writer.skipped


def main():
    if len(sys.argv) != 2:
        raise SystemExit("usage: members.py INCLUDE_FOLDER")
    load_library()
    source, calls, skipped = source_of(sys.argv[1])
    sys.stdout.write(source)
    print(f"{calls} members named; templates left out: {', '.join(sorted(set(skipped))) or 'none'}", file=sys.stderr)


if __name__ == "__main__":
    main()
