#!/usr/bin/env python3
"""The records of the switches, docs/switches.txt, and the two tables of the README that are made of them.

    switches.py ROOT    writes the tables, after a change of the records
"""
import re
import sys
from pathlib import Path

FIELDS = ("variable", "key", "default", "file", "report", "text")
HEADS = {"switch": "| variable | key | what it brings |", "number": "| number | key | default |"}


def read_records(root):
    """Each record as a dictionary of lists, with all fields; a field that it doesn't have is empty."""
    lines = (line for line in (root / "docs/switches.txt").read_text().splitlines() if not line.startswith("#"))
    for paragraph in re.split(r"\n\n+", "\n".join(lines).strip()):
        record = {field: [] for field in FIELDS}
        for line in paragraph.splitlines():
            field, value = line.split(maxsplit=1)
            record[field].append(value)
        yield record


def quoted(names):
    return ", ".join(f"`{name}`" for name in names)


def row(record):
    names = f"| {quoted(record['variable'])} | {quoted(record['key'])} |".replace("|  |", "| |")
    (text,) = record["text"]
    if record["default"]:
        return f"{names} {record['default'][0]}: {text} |"
    return f"{names} {'; '.join(filter(None, [text, quoted(record['file'])]))} |"


def with_tables(readme, records):
    """The text of the README with the rows of its tables replaced by those of the records."""
    records = [record for record in records if not record["report"]]
    for kind, head in HEADS.items():
        rows = [row(record) for record in records if bool(record["default"]) == (kind == "number")]
        table = "\n".join([head, "|---|---|---|", *rows, ""])
        readme, found = re.subn(rf"^{re.escape(head)}\n(\|.*\n)+", lambda _: table, readme, flags=re.MULTILINE)
        if found != 1:
            raise SystemExit(f"{found} tables '{head}' in the README")
    return readme


if __name__ == "__main__":
    folder = Path(sys.argv[1])
    readme = folder / "README.md"
    readme.write_text(with_tables(readme.read_text(), read_records(folder)))
