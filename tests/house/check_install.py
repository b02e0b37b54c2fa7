#!/usr/bin/env python3
"""Outside programs find the installed product and their allocations arrive.

    check_install.py BUILD_FOLDER PROJECT_FOLDER CXX

It is installed and then moved, so nothing can lean on where it was built or installed.
"""
import shutil
import sys
import tempfile
from pathlib import Path

import outside_programs


def main(build, project, compiler):
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        outside_programs.run("cmake", "--install", build, "--prefix", folder / "installed")
        prefix = Path(shutil.move(folder / "installed", folder / "moved"))
        found = list(outside_programs.faults(project, prefix, folder, compiler))
        page = prefix / "share/man/man7/vbx_mem.7"
        found += [] if page.is_file() else [f"{page} is missing"]
    print("\n".join(found) or "the installed product works linked, preloaded and loaded at run time")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]))
