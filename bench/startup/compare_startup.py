#!/usr/bin/env python3
"""Start and end of an empty program, whole: wall time, processor time and peak resident memory, as a table.

    compare_startup.py BUILD_FOLDER [--rounds N]

Each round runs every configuration once, so that whatever else the machine does meets all of them alike; the medians
of the rounds are compared. On a busy machine the processor time is the one to look at. The goal is no more than 5 ms and 4 MiB above the proxy while no switch is set.
"""
import argparse
import statistics
import subprocess
import tempfile
from pathlib import Path

SWITCHES = [
    "TARVANE_MEM_PROFILE_PER_BIN", "TARVANE_MEM_PROFILE_BIN_TAG_PLOT", "TARVANE_MEM_PROFILE_PER_LIBRARY",
    "TARVANE_MEM_PROFILE_PER_FILELINE", "TARVANE_MEM_CHECK_LEAKS", "TARVANE_MEM_CHECK_LEAKS_FAST",
    "TARVANE_MEM_PROFILE_AUXILIARY_TIMELINE", "TARVANE_MEM_PROFILE_ALL",
]
REFERENCE = "libtbbmalloc_proxy"


def configurations(build):
    shim = f"{build}/lib/libtbbamalloc.so"
    library = f"LD_PRELOAD={shim} {build}/lib/libvbx_mem_preload.so"
    yield "plain", []
    yield REFERENCE, ["LD_PRELOAD=libtbbmalloc_proxy.so.2"]
    yield "shim", [f"LD_PRELOAD={shim}"]
    yield "library, no switch", [library]
    for switch in SWITCHES:
        yield switch, [library, switch + "=1"]


def measure(build, variables, folder):
    """Wall and processor milliseconds and MiB of one run."""
    command = [f"{build}/bench/startup/spawn_and_measure", *variables, "--", f"{build}/bench/startup/empty_program"]
    run = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=60, check=True)
    wall, processor, kibibytes, status = (int(word) for word in run.stdout.split())
    # The loader only complains about a library that it can't preload, and the run would measure nothing.
    if status != 0 or "cannot be preloaded" in run.stderr:
        raise SystemExit(f"{command}: status {status}\n{run.stderr}")
    return wall / 1e6, processor / 1e6, kibibytes / 1024


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--rounds", type=int, default=25)
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    samples = {name: [] for name, _ in configurations(build)}
    with tempfile.TemporaryDirectory() as folder:
        for _ in range(arguments.rounds):
            for name, variables in configurations(build):
                samples[name].append(measure(build, variables, folder))
    medians = {name: [statistics.median(column) for column in zip(*rows)] for name, rows in samples.items()}
    print(f"{'medians of ' + str(arguments.rounds) + ' rounds':40}"
          + "".join(f"{unit:>9}{'+ proxy':>9}" for unit in ("wall ms", "cpu ms", "MiB")))
    for name, figures in medians.items():
        pairs = zip(figures, medians[REFERENCE])
        print(f"{name:40}" + "".join(f"{figure:9.2f}{figure - reference:9.2f}" for figure, reference in pairs))


if __name__ == "__main__":
    main()
