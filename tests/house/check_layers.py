#!/usr/bin/env python3
"""The layer rule: no include points up, none goes in a circle. The order is the list in vbx/README.md.

    check_layers.py ROOT    prints each breach and exits with 1 if there are any
"""
import os
import re
import sys
from graphlib import CycleError, TopologicalSorter
from pathlib import Path

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(?:"([^"]+)"|<(vbx/[^>]+)>)', re.MULTILINE)
PUBLIC = "include"


def layer_of(path, layers):
    """The longest listed folder that holds the file; None when there is none."""
    longest = max((layer for layer in layers if path.startswith(layer + "/")), key=len, default=None)
    # Files of the folder on top lie directly in it: a new folder beside them has to be listed.
    return None if longest == "vbx/mem" and path.count("/") > 2 else longest


def read_includes(root):
    """path -> the included files of ours; headers of the system and of dependencies are passed over."""
    graph = {}
    for file in sorted(file for top in ("vbx", PUBLIC) for file in (root / top).rglob("*") if file.suffix in (".h", ".cpp")):
        path = file.relative_to(root).as_posix()
        names = [quoted or angled for quoted, angled in INCLUDE.findall(file.read_text())]
        candidates = ([os.path.normpath(os.path.join(folder, name)) for folder in ("", PUBLIC, os.path.dirname(path))]
                      for name in names)
        graph[path] = [target for found in candidates for target in found if (root / target).is_file()]
    return graph


def breaches_of_order(graph, layers):
    for path, targets in graph.items():
        own = layer_of(path, layers)
        if own is None:
            yield f"{path}: its folder is not listed in vbx/README.md"
            continue
        for target in targets:
            other = layer_of(target, layers)
            if other is not None and layers.index(other) > layers.index(own):
                yield f"{path}: includes {target}, which stands above it"


def circles(graph):
    try:
        TopologicalSorter(graph).prepare()
    except CycleError as error:
        yield "a circle: " + " <- ".join(error.args[1])


def check(root):
    # The first words of the lines of the README's first fenced block, bottom first.
    block = (root / "vbx/README.md").read_text().split("```")[1]
    layers = [PUBLIC] + [line.split()[0] for line in block.splitlines() if line.strip()]
    graph = read_includes(root)
    if not graph:
        return [f"no sources below {root}"]
    return [*breaches_of_order(graph, layers), *circles(graph)]


if __name__ == "__main__":
    found = check(Path(sys.argv[1]))
    print("\n".join(found) or "every include points down")
    sys.exit(1 if found else 0)
