#!/usr/bin/env python3
"""Checks that every #include in platform/ and plexa/ runs down the layers of cmake/layers.txt.

    check-layers.py [ROOT]            fails, listing each include that runs against the order
    check-layers.py --graph [ROOT]    prints which folder includes which, and the cycles among them
    check-layers.py --self-test       checks the checker on a small made-up tree

A folder may include its own headers and those of the floors below it. It may not include a
neighbour on its own floor, a floor above, the folders above all floors (tools/, bench/, tests/,
fuzz/, examples/), or anything through "../", which would hide where the header lives. Every
folder of platform/ and plexa/ must have a floor, so that a new folder cannot slip past the check.
"""
import os
import re
import sys
import tempfile

SCANNED = ("platform", "plexa")
USERS_OF_EVERYTHING = ("tools", "bench", "tests", "fuzz", "examples")
SOURCE_SUFFIXES = (".cpp", ".hpp", ".h", ".hpp.in")
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]')


def read_floors(root):
    """{folder: floor number}, folders as "plexa/net" or "platform/bastion", lowest floor 0."""
    floors = {}
    with open(os.path.join(root, "cmake", "layers.txt")) as f:
        lines = [line.split("#", 1)[0].split() for line in f]
    for number, folders in enumerate(line for line in lines if line):
        for folder in folders:
            floors[folder] = number
    return floors


def include_prefix(folder):
    """The prefix a folder's headers are included under: "bastion/" or "plexa/net/"."""
    return folder.split("/", 1)[1] + "/" if folder.startswith("platform/") else folder + "/"


def sources(root):
    """(folder, path relative to root) of every C++ file under the scanned trees."""
    for top in SCANNED:
        for dirpath, dirnames, filenames in os.walk(os.path.join(root, top)):
            dirnames.sort()
            for name in sorted(filenames):
                if name.endswith(SOURCE_SUFFIXES):
                    rel = os.path.relpath(os.path.join(dirpath, name), root)
                    parts = rel.split(os.sep)
                    yield ("/".join(parts[:2]) if len(parts) > 2 else top), "/".join(parts)


def includes(root, rel):
    with open(os.path.join(root, rel), encoding="utf-8", errors="replace") as f:
        for number, line in enumerate(f, 1):
            m = INCLUDE.match(line)
            if m:
                yield number, m.group(1)


def owner(path, prefixes):
    """The folder whose header `path` names, or None for a system or same-folder header."""
    for prefix, folder in prefixes:
        if path.startswith(prefix):
            return folder
    if path.startswith("plexa/"):
        return "plexa/" + path.split("/")[1]  # a folder without a floor
    return None


def check(root):
    """The faults as (file:line, message), in file order."""
    floors = read_floors(root)
    prefixes = sorted(((include_prefix(f), f) for f in floors), key=lambda p: -len(p[0]))
    faults = []
    unplaced = set()
    for folder, rel in sources(root):
        if folder not in floors:
            unplaced.add(folder)
            continue
        for number, path in includes(root, rel):
            where = "%s:%d" % (rel, number)
            target = owner(path, prefixes)
            if path.startswith("../") or "/../" in path:
                faults.append((where, '"%s" reaches out of its folder through ../' % path))
            elif path.split("/", 1)[0] in USERS_OF_EVERYTHING:
                faults.append((where, '"%s": %s/ stands above every layer' % (path, path.split("/", 1)[0])))
            elif target is None or target == folder:
                continue
            elif target not in floors:
                faults.append((where, '"%s": %s has no floor in cmake/layers.txt' % (path, target)))
            elif floors[target] == floors[folder]:
                faults.append((where, '"%s": %s and %s are neighbours on one floor' % (path, folder, target)))
            elif floors[target] > floors[folder]:
                faults.append((where, '"%s": %s sits above %s' % (path, target, folder)))
    for folder in sorted(unplaced):
        faults.append((folder, "has no floor in cmake/layers.txt"))
    return faults


