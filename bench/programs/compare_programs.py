#!/usr/bin/env python3
"""Whole programs with the library and without, beside other heap profilers: time, memory and goals, as one table.

    compare_programs.py BUILD_FOLDER [--rounds N] [--only PROGRAM...] [--against VARIANT...] [--clock wall|cpu]
                        [--fastest] [--grow] [--quick] [--markdown]

Each round runs every variant once, in an order that moves on, so that whatever else the machine does meets all of them
alike; medians of the rounds are compared. On a busy machine take the processor time, and the second table of --fastest:
what else the machine does only ever adds to a run. --grow shows the cost of a pair of allocation and free while the
number of events and of live blocks grows. A run that prints anything else than the plain one, or ends otherwise, is an
error. Exit status 1 only for that: a missed goal is shown.

Time added is that over the same allocator without tracking: over the proxy for the library, over the C library for
others. heaptrack is its recording alone, into /dev/null: its interpreter, which makes sites of what is recorded, is
left out (1.4 can't read its own record of some of these programs and ends them with it). gperftools writes one dump, at the
end, without names. The library's own times are whole: names, lines, reports and all.
"""
import argparse
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from collections import namedtuple
from pathlib import Path

from real_programs import real_programs

PROGRAM = namedtuple("PROGRAM", "name command pairs held is_real")
RUN = namedtuple("RUN", "wall cpu mib loop end sites output")  # seconds; loop in ns, end in ms
SWITCHES = {
    "shim": [],
    "mask 1": ["TARVANE_MEM_PROFILE_PER_BIN=1"],
    "mask 32": ["TARVANE_MEM_CHECK_LEAKS_FAST=1"],
    "mask 8": ["TARVANE_MEM_PROFILE_PER_FILELINE=1"],
    "mask 16": ["TARVANE_MEM_CHECK_LEAKS=1"],
    "mask 95": ["TARVANE_MEM_PROFILE_ALL=1"],
}
BASES = ["plain", "proxy"]
HEAPTRACK_SHARE = {"churn": 0.20, "python3": 0.25, "sqlite3": 0.35, "xmllint": 0.30, "phases": 0.30, "clang": 0.15,
                   "threads 2": 0.15}
TIMEOUT = 1200


def heaptrack_library():
    program = shutil.which("heaptrack")
    library = program and Path(program).resolve().parent.parent / "lib/heaptrack/libheaptrack_preload.so"
    return library if library and library.exists() else None


def variants(build, wanted):
    """Name -> variables, of what can run here."""
    library = f"LD_PRELOAD={build}/lib/libtbbamalloc.so {build}/lib/libvbx_mem_preload.so"
    found = {"plain": [], "proxy": ["LD_PRELOAD=libtbbmalloc_proxy.so.2"]}
    for name, switches in SWITCHES.items():
        # Programs of the system have no line information; without the key all their blocks would be in one row.
        found[name] = [library, "mem_profile_with_incomplete_fileline_info=on", *switches]
    if heaptrack_library():
        found["heaptrack"] = [f"LD_PRELOAD={heaptrack_library()}", "DUMP_HEAPTRACK_OUTPUT=/dev/null"]
    if any(Path("/usr/lib").glob("**/libtcmalloc.so.4")):
        found["gperftools"] = ["LD_PRELOAD=libtcmalloc.so.4", "HEAPPROFILE=heap", "HEAP_PROFILE_INUSE_INTERVAL=0",
                               "HEAP_PROFILE_ALLOCATION_INTERVAL=0"]
    for name in {"heaptrack", "gperftools", *wanted} - found.keys():
        print(f"left out: {name} is not installed", file=sys.stderr)
    return {name: variables for name, variables in found.items() if not wanted or name in [*BASES, *wanted]}


def workload(build, name, pairs, held=0, second=""):
    program = f"{build}/bench/programs/workloads"
    command = [program, name, str(pairs)] + ([str(held or second)] if held or second else [])
    return PROGRAM(f"{name} {second}".strip(), command, pairs, held, False)


def programs(build, folder, scale):
    yield PROGRAM("empty", [f"{build}/bench/startup/empty_program"], 0, 0, False)
    yield workload(build, "churn", int(10e6 * scale))
    yield workload(build, "threads", int(10e6 * scale), second="1")
    yield workload(build, "threads", int(10e6 * scale), second="2")
    yield workload(build, "live", int(5e6 * scale), held=int(1e6 * scale))
    yield workload(build, "phases", int(5e6 * scale))
    for name, command in real_programs(folder, scale):
        if command is None:
            print(f"left out: {name} is not installed", file=sys.stderr)
        else:
            yield PROGRAM(name, command, 0, 0, True)


