#!/usr/bin/env python3
"""Fails when a file of src/ includes a header of a directory above its own.

The layer order is the diagram under "## Layers" in docs/ARCHITECTURE.md: one directory per line,
top layer first, the directory name as the first word. A file in src/<dir>/ may include headers of
its own directory and of the directories below it, either private ("http/connection.h") or public
("tarnwick/http.h": a public header belongs to the directory of the same name). tarnwick/export.h
and tarnwick/types.h belong to no layer; the umbrella tarnwick/upnp.h is for hosts, never for
src/. Public headers follow the same order among themselves. A strict order has no cycles.

usage: check_layers.py [ROOT]      (ROOT defaults to the repository this script lives in)
"""
import os
import re
import sys

SHARED = {"export", "types"}
UMBRELLA = "upnp"
SOURCE_EXT = (".c", ".cc", ".cpp", ".h", ".hpp")
INCLUDE = re.compile(r'^\s*#\s*include\s+[<"]([^">]+)[">]')


def read_order(root):
    path = os.path.join(root, "docs", "ARCHITECTURE.md")
    with open(path, encoding="utf-8") as f:
        lines = f.read().splitlines()
    try:
        start = lines.index("## Layers")
    except ValueError:
        sys.exit("check_layers: %s has no '## Layers' section" % path)
    order, in_block = [], False
    for line in lines[start + 1:]:
        if line.startswith("```"):
            if in_block:
                break
            in_block = True
            continue
        if in_block and line.strip():
            order.append(line.split()[0])
    if not order:
        sys.exit("check_layers: no layer diagram under '## Layers' in %s" % path)
    order.reverse()  # the diagram shows the top layer first
    return {name: rank for rank, name in enumerate(order)}


def owner_of(target, file_dir, src):
    """The directory a quoted or angled include belongs to, None for shared or system headers."""
    if target.startswith("tarnwick/"):
        return "public:" + os.path.splitext(os.path.basename(target))[0]
    first = target.split("/")[0]
    if "/" in target and os.path.isdir(os.path.join(src, first)):
        return first
    resolved = os.path.normpath(os.path.join(file_dir, target))
    rel = os.path.relpath(resolved, src)
    if not rel.startswith("..") and os.path.exists(resolved):
        return rel.split(os.sep)[0]
    return None


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else
                           os.path.join(os.path.dirname(__file__), ".."))
    src = os.path.join(root, "src")
    rank = read_order(root)
    problems, files, includes = [], 0, 0

    dirs = sorted(d for d in os.listdir(src) if os.path.isdir(os.path.join(src, d)))
    for d in dirs:
        if d not in rank:
            problems.append("src/%s/ is not in the layer diagram of docs/ARCHITECTURE.md" % d)

    def check(path, own, layer_of_public):
        nonlocal files, includes
        files += 1
        with open(path, encoding="utf-8", errors="replace") as f:
            for number, line in enumerate(f, 1):
                m = INCLUDE.match(line)
                if not m:
                    continue
                target = m.group(1)
                owner = owner_of(target, os.path.dirname(path), src)
                if owner is None:
                    continue
                includes += 1
                where = "%s:%d" % (os.path.relpath(path, root), number)
                if owner.startswith("public:"):
                    name = owner[len("public:"):]
                    if name in SHARED:
                        continue
                    if name == UMBRELLA:
                        if not layer_of_public or own != UMBRELLA:
                            problems.append("%s: includes the umbrella %s" % (where, target))
                        continue
                    if name not in rank:
                        problems.append("%s: %s belongs to no layer" % (where, target))
                        continue
                    owner = name
                if own in (UMBRELLA,) or owner == own:
                    continue
                if own in SHARED:
                    problems.append("%s: shared header includes %s" % (where, target))
                elif owner not in rank:
                    problems.append("%s: %s belongs to no layer" % (where, target))
                elif rank[owner] > rank[own]:
                    problems.append("%s: includes %s, but layer '%s' is above '%s'" %
                                    (where, target, owner, own))

    for d in dirs:
        for base, _, names in os.walk(os.path.join(src, d)):
            for name in sorted(names):
                if name.endswith(SOURCE_EXT):
                    check(os.path.join(base, name), d, False)
    public = os.path.join(root, "include", "tarnwick")
    if os.path.isdir(public):
        for name in sorted(os.listdir(public)):
            stem = os.path.splitext(name)[0]
            if not name.endswith(".h"):
                continue
            if stem not in rank and stem not in SHARED and stem != UMBRELLA:
                problems.append("include/tarnwick/%s belongs to no layer" % name)
                continue
            check(os.path.join(public, name), stem, True)

    for p in problems:
        print(p)
    if problems:
        print("check_layers: %d violation(s) of the layer order in docs/ARCHITECTURE.md" %
              len(problems))
        return 1
    order = sorted(rank, key=rank.get)
    print("check_layers: %d files, %d project includes, all downward (%s)" %
          (files, includes, " < ".join(order)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
