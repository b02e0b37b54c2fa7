#!/usr/bin/env python3
"""The example suite's reports against the figures that its README tells.

    check_suite.py PROGRAM README MANUAL

Every planted site has to have exactly the figures of the table, and the two libraries of the suite no other site. The
sample report of the manual has to have them too, and the lines of a real one.
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

COMPLETE_MODULES = {"text_source", "word_table"}
LEAKING_FUNCTION = "text_open_archive"


def expected_sites(readme):
    """(module, function) -> the ten figures in the order of the report."""
    rows = re.findall(r"^\| (\w+) \| (\w+) \| ([\d| -]+) \|$", readme.read_text(), re.MULTILINE)
    return {(module, function): [int(cell) for cell in cells.split("|")] for module, function, cells in rows}


def reported_sites(report):
    """Likewise, from the per-site report; sites of one function are added up, the table has one row for them."""
    sites = {}
    for line in report.read_text().splitlines()[3:]:
        cells = line.split("\t")
        if len(cells) != 15 or cells[0] in ("OTHER", "Address"):
            continue
        function = re.sub(r"\(.*", "", cells[14].replace("(anonymous namespace)::", ""))
        key = (cells[11], function)
        sites[key] = [a + int(b) for a, b in zip(sites.get(key, [0] * 10), cells[1:11])]
    return sites


def source_lines(report):
    """(function, base name of the file, line) of every site."""
    rows = [line.split("\t") for line in report.read_text().splitlines()]
    return {(row[14], row[12].split("/")[-1], row[13]) for row in rows[3:] if len(row) == 15}


def run(program, folder):
    environment = dict(os.environ, TARVANE_MEM_PROFILE_PER_FILELINE="1", TARVANE_MEM_CHECK_LEAKS="1",
                       TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD="1")
    result = subprocess.run([program], cwd=folder, env=environment, capture_output=True, text=True, timeout=60)
    if result.returncode != 0 or "640 words in 64 documents" not in result.stdout or result.stderr:
        yield f"status {result.returncode}, output {result.stdout!r}, errors {result.stderr!r}"


def compare_sites(expected, reported):
    for key, figures in expected.items():
        if reported.get(key) != figures:
            yield f"{key}: expected {figures}, reported {reported.get(key)}"
    for key in reported:
        if key[0] in COMPLETE_MODULES and key not in expected:
            yield f"{key}: a site that is not planted"


def compare_modules(expected, report):
    """The row of a module is the sum of its sites; it has no maxima."""
    rows = [line.split("\t") for line in report.read_text().splitlines()]
    reported = {row[0]: [int(cell) for cell in row[1:]] for row in rows if row[0] in COMPLETE_MODULES}
    for module in COMPLETE_MODULES:
        sites = [figures for (name, _), figures in expected.items() if name == module]
        sums = [sum(column) for column in zip(*sites)]
        wanted = [sums[index] for index in (0, 2, 3, 4, 5, 6, 8, 9)]
        if reported.get(module) != wanted:
            yield f"module {module}: expected {wanted}, reported {reported.get(module)}"


def compare_leaks(expected, report):
    (leak,) = [figures for (_, function), figures in expected.items() if function == LEAKING_FUNCTION]
    wanted = rf"^text_source leaked {leak[0]} bytes in {leak[6]} object\(s\) allocated at .*/text_source\.cpp:\d+ "
    lines = re.findall(r"^(?:text_source|word_table) leaked.*$", report.read_text(), re.MULTILINE)
    if len(lines) != 1 or not re.match(wanted, lines[0]):
        yield f"expected one leak of {leak[0]} bytes, reported {lines}"


def compare_manual(expected, manual, report):
    yield from compare_sites(expected, reported_sites(manual))
    headings = {row for row in source_lines(manual) if row[0] == "Function"}
    for row in source_lines(manual) - source_lines(report) - headings:
        yield f"{manual}: its sample has {row}, a run has not"


def main(program, readme, manual):
    expected = expected_sites(readme)
    if len(expected) != 6:
        print(f"the table of {readme} has {len(expected)} sites that can be read")
        return 1
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        found = list(run(program, folder))
        if not found:
            found += compare_manual(expected, manual, folder / "mem_tbb_fileline.word_index.log")
            found += compare_sites(expected, reported_sites(folder / "mem_tbb_fileline.word_index.log"))
            found += compare_modules(expected, folder / "mem_tbb_subsystem.word_index.log")
            found += compare_leaks(expected, folder / "mem_tbb_leak_warning.word_index.log")
    print("\n".join(found) or "every planted site as expected")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], Path(sys.argv[2]), Path(sys.argv[3])))
