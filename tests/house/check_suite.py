#!/usr/bin/env python3
"""The example suite's reports against the figures that its README tells.

    check_suite.py PROGRAM README MANUALS

Every planted site and every step's bin has to have exactly the figures of its table, and the two libraries of the suite
no other site. The sample reports of the manuals (a folder) have to have them too, and the lines of a real one. The
timelines' samples have a real one's columns, and what the suite holds at its end.
"""
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

COMPLETE_MODULES = ("text_source", "word_table")
SWITCHES = ("PROFILE_PER_FILELINE", "PROFILE_BIN_TAG_PLOT", "PROFILE_PER_BIN",
            "PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD", "PROFILE_PER_LIBRARY", "PROFILE_AUXILIARY_TIMELINE")


def planted(readme, key, count):
    """The rows of the README's table whose first columns match: key -> figures."""
    rows = re.findall(rf"^\| {key} \| ([\d| -]+) \|$", readme.read_text(), re.MULTILINE)
    if len(rows) != count:
        raise SystemExit(f"{readme}: {len(rows)} rows of figures that can be read, not {count}")
    return {row[:-1]: [int(cell) for cell in row[-1].split("|")] for row in rows}


def site_rows(report):
    rows = [line.split("\t") for line in report.read_text().splitlines()[3:]]
    return [row for row in rows if len(row) == 15 and row[0] not in ("OTHER", "Address")]


def sites_of(report):
    """(module, function) -> figures; sites of one function are added up, the table has one row for them."""
    sites = {}
    for row in site_rows(report):
        key = (row[11], re.sub(r"\(.*", "", row[14].replace("(anonymous namespace)::", "")))
        sites[key] = [a + int(b) for a, b in zip(sites.get(key, [0] * 10), row[1:11])]
    return sites


def source_lines(report):
    return {(row[14], Path(row[12]).name, row[13]) for row in site_rows(report)}


def compare_sites(expected, report):
    reported = sites_of(report)
    for key in {*expected, *(key for key in reported if key[0] in COMPLETE_MODULES)}:
        if reported.get(key) != expected.get(key):
            yield f"{report}: {key}: expected {expected.get(key)}, reported {reported.get(key)}"


def statistics(text, title):
    """The rows of one table of bin or tag statistics, down to the first line that is none."""
    rows = {}
    for line in text.partition(f"{title}\n\nName\t")[2].splitlines()[1:]:
        name, *cells = line.split("\t")
        if len(cells) != 4:
            break
        rows[name] = [int(cell) for cell in cells]
    return rows


def compare_bins(expected, text, whose):
    """Every block is charged to one bin and to one tag."""
    tables = {kind: statistics(text, f"Memory Tracking - Profile {kind} Stats") for kind in ("Bin", "Tag")}
    for (name,), figures in expected.items():
        if tables["Bin"].get(name) != figures:
            yield f"{whose}: bin {name}: expected {figures}, found {tables['Bin'].get(name)}"
    bins, tags = ([sum(row[column] for row in tables[kind].values()) for column in (2, 3)] for kind in tables)
    if bins != tags or 0 in bins or list(tables["Tag"]) != ["Root", "input", "search", "index"]:
        yield f"{whose}: the bins add up to {bins}, the tags {list(tables['Tag'])} to {tags}"


def timeline(text):
    """Title, names of the columns, column -> cell of the last row."""
    title, _, names, *rows = text.splitlines()
    names, rows = names.split("\t"), [row.split("\t") for row in rows if not row.startswith("Time spent")]
    if any(len(row) != len(names) for row in rows):
        raise SystemExit(f"{title}: a row has another number of cells than {names}")
    return title, names, dict(zip(names, rows[-1]))


def compare_timeline(manual, report, steady=()):
    """`steady` columns end on the same figures in every run."""
    title, names, last = timeline(report.read_text())
    samples = [timeline(sample) for sample in re.findall("^```\n(MEM: .*?)^```", manual.read_text(), re.S | re.M)]
    samples = [sample for sample in samples if sample[:2] == (title, names)]
    if len(samples) != 1:
        yield f"{manual}: {len(samples)} samples with the columns {names}"
        return
    shown = samples[0][2]
    yield from (f"{manual}: {name} ends at {shown[name]}, in the run at {last[name]}"
                for name in steady if shown[name] != last[name])


def main(program, readme, manuals):
    sites_manual, bins_manual = manuals / "reports-sites-and-leaks.md", manuals / "report-bin-tag-statistics.md"
    sites = planted(readme, r"(\w+) \| (\w+)", 6)
    bins = planted(readme, r"(\w+::\w+)", 5)
    with tempfile.TemporaryDirectory() as folder:
        environment = dict(os.environ, **{f"TARVANE_MEM_{switch}": "1" for switch in SWITCHES})
        run = subprocess.run([program], cwd=folder, env=environment, capture_output=True, text=True, timeout=60)
        if run.returncode != 0 or "640 words in 64 documents" not in run.stdout or run.stderr:
            raise SystemExit(f"status {run.returncode}, output {run.stdout!r}, errors {run.stderr!r}")
        report = {file.name.split(".")[0]: file for file in Path(folder).glob("mem_tbb_*.word_index.log")}
        fileline = report["mem_tbb_fileline"]
        found = [*compare_sites(sites, fileline), *compare_sites(sites, sites_manual)]
        found += [f"the manual's sample has {row}, a run has not"
                  for row in source_lines(sites_manual) - source_lines(fileline)]
        tables = [report[f"mem_tbb_pbin_{kind}"].read_text() for kind in ("stats", "tag_stats")]
        found += [*compare_bins(bins, "\n".join(tables), "the run"),
                  *compare_bins(bins, bins_manual.read_text(), "the manual")]
        modules = manuals / "report-module-timeline.md"
        for kind in ("timeline", "timeline_detailed"):
            found += compare_timeline(modules, report[f"mem_tbb_{kind}"], COMPLETE_MODULES)
        found += compare_timeline(manuals / "report-bin-tag-timeline.md", report["mem_tbb_pbin_tag_timeline_detailed"],
                                  ("input", "search", "index"))
        found += compare_timeline(manuals / "report-auxiliary-timeline.md", report["mem_tbb_auxiliary_timeline"])
    print("\n".join(found) or "every planted site and every step's bin as expected")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], *map(Path, sys.argv[2:])))
