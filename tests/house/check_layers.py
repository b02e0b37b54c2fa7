#!/usr/bin/env python3
"""The layer rule: no include points up, none goes in a circle. The order is the list in vbx/README.md.

    check_layers.py ROOT    prints each breach and exits with 1 if there are any
"""
import os
import re
import sys
from pathlib import Path

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(?:"([^"]+)"|<(vbx/[^>]+)>)', re.MULTILINE)
PUBLIC = "include"


def layers_of(readme):
    """The first words of the lines of the first fenced block, bottom first."""
    block = readme.read_text().split("```")[1]
    return [line.split()[0] for line in block.splitlines() if line.strip()]


def layer_of(path, layers):
    """The longest listed folder that holds the file; None when there is none."""
    if path.startswith(PUBLIC + "/"):
        return PUBLIC
    holders = [layer for layer in layers if path.startswith(layer + "/")]
    longest = max(holders, key=len, default=None)
    # Files of the folder on top lie directly in it: a new folder beside them has to be listed.
    if longest == "vbx/mem" and path.count("/") > 2:
        return None
    return longest


def find_included(root, includer, name):
    """The path of an included file of ours, else None (a header of the system or of a dependency)."""
    for folder in ("", PUBLIC, os.path.dirname(includer)):
        candidate = os.path.normpath(os.path.join(folder, name))
        if (root / candidate).is_file():
            return candidate
    return None


def read_includes(root):
    graph = {}
    for top in ("vbx", PUBLIC):
        for file in sorted((root / top).rglob("*")):
            if file.suffix in (".h", ".cpp"):
                path = file.relative_to(root).as_posix()
                names = [quoted or angled for quoted, angled in INCLUDE.findall(file.read_text())]
                found = (find_included(root, path, name) for name in names)
                graph[path] = [target for target in found if target]
    return graph


def breaches_of_order(graph, layers):
    rank = {layer: index for index, layer in enumerate([PUBLIC] + layers)}
    for path, targets in graph.items():
        own = layer_of(path, layers)
        if own is None:
            yield f"{path}: its folder is not listed in vbx/README.md"
            continue
        for target in targets:
            other = layer_of(target, layers)
            if other is not None and rank[other] > rank[own]:
                yield f"{path}: includes {target}, which stands above it"


def circles(graph):
    done, under_way = set(), []

    def visit(path):
        if path in under_way:
            yield "a circle: " + " -> ".join(under_way[under_way.index(path):] + [path])
        if path in done or path in under_way:
            return
        under_way.append(path)
        for target in graph.get(path, []):
            yield from visit(target)
        done.add(under_way.pop())

    for path in graph:
        yield from visit(path)


def check(root):
    layers = layers_of(root / "vbx/README.md")
    graph = read_includes(root)
    if not graph:
        return [f"no sources below {root}"]
    return [*breaches_of_order(graph, layers), *circles(graph)]


if __name__ == "__main__":
    found = check(Path(sys.argv[1]))
    print("\n".join(found) or "every include points down")
    sys.exit(1 if found else 0)