def number_of_sites(folder):
    """Rows of the sites' report, without its head, its row OTHER and its last line."""
    report = next(Path(folder).glob("mem_tbb_fileline.*.log"), None)
    rows = report.read_text(errors="replace").splitlines() if report else []
    return sum(1 for row in rows if row.count("\t") > 10 and row[0] in "0123456789ABCDEF")


def run_once(build, program, variables):
    with tempfile.TemporaryDirectory() as folder:
        spawn = f"{build}/bench/startup/spawn_and_measure"
        command = [spawn, *variables, "PYTHONMALLOC=malloc", "--", *program.command]
        run = subprocess.run(command, cwd=folder, capture_output=True, timeout=TIMEOUT, check=True)
        ended = time.monotonic_ns()
        *output, measured = run.stdout.splitlines()
        wall, cpu, kib, status = (int(word) for word in measured.split())
        errors = run.stderr.decode(errors="replace")
        # The loader only complains about a library that it can't preload, and the run would measure nothing.
        if status != 0 or "cannot be preloaded" in errors:
            raise SystemExit(f"{command}: status {status}\n{errors}")
        stamps = re.search(r"^LOOP (\d+) END (\d+)$", errors, re.MULTILINE)
        loop, end = map(int, stamps.groups()) if stamps else (0, ended)
        return RUN(wall / 1e9, cpu / 1e9, kib / 1024, loop, (ended - end) / 1e6, number_of_sites(folder), output)


def measure(build, program, compared, rounds):
    """Variant -> its runs, without their output, which has to be the same in all."""
    runs = {name: [] for name in compared}
    for turn in range(rounds):
        names = list(compared)
        names = names[turn % len(names):] + names[:turn % len(names)]
        for name in names:
            runs[name].append(run_once(build, program, compared[name]))
    expected = runs["plain"][0].output
    for name, of_variant in runs.items():
        if any(run.output != expected for run in of_variant):
            raise SystemExit(f"{program.name} with {name} prints something else than the plain run")
    return {name: [run[:-1] for run in of_variant] for name, of_variant in runs.items()}


def summary(runs, statistic):
    """Variant -> one run made of each figure's median, or lowest value."""
    return {name: RUN(*map(statistic, zip(*of_variant)), None) for name, of_variant in runs.items()}


class TABLE:
    """The measured runs, and what follows from them."""

    def __init__(self, clock, programs, runs):
        self.clock, self.programs, self.runs = clock, programs, runs

    def seconds(self, program, variant):
        return getattr(self.runs[program][variant], self.clock)

    def added(self, program, variant):
        return self.seconds(program, variant) - self.seconds(program, "proxy" if variant in SWITCHES else "plain")

    def share(self, program, variant, other):
        """Time added, as a share of what another variant adds; None where that adds none."""
        of = self.added(program, other) if other in self.runs[program] else 0
        return self.added(program, variant) / of if of > 0 else None

    def ns_per_pair(self, program, variant):
        pairs = self.programs[program].pairs
        return self.runs[program][variant].loop / pairs if pairs else None

    def goals(self, name, variant):
        """(what, value, highest) of this row; a value of None can't be told from what was run."""
        program, runs = self.programs[name], self.runs[name]
        run, proxy = runs[variant], runs["proxy"]
        if program.is_real and variant in ("shim", "mask 1", "mask 32"):
            ratio = self.seconds(name, variant) / self.seconds(name, "proxy")
            yield "ratio", ratio, 1.01 if variant == "shim" else 1.08
        if variant in ("mask 8", "mask 16") and name in HEAPTRACK_SHARE:
            yield "of heaptrack's", self.share(name, variant, "heaptrack"), HEAPTRACK_SHARE[name]
        if variant == "mask 95" and name != "empty":
            yield "of mask 8's", self.share(name, variant, "mask 8"), 1.5
        if variant in ("mask 8", "mask 95") and name == "threads 2" and "threads 1" in self.runs:
            yield "of one thread", self.ns_per_pair(name, variant) / self.ns_per_pair("threads 1", variant), 0.75
        if variant == "mask 8" and program.held:
            yield "bytes a block", (run.mib - proxy.mib) * 2**20 / program.held, 96
        if variant == "mask 8" and name == "empty":
            yield "MiB fixed", run.mib - proxy.mib, 8
        if variant == "mask 8" and program.pairs:
            yield "ms at end", run.end - proxy.end, 50 + run.sites / 100

    def rows(self):
        yield ["program", "variant", "wall s", "cpu s", "/ proxy", "added s", "/ heaptrack", "ns/pair", "MiB", "end ms",
               "sites", "goals"]
        for name, runs in self.runs.items():
            has_loop = self.programs[name].pairs > 0
            for variant, run in runs.items():
                verdicts = [f"{what} {value:.3g} <= {highest:.3g} {'pass' if value <= highest else 'MISS'}"
                            for what, value, highest in self.goals(name, variant) if value is not None]
                added = None if variant in BASES else self.added(name, variant)
                share = None if variant in BASES else self.share(name, variant, "heaptrack")
                yield [name, variant, *map(cell, ("{:.3f}", "{:.3f}", "{:.3f}", "{:.3f}", "{:.2f}", "{:.0f}", "{:.1f}",
                                                  "{:.1f}", "{:.0f}"),
                                           (run.wall, run.cpu, self.seconds(name, variant) / self.seconds(name, "proxy"),
                                            added, share, self.ns_per_pair(name, variant), run.mib,
                                            run.end if has_loop else None, run.sites or None)), "; ".join(verdicts)]