def graph(root):
    """Prints the folder graph of the includes as they are, and its cycles."""
    floors = read_floors(root)
    prefixes = sorted(((include_prefix(f), f) for f in floors), key=lambda p: -len(p[0]))
    edges = {}
    for folder, rel in sources(root):
        for _, path in includes(root, rel):
            target = owner(path, prefixes)
            if target and target != folder:
                edges.setdefault(folder, {}).setdefault(target, 0)
                edges[folder][target] += 1
    for folder in sorted(edges):
        print("%-18s -> %s" % (folder, ", ".join("%s (%d)" % t for t in sorted(edges[folder].items()))))
    # Tarjan's strongly connected components: each with more than one folder is a cycle.
    index, low, stack, on_stack, cycles = {}, {}, [], set(), []

    def visit(v):
        index[v] = low[v] = len(index)
        stack.append(v)
        on_stack.add(v)
        for w in edges.get(v, {}):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on_stack:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            component = []
            while True:
                w = stack.pop()
                on_stack.discard(w)
                component.append(w)
                if w == v:
                    break
            if len(component) > 1:
                cycles.append(sorted(component))

    for v in sorted(edges):
        if v not in index:
            visit(v)
    for c in cycles:
        print("cycle: " + " <-> ".join(c))
    if not cycles:
        print("no cycles")


def self_test():
    """The checker on a made-up tree: each kind of fault is found, and nothing else."""
    files = {
        "cmake/layers.txt": "platform/low\nplexa/a plexa/b  # neighbours\nplexa/c\n",
        "platform/low/L.hpp": '#include "plexa/a/A.hpp"\n',
        "plexa/a/A.hpp": '#include "low/L.hpp"\n// #include "plexa/c/C.hpp"\n#include <QString>\n',
        "plexa/a/A.cpp": '#include "A.hpp"\n  #  include "plexa/c/C.hpp"\n',
        "plexa/a/A2.cpp": '#include "plexa/b/B.hpp"\n',
        "plexa/b/B.cpp": '#include "../c/C.hpp"\n',
        "plexa/b/BTest.cpp": '#include "tests/Helper.hpp"\n#include "plexa/e/E.hpp"\n',
        "plexa/c/C.hpp": '#include <plexa/a/A.hpp>\n#include "plexa/b/B.hpp"\n#include "low/L.hpp"\n',
        "plexa/d/D.cpp": '#include "plexa/a/A.hpp"\n',
    }
    expected = [
        ("platform/low/L.hpp:1", "plexa/a sits above platform/low"),
        ("plexa/a/A.cpp:2", "plexa/c sits above plexa/a"),
        ("plexa/a/A2.cpp:1", "plexa/a and plexa/b are neighbours"),
        ("plexa/b/B.cpp:1", "out of its folder"),
        ("plexa/b/BTest.cpp:1", "tests/ stands above every layer"),
        ("plexa/b/BTest.cpp:2", "plexa/e has no floor"),
        ("plexa/d", "has no floor"),
    ]
    with tempfile.TemporaryDirectory() as root:
        for rel, text in files.items():
            os.makedirs(os.path.dirname(os.path.join(root, rel)), exist_ok=True)
            with open(os.path.join(root, rel), "w") as f:
                f.write(text)
        faults = check(root)
    ok = len(faults) == len(expected) and all(
        where == want_where and want in message for (where, message), (want_where, want) in zip(faults, expected))
    if not ok:
        print("check-layers self-test failed; found:")
        for where, message in faults:
            print("  %s: %s" % (where, message))
    return 0 if ok else 1


def main(argv):
    if argv[:1] == ["--self-test"]:
        return self_test()
    show_graph = argv[:1] == ["--graph"]
    rest = argv[1:] if show_graph else argv
    root = rest[0] if rest else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    if show_graph:
        graph(root)
        return 0
    faults = check(root)
    for where, message in faults:
        print("%s: includes against the layers: %s" % (where, message))
    if faults:
        print("check-layers: %d include(s) run against the order in cmake/layers.txt" % len(faults))
        return 1
    print("check-layers: every include runs down the layers of cmake/layers.txt")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
