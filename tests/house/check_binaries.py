#!/usr/bin/env python3
"""What the built libraries promise to the loader and to their users.

    check_binaries.py exports LIBRARY LIST    the exported symbols are those of the list
    check_binaries.py elf LIBRARY FLAGS NEEDED
                                              the loader flags and the libraries needed, comma separated
"""
import difflib
import re
import subprocess
import sys
from pathlib import Path


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def exported_symbols(library):
    """Demangled names, sorted; the nodes of the version script ("A") are no symbols."""
    lines = output_of("nm", "-D", "--defined-only", "-C", library).splitlines()
    rows = [line.split(maxsplit=2) for line in lines]
    return sorted({row[2] for row in rows if row[1] != "A"})


def check_exports(library, list_file):
    expected = Path(list_file).read_text().splitlines()
    return list(difflib.unified_diff(expected, exported_symbols(library), list_file, library, lineterm="", n=0))


def check_elf(library, flags, needed):
    dynamic = output_of("readelf", "-dW", library)
    segments = output_of("readelf", "-lW", library)
    own_flags = set(re.search(r"\(FLAGS_1\)\s+Flags: (.*)", dynamic).group(1).split())
    own_needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    # Versions are those of the packages; what counts is which libraries come into every process.
    own_needed = [name.split(".so")[0] for name in own_needed]
    if own_flags != set(flags.split(",")):
        yield f"flags are {sorted(own_flags)}, not {sorted(flags.split(','))}"
    if sorted(own_needed) != sorted(needed.split(",")):
        yield f"needs {sorted(own_needed)}, not {sorted(needed.split(','))}"
    if "TEXTREL" in dynamic:
        yield "has relocations in its code"
    if re.search(r"GNU_STACK.*RWE", segments):
        yield "asks for an executable stack"


if __name__ == "__main__":
    what, *arguments = sys.argv[1:]
    found = list({"exports": check_exports, "elf": check_elf}[what](*arguments))
    print("\n".join(found) or "as expected")
    sys.exit(1 if found else 0)