def cell(form, value):
    return "" if value is None else form.format(value)


def growth_rows(build, rounds, scale):
    """ns a pair while the work grows; flat is the highest over the lowest."""
    compared = variants(build, ["mask 8", "mask 95"])
    yield ["program", "size", *compared]
    for name, sizes in (("events", (1e6, 5e6, 10e6, 50e6)), ("live blocks", (1e4, 1e5, 1e6, 5e6))):
        columns = {variant: [] for variant in compared}
        for size in (max(1000, int(size * scale)) for size in sizes):
            pairs, held = (size // 2, 0) if name == "events" else (int(5e6 * scale), size)
            program = workload(build, "live" if held else "churn", pairs, held)
            runs = summary(measure(build, program, compared, rounds), statistics.median)
            for variant, run in runs.items():
                columns[variant].append(run.loop / pairs)
            yield [name, str(size), *(f"{column[-1]:.0f}" for column in columns.values())]
        flat = {variant: max(column) / min(column) for variant, column in columns.items()}
        verdicts = (f"{value:.2f} {'pass' if value <= 1.25 else 'MISS'}" for value in flat.values())
        yield [name, "flat <= 1.25", *verdicts]


def print_table(rows, as_markdown):
    rows = list(rows)
    if as_markdown:
        rows.insert(1, ["---"] * len(rows[0]))
        print("\n".join("| " + " | ".join(row) + " |" for row in rows))
        return
    widths = [max(map(len, column)) for column in zip(*rows)]
    for row in rows:
        print("  ".join(f"{cell:<{width}}" for cell, width in zip(row, widths)).rstrip())


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", nargs="+", default=[])
    parser.add_argument("--against", nargs="+", default=[])
    parser.add_argument("--clock", choices=["wall", "cpu"], default="wall")
    parser.add_argument("--fastest", action="store_true", help="a second table, of each figure's lowest value")
    parser.add_argument("--grow", action="store_true")
    parser.add_argument("--quick", action="store_true", help="tiny, one round: that everything still runs")
    parser.add_argument("--markdown", action="store_true")
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    rounds, scale = (1, 0.002) if arguments.quick else (arguments.rounds, 1)
    if arguments.grow:
        print_table(growth_rows(build, rounds, scale), arguments.markdown)
        return
    chosen, measured = {}, {}
    compared = variants(build, arguments.against)
    with tempfile.TemporaryDirectory() as folder:
        for program in programs(build, Path(folder), scale):
            if not arguments.only or program.name in arguments.only:
                print(f"{program.name} ...", file=sys.stderr)
                chosen[program.name] = program
                measured[program.name] = measure(build, program, compared, rounds)
    too_short = ": too short to mean anything" if arguments.quick else ""
    for kind, statistic in {"medians": statistics.median, "fastest": min}.items():
        if kind == "medians" or arguments.fastest:
            runs = {name: summary(of_program, statistic) for name, of_program in measured.items()}
            print(f"{kind} of {rounds} rounds, ratios and goals by {arguments.clock} time{too_short}")
            print_table(TABLE(arguments.clock, chosen, runs).rows(), arguments.markdown)


if __name__ == "__main__":
    main()
