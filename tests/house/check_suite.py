#!/usr/bin/env python3
"""The example suite's reports against the figures that its README tells.

    check_suite.py PROGRAM README SITES_MANUAL BINS_MANUAL

Every planted site and every step's bin has to have exactly the figures of its table, and the two libraries of the suite
no other site. The sample reports of the manual have to have them too, and the lines of a real one.
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


def run(program, folder, *switches):
    environment = dict(os.environ, TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD="1", **{
        f"TARVANE_MEM_{switch}": "1" for switch in switches})
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


def expected_bins(readme):
    """bin -> max, peak, cumulative and current bytes."""
    rows = re.findall(r"^\| (\w+::\w+) \| ([\d| -]+) \|$", readme.read_text(), re.MULTILINE)
    return {name: [int(cell) for cell in cells.split("|")] for name, cells in rows}


def statistics_rows(text, title):
    """The rows of one table of bin or tag statistics, down to the first line that is none."""
    rows = {}
    for line in text.partition(f"{title}\n\nName\t")[2].splitlines()[1:]:
        cells = line.split("\t")
        if len(cells) != 5:
            break
        rows[cells[0]] = cells[1:]
    return rows


def compare_bins(expected, text, whose):
    """Every block is charged to one bin and to one tag; both tables in MiB show what those in bytes show."""
    title = "Memory Tracking - Profile {} Stats"
    bins, tags = ({name: [int(cell) for cell in row] for name, row in statistics_rows(text, title.format(kind)).items()}
                  for kind in ("Bin", "Tag"))
    for name, figures in expected.items():
        if bins.get(name) != figures:
            yield f"{whose}: bin {name}: expected {figures}, found {bins.get(name)}"
    for column in (2, 3):
        sums = [sum(row[column] for row in table.values()) for table in (bins, tags)]
        if sums[0] != sums[1] or sums[0] == 0:
            yield f"{whose}: column {column} of the bins adds up to {sums[0]}, of the tags to {sums[1]}"
    for kind, table in (("Bin", bins), ("Tag", tags)):
        shown = statistics_rows(text, title.format(kind) + " (MiB)")
        wanted = {name: [f"{figure / 1048576:.3f}" for figure in row] for name, row in table.items()}
        if shown and shown != wanted:
            yield f"{whose}: {kind} table in MiB: expected {wanted}, found {shown}"
    if list(tags) != ["Root", "input", "search", "index"]:
        yield f"{whose}: tags are {list(tags)}"


def check_sites(program, readme, manual):
    expected = expected_sites(readme)
    if len(expected) != 6:
        return [f"the table of {readme} has {len(expected)} sites that can be read"]
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        found = list(run(program, folder, "PROFILE_PER_FILELINE", "CHECK_LEAKS"))
        if not found:
            found += compare_manual(expected, manual, folder / "mem_tbb_fileline.word_index.log")
            found += compare_sites(expected, reported_sites(folder / "mem_tbb_fileline.word_index.log"))
            found += compare_modules(expected, folder / "mem_tbb_subsystem.word_index.log")
            found += compare_leaks(expected, folder / "mem_tbb_leak_warning.word_index.log")
    return found


def check_bins(program, readme, manual):
    expected = expected_bins(readme)
    if len(expected) != 5:
        return [f"the table of {readme} has {len(expected)} bins that can be read"]
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        found = list(run(program, folder, "PROFILE_BIN_TAG_PLOT", "PROFILE_PER_BIN"))
        if not found:
            prefixes = ("pbin_stats", "pbin_tag_stats", "pbin_stats_mb", "pbin_tag_stats_mb")
            reports = [folder / f"mem_tbb_{prefix}.word_index.log" for prefix in prefixes]
            found += [f"{report.name} is missing" for report in reports if not report.exists()]
        if not found:
            found += compare_bins(expected, "\n".join(report.read_text() for report in reports), "the run")
            found += compare_bins(expected, manual.read_text(), manual)
    return found


def main(program, readme, sites_manual, bins_manual):
    found = check_sites(program, readme, sites_manual) + check_bins(program, readme, bins_manual)
    print("\n".join(found) or "every planted site and every step's bin as expected")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], *map(Path, sys.argv[2:])))
