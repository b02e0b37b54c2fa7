#!/usr/bin/env python3
"""The records of the switches (docs/switches.txt) tell the truth, and the README and the manual page tell the same.

    check_switches.py names ROOT           every name that the sources ask for has a record, and no other; names that
                                           the sources ask for together stand together
    check_switches.py readme ROOT          the README's tables are those of scripts/switches.py
    check_switches.py files ROOT PROGRAM   each switch brings the reports of its record, by each of its names
    check_switches.py page ROOT PAGE       the manual page has all names and no fault that its formatters know of
"""
import fnmatch
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.append(str(Path(__file__).parents[2] / "scripts"))
from switches import read_records, with_tables

# A string of this shape in the sources is the name of a switch, however it is asked for.
NAME = re.compile(r'"((?:TARVANE_MEM|MEM)_[A-Z_]+|mem_[a-z_]*[a-z]|debug_msg)"')
# A variable and its keys, side by side.
ROW = re.compile(r'"((?:TARVANE_)?MEM_[A-Z_]+)",\s*"(mem_[a-z_]+)"(?:,\s*"(mem_[a-z_]+)")?')


def check_names(root, records):
    sources = [path.read_text() for path in (root / "vbx").rglob("*") if path.suffix in (".h", ".cpp")]
    defaults = re.findall(r"MEM_DEFAULT_\w+ = (\d+);", (root / "vbx/mem/mem_tbb_tracker/state/settings.h").read_text())
    asked = {*defaults, *(name for text in sources for name in NAME.findall(text))}
    told = {name for record in records for field in ("variable", "key", "default") for name in record[field]}
    yield from (f"{name}: in the sources, without a record" for name in asked - told)
    yield from (f"{name}: a record, but not in the sources" for name in told - asked)
    rows = {" ".join(filter(None, row)) for text in sources for row in ROW.findall(text)}
    told_rows = {" ".join(record["variable"] + record["key"]) for record in records
                 if record["variable"] and record["key"]}
    yield from (f"{row}: together in the sources or in a record alone" for row in sorted(rows ^ told_rows))


def check_readme(root, records):
    readme = (root / "README.md").read_text()
    if readme != with_tables(readme, records):
        yield "README.md: its tables are not those of the records; scripts/switches.py writes them"


def check_files(root, records, program):
    reports = [name for record in records for name in record["report"]]
    for record in records:
        expected = {name for pattern in record["file"] for name in fnmatch.filter(reports, pattern)}
        for name in record["variable"] + record["key"]:
            with tempfile.TemporaryDirectory() as folder:
                environment = {**os.environ, name: next(iter(record["default"]), "1")}
                subprocess.run([program], cwd=folder, env=environment, timeout=60, check=True, capture_output=True)
                written = {path.name.replace(f".{Path(program).name}.", ".TAG.") for path in Path(folder).iterdir()}
            if written != expected:
                yield f"{name}: writes {sorted(written)}, its record says {sorted(expected)}"


def check_page(root, records, page):
    items = re.findall(r"^\.T[PQ]\n\.B (.*)$", Path(page).read_text(), re.MULTILINE)
    items = sorted(re.sub(r"\\%|\\f.", "", item) for item in items)
    names = sorted(name for record in records for field in ("variable", "key", "report") for name in record[field])
    if items != names:
        yield f"the page has {items}, not {names}"
    for command in (["mandoc", "-Tlint"], ["groff", "-ww", "-man", "-Tutf8", "-z"]):
        if shutil.which(command[0]):
            run = subprocess.run([*command, page], capture_output=True, text=True, timeout=60)
            yield from (run.stdout + run.stderr).splitlines()


CHECKS = {"names": check_names, "readme": check_readme, "files": check_files, "page": check_page}

if __name__ == "__main__":
    what, root, *arguments = sys.argv[1:]
    found = list(CHECKS[what](Path(root), list(read_records(Path(root))), *arguments))
    print("\n".join(found) or "as expected")
    sys.exit(1 if found else 0)
