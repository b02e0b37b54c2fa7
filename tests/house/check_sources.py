#!/usr/bin/env python3
"""The state of the source files.

    check_sources.py size ROOT      no file is longer than 600 lines
    check_sources.py paths ROOT     no file mentions a folder of somebody's machine
    check_sources.py format ROOT    clang-format would change nothing; 77 when there is no clang-format
"""
import re
import shutil
import subprocess
import sys
from pathlib import Path

LONGEST_FILE = 600
SKIPPED = 77
TEXT = {".h", ".cpp", ".c", ".py", ".sh", ".cmake", ".txt", ".md", ".in", ".json", ".exports", ".pl", ""}
MACHINE_PATH = re.compile(r"(?<![\w$}.])/(?:work|home|root|tmp/wt-[\w-]*|tmp/briefs)/")


def files_of(root, suffixes):
    """All files but those of builds and of version control."""
    for path in sorted(root.rglob("*")):
        top = path.relative_to(root).parts[0]
        if path.is_file() and path.suffix in suffixes and top != ".git" and not top.startswith("build"):
            yield path


def check_size(root):
    for path in files_of(root, TEXT):
        lines = path.read_text(errors="replace").count("\n")
        if lines > LONGEST_FILE:
            yield f"{path.relative_to(root)}: {lines} lines, more than {LONGEST_FILE}"


def check_paths(root):
    for path in files_of(root, TEXT):
        for number, line in enumerate(path.read_text(errors="replace").splitlines(), 1):
            if MACHINE_PATH.search(line):
                yield f"{path.relative_to(root)}:{number}: {line.strip()}"


def check_format(root):
    program = shutil.which("clang-format")
    if program is None:
        print("skipped: no clang-format on this machine")
        sys.exit(SKIPPED)
    sources = [str(path) for path in files_of(root, {".h", ".cpp"})]
    run = subprocess.run([program, "--dry-run", "-Werror", *sources], capture_output=True, text=True)
    complaints = [line for line in run.stderr.splitlines() if "error:" in line]
    return complaints or ([run.stderr or "clang-format failed"] if run.returncode else [])


CHECKS = {"size": check_size, "paths": check_paths, "format": check_format}

if __name__ == "__main__":
    found = list(CHECKS[sys.argv[1]](Path(sys.argv[2])))
    print("\n".join(found) or "nothing found")
    sys.exit(1 if found else 0)
