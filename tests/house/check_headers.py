#!/usr/bin/env python3
"""Every public header compiles alone, for a host with strict warnings.

    check_headers.py INCLUDE_FOLDER COMPILER...    a compiler that the machine doesn't have is passed over
"""
import shutil
import subprocess
import sys
from pathlib import Path


def main(folder, compilers):
    present = [compiler for compiler in compilers if shutil.which(compiler)]
    headers = [path.relative_to(folder).as_posix() for path in sorted(folder.rglob("*.h"))]
    failed = not present or not headers
    for compiler in present:
        for header in headers:
            run = subprocess.run(
                [compiler, "-x", "c++", "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                 "-I", str(folder), "-"],
                input=f"#include <{header}>\n", capture_output=True, text=True)
            if run.returncode != 0:
                print(f"{compiler}: {header}\n{run.stderr}")
                failed = True
    print(f"{len(headers)} headers with {present}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), sys.argv[2:]))
