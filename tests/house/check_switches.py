#!/usr/bin/env python3
"""The records of the switches (docs/switches.txt) tell the truth, and the README and the manual page tell the same.

    check_switches.py names ROOT           every name that the sources ask for has a record, and no other
    check_switches.py readme ROOT          the README's two tables are those of the records
    check_switches.py write ROOT           writes them, after a change of the records
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

# A string of this shape in the sources is the name of a switch, however it is asked for.
NAME = re.compile(r'"((?:TARVANE_MEM|MEM)_[A-Z_]+|mem_[a-z_]*[a-z]|debug_msg)"')
SKIPPED = 77


def read_records(root):
    lines = (line for line in (root / "docs/switches.txt").read_text().splitlines() if not line.startswith("#"))
    for paragraph in re.split(r"\n\n+", "\n".join(lines).strip()):
        record = {name: [] for name in ("variable", "key", "default", "file", "report", "text")}
        for line in paragraph.splitlines():
            name, value = line.split(maxsplit=1)
            record[name].append(value)
        yield record


def check_names(root, records):
    told = {name for record in records for name in record["variable"] + record["key"]}
    sources = [path for path in (root / "vbx").rglob("*") if path.suffix in (".h", ".cpp")]
    asked = {name: path for path in sources for name in NAME.findall(path.read_text())}
    yield from (f"{name}: asked for in {asked[name].relative_to(root)}, without a record" for name in asked.keys() - told)
    yield from (f"{name}: a record, but nothing asks for it" for name in told - asked.keys())
    settings = (root / "vbx/mem/mem_tbb_tracker/state/settings.h").read_text()
    defaults = set(re.findall(r"MEM_DEFAULT_\w+ = (\d+);", settings))
    if defaults != {value for record in records for value in record["default"]}:
        yield f"the numbers default to {defaults}"


def quoted(names):
    return ", ".join(f"`{name}`" for name in names)


def tables(records):
    rows = {"variable": [], "number": []}
    for record in records:
        if record["report"]:
            continue
        names = f"| {quoted(record['variable'])} | {quoted(record['key'])} |".replace("|  |", "| |")
        (text,) = record["text"]
        if record["default"]:
            rows["number"].append(f"{names} {record['default'][0]}: {text} |")
        else:
            rows["variable"].append(f"{names} {'; '.join([text] + [quoted(record['file'])] * bool(record['file']))} |")
    heads = {"variable": "| variable | key | what it brings |", "number": "| number | key | default |"}
    return {heads[kind]: "\n".join([heads[kind], "|---|---|---|", *rows[kind]]) for kind in rows}


def with_tables(readme, records):
    for head, table in tables(records).items():
        readme = re.sub(rf"^{re.escape(head)}\n(\|.*\n)+", lambda _: table + "\n", readme, flags=re.MULTILINE)
    return readme


def check_readme(root, records):
    readme = (root / "README.md").read_text()
    for head, table in tables(records).items():
        yield from (f"README.md lacks: {row}" for row in table.splitlines() if row + "\n" not in readme)
    if readme != with_tables(readme, records):
        yield "README.md has rows that are not of the records"


def check_files(root, records, program):
    reports = [name for record in records for name in record["report"]]
    named = {pattern for record in records for pattern in record["file"]}
    yield from (f"{name}: no switch brings it" for name in reports if name not in named)
    for record in records:
        expected = {name for name in reports for pattern in record["file"] if fnmatch.fnmatch(name, pattern)}
        for name in record["variable"] + record["key"]:
            with tempfile.TemporaryDirectory() as folder:
                value = next(iter(record["default"]), "1")
                subprocess.run([program], cwd=folder, env={**os.environ, name: value}, timeout=60, check=True,
                               capture_output=True)
                written = {path.name.replace(f".{Path(program).name}.", ".TAG.") for path in Path(folder).iterdir()}
            if written != expected:
                yield f"{name}: writes {sorted(written)}, its record says {sorted(expected)}"


def check_page(root, records, page):
    items = re.findall(r"^\.T[PQ]\n\.B (.*)$", Path(page).read_text(), re.MULTILINE)
    items = sorted(re.sub(r"\\%|\\f.", "", item) for item in items)
    names = sorted(name for record in records for kind in ("variable", "key", "report") for name in record[kind])
    if items != names:
        yield f"the page has {items}, not {names}"
    checkers = [["mandoc", "-Tlint"], ["groff", "-ww", "-man", "-Tutf8", "-z"]]
    present = [command for command in checkers if shutil.which(command[0])]
    for command in present:
        run = subprocess.run([*command, page], capture_output=True, text=True, timeout=60)
        yield from (run.stdout + run.stderr).splitlines()
    if not present:
        print("skipped: no formatter of manual pages on this machine")
        sys.exit(SKIPPED)


CHECKS = {"names": check_names, "readme": check_readme, "files": check_files, "page": check_page}

if __name__ == "__main__":
    what, folder, *arguments = sys.argv[1:]
    root = Path(folder)
    records = list(read_records(root))
    if what == "write":
        readme = root / "README.md"
        readme.write_text(with_tables(readme.read_text(), records))
        sys.exit(0)
    found = list(CHECKS[what](root, records, *arguments))
    print("\n".join(found) or "as expected")
    sys.exit(1 if found else 0)
