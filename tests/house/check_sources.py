#!/usr/bin/env python3
"""The state of the source files. Prints each breach and exits with 1 if there are any.

    check_sources.py layers ROOT    no include points up, none goes in a circle; the order is the list in vbx/README.md
    check_sources.py size ROOT      no file is longer than 600 lines
    check_sources.py paths ROOT     no file mentions a folder of somebody's machine
    check_sources.py format ROOT    clang-format would change nothing; 77 when there is no clang-format
"""
import os
import re
import shutil
import subprocess
import sys
from graphlib import CycleError, TopologicalSorter
from pathlib import Path

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(?:"([^"]+)"|<(vbx/[^>]+)>)', re.MULTILINE)
PUBLIC = "include"
LONGEST_FILE = 600
SKIPPED = 77
SOURCES = {".h", ".cpp"}
TEXT = {*SOURCES, ".c", ".py", ".sh", ".cmake", ".txt", ".md", ".in", ".json", ".exports", ".pl", ""}
MACHINE_PATH = re.compile(r"(?<![\w$}.])/(?:work|home|root|tmp/wt-[\w-]*|tmp/briefs)/")


def files_of(root, suffixes):
    """(path below the root, lines) of all files but those of builds and of version control."""
    paths = [path for path in sorted(root.rglob("*")) if path.is_file() and path.suffix in suffixes]
    inside = [path.relative_to(root) for path in paths]
    ours = [path for path in inside if path.parts[0] != ".git" and not path.parts[0].startswith("build")]
    if not ours:
        sys.exit(f"no files below {root}: the check would look at nothing")
    return [(path.as_posix(), (root / path).read_text(errors="replace")) for path in ours]


def layer_of(path, layers):
    """The longest listed folder that holds the file; None when there is none."""
    longest = max((layer for layer in layers if path.startswith(layer + "/")), key=len, default=None)
    # Files of the folder on top lie directly in it: a new folder beside them has to be listed.
    return None if longest == "vbx/mem" and path.count("/") > 2 else longest


def includes_of(root, path, text):
    """The included files of ours; headers of the system and of dependencies are passed over."""
    for quoted, angled in INCLUDE.findall(text):
        candidates = [os.path.normpath(os.path.join(folder, quoted or angled))
                      for folder in ("", PUBLIC, os.path.dirname(path))]
        yield from (target for target in candidates if (root / target).is_file())


def check_layers(root):
    # The first words of the lines of the README's first fenced block, bottom first.
    block = (root / "vbx/README.md").read_text().split("```")[1]
    layers = [PUBLIC] + [line.split()[0] for line in block.splitlines() if line.strip()]
    graph = {path: list(includes_of(root, path, text)) for path, text in files_of(root, SOURCES)
             if path.startswith(("vbx/", PUBLIC + "/"))}
    if not any(graph.values()):
        yield "no includes found: the check has looked at nothing"
    for path, targets in graph.items():
        own = layer_of(path, layers)
        if own is None:
            yield f"{path}: its folder is not listed in vbx/README.md"
            continue
        others = ((target, layer_of(target, layers)) for target in targets)
        yield from (f"{path}: includes {target}, which stands above it" for target, other in others
                    if other is not None and layers.index(other) > layers.index(own))
    try:
        TopologicalSorter(graph).prepare()
    except CycleError as error:
        yield "a circle: " + " <- ".join(error.args[1])


def check_size(root):
    lengths = ((path, text.count("\n")) for path, text in files_of(root, TEXT))
    yield from (f"{path}: {lines} lines, more than {LONGEST_FILE}" for path, lines in lengths if lines > LONGEST_FILE)


def check_paths(root):
    for path, text in files_of(root, TEXT):
        yield from (f"{path}: {line.strip()}" for line in text.splitlines() if MACHINE_PATH.search(line))


def check_format(root):
    program = shutil.which("clang-format")
    if program is None:
        print("skipped: no clang-format on this machine")
        sys.exit(SKIPPED)
    sources = [str(root / path) for path, _ in files_of(root, SOURCES)]
    run = subprocess.run([program, "--dry-run", "-Werror", *sources], capture_output=True, text=True)
    if run.returncode != 0:
        yield run.stderr or "clang-format failed"


CHECKS = {"layers": check_layers, "size": check_size, "paths": check_paths, "format": check_format}

if __name__ == "__main__":
    found = list(CHECKS[sys.argv[1]](Path(sys.argv[2])))
    print("\n".join(found) or "as expected")
    sys.exit(1 if found else 0)
