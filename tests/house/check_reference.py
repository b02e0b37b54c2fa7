#!/usr/bin/env python3
"""Doxygen collects the reference of the public headers without a complaint, and it has all that the library exports.

    check_reference.py DOXYFILE EXPORTS
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path
from xml.etree import ElementTree

SKIPPED = 77


def exported(file):
    """Functions and variables by their names, members by those of their classes."""
    lines = [line for line in file.read_text().splitlines() if not re.match(r"(typeinfo|vtable)\b", line)]
    return {re.sub(r"\[abi:\w+\]", "", re.split(r"\(|::", line)[0]) for line in lines}


def main(doxyfile, exports):
    if shutil.which("doxygen") is None:
        print("skipped: no doxygen on this machine")
        return SKIPPED
    with tempfile.TemporaryDirectory() as folder:
        own = f"\nOUTPUT_DIRECTORY = {folder}\nGENERATE_TAGFILE = {folder}/tags\n"
        run = subprocess.run(["doxygen", "-"], input=doxyfile.read_text() + own, capture_output=True, text=True, timeout=120,
                             env=dict(os.environ, PYTHONDONTWRITEBYTECODE="1"))
        found = (run.stdout + run.stderr).splitlines()
        if run.returncode != 0:
            found.append(f"status {run.returncode}")
        names = {name.text for name in ElementTree.parse(f"{folder}/tags").iter("name")}
    found += [f"{name}: exported, but not in the reference" for name in sorted(exported(exports) - names)]
    print("\n".join(found) or f"{len(names)} names, no complaint")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(*map(Path, sys.argv[1:])))
